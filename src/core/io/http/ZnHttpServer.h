#pragma once

#include "core/io/ZnSslServer.h"
#include "core/io/ZnTcpServer.h"
#include "core/io/http/ZnHttpLimits.h"
#include "core/io/http/ZnHttpRouter.h"
#include "core/io/http/ZnHttpServerStats.h"
#include "core/io/http/ZnHttpTimeouts.h"
#include "core/object/ZnObject.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_set>
#include <vector>

class ZnHttpInFlight_;
class ZnHttpLoopPlace_;
class ZnHttpServerCounters_;
class ZnHttpSession;
class ZnThreadPool;

/// Listens, makes a session per connection, admits or refuses each request, runs filters and middleware and hands the
/// request to the router.
///
/// Thread: the owning thread; handlers run there, on the fiber that read the request, or on a thread of the pool. A
/// handler that parks keeps its fiber, and with all of them parked nothing else could run: so at most
/// limits().maxParkedRequests handlers run on the loop, and what comes on top is answered with a 503 at once.
/// stats() may be called from any thread. Routes, filters and middleware are added before the server listens.
/// Owner: whoever made it. Its sessions end with it; a handler that is still parked then finishes in peace, its
/// answer is dropped.
/// Invariant: sessions_ holds exactly the sessions that are not closed.
class ZnHttpServer : public ZnObject {
public:
    ZN_OBJECT(ZnHttpServer, ZnObject)

    /// Sees a request before it goes to its route. True: the response is the answer. With limits().refuseBeforeBody it
    /// also sees one that has a body as soon as its headers are there, on the server's thread; it must not park then.
    using RequestFilter = std::function<bool(const ZnHttpRequest&, ZnHttpResponse&)>;
    /// Takes the request on its way: with true the response is the answer, with false the next in line has its turn.
    using Next = std::function<void(bool isHandled, const ZnHttpResponse&)>;
    /// Calls `next` once, now or later, from any thread. The request stays valid as long as `next` is kept.
    using Middleware = std::function<void(const ZnHttpRequest&, const Next& next)>;

    enum class DispatchMode : std::int32_t { Inline = 0, ThreadPool = 1 };

    explicit ZnHttpServer(ZnObject* parent = nullptr);
    ~ZnHttpServer() override;

    ZnTcpServer& tcpServer() noexcept { return tcpServer_; }
    /// Its handshakes are bounded by headerTimeoutMs and, together with the sessions, by maxConnections.
    ZnSslServer& sslServer() noexcept { return sslServer_; }
    ZnHttpRouter& router() noexcept { return router_; }
    const ZnHttpLimits& limits() const noexcept { return limits_; }
    const ZnHttpTimeouts& timeouts() const noexcept { return timeouts_; }
    /// Both reach new connections only; the limits on connections and requests of the whole server hold at once.
    void setLimits(const ZnHttpLimits& limits);
    void setTimeouts(const ZnHttpTimeouts& timeouts);

    /// Each adds to the end of its line; an empty one is ignored. With middleware every request is served inline.
    void addRequestFilter(RequestFilter filter);
    void addMiddleware(Middleware middleware);
    /// Is told of each request that gets a 503 since too many run; on the server's thread, and must not park.
    void setBusyHandler(std::function<void(const ZnHttpRequest&)> handler) { busyHandler_ = std::move(handler); }

    /// With ThreadPool and a pool, filters and routes run on the pool's threads, but for routes that answer through a
    /// callback and for servers with middleware. A request then waits for its answer off the loop, in the pool's
    /// queue at first.
    void setDispatchMode(DispatchMode mode) noexcept { dispatchMode_ = mode; }
    /// Borrowed; a pool that is destroyed first is no longer used, and what it dropped from its queue is answered with
    /// a 503.
    void setThreadPool(ZnThreadPool* pool);

    /// Stops listening and closes every session, with unsent answers dropped.
    void stop();

    std::size_t activeSessionCount() const noexcept { return sessions_.size(); }
    ZnHttpServerStats stats() const;

private:
    using FilterList_ = std::vector<RequestFilter>;
    using MiddlewareList_ = std::vector<Middleware>;

    void onNewConnection_();
    void admitAll_(ZnTcpServer& listener, bool isTls);
    void admit_(ZnTcpSocket* socket, bool isTls, unsigned short localPort);
    void handleRequest_(const std::shared_ptr<ZnHttpRequest>& request, ZnHttpResponseCallback completion);
    bool isGranted_(const ZnHttpLoopPlace_& place, const ZnHttpRequest& request) const;
    std::unique_ptr<ZnHttpResponse> refusalOf_(ZnHttpRequest& request) const;
    bool usesThreadPool_() const;
    std::uint64_t maxParkedRequests_() const;
    void submitToPool_(const std::shared_ptr<ZnHttpRequest>& request, const std::shared_ptr<ZnHttpInFlight_>& inFlight,
                       ZnHttpRouter::Target target);
    void runInline_(const std::shared_ptr<ZnHttpRequest>& request, const std::shared_ptr<ZnHttpInFlight_>& inFlight);
    void runPipeline_(const std::shared_ptr<ZnHttpRequest>& request, const std::shared_ptr<ZnHttpInFlight_>& inFlight);
    void runRoute_(const std::shared_ptr<ZnHttpRequest>& request, const std::shared_ptr<ZnHttpInFlight_>& inFlight);

    ZnTcpServer tcpServer_;
    ZnSslServer sslServer_;
    ZnHttpRouter router_;
    std::unordered_set<ZnHttpSession*> sessions_;
    ZnHttpLimits limits_;
    ZnHttpTimeouts timeouts_;
    // Null when empty; replaced, never changed: a request keeps the lists that it began with.
    std::shared_ptr<const FilterList_> requestFilters_;
    std::shared_ptr<const MiddlewareList_> middleware_;
    std::function<void(const ZnHttpRequest&)> busyHandler_;
    ZnPointer<ZnThreadPool> threadPool_;
    DispatchMode dispatchMode_ = DispatchMode::Inline;
    const std::shared_ptr<ZnHttpServerCounters_>
        counters_; // shared with the requests in flight, which may outlive the server
};
