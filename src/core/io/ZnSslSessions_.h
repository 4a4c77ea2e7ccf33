#pragma once

#include "core/io/ZnSslTrust_.h"

#include <deque>
#include <memory>

/// TLS sessions of one peer, which the handshakes of its new connections take up instead of beginning anew.
///
/// A session stands for a verification that has been done: with one name, which whoever owns this sees to, and with the
/// trust of one context. So all sessions here are of the present context, and a connection is only as good as the
/// context that it was made with.
/// Thread: that of the sockets that share it. Nothing here parks or calls out.
class ZnSslSessions_ {
public:
    using Context = std::shared_ptr<const ZnSslContextHandle_>;

    static constexpr std::size_t kMaxSessions = 16;
    static constexpr long long kLifetimeNs = 600'000'000'000LL;

    /// Makes a context tell of its sessions. Without the functions for it there are none.
    static void prepare(const ZnOpenSslApi_& api, SSL_CTX* context);

    ZnSslSessions_() = default;
    ~ZnSslSessions_() { clear(); }
    ZnSslSessions_(const ZnSslSessions_&) = delete;
    ZnSslSessions_& operator=(const ZnSslSessions_&) = delete;

    /// Offers the peer of a connection that is about to begin the newest session, if it is of `context`, and gathers
    /// those that the connection brings. This object must outlive the connection.
    void attach(const ZnOpenSslApi_& api, const Context& context, SSL* ssl);
    /// Whether a connection that was made with `context` is trusted still.
    bool isCurrent(const Context& context) const noexcept { return context != nullptr && context == context_; }
    /// Forgets everything when the authorities of `caFile` have changed.
    void checkTrust(const ZnString& caFile);
    bool isEmpty(long long nowNs);
    void clear();

private:
    struct Entry_ {
        SSL_SESSION* session; // owned
        long long keptUntilNs;
    };

    static int onNewSession_(SSL* ssl, SSL_SESSION* session);
    void use_(const Context& context);
    void dropOldest_();

    const ZnOpenSslApi_* api_ = nullptr; // null before the first connection
    Context context_;                    // of all sessions; null at first
    std::deque<Entry_> entries_;         // the oldest first
};
