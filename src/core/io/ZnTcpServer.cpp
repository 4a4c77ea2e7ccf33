#include "core/io/ZnTcpServer.h"

#include "core/platform/ZnMonotonicClock.h"
#include "core/platform/ZnSocketError.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnTimer.h"
#include "core/types/ZnLogger.h"

#include <algorithm>

namespace {

constexpr const char* kCategory = "zn.core.io.zntcpserver";
/// Connections taken in one go; then others get their turn.
constexpr int kAcceptsPerEvent = 64;
/// How long the listener rests when the process has run out of descriptors or memory.
constexpr int kBackOffMs = 100;
constexpr int kMaxPortTries = 10;
constexpr long long kReportIntervalNs = 1000000000LL;

using Family = ZnSocketAddress::Family;

ZnString normalizeBindAddress(const ZnString& text) {
    const ZnString trimmed = text.trimmed();
    const bool isBracketed = trimmed.size() >= 3 && trimmed.startsWith("[") && trimmed.endsWith("]");
    return isBracketed ? ZnString(trimmed.view().substr(1, trimmed.size() - 2)) : trimmed;
}

bool isWildcard(const ZnString& host) {
    return host.isEmpty() || host == "::";
}

/// The addresses to bind for a normalized host: all of a name, one of a wildcard or a number. Empty: there is none.
ZnResolver::Result resolveBindAddresses(const ZnString& host, unsigned short port) {
    const ZnSocketAddress numeric = ZnSocketAddress::fromNumeric(host, port);
    if (numeric.family() != Family::None)
        return {numeric};
    ZnResolver::Result addresses;
    for (const ZnSocketAddress& address : ZnResolver::resolvePassive(host, port)) {
        const auto isSame = [&](const ZnSocketAddress& other) { return other.text() == address.text(); };
        if (std::none_of(addresses.begin(), addresses.end(), isSame)) // the hosts file may give one twice
            addresses.push_back(address);
    }
    if (!host.isEmpty() || addresses.empty())
        return addresses;
    const auto isIPv6 = [](const ZnSocketAddress& address) { return address.family() == Family::IPv6; };
    const auto ofBothFamilies = std::find_if(addresses.begin(), addresses.end(), isIPv6);
    return {ofBothFamilies != addresses.end() ? *ofBothFamilies : addresses.front()};
}

/// The system knows no such address of its own, or not even the family: the others of a name serve without it.
bool isForeign(int error) {
    return error == ZnSocketError::kAddressNotAvailable || error == ZnSocketError::kFamilyNotSupported;
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
    const ZnResolver::Result addresses = resolveBindAddresses(host, port);
    listenError_ = 0;
    if (addresses.empty()) {
        listenError_ = ZnSocketError::kHostNotFound;
        ZN_LOG_ERROR(kCategory, "ZnTcpServer::listen") << "invalid bind address: " << address;
        return false;
    }
    // A port that the system has chosen for the first address may be taken at another one.
    int error = ZnSocketError::kAddressInUse;
    const int maxTries = port == 0 && addresses.size() > 1 ? kMaxPortTries : 1;
    for (int tryCount = 0; tryCount < maxTries && error == ZnSocketError::kAddressInUse; ++tryCount) {
        close();
        error = listenOnAll_(addresses, isWildcard(host));
    }
    if (error != 0) {
        listenError_ = error;
        ZN_LOG_ERROR(kCategory, "ZnTcpServer::listen") << failedStep_ << " failed: " << error;
        close();
        return false;
    }
    boundHost_ = host;
    return true;
}

int ZnTcpServer::listenOnAll_(const ZnResolver::Result& addresses, bool isDualStack) {
    int error = 0;
    for (const ZnSocketAddress& address : addresses) {
        const int result = listenOn_(localPort_ == 0 ? address : address.withPort(localPort_), isDualStack);
        if (result != 0 && !isForeign(result))
            return result;
        error = error == 0 ? result : error;
    }
    return isListening() ? 0 : error;
}

int ZnTcpServer::listenOn_(const ZnSocketAddress& address, bool isDualStack) {
    int error = 0;
    failedStep_ = "WSASocket";
    const std::shared_ptr<ZnSocketHandle> handle = ZnSocketHandle::open(address.family(), &error);
    if (!handle)
        return error;
    if (address.family() == Family::IPv6)
        handle->setDualStack(isDualStack); // refused: the socket serves IPv6 alone
    error = handle->bindAndListen(address, &failedStep_);
    if (error != 0)
        return error;
    const unsigned long long waitId = watch_(handle);
    if (waitId == 0) {
        failedStep_ = "watch";
        return ZnSocketError::kNoBufferSpace;
    }
    if (!isListening()) {
        const ZnSocketAddress local = handle->localAddress();
        localAddress_ = local.text();
        localPort_ = local.port();
    }
    listeners_.push_back({handle, waitId});
    return 0;
}

unsigned long long ZnTcpServer::watch_(const std::shared_ptr<ZnSocketHandle>& handle) {
    ZnCoreApplication* application = ZnCoreApplication::instance();
    if (application == nullptr)
        return 0;
    const ZnPointer<ZnTcpServer> self(this);
    return application->ioDispatcher().watchHandle(handle, [self, handle](unsigned) {
        if (self)
            self->onCheckEvents_(handle);
    });
}

void ZnTcpServer::close() {
    ZnCoreApplication* application = ZnCoreApplication::instance();
    for (const Listener_& listener : std::exchange(listeners_, {})) {
        if (application != nullptr)
            application->ioDispatcher().unwatch(listener.waitId);
        listener.handle->closeDescriptor();
    }
    localPort_ = 0;
    localAddress_.clear();
    boundHost_.clear();
}

void ZnTcpServer::onCheckEvents_(const std::shared_ptr<ZnSocketHandle>& watched) {
    const std::shared_ptr<ZnSocketHandle> handle = watched; // a receiver may close or delete this server
    if ((handle->takeEvents().mask & ZnNetworkEvents::kAccept) == 0 || backingOff_)
        return;
    const ZnPointer<ZnTcpServer> self(this);
    for (int accepted = 0; accepted < kAcceptsPerEvent; ++accepted) {
        int error = 0;
        std::shared_ptr<ZnSocketHandle> connection = handle->accept(&error);
        if (!connection) {
            if (error != ZnSocketError::kWouldBlock)
                backOff_(error);
            return;
        }
        acceptDescriptor_(std::move(connection));
        if (!self || handle->descriptor() < 0)
            return;
    }
    acceptAgain_(); // there may be more
}

void ZnTcpServer::acceptAgain_() {
    for (const Listener_& listener : listeners_) {
        listener.handle->noteReady(ZnReadiness::kInput);
        if (ZnCoreApplication* application = ZnCoreApplication::instance())
            application->ioDispatcher().signal(listener.waitId);
    }
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
