#pragma once

#include "support/Loopback.h"

#include <future>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <unistd.h>
#include <utility>

/// The client's side of a TLS connection in OpenSSL's own terms, on a blocking socket.
class RawTlsClient {
public:
    explicit RawTlsClient(unsigned short port) : descriptor_(connectToLoopback(port)) {
        SSL_set_fd(ssl_, descriptor_);
        handshake_ = std::async(std::launch::async, [this] { EXPECT_EQ(SSL_connect(ssl_), 1); });
    }
    ~RawTlsClient() {
        SSL_free(ssl_);
        SSL_CTX_free(context_);
        ::close(descriptor_);
    }
    /// After the handshake, which needs the loop.
    SSL* ssl() {
        if (handshake_.valid())
            handshake_.get();
        return ssl_;
    }
    int descriptor() { return SSL_get_fd(ssl()); }
    void reset() {
        resetOnClose(descriptor_);
        ::close(std::exchange(descriptor_, -1));
    }
    /// Everything up to the end.
    std::string readAll() {
        std::string text;
        char buffer[16384];
        for (int got = 0; (got = SSL_read(ssl(), buffer, sizeof(buffer))) > 0;)
            text.append(buffer, static_cast<std::size_t>(got));
        return text;
    }

private:
    int descriptor_;
    SSL_CTX* const context_ = SSL_CTX_new(TLS_client_method());
    SSL* const ssl_ = SSL_new(context_);
    std::future<void> handshake_;
};
