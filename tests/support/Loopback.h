#pragma once

#include "support/HttpReader.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <vector>

/// Blocking sockets of 127.0.0.1, which the caller closes.
inline int listenOnLoopback(unsigned short* port, int backlog = 8) {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t addressBytes = sizeof(address);
    EXPECT_EQ(::bind(descriptor, reinterpret_cast<sockaddr*>(&address), addressBytes), 0);
    EXPECT_EQ(::listen(descriptor, backlog), 0);
    EXPECT_EQ(::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &addressBytes), 0);
    *port = ntohs(address.sin_port);
    return descriptor;
}

inline int connectToLoopback(unsigned short port) {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return descriptor;
}

/// Everything that comes before the connection's end.
inline std::string receiveAll(int descriptor) {
    std::string received;
    std::vector<char> buffer(65536);
    for (ssize_t got = 0; (got = ::recv(descriptor, buffer.data(), buffer.size(), 0)) > 0;)
        received.append(buffer.data(), static_cast<std::size_t>(got));
    return received;
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
        const std::size_t headEnd = wantedBytes == 0 ? message.find("\r\n\r\n") : std::string::npos;
        if (headEnd != std::string::npos) {
            const std::size_t lengthAt = http_reader::lower(message.substr(0, headEnd)).find("content-length: ");
            wantedBytes = headEnd + 4;
            wantedBytes += lengthAt == std::string::npos ? 0 : std::stoul(message.substr(lengthAt + 16, 20));
        }
    }
    return message;
}

/// The close that follows resets the connection.
inline void resetOnClose(int descriptor) {
    const linger hard{1, 0};
    ::setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
}
