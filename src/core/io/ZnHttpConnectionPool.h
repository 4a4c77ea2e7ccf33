#pragma once

#include "core/io/ZnTcpSocket.h"
#include "core/runtime/ZnTimer.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"

#include <compare>
#include <cstddef>
#include <memory>
#include <vector>

class ZnSslSessions_;

/// Connections of HTTP clients that wait for their next request, and the TLS sessions of their peers.
///
/// A connection is given out again only to a request of the same key, newest first, and only if nothing has come on it
/// since: a byte or an end in idle closes it, as the time limit does.
/// Thread: the owning thread, that of its clients. Owner: whoever made it; a client of a pool that is gone closes its
/// connections.
/// Invariant: an idle socket is a child, and nobody but the pool is connected to its signals.
class ZnHttpConnectionPool : public ZnObject {
public:
    ZN_OBJECT(ZnHttpConnectionPool, ZnObject)

    static constexpr std::size_t kDefaultMaxIdlePerKey = 32;
    static constexpr std::size_t kMaxIdle = 1024; // of all keys; the oldest give way
    static constexpr int kMaxIdleMs = 30000;
    /// A bundle of authorities that has changed is noticed this late.
    static constexpr int kTrustCheckMs = 1000;

    /// Requests that may share connections. `partition` keeps apart what is the same to the network, such as requests
    /// with different tokens; it is no secret itself.
    struct Key {
        bool useTls = false;
        ZnString host; // also the name that the certificate was verified for
        std::uint16_t port = 0;
        ZnString caFile;
        ZnString partition;

        bool operator<(const Key& other) const;
    };

    explicit ZnHttpConnectionPool(ZnObject* parent = nullptr);
    ~ZnHttpConnectionPool() override;

    /// 0 counts as 1; takes effect with the next connection.
    void setMaxIdlePerKey(std::size_t count) noexcept { maxIdlePerKey_ = count > 0 ? count : 1; }
    /// How long a connection waits at most, in milliseconds.
    void setMaxIdleMs(int ms) noexcept { maxIdleMs_ = ms; }
    int maxIdleMs() const noexcept { return maxIdleMs_; }
    /// Closes what is idle and forgets the sessions: settings have changed.
    void closeIdle();
    /// As closeIdle(), and from now on nothing is kept: the program is about to end.
    void stop();
    std::size_t idleCount() const noexcept { return idleCount_; }

    // For ZnHttpClient.
    /// A connection that is as good as new, now a child of `owner` without connections to its signals; null: there is
    /// none.
    ZnTcpSocket* take(const Key& key, ZnObject* owner);
    /// Keeps a connection after a response whose end is certain, for `idleMs` at most.
    void put(const Key& key, ZnTcpSocket* socket, int idleMs);
    /// What the handshakes of the key's new connections may take up; null when nothing is kept any more.
    std::shared_ptr<ZnSslSessions_> sessions(const Key& key);

private:
    struct Idle_ {
        ZnTcpSocket* socket;
        long long deadlineNs;
    };
    struct Host_ {
        std::vector<Idle_> idle; // the oldest first
        std::shared_ptr<ZnSslSessions_> sessions;
        long long trustCheckedNs = 0;
    };

    static void checkTrust_(const Key& key, Host_* host, long long nowNs);
    static bool isUsable_(const Key& key, const Host_& host, const Idle_& entry, long long nowNs);
    void watch_(ZnTcpSocket* socket, bool isTls);
    void makeRoom_(Host_* host);
    void onSign_(ZnTcpSocket* socket);
    void sweep_();
    void armTimer_(long long deadlineNs);
    std::vector<Idle_>::iterator close_(Host_* host, std::vector<Idle_>::iterator at);

    ZnMap<Key, Host_> hosts_;
    std::size_t idleCount_ = 0; // of all hosts
    std::size_t maxIdlePerKey_ = kDefaultMaxIdlePerKey;
    int maxIdleMs_ = kMaxIdleMs;
    bool isStopped_ = false;
    ZnTimer timer_;            // one for all
    long long armedForNs_ = 0; // 0: not armed
};
