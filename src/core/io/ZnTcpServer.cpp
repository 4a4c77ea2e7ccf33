#include "core/io/ZnTcpServer.h"

#include "core/platform/ZnMonotonicClock.h"
#include "core/platform/ZnSocketError.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnTimer.h"
#include "core/types/ZnLogger.h"

namespace {

constexpr const char* kCategory = "zn.core.io.zntcpserver";
/// Connections taken in one go; then others get their turn.
constexpr int kAcceptsPerEvent = 64;
/// How long the listener rests when the process has run out of descriptors or memory.
constexpr int kBackOffMs = 100;
constexpr long long kReportIntervalNs = 1000000000LL;

using Family = ZnSocketAddress::Family;

ZnString normalizeBindAddress(const ZnString& text) {
    const ZnString trimmed = text.trimmed();
    const bool isBracketed = trimmed.size() >= 3 && trimmed.startsWith("[") && trimmed.endsWith("]");
    return isBracketed ? ZnString(trimmed.view().substr(1, trimmed.size() - 2)) : trimmed;
}

/// The address to bind for a normalized host; family None when there is none.
ZnSocketAddress resolveBindAddress(const ZnString& host, unsigned short port, bool* dualStack) {
    const bool isWildcard = host.isEmpty() || host == "::";
    const Family asked = host.contains(":")   ? Family::IPv6
                         : host.contains(".") ? Family::IPv4
                                              : Family::None;
    const Family wanted = asked == Family::None && isWildcard ? Family::IPv6 : asked;
    ZnSocketAddress chosen = ZnSocketAddress::fromNumeric(host, port);
    if (chosen.family() == Family::None) {
        for (const ZnSocketAddress& address : ZnResolver::resolvePassive(host, asked, port)) {
            const bool isWanted = address.family() == wanted;
            if (chosen.family() == Family::None || isWanted)
                chosen = address;
            if (isWanted)
                break;
        }
    }
    *dualStack = chosen.family() == Family::IPv6 && isWildcard;
    return chosen;
}

} // namespace

ZnTcpServer::ZnTcpServer(ZnObject* parent) : ZnObject(parent) {}

ZnTcpServer::~ZnTcpServer() {
    close();
    for (ZnTcpSocket* socket : pending_)
        delete socket;
}

bool ZnTcpServer::listen(const ZnString& address, unsigned short port) {
    const ZnString host = normalizeBindAddress(address);
    if (isListening() && localPort_ == port && boundHost_ == host)
        return true;
    close();
    bool dualStack = false;
    const ZnSocketAddress bindAddress = resolveBindAddress(host, port, &dualStack);
    if (bindAddress.family() == Family::None) {
        ZN_LOG_ERROR(kCategory, "ZnTcpServer::listen") << "invalid bind address: " << address;
        return false;
    }
    if (!openListener_(bindAddress, dualStack) || !watchListener_()) {
        close();
        return false;
    }
    boundHost_ = host;
    const ZnSocketAddress local = handle_->localAddress();
    localAddress_ = local.text();
    localPort_ = local.port();
    return true;
}

bool ZnTcpServer::openListener_(const ZnSocketAddress& bindAddress, bool dualStack) {
    int error = 0;
    handle_ = ZnSocketHandle::open(bindAddress.family(), &error);
    if (!handle_) {
        ZN_LOG_ERROR(kCategory, "ZnTcpServer::createListenSocket_") << "WSASocket failed: " << error;
        return false;
    }
    if (bindAddress.family() == Family::IPv6)
        handle_->setDualStack(dualStack); // refused: the socket serves IPv6 alone
    const char* step = "";
    error = handle_->bindAndListen(bindAddress, &step);
    if (error != 0)
        ZN_LOG_ERROR(kCategory, "ZnTcpServer::bindResolvedAddress_") << step << " failed: " << error;
    return error == 0;
}

bool ZnTcpServer::watchListener_() {
    ZnCoreApplication* application = ZnCoreApplication::instance();
    if (application == nullptr)
        return false;
    waitId_ = application->ioDispatcher().watchHandle(handle_, [self = ZnPointer<ZnTcpServer>(this)](unsigned) {
        if (self)
            self->onCheckEvents_();
    });
    return waitId_ != 0;
}

void ZnTcpServer::close() {
    ZnCoreApplication* application = ZnCoreApplication::instance();
    if (waitId_ != 0 && application != nullptr)
        application->ioDispatcher().unwatch(waitId_);
    waitId_ = 0;
    if (handle_)
        handle_->closeDescriptor();
    handle_.reset();
    localPort_ = 0;
    localAddress_.clear();
    boundHost_.clear();
}

void ZnTcpServer::onCheckEvents_() {
    if (!handle_ || (handle_->takeEvents().mask & ZnNetworkEvents::kAccept) == 0 || backingOff_)
        return;
    const ZnPointer<ZnTcpServer> self(this);
    const std::shared_ptr<ZnSocketHandle> listener = handle_; // a receiver may close or delete this server
    for (int accepted = 0; accepted < kAcceptsPerEvent; ++accepted) {
        int error = 0;
        std::shared_ptr<ZnSocketHandle> handle = listener->accept(&error);
        if (!handle) {
            if (error != ZnSocketError::kWouldBlock)
                backOff_(error);
            return;
        }
        acceptDescriptor_(std::move(handle));
        if (!self || handle_ != listener)
            return;
    }
    acceptAgain_(); // there may be more
}

void ZnTcpServer::acceptAgain_() {
    if (!handle_)
        return;
    handle_->noteReady(ZnReadiness::kInput);
    if (ZnCoreApplication* application = ZnCoreApplication::instance())
        application->ioDispatcher().signal(waitId_);
}

void ZnTcpServer::backOff_(int error) {
    // The waiting connections stay in the system's queue. Trying again at once would spin until a descriptor is free.
    const long long nowNs = monotonicNowNs();
    if (nowNs - lastAcceptReportNs_ >= kReportIntervalNs || lastAcceptReportNs_ == 0) {
        lastAcceptReportNs_ = nowNs;
        ZN_LOG_ERROR(kCategory, "ZnTcpServer::onCheckEvents_") << "accept failed: " << error;
    }
    backingOff_ = true;
    ZnTimer::singleShot(kBackOffMs, [self = ZnPointer<ZnTcpServer>(this)] {
        if (!self)
            return;
        self->backingOff_ = false;
        self->acceptAgain_();
    });
}

void ZnTcpServer::acceptDescriptor_(std::shared_ptr<ZnSocketHandle> handle) {
    ZnTcpSocket* socket = createSocket_();
    if (socket == nullptr)
        return;
    const ZnPointer<ZnTcpServer> self(this);
    const ZnPointer<ZnTcpSocket> guard(socket);
    socket->adoptDescriptor(std::move(handle), emitConnectedOnAdopt_());
    if (!self || !guard || finalizeAcceptedSocket_(socket) || !guard)
        return;
    socket->close();
    if (guard)
        socket->deleteLater();
}

ZnTcpSocket* ZnTcpServer::createSocket_() {
    return new ZnTcpSocket;
}

bool ZnTcpServer::finalizeAcceptedSocket_(ZnTcpSocket* socket) {
    pending_.push_back(socket);
    newConnection();
    return true;
}

ZnTcpSocket* ZnTcpServer::nextPendingConnection() {
    if (pending_.empty())
        return nullptr;
    ZnTcpSocket* socket = pending_.front();
    pending_.pop_front();
    return socket;
}

void ZnTcpServer::newConnection() {
    emitSignal(&ZnTcpServer::newConnection);
}
