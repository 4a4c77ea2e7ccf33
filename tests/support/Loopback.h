#pragma once

#include "support/HttpReader.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

/// Blocking sockets of 127.0.0.1, for tests and benchmarks, which the caller closes. Without them there is no going on.
inline void requireOnLoopback(bool condition, const char* what) {
    if (condition)
        return;
    std::perror(what);
    std::abort();
}

inline sockaddr_in loopbackAddress(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

inline int listenOnLoopback(unsigned short* port, int backlog = 8) {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopbackAddress(0);
    socklen_t addressBytes = sizeof(address);
    requireOnLoopback(::bind(descriptor, reinterpret_cast<sockaddr*>(&address), addressBytes) == 0, "bind");
    requireOnLoopback(::listen(descriptor, backlog) == 0, "listen");
    ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &addressBytes);
    *port = ntohs(address.sin_port);
    return descriptor;
}

inline int connectToLoopback(unsigned short port) {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopbackAddress(port);
    requireOnLoopback(::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0,
                      "connect");
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return descriptor;
}

/// A port that nobody listened on a moment ago.
inline unsigned short freeLoopbackPort() {
    unsigned short port = 0;
    ::close(listenOnLoopback(&port));
    return port;
}

/// Everything that comes before the connection's end.
inline std::string receiveAll(int descriptor) {
    std::string received;
    std::vector<char> buffer(65536);
    for (ssize_t got = 0; (got = ::recv(descriptor, buffer.data(), buffer.size(), 0)) > 0;)
        received.append(buffer.data(), static_cast<std::size_t>(got));
    return received;
}

/// The size of an HTTP message with a counted body, once its head is complete; else 0.
inline std::size_t messageBytes(const std::string& begun) {
    const std::size_t headEnd = begun.find("\r\n\r\n");
    if (headEnd == std::string::npos)
        return 0;
    const std::size_t lengthAt = http_reader::lower(begun.substr(0, headEnd)).find("content-length: ");
    return headEnd + 4 + (lengthAt == std::string::npos ? 0 : std::strtoul(begun.c_str() + lengthAt + 16, nullptr, 10));
}

/// An HTTP message with its counted body; empty when the connection ends first.
inline std::string receiveMessage(int descriptor) {
    std::string message;
    std::vector<char> buffer(65536);
    for (std::size_t wantedBytes = 0; wantedBytes == 0 || message.size() < wantedBytes;) {
        const ssize_t got = ::recv(descriptor, buffer.data(), buffer.size(), 0);
        if (got <= 0)
            return {};
        message.append(buffer.data(), static_cast<std::size_t>(got));
        wantedBytes = wantedBytes == 0 ? messageBytes(message) : wantedBytes;
    }
    return message;
}

/// The close that follows resets the connection.
inline void resetOnClose(int descriptor) {
    const linger hard{1, 0};
    ::setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
}
