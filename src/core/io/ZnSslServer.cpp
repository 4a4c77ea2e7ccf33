#include "core/io/ZnSslServer.h"

#include "core/io/ZnSslServerContext.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/runtime/ZnTimer.h"
#include "core/types/ZnLogger.h"

namespace {

constexpr const char* kCategory = "zn.core.io.zntcpserver";
constexpr long long kReportIntervalNs = 1'000'000'000LL;

} // namespace

ZnSslServer::~ZnSslServer() {
    close();
    abortHandshakes();
}

ZnList<ZnSslLocalCredential> ZnSslServer::makeLocalCredentials_(const ZnString& certificatePath,
                                                                const ZnString& privateKeyPath) {
    ZnSslLocalCredential credential;
    credential.certificatePath = certificatePath.trimmed();
    credential.privateKeyPath = privateKeyPath.trimmed();
    credential.isDefault = true;
    if (credential.certificatePath.isEmpty() || credential.privateKeyPath.isEmpty())
        return {};
    return {credential};
}

bool ZnSslServer::reloadLocalCredentials(const ZnList<ZnSslLocalCredential>& credentials) {
    ZnList<ZnSslLocalCredential> usable;
    for (const ZnSslLocalCredential& entry : credentials) {
        ZnSslLocalCredential credential;
        credential.hostName = entry.hostName.trimmed();
        credential.certificatePath = entry.certificatePath.trimmed();
        credential.privateKeyPath = entry.privateKeyPath.trimmed();
        credential.isDefault = entry.isDefault;
        if (!credential.certificatePath.isEmpty() && !credential.privateKeyPath.isEmpty())
            usable.append(credential);
    }
    if (usable.isEmpty()) {
        ZN_LOG_ERROR(kCategory, "ZnSslServer::reloadLocalCredentials") << "TLS init failed: no certificate configured";
        return false;
    }
    ZnString errorText;
    std::shared_ptr<const ZnSslServerContext> context = ZnSslServerContext::buildServerContext_(usable, &errorText);
    if (!context) {
        ZN_LOG_ERROR(kCategory, "ZnSslServer::reloadLocalCredentials") << "TLS init failed: " << errorText;
        return false;
    }
    context_ = std::move(context);
    return true;
}

bool ZnSslServer::listen(const ZnString& address, unsigned short port) {
    if (!context_) {
        ZN_LOG_ERROR(kCategory, "ZnSslServer::listen") << "TLS credentials not configured";
        return false;
    }
    return ZnTcpServer::listen(address, port);
}

ZnTcpSocket* ZnSslServer::createSocket_() {
    if (handshakes_.size() < maxHandshakes_)
        return new ZnSslSocket;
    reportRefusal_();
    return nullptr;
}

void ZnSslServer::reportRefusal_() {
    const long long nowNs = monotonicNowNs();
    if (lastRefusalReportNs_ != 0 && nowNs - lastRefusalReportNs_ < kReportIntervalNs)
        return;
    lastRefusalReportNs_ = nowNs;
    ZN_LOG_WARNING(kCategory, "ZnSslServer::createSocket_")
        << "[ZnSslServer] " << handshakes_.size() << " TLS handshakes under way, refusing connections";
}

bool ZnSslServer::finalizeAcceptedSocket_(ZnTcpSocket* socket) {
    auto* sslSocket = static_cast<ZnSslSocket*>(socket); // from createSocket_
    ZN_LOG_DEBUG(kCategory, "ZnSslServer::finalizeAcceptedSocket_")
        << "[ZnSslServer] accepted TCP socket, starting TLS handshake";
    watchHandshake_(sslSocket);
    const ZnPointer<ZnSslServer> self(this);
    const bool hasBegun = sslSocket->startServerEncryption(context_);
    if (self && !hasBegun)
        onHandshakeFailed_(sslSocket);
    return true; // a failed one has been closed and given to the loop for deletion
}

void ZnSslServer::watchHandshake_(ZnSslSocket* socket) {
    ZnTimer* timer = nullptr;
    socket->connect(&ZnSslSocket::encrypted, this, [this, socket] { onEncrypted_(socket); });
    socket->connect(&ZnAbstractSocket::errorOccurred, this, [this, socket](int) { onHandshakeFailed_(socket); });
    socket->connect(&ZnAbstractSocket::disconnected, this, [this, socket] { onHandshakeFailed_(socket); });
    if (handshakeTimeoutMs_ > 0) {
        timer = new ZnTimer(socket);
        timer->setSingleShot(true);
        timer->connect(&ZnTimer::timeout, this, [this, socket] { onHandshakeFailed_(socket); });
        timer->start(handshakeTimeoutMs_);
    }
    handshakes_.emplace(socket, timer);
}

/// Decides a handshake, once: after it the socket belongs to somebody else. False: it is decided already.
bool ZnSslServer::takeHandshake_(ZnSslSocket* socket) {
    const auto found = handshakes_.find(socket);
    if (found == handshakes_.end())
        return false;
    if (ZnTimer* timer = found->second) {
        timer->stop();
        timer->deleteLater();
    }
    handshakes_.erase(found);
    socket->disconnectReceiver(this);
    return true;
}

void ZnSslServer::onEncrypted_(ZnSslSocket* socket) {
    if (!takeHandshake_(socket))
        return;
    ZN_LOG_DEBUG(kCategory, "ZnSslServer::finalizeAcceptedSocket_")
        << "[ZnSslServer] TLS handshake completed, queueing connection";
    pending_.push_back(socket);
    newConnection();
}

void ZnSslServer::onHandshakeFailed_(ZnSslSocket* socket) {
    if (!takeHandshake_(socket))
        return;
    ZN_LOG_ERROR(kCategory, "ZnSslServer::finalizeAcceptedSocket_")
        << "[ZnSslServer] TLS handshake failed or socket closed before encryption";
    const ZnPointer<ZnSslSocket> guard(socket);
    socket->close();
    if (guard)
        socket->deleteLater();
}

void ZnSslServer::abortHandshakes() {
    while (!handshakes_.empty()) {
        ZnSslSocket* socket = handshakes_.begin()->first;
        takeHandshake_(socket);
        socket->deleteLater();
        socket->close();
    }
}
