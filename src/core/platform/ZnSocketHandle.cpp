#include "core/platform/ZnSocketHandle.h"

#include "core/platform/ZnSocketError.h"

#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstring>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

static_assert(sizeof(sockaddr_in6) <= 32 && sizeof(sockaddr_in) <= 32);

namespace {

constexpr unsigned char kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

int lastError() {
    return ZnSocketError::fromErrno(errno);
}

bool setFlag(int descriptor, int level, int option, int value) {
    return ::setsockopt(descriptor, level, option, &value, sizeof(value)) == 0;
}

using AddressQuery_ = int (*)(int, sockaddr*, socklen_t*);

ZnSocketAddress askAddress(AddressQuery_ query, int descriptor) {
    sockaddr_storage storage = {};
    socklen_t byteCount = sizeof(storage);
    if (query(descriptor, reinterpret_cast<sockaddr*>(&storage), &byteCount) != 0)
        return {};
    return ZnSocketAddress(&storage, byteCount);
}

} // namespace

ZnSocketAddress::ZnSocketAddress(const void* systemAddress, std::size_t byteCount) noexcept {
    sa_family_t systemFamily = AF_UNSPEC;
    if (byteCount < sizeof(sockaddr_in) || byteCount > sizeof(sockaddr_storage))
        return;
    std::memcpy(&systemFamily, static_cast<const char*>(systemAddress) + offsetof(sockaddr, sa_family),
                sizeof(systemFamily));
    if (systemFamily == AF_INET) {
        family_ = Family::IPv4;
        byteCount_ = sizeof(sockaddr_in);
    } else if (systemFamily == AF_INET6 && byteCount >= sizeof(sockaddr_in6)) {
        family_ = Family::IPv6;
        byteCount_ = sizeof(sockaddr_in6);
    }
    std::memcpy(storage_, systemAddress, byteCount_);
}

ZnSocketAddress ZnSocketAddress::fromNumeric(const ZnString& text, unsigned short port) {
    sockaddr_in address4 = {};
    if (::inet_pton(AF_INET, text.data(), &address4.sin_addr) == 1) {
        address4.sin_family = AF_INET;
        address4.sin_port = htons(port);
        return ZnSocketAddress(&address4, sizeof(address4));
    }
    sockaddr_in6 address6 = {};
    if (::inet_pton(AF_INET6, text.data(), &address6.sin6_addr) == 1) {
        address6.sin6_family = AF_INET6;
        address6.sin6_port = htons(port);
        return ZnSocketAddress(&address6, sizeof(address6));
    }
    return {};
}

ZnString ZnSocketAddress::text() const {
    char text[INET6_ADDRSTRLEN] = {};
    if (family_ == Family::IPv4) {
        sockaddr_in address;
        std::memcpy(&address, storage_, sizeof(address));
        ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
    } else if (family_ == Family::IPv6) {
        sockaddr_in6 address;
        std::memcpy(&address, storage_, sizeof(address));
        const unsigned char* bytes = address.sin6_addr.s6_addr;
        if (std::memcmp(bytes, kMappedPrefix, sizeof(kMappedPrefix)) == 0)
            ::inet_ntop(AF_INET, bytes + sizeof(kMappedPrefix), text, sizeof(text));
        else
            ::inet_ntop(AF_INET6, bytes, text, sizeof(text));
    }
    return ZnString(text);
}

unsigned short ZnSocketAddress::port() const noexcept {
    // The port stands at the same place in both families' forms.
    static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
    in_port_t port = 0;
    std::memcpy(&port, storage_ + offsetof(sockaddr_in, sin_port), sizeof(port));
    return ntohs(port);
}

ZnSocketAddress ZnSocketAddress::withPort(unsigned short port) const noexcept {
    ZnSocketAddress changed = *this;
    const in_port_t systemPort = htons(port);
    std::memcpy(changed.storage_ + offsetof(sockaddr_in, sin_port), &systemPort, sizeof(systemPort));
    return changed;
}

std::shared_ptr<ZnSocketHandle> ZnSocketHandle::open(ZnSocketAddress::Family family, int* error) {
    const int systemFamily = family == ZnSocketAddress::Family::IPv6 ? AF_INET6 : AF_INET;
    ZnFileDescriptor descriptor(::socket(systemFamily, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
    if (!descriptor) {
        *error = lastError();
        return nullptr;
    }
    setFlag(descriptor.get(), IPPROTO_TCP, TCP_NODELAY, 1);
    return std::shared_ptr<ZnSocketHandle>(new ZnSocketHandle(std::move(descriptor), Phase_::Fresh));
}

int ZnSocketHandle::connect(const ZnSocketAddress& address) {
    int result = 0;
    do {
        result = ::connect(descriptor(), static_cast<const sockaddr*>(address.systemAddress()),
                           static_cast<socklen_t>(address.byteCount()));
    } while (result != 0 && errno == EINTR);
    if (result == 0) {
        phase_ = Phase_::Connected;
        return 0;
    }
    phase_ = Phase_::Connecting;
    return lastError();
}

int ZnSocketHandle::bindAndListen(const ZnSocketAddress& address, const char** step) {
    // A port whose old connections are still winding down may be bound again, as users of a restarted agent expect.
    setFlag(descriptor(), SOL_SOCKET, SO_REUSEADDR, 1);
    *step = "bind";
    if (::bind(descriptor(), static_cast<const sockaddr*>(address.systemAddress()),
               static_cast<socklen_t>(address.byteCount())) != 0)
        return lastError();
    *step = "listen";
    if (::listen(descriptor(), INT_MAX) != 0)
        return lastError();
    phase_ = Phase_::Listening;
    return 0;
}

bool ZnSocketHandle::setDualStack(bool dualStack) {
    return setFlag(descriptor(), IPPROTO_IPV6, IPV6_V6ONLY, dualStack ? 0 : 1);
}

std::shared_ptr<ZnSocketHandle> ZnSocketHandle::accept(int* error) {
    sockaddr_storage peer = {};
    socklen_t peerBytes = sizeof(peer);
    int descriptorNumber = -1;
    do {
        peerBytes = sizeof(peer);
        descriptorNumber =
            ::accept4(descriptor(), reinterpret_cast<sockaddr*>(&peer), &peerBytes, SOCK_NONBLOCK | SOCK_CLOEXEC);
        // A connection that was reset while it waited is no reason to stop.
    } while (descriptorNumber < 0 && (errno == EINTR || errno == ECONNABORTED));
    if (descriptorNumber < 0) {
        *error = lastError();
        return nullptr;
    }
    ZnFileDescriptor accepted(descriptorNumber);
    setFlag(accepted.get(), IPPROTO_TCP, TCP_NODELAY, 1);
    std::shared_ptr<ZnSocketHandle> handle(new ZnSocketHandle(std::move(accepted), Phase_::Connected));
    handle->peerAddress_ = ZnSocketAddress(&peer, peerBytes);
    return handle;
}

ZnSocketHandle::Transfer ZnSocketHandle::receive(char* buffer, std::size_t capacity) {
    ssize_t received = -1;
    do {
        received = ::recv(descriptor(), buffer, capacity, 0);
    } while (received < 0 && errno == EINTR);
    if (received < 0) {
        const int error = lastError();
        maybeReadable_ = false;
        return {0, error};
    }
    const auto byteCount = static_cast<std::size_t>(received);
    // Short: the system has no more now, and what comes later is an event of its own. The end of stream is
    // no such thing: it has been announced already, and the reader must still find it.
    if (byteCount < capacity && !closeSeen_)
        maybeReadable_ = false;
    return {byteCount, 0};
}

ZnSocketHandle::Transfer ZnSocketHandle::send(const char* first, std::size_t firstBytes, const char* second,
                                              std::size_t secondBytes) {
    iovec parts[2] = {{const_cast<char*>(first), firstBytes}, {const_cast<char*>(second), secondBytes}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = secondBytes == 0 ? 1 : 2;
    ssize_t sent = -1;
    do {
        sent = secondBytes == 0 ? ::send(descriptor(), first, firstBytes, MSG_NOSIGNAL)
                                : ::sendmsg(descriptor(), &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        const int error = lastError();
        wantsWriteEvent_ = wantsWriteEvent_ || error == ZnSocketError::kWouldBlock;
        return {0, error};
    }
    // What did not fit is as good as a send that would have blocked: the system tells when there is room again.
    if (static_cast<std::size_t>(sent) < firstBytes + secondBytes)
        wantsWriteEvent_ = true;
    return {static_cast<std::size_t>(sent), 0};
}

bool ZnSocketHandle::noteReady(std::uint32_t readiness) {
    if (phase_ == Phase_::Listening) {
        if ((readiness & (ZnReadiness::kInput | ZnReadiness::kError)) != 0)
            pending_.mask |= ZnNetworkEvents::kAccept;
        return pending_.mask != 0;
    }
    if (phase_ == Phase_::Fresh)
        return false;
    if (phase_ == Phase_::Connecting) {
        noteConnectResult_(readiness);
        if (phase_ == Phase_::Connecting || pending_.connectError != 0)
            return pending_.mask != 0;
    }
    constexpr std::uint32_t kClosing = ZnReadiness::kPeerClosed | ZnReadiness::kError;
    if ((readiness & (ZnReadiness::kInput | kClosing)) != 0) {
        maybeReadable_ = true;
        pending_.mask |= ZnNetworkEvents::kRead;
    }
    if ((readiness & (ZnReadiness::kOutput | ZnReadiness::kError)) != 0 && wantsWriteEvent_) {
        wantsWriteEvent_ = false;
        pending_.mask |= ZnNetworkEvents::kWrite;
    }
    if ((readiness & kClosing) != 0 && !closeSeen_) {
        closeSeen_ = true;
        pending_.mask |= ZnNetworkEvents::kClose;
    }
    return pending_.mask != 0;
}

void ZnSocketHandle::noteConnectResult_(std::uint32_t readiness) {
    constexpr std::uint32_t kDecided = ZnReadiness::kOutput | ZnReadiness::kPeerClosed | ZnReadiness::kError;
    if ((readiness & kDecided) == 0)
        return;
    int errnoValue = 0;
    socklen_t byteCount = sizeof(errnoValue);
    const bool mayHaveFailed = (readiness & (ZnReadiness::kPeerClosed | ZnReadiness::kError)) != 0;
    if (mayHaveFailed && ::getsockopt(descriptor(), SOL_SOCKET, SO_ERROR, &errnoValue, &byteCount) != 0)
        errnoValue = errno;
    phase_ = Phase_::Connected;
    pending_.mask |= ZnNetworkEvents::kConnect;
    pending_.connectError = errnoValue == 0 ? 0 : ZnSocketError::fromErrno(errnoValue);
}

ZnNetworkEvents ZnSocketHandle::takeEvents() {
    return std::exchange(pending_, {});
}

int ZnSocketHandle::failure() const {
    tcp_info info = {};
    socklen_t infoBytes = sizeof(info);
    if (::getsockopt(descriptor(), IPPROTO_TCP, TCP_INFO, &info, &infoBytes) == 0 && info.tcpi_state != TCP_CLOSE)
        return 0;
    int errnoValue = 0; // 0: a read or a write has been told already
    socklen_t byteCount = sizeof(errnoValue);
    ::getsockopt(descriptor(), SOL_SOCKET, SO_ERROR, &errnoValue, &byteCount);
    return errnoValue == 0 ? ZnSocketError::kConnectionReset : ZnSocketError::fromErrno(errnoValue);
}

bool ZnSocketHandle::isQuiet() const {
    char byte = 0;
    return ::recv(descriptor(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

bool ZnSocketHandle::hasPeerFinished() const {
    pollfd state = {descriptor(), POLLRDHUP, 0};
    return ::poll(&state, 1, 0) > 0 && (state.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

std::size_t ZnSocketHandle::unacknowledgedBytes() const {
    int byteCount = 0;
    return ::ioctl(descriptor(), SIOCOUTQ, &byteCount) == 0 && byteCount > 0 ? static_cast<std::size_t>(byteCount) : 0;
}

const ZnSocketAddress& ZnSocketHandle::peerAddress() const {
    if (peerAddress_.family() == ZnSocketAddress::Family::None)
        peerAddress_ =
            askAddress([](int fd, sockaddr* address, socklen_t* bytes) { return ::getpeername(fd, address, bytes); },
                       descriptor());
    return peerAddress_;
}

ZnSocketAddress ZnSocketHandle::localAddress() const {
    return askAddress([](int fd, sockaddr* address, socklen_t* bytes) { return ::getsockname(fd, address, bytes); },
                      descriptor());
}
