// The practical limit of a machine: a minimal single-threaded epoll HTTP responder that writes a fixed answer, at
// once or after it has fetched one from an upstream, over a new connection per call or over those it keeps. No JSON, no
// checks, no limits.

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <netinet/tcp.h>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

volatile std::sig_atomic_t stopRequested = 0;

struct Connection {
    int fd = -1;
    bool isUpstream = false;
    Connection* partner = nullptr; // of an upstream connection: whom it answers; and back
    std::string input;
    std::size_t messageBytes = 0;
    bool connecting = false;
};

class Responder {
public:
    Responder(std::string answer, unsigned short upstreamPort, std::string upstreamRequest, bool keepsUpstreams)
        : answer_(std::move(answer)),
          upstreamPort_(upstreamPort),
          upstreamRequest_(std::move(upstreamRequest)),
          keepsUpstreams_(keepsUpstreams) {}

    /// Listens on loopback addresses from 127.0.0.1 on, all with the same port.
    bool listen() {
        epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
        unsigned short port = 0;
        for (unsigned i = 0; i <= kUpstreamAddresses; ++i) {
            Connection& listener = listeners_[i];
            listener.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            sockaddr_in address = loopback(port, i);
            socklen_t addressBytes = sizeof(address);
            if (::bind(listener.fd, reinterpret_cast<sockaddr*>(&address), addressBytes) != 0 ||
                ::listen(listener.fd, 65535) != 0 ||
                ::getsockname(listener.fd, reinterpret_cast<sockaddr*>(&address), &addressBytes) != 0)
                return false;
            port = ntohs(address.sin_port);
            watch(listener, EPOLLIN);
        }
        std::printf("listening on port %d\n", port);
        std::fflush(stdout);
        return true;
    }

    void run() {
        epoll_event events[256];
        while (stopRequested == 0) {
            const int ready = ::epoll_wait(epoll_, events, 256, -1);
            for (int i = 0; i < ready; ++i)
                serve(*static_cast<Connection*>(events[i].data.ptr));
            closed_.clear();
        }
    }

private:
    static sockaddr_in loopback(unsigned short port, unsigned index) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + index);
        return address;
    }

    void watch(Connection& connection, std::uint32_t events) {
        epoll_event event = {};
        event.events = events;
        event.data.ptr = &connection;
        ::epoll_ctl(epoll_, EPOLL_CTL_ADD, connection.fd, &event);
    }

    void serve(Connection& connection) {
        if (&connection >= listeners_ && &connection <= listeners_ + kUpstreamAddresses)
            acceptAll(connection);
        else if (connection.fd < 0)
            return; // closed earlier in this batch
        else if (connection.connecting)
            sendUpstream(connection);
        else
            readSome(connection);
    }

    void acceptAll(const Connection& listener) {
        for (;;) {
            const int fd = ::accept4(listener.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0)
                return;
            const int on = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
            auto* connection = new Connection;
            connection->fd = fd;
            watch(*connection, EPOLLIN);
        }
    }

    void close(Connection& connection) {
        ::close(connection.fd);
        connection.fd = -1;
        std::erase(idle_, &connection);
        if (connection.partner != nullptr)
            connection.partner->partner = nullptr;
        closed_.emplace_back(&connection); // freed after the batch, in which it may stand again
    }

    void readSome(Connection& connection) {
        char buffer[16384];
        const ssize_t got = ::recv(connection.fd, buffer, sizeof(buffer), 0);
        if (got <= 0) {
            if (got == 0 || errno != EAGAIN)
                close(connection);
            return;
        }
        connection.input.append(buffer, static_cast<std::size_t>(got));
        if (connection.messageBytes == 0)
            connection.messageBytes = messageSize(connection.input);
        if (connection.messageBytes == 0 || connection.input.size() < connection.messageBytes)
            return;
        connection.input.erase(0, connection.messageBytes);
        connection.messageBytes = 0;
        if (connection.isUpstream) {
            if (connection.partner != nullptr)
                answer(*connection.partner);
            if (keepsUpstreams_)
                keep(connection);
            else
                close(connection);
        } else if (upstreamPort_ != 0) {
            connectUpstream(connection);
        } else {
            answer(connection);
        }
    }

    static std::size_t messageSize(const std::string& input) {
        const std::size_t headEnd = input.find("\r\n\r\n");
        if (headEnd == std::string::npos)
            return 0;
        std::size_t lengthAt = input.find("content-length: ");
        if (lengthAt >= headEnd)
            lengthAt = input.find("Content-Length: ");
        const std::size_t bodyBytes = lengthAt < headEnd ? std::strtoul(input.c_str() + lengthAt + 16, nullptr, 10) : 0;
        return headEnd + 4 + bodyBytes;
    }

    void answer(Connection& connection) {
        if (connection.fd >= 0)
            ::send(connection.fd, answer_.data(), answer_.size(), MSG_NOSIGNAL);
    }

    void keep(Connection& upstream) {
        if (upstream.partner != nullptr)
            upstream.partner->partner = nullptr;
        upstream.partner = nullptr;
        idle_.push_back(&upstream);
    }

    void connectUpstream(Connection& client) {
        if (!idle_.empty()) {
            Connection& kept = *idle_.back();
            idle_.pop_back();
            kept.partner = &client;
            client.partner = &kept;
            sendUpstream(kept);
            return;
        }
        auto* upstream = new Connection;
        upstream->isUpstream = true;
        upstream->partner = &client;
        client.partner = upstream;
        upstream->connecting = true;
        upstream->fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const int on = 1;
        ::setsockopt(upstream->fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        // A new connection per call uses up the ports towards one address: loopback has many.
        const sockaddr_in address = loopback(upstreamPort_, 1 + nextUpstream_++ % kUpstreamAddresses);
        ::connect(upstream->fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        watch(*upstream, EPOLLIN | EPOLLOUT | EPOLLET);
    }

    void sendUpstream(Connection& upstream) {
        upstream.connecting = false;
        ::send(upstream.fd, upstreamRequest_.data(), upstreamRequest_.size(), MSG_NOSIGNAL);
    }

    static constexpr unsigned kUpstreamAddresses = 16;

    const std::string answer_;
    const unsigned short upstreamPort_;
    const std::string upstreamRequest_;
    const bool keepsUpstreams_;
    std::vector<Connection*> idle_; // upstream connections without a client
    int epoll_ = -1;
    Connection listeners_[1 + kUpstreamAddresses];
    unsigned nextUpstream_ = 0;
    std::vector<std::unique_ptr<Connection>> closed_;
};

} // namespace

/// Arguments: the answer; to forward also the upstream's port and the request to send there; "keep" to keep
/// connections.
int main(int argc, char** argv) {
    if (argc != 2 && argc != 4 && argc != 5)
        return 2;
    struct sigaction action = {};
    action.sa_handler = [](int) { stopRequested = 1; };
    ::sigaction(SIGTERM, &action, nullptr);
    Responder responder(argv[1], static_cast<unsigned short>(argc > 3 ? std::atoi(argv[2]) : 0),
                        argc > 3 ? argv[3] : "", argc > 4);
    if (!responder.listen()) {
        std::perror("listen");
        return 1;
    }
    responder.run();
    return 0;
}
