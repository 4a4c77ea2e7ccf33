#include "LoadClient.h"

#include "support/Loopback.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Connection {
    int fd = -1;
    SSL* ssl = nullptr; // null without TLS
    std::string input;
    std::size_t answerBytes = 0; // 0 until the head of the answer is there
    Clock::time_point sentAt;
};

/// TLS on a connected socket; null when the handshake fails.
SSL* startTls(int fd) {
    static SSL_CTX* const context = SSL_CTX_new(TLS_client_method());
    SSL* ssl = SSL_new(context);
    SSL_set_fd(ssl, fd);
    if (SSL_connect(ssl) == 1)
        return ssl;
    SSL_free(ssl);
    return nullptr;
}

Connection connectTo(unsigned short port, bool overTls) {
    Connection connection;
    connection.fd = connectToLoopback(port);
    if (overTls && (connection.ssl = startTls(connection.fd)) == nullptr) {
        std::fprintf(stderr, "TLS handshake failed\n");
        std::exit(1);
    }
    return connection;
}

void disconnect(const Connection& connection) {
    if (connection.ssl != nullptr) {
        SSL_shutdown(connection.ssl);
        SSL_free(connection.ssl);
    }
    ::close(connection.fd);
}

ssize_t sendBytes(const Connection& connection, const std::string& bytes) {
    if (connection.ssl != nullptr)
        return SSL_write(connection.ssl, bytes.data(), static_cast<int>(bytes.size()));
    return ::send(connection.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

/// As recv; nothing yet is -1 with EAGAIN.
ssize_t receiveBytes(const Connection& connection, char* buffer, std::size_t capacity) {
    if (connection.ssl == nullptr)
        return ::recv(connection.fd, buffer, capacity, 0);
    const int got = SSL_read(connection.ssl, buffer, static_cast<int>(capacity));
    if (got <= 0 && SSL_get_error(connection.ssl, got) == SSL_ERROR_WANT_READ) {
        errno = EAGAIN;
        return -1;
    }
    return std::max(got, 0);
}

void sendRequest(Connection& connection, const std::string& request) {
    connection.sentAt = Clock::now();
    // The answer to the last request has come, so that there is always room for a small one.
    if (sendBytes(connection, request) != static_cast<ssize_t>(request.size()))
        connection.sentAt = {};
}

/// Takes what has come; true when an answer is complete, which then stands at the front of `input`.
bool receiveAnswer(Connection& connection, bool* lost) {
    char buffer[16384];
    const ssize_t got = receiveBytes(connection, buffer, sizeof(buffer));
    if (got <= 0) {
        *lost = got == 0 || (errno != EAGAIN && errno != EINTR);
        return false;
    }
    connection.input.append(buffer, static_cast<std::size_t>(got));
    if (connection.answerBytes == 0)
        connection.answerBytes = messageBytes(connection.input);
    return connection.answerBytes != 0 && connection.input.size() >= connection.answerBytes;
}

double percentile(std::vector<float>& latencies, double share) {
    if (latencies.empty())
        return 0.0;
    const auto index = static_cast<std::size_t>(share * static_cast<double>(latencies.size() - 1));
    std::nth_element(latencies.begin(), latencies.begin() + static_cast<std::ptrdiff_t>(index), latencies.end());
    return static_cast<double>(latencies[index]);
}

} // namespace

LoadResult runLoad(unsigned short port, const std::vector<std::string>& requests, const std::string& expectedText,
                   int connectionCount, double seconds, bool overTls) {
    const int epollFd = ::epoll_create1(EPOLL_CLOEXEC);
    std::vector<Connection> connections(static_cast<std::size_t>(connectionCount));
    for (Connection& connection : connections) {
        connection = connectTo(port, overTls);
        ::fcntl(connection.fd, F_SETFL, O_NONBLOCK);
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.ptr = &connection;
        ::epoll_ctl(epollFd, EPOLL_CTL_ADD, connection.fd, &event);
    }
    LoadResult result;
    std::vector<float> latencies;
    latencies.reserve(1 << 20);
    const Clock::time_point start = Clock::now();
    const Clock::time_point end =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    const auto requestOf = [&](const Connection& connection) -> const std::string& {
        return requests[static_cast<std::size_t>(&connection - connections.data()) % requests.size()];
    };
    for (Connection& connection : connections)
        sendRequest(connection, requestOf(connection));
    epoll_event events[256];
    Clock::time_point now = start;
    while (now < end) {
        const int ready = ::epoll_wait(epollFd, events, 256, 100);
        now = Clock::now();
        for (int i = 0; i < ready; ++i) {
            auto& connection = *static_cast<Connection*>(events[i].data.ptr);
            bool lost = false;
            if (!receiveAnswer(connection, &lost)) {
                if (lost) {
                    ++result.failureCount;
                    ::epoll_ctl(epollFd, EPOLL_CTL_DEL, connection.fd, nullptr);
                }
                continue;
            }
            latencies.push_back(std::chrono::duration<float, std::micro>(Clock::now() - connection.sentAt).count());
            if (connection.input.compare(0, 12, "HTTP/1.1 200") != 0 ||
                connection.input.find(expectedText) == std::string::npos)
                ++result.failureCount;
            connection.input.erase(0, connection.answerBytes);
            connection.answerBytes = 0;
            sendRequest(connection, requestOf(connection));
        }
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    for (const Connection& connection : connections)
        disconnect(connection);
    ::close(epollFd);
    result.requestCount = static_cast<long long>(latencies.size());
    result.requestsPerSecond = static_cast<double>(latencies.size()) / elapsed;
    result.p50Us = percentile(latencies, 0.50);
    result.p99Us = percentile(latencies, 0.99);
    result.maxUs = percentile(latencies, 1.0);
    return result;
}

IdleConnections::IdleConnections(unsigned short port, int count)
    : fds_(new int[static_cast<std::size_t>(count)]), count_(count) {
    for (int i = 0; i < count_; ++i)
        fds_[i] = connectToLoopback(port);
}

IdleConnections::~IdleConnections() {
    for (int i = 0; i < count_; ++i)
        ::close(fds_[i]);
    delete[] fds_;
}

double runHandshakes(unsigned short port, double seconds) {
    const Clock::time_point start = Clock::now();
    int count = 0;
    double elapsed = 0.0;
    for (; elapsed < seconds; ++count) {
        disconnect(connectTo(port, true));
        elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    }
    return count / elapsed;
}

std::string askOnce(unsigned short port, const std::string& request, bool overTls) {
    Connection connection = connectTo(port, overTls);
    sendRequest(connection, request);
    char buffer[16384];
    while (connection.answerBytes == 0 || connection.input.size() < connection.answerBytes) {
        const ssize_t got = receiveBytes(connection, buffer, sizeof(buffer));
        if (got <= 0)
            break;
        connection.input.append(buffer, static_cast<std::size_t>(got));
        connection.answerBytes = messageBytes(connection.input);
    }
    disconnect(connection);
    return connection.input;
}
