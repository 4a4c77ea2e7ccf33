#include "core/platform/ZnLogPeer.h"

#include <cerrno>
#include <memory>

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using AddressList = std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>;

AddressList resolve(const ZnString& host, unsigned short port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.data(), ZnString::number(static_cast<int>(port)).data(), &hints, &found) != 0)
        found = nullptr;
    return AddressList(found, &::freeaddrinfo);
}

/// An interrupted connect goes on in the background: waits for its outcome.
bool awaitConnected(int socket) {
    pollfd waited{socket, POLLOUT, 0};
    while (::poll(&waited, 1, -1) < 0) {
        if (errno != EINTR)
            return false;
    }
    int code = 0;
    socklen_t codeBytes = sizeof(code);
    return ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &code, &codeBytes) == 0 && code == 0;
}

bool connectTo(int socket, const addrinfo& address) {
    if (::connect(socket, address.ai_addr, address.ai_addrlen) == 0)
        return true;
    return errno == EINTR && awaitConnected(socket);
}

} // namespace

bool ZnLogPeer::connect(const ZnString& host, unsigned short port) {
    close();
    const AddressList addresses = resolve(host, port);
    for (const addrinfo* address = addresses.get(); address != nullptr; address = address->ai_next) {
        socket_ = ::socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC, address->ai_protocol);
        if (socket_ == kNoSocket_)
            continue;
        if (connectTo(socket_, *address))
            return true;
        close();
    }
    return false;
}

bool ZnLogPeer::send(std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        } else if (errno != EINTR) {
            close();
            return false;
        }
    }
    return true;
}

void ZnLogPeer::close() noexcept {
    if (socket_ != kNoSocket_)
        ::close(socket_);
    socket_ = kNoSocket_;
}
