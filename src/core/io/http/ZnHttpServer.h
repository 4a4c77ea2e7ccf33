#pragma once

#include "core/io/ZnSslServer.h"
#include "core/io/ZnTcpServer.h"
#include "core/io/http/ZnHttpLimits.h"
#include "core/io/http/ZnHttpRouter.h"
#include "core/io/http/ZnHttpServerStats.h"
#include "core/io/http/ZnHttpTimeouts.h"
#include "core/object/ZnObject.h"

#include <cstddef>
#include <memory>
#include <unordered_set>

class ZnHttpSession;

/// Listens, makes a session per connection, admits or refuses each request and hands it to the router.
///
/// Thread: the owning thread; handlers run there, on the fiber that read the request. stats() may be called from
/// any thread.
/// Owner: whoever made it. Its sessions end with it; a handler that is still parked then finishes in peace, its
/// answer is dropped.
/// Invariant: sessions_ holds exactly the sessions that are not closed.
class ZnHttpServer : public ZnObject {
public:
    ZN_OBJECT(ZnHttpServer, ZnObject)

    explicit ZnHttpServer(ZnObject* parent = nullptr);
    ~ZnHttpServer() override;

    ZnTcpServer& tcpServer() noexcept { return tcpServer_; }
    /// Its handshakes are bounded by headerTimeoutMs and, together with the sessions, by maxConnections.
    ZnSslServer& sslServer() noexcept { return sslServer_; }
    ZnHttpRouter& router() noexcept { return router_; }
    const ZnHttpLimits& limits() const noexcept { return limits_; }
    const ZnHttpTimeouts& timeouts() const noexcept { return timeouts_; }
    /// Both reach new connections only; maxConnections and maxInflightRequests hold at once.
    void setLimits(const ZnHttpLimits& limits);
    void setTimeouts(const ZnHttpTimeouts& timeouts);

    /// Stops listening and closes every session, with unsent answers dropped.
    void stop();

    std::size_t activeSessionCount() const noexcept { return sessions_.size(); }
    ZnHttpServerStats stats() const;

private:
    class Counters_;
    struct InFlight_;

    void onNewConnection_();
    void admitAll_(ZnTcpServer& listener, bool isTls);
    void admit_(ZnTcpSocket* socket, bool isTls, unsigned short localPort);
    void handleRequest_(const std::shared_ptr<ZnHttpRequest>& request, ZnHttpResponseCallback completion);

    ZnTcpServer tcpServer_;
    ZnSslServer sslServer_;
    ZnHttpRouter router_;
    std::unordered_set<ZnHttpSession*> sessions_;
    ZnHttpLimits limits_;
    ZnHttpTimeouts timeouts_;
    const std::shared_ptr<Counters_> counters_; // shared with the requests in flight, which may outlive the server
};
