#pragma once

#include "core/io/ZnSslSessions_.h"

#include <cstddef>
#include <cstdint>
#include <memory>

class ZnSslServerContext;

/// How an operation of OpenSSL has ended.
enum class ZnSslOutcome_ { None, WantRead, WantWrite, Closed, Failure };

/// The OpenSSL side of one connection: it reads and writes the socket itself, and never waits.
///
/// Thread: that of its socket. Owner: ZnSslSocket, by pointer; it ends before the socket's descriptor is closed.
/// Every operation clears OpenSSL's error queue first and reads it before it returns, so that no error of one
/// connection shows in another; nothing in between parks or calls out.
class ZnSslEngine_ {
public:
    using Outcome = ZnSslOutcome_;

    ZnSslEngine_() = default;
    ~ZnSslEngine_();
    ZnSslEngine_(const ZnSslEngine_&) = delete;
    ZnSslEngine_& operator=(const ZnSslEngine_&) = delete;

    /// Prepares the client's side of a handshake with `host`, whose name the certificate must carry. An empty `caFile`
    /// stands for the discovered roots; `sessions` may be null. False with the reason in lastError().
    bool initClient(const ZnString& host, std::uint64_t socketHandle, const ZnString& caFile,
                    std::shared_ptr<ZnSslSessions_> sessions = nullptr);
    /// Prepares the server's side. False with the reason in lastError().
    bool initServer(std::shared_ptr<const ZnSslServerContext> serverContext, std::uint64_t socketHandle);

    /// More records and messages of the protocol's own (key updates, session tickets, a renegotiation) than this, with
    /// no data between them, are a Failure of the read that finds them: they cost much and bring nothing.
    static constexpr unsigned kMaxPartsWithoutData = 64;

    // After None the operation is done; the byte counts are above 0. After Failure lastError() tells the reason.
    Outcome handshake();
    Outcome read(char* buffer, std::size_t capacity, std::size_t* byteCount);
    Outcome write(const char* bytes, std::size_t size, std::size_t* byteCount);
    /// Whether an end of input without the peer's close alert is Closed too, and not a Failure after which nothing can
    /// be written any more. Without effect where OpenSSL has no such choice.
    void acceptEndWithoutAlert(bool accept);
    /// Tells the peer that nothing more comes; does not wait for its answer.
    void shutdown();

    /// Whether bytes of the peer wait inside OpenSSL, be it half a record. False without a function for it.
    bool hasUnread() const { return api_->SSL_has_pending != nullptr && api_->SSL_has_pending(ssl_) != 0; }
    /// Null on the server's side.
    const std::shared_ptr<const ZnSslContextHandle_>& clientContext() const noexcept { return clientContext_; }
    /// Whether the last operation ended because the socket had nothing more. After a WantRead without this there may
    /// be more: OpenSSL stops after a message of the protocol's own, such as a key update.
    bool socketWasDrained() const noexcept { return socketWasDrained_; }
    /// Records, and messages of the protocol in them, that have come so far: the work that a peer makes. Stays 0 where
    /// OpenSSL has no function for it.
    unsigned receivedPartCount() const noexcept { return receivedPartCount_; }
    const ZnString& lastError() const noexcept { return lastError_; }

private:
    bool bind_();
    bool attachSocket_(std::uint64_t socketHandle);
    void countParts_();
    static void onPart_(int isWritten, int version, int contentType, const void* bytes, std::size_t byteCount, SSL* ssl,
                        void* engine);
    bool fail_(const ZnString& errorText);
    void begin_() const;
    Outcome classify_(int result);
    ZnString sslDetail_() const;

    ZnOpenSslApi_* api_ = nullptr;
    std::shared_ptr<const ZnSslContextHandle_> clientContext_; // null on the server's side
    std::shared_ptr<const ZnSslServerContext> serverContext_;  // null on the client's side
    std::shared_ptr<ZnSslSessions_> sessions_;                 // may be null; outlives ssl_
    SSL* ssl_ = nullptr;
    bool socketWasDrained_ = false;
    unsigned receivedPartCount_ = 0;
    unsigned partCountAtData_ = 0; // when data, or the end of the handshake, came last
    ZnString lastError_;
};
