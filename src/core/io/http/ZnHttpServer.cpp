#include "core/io/http/ZnHttpServer.h"

#include "core/io/ZnTcpSocket.h"
#include "core/io/http/ZnHttpFilters_.h"
#include "core/io/http/ZnHttpInFlight_.h"
#include "core/io/http/ZnHttpLoopPlace_.h"
#include "core/io/http/ZnHttpPipeline_.h"
#include "core/io/http/ZnHttpPoolJob_.h"
#include "core/io/http/ZnHttpServerCounters_.h"
#include "core/io/http/ZnHttpSession.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnThreadPool.h"

#include <algorithm>
#include <utility>

namespace {

constexpr int kSpareFibers = 64; // for what else the loop does while that many handlers are parked

template <typename T>
std::shared_ptr<const std::vector<T>> withOneMore(const std::shared_ptr<const std::vector<T>>& list, T added) {
    auto longer = list ? std::make_shared<std::vector<T>>(*list) : std::make_shared<std::vector<T>>();
    longer->push_back(std::move(added));
    return longer;
}

} // namespace

ZnHttpServer::ZnHttpServer(ZnObject* parent) : ZnObject(parent), counters_(std::make_shared<ZnHttpServerCounters_>()) {
    tcpServer_.connect(&ZnTcpServer::newConnection, this, &ZnHttpServer::onNewConnection_);
    sslServer_.connect(&ZnTcpServer::newConnection, this, &ZnHttpServer::onNewConnection_);
    setTimeouts(timeouts_);
    setLimits(limits_);
    router_.setFallback(
        [](const ZnHttpRequest& request) { return ZnHttpResponse::plain(404, "Not Found", request.keepAlive); });
}

ZnHttpServer::~ZnHttpServer() {
    stop();
}

void ZnHttpServer::stop() {
    const ZnPointer<ZnHttpServer> self(this);
    tcpServer_.close();
    sslServer_.close();
    sslServer_.abortHandshakes();
    while (self && !sessions_.empty()) {
        // Out of the set before the close, which may call out, and so come back to stop().
        ZnHttpSession* session = *sessions_.begin();
        sessions_.erase(sessions_.begin());
        session->close();
    }
}

void ZnHttpServer::setThreadPool(ZnThreadPool* pool) {
    threadPool_ = pool;
}

void ZnHttpServer::addRequestFilter(RequestFilter filter) {
    if (filter)
        requestFilters_ = withOneMore(requestFilters_, std::move(filter));
}

void ZnHttpServer::addMiddleware(Middleware middleware) {
    if (middleware)
        middleware_ = withOneMore(middleware_, std::move(middleware));
}

ZnHttpServerStats ZnHttpServer::stats() const {
    return counters_->snapshot();
}

void ZnHttpServer::setLimits(const ZnHttpLimits& limits) {
    limits_ = limits;
    const std::uint64_t maxConnections =
        limits.maxConnections > 0 ? limits.maxConnections : ZnSslServer::kMaxHandshakes;
    sslServer_.setMaxHandshakes(std::min<std::uint64_t>(maxConnections, ZnSslServer::kMaxHandshakes));
}

void ZnHttpServer::setTimeouts(const ZnHttpTimeouts& timeouts) {
    timeouts_ = timeouts;
    sslServer_.setHandshakeTimeoutMs(timeouts.headerTimeoutMs);
}

void ZnHttpServer::onNewConnection_() {
    const ZnPointer<ZnHttpServer> self(this);
    admitAll_(tcpServer_, false);
    if (self)
        admitAll_(sslServer_, true);
}

void ZnHttpServer::admitAll_(ZnTcpServer& listener, bool isTls) {
    const ZnPointer<ZnHttpServer> self(this);
    while (self) {
        ZnTcpSocket* socket = listener.nextPendingConnection();
        if (socket == nullptr)
            return;
        admit_(socket, isTls, listener.localPort());
    }
}

/// Runs inside the listener's accept pass, so no handler may run here: one that parks would stop the accepting.
/// The first bytes are announced by an event of the connection's own.
void ZnHttpServer::admit_(ZnTcpSocket* socket, bool isTls, unsigned short localPort) {
    if (limits_.maxConnections > 0 && sessions_.size() >= limits_.maxConnections) {
        counters_->refuseConnection();
        socket->deleteLater();
        socket->close();
        return;
    }
    auto* session = new ZnHttpSession(socket, &router_, limits_, timeouts_, isTls, localPort);
    const ZnPointer<ZnHttpServer> self(this);
    session->setRequestHandler(
        [self](const std::shared_ptr<ZnHttpRequest>& request, ZnHttpResponseCallback completion) {
            if (ZnHttpServer* server = self.get())
                server->handleRequest_(request, std::move(completion));
        });
    if (limits_.refuseBeforeBody) {
        session->setHeadCheck([self](ZnHttpRequest& request) {
            const ZnHttpServer* server = self.get();
            return server == nullptr ? nullptr : server->refusalOf_(request);
        });
    }
    session->setClosedHandler([self](ZnHttpSession* closed) {
        if (ZnHttpServer* server = self.get())
            server->sessions_.erase(closed);
        closed->deleteLater();
    });
    sessions_.insert(session);
    session->start();
}

void ZnHttpServer::handleRequest_(const std::shared_ptr<ZnHttpRequest>& request, ZnHttpResponseCallback completion) {
    const long long startedNs = monotonicNowNs();
    if (!counters_->admit(limits_.maxInflightRequests, request->body.size())) {
        ZnHttpResponse busy = ZnHttpResponse::plain(503, "Server busy", request->keepAlive);
        counters_->record(busy, startedNs, false);
        if (busyHandler_)
            busyHandler_(*request);
        completion(std::move(busy));
        return;
    }
    const auto inFlight = std::make_shared<ZnHttpInFlight_>(counters_, std::move(completion), startedNs);
    inFlight->run([&] {
        if (usesThreadPool_()) {
            ZnHttpRouter::Target target = router_.find(*request);
            if (!target.isAsync()) {
                submitToPool_(request, inFlight, std::move(target));
                return;
            }
        }
        runInline_(request, inFlight);
    });
}

/// What filters and routes say to a request before its body comes; null: it is to be read. A middleware might answer
/// what has no route.
std::unique_ptr<ZnHttpResponse> ZnHttpServer::refusalOf_(ZnHttpRequest& request) const {
    const long long startedNs = monotonicNowNs();
    auto response = std::make_unique<ZnHttpResponse>();
    try {
        if (!requestFilters_ || !zn::http::runFilters(*requestFilters_, request, response.get())) {
            const ZnHttpRouter::Target target = router_.find(request);
            if (middleware_ || target.isRoute())
                return nullptr;
            *response = target.answer(request);
        }
    } catch (...) {
        return nullptr; // it will throw again when the request is there, and is answered for then
    }
    counters_->record(*response, startedNs, false);
    return response;
}

bool ZnHttpServer::usesThreadPool_() const {
    return dispatchMode_ == DispatchMode::ThreadPool && threadPool_ && !middleware_;
}

void ZnHttpServer::submitToPool_(const std::shared_ptr<ZnHttpRequest>& request,
                                 const std::shared_ptr<ZnHttpInFlight_>& inFlight, ZnHttpRouter::Target target) {
    if (!counters_->enterPool(limits_.maxThreadPoolRequests)) {
        inFlight->finishRequest_(ZnHttpResponse::plain(503, "ThreadPool saturated", request->keepAlive));
        return;
    }
    auto task = std::make_unique<ZnCallableRunnable<ZnHttpPoolJob_>>(
        ZnHttpPoolJob_(inFlight, request, requestFilters_, std::move(target)));
    bool isSaturated = false;
    if (threadPool_->tryStart(task.get(), 0, &isSaturated))
        static_cast<void>(task.release()); // the pool's; it may have run by now
    else if (isSaturated)
        inFlight->finishRequest_(ZnHttpResponse::plain(503, "ThreadPool saturated", request->keepAlive));
    // Else the job, which is destroyed here, answers.
}

std::uint64_t ZnHttpServer::maxParkedRequests_() const {
    ZnCoreApplication* application = ZnCoreApplication::instance();
    if (limits_.maxParkedRequests > 0 || application == nullptr)
        return std::max<std::uint64_t>(limits_.maxParkedRequests, 1);
    const int fiberCount = application->fiberPool().warmTarget();
    return static_cast<std::uint64_t>(std::max(1, fiberCount - std::min(kSpareFibers, fiberCount / 2)));
}

bool ZnHttpServer::isGranted_(const ZnHttpLoopPlace_& place, const ZnHttpRequest& request) const {
    if (!place.isGranted() && busyHandler_)
        busyHandler_(request);
    return place.isGrantedFor(request);
}

// From here on user code runs inside each call and may park. After it only locals are used, since the server may have
// been destroyed.

void ZnHttpServer::runInline_(const std::shared_ptr<ZnHttpRequest>& request,
                              const std::shared_ptr<ZnHttpInFlight_>& inFlight) {
    const ZnHttpLoopPlace_ place(inFlight, maxParkedRequests_());
    if (!isGranted_(place, *request))
        return;
    if (requestFilters_ || middleware_)
        runPipeline_(request, inFlight);
    else
        runRoute_(request, inFlight);
}

void ZnHttpServer::runPipeline_(const std::shared_ptr<ZnHttpRequest>& request,
                                const std::shared_ptr<ZnHttpInFlight_>& inFlight) {
    const ZnPointer<ZnHttpServer> self(this);
    ZnHttpResponse response;
    const std::shared_ptr<const FilterList_> filters = requestFilters_;
    if (filters && zn::http::runFilters(*filters, *request, &response)) {
        inFlight->finishRequest_(std::move(response));
        return;
    }
    if (!self)
        return;
    if (middleware_)
        std::make_shared<ZnHttpPipeline_>(middleware_, request, inFlight, [self, request, inFlight] {
            if (ZnHttpServer* server = self.get())
                server->runRoute_(request, inFlight);
        })->step();
    else
        runRoute_(request, inFlight);
}

void ZnHttpServer::runRoute_(const std::shared_ptr<ZnHttpRequest>& request,
                             const std::shared_ptr<ZnHttpInFlight_>& inFlight) {
    const ZnHttpLoopPlace_ place(inFlight, maxParkedRequests_()); // its own when a middleware has waited
    if (!isGranted_(place, *request))
        return;
    const ZnHttpRouter::Target target = router_.find(*request);
    if (target.isAsync())
        target.answerAsync(request,
                           [inFlight](ZnHttpResponse response) { inFlight->finishRequest_(std::move(response)); });
    else
        inFlight->finishRequest_(target.answer(*request));
}
