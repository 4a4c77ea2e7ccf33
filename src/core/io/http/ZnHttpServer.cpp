#include "core/io/http/ZnHttpServer.h"

#include "core/io/ZnTcpSocket.h"
#include "core/io/http/ZnHttpHandoff_.h"
#include "core/io/http/ZnHttpSession.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/runtime/Thread.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnThreadPool.h"
#include "core/types/ZnLogger.h"
#include "core/types/ZnMutex.h"
#include "core/types/ZnThreadAnnotations.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <map>
#include <utility>

namespace {

constexpr const char* kCategory = "zn.core.io.znhttpserver";
constexpr int kSpareFibers = 64; // for what else the loop does while that many handlers are parked

template <typename T>
std::shared_ptr<const std::vector<T>> withOneMore(const std::shared_ptr<const std::vector<T>>& list, T added) {
    auto longer = list ? std::make_shared<std::vector<T>>(*list) : std::make_shared<std::vector<T>>();
    longer->push_back(std::move(added));
    return longer;
}

bool runFilters(const std::vector<ZnHttpServer::RequestFilter>& filters, const ZnHttpRequest& request,
                ZnHttpResponse* response) {
    return std::any_of(filters.begin(), filters.end(),
                       [&](const ZnHttpServer::RequestFilter& filter) { return filter(request, *response); });
}

} // namespace

/// The counters of one server. Any thread.
class ZnHttpServer::Counters_ {
public:
    void refuseConnection() {
        ZnMutexLocker lock(statsLock_);
        ++stats_.connectionsRefused;
    }

    /// False: `maxInFlight` requests, if that is not 0, are being handled already.
    bool admit(std::uint64_t maxInFlight, std::size_t bodyBytes) {
        ZnMutexLocker lock(statsLock_);
        if (maxInFlight > 0 && static_cast<std::uint64_t>(stats_.inFlight) >= maxInFlight) {
            ++stats_.busyRefused;
            return false;
        }
        ++stats_.inFlight;
        ++stats_.requestsStarted;
        stats_.bytesIn += static_cast<std::int64_t>(bodyBytes);
        return true;
    }

    /// False: `maxRunning` handlers run on the loop already. Server's thread, as leaveLoop.
    bool enterLoop(std::uint64_t maxRunning) {
        if (runningOnLoop_ < maxRunning) {
            ++runningOnLoop_;
            return true;
        }
        ZnMutexLocker lock(statsLock_);
        ++stats_.busyRefused;
        return false;
    }

    void leaveLoop() { --runningOnLoop_; }

    /// An admitted request has ended without a response.
    void abandon() {
        ZnMutexLocker lock(statsLock_);
        --stats_.inFlight;
    }

    void record(const ZnHttpResponse& response, long long startedNs, bool wasAdmitted) {
        const std::int64_t latencyMs = (monotonicNowNs() - startedNs) / 1'000'000;
        ZnMutexLocker lock(statsLock_);
        if (wasAdmitted)
            --stats_.inFlight;
        ++stats_.responsesFinished;
        stats_.totalLatencyMs += latencyMs;
        stats_.maxLatencyMs = std::max(stats_.maxLatencyMs, latencyMs);
        stats_.bytesOut += static_cast<std::int64_t>(response.bodyBytes());
        ++statusCounts_[response.status];
    }

    /// False: `maxQueued` requests, if that is not 0, are with the thread pool already.
    bool enterPool(std::uint64_t maxQueued) {
        ZnMutexLocker lock(statsLock_);
        if (maxQueued > 0 && static_cast<std::uint64_t>(threadPoolQueued_) >= maxQueued) {
            ++stats_.poolRefused;
            return false;
        }
        ++threadPoolQueued_;
        return true;
    }

    void leavePool() {
        ZnMutexLocker lock(statsLock_);
        --threadPoolQueued_;
    }

    ZnHttpServerStats snapshot() {
        ZnMutexLocker lock(statsLock_);
        ZnHttpServerStats copy = stats_;
        for (const auto& [status, count] : statusCounts_)
            copy.statusCounts.insert(ZnString::number(status), count);
        return copy;
    }

private:
    std::uint64_t runningOnLoop_ = 0; // handlers, most of them parked; server's thread only
    ZnMutex statsLock_;               // leaf lock
    ZnHttpServerStats stats_ ZN_GUARDED_BY(statsLock_);
    std::int64_t threadPoolQueued_ ZN_GUARDED_BY(statsLock_) = 0;         // handed to the pool, not answered yet
    std::map<int, std::uint64_t> statusCounts_ ZN_GUARDED_BY(statsLock_); // becomes stats_.statusCounts
};

/// One admitted request: counted from construction to its first answer, or to the end of the last one who could
/// have answered. Any thread; outlives the server where a handler does.
struct ZnHttpServer::InFlight_ {
    InFlight_(std::shared_ptr<Counters_> sharedCounters, ZnHttpResponseCallback callback, long long startNs)
        : counters(std::move(sharedCounters)), completion(std::move(callback)), startedNs(startNs) {}
    InFlight_(const InFlight_&) = delete;
    InFlight_& operator=(const InFlight_&) = delete;
    ~InFlight_() {
        if (!isFinished.load(std::memory_order_relaxed))
            counters->abandon();
    }

    void finishRequest_(ZnHttpResponse&& response) {
        if (isFinished.exchange(true, std::memory_order_relaxed)) // only tells one caller from another
            return;
        counters->record(response, startedNs, true);
        completion(std::move(response));
    }

    void failRequest_(const char* errorText) {
        ZN_LOG_ERROR(kCategory, "ZnHttpServer::handleRequest_") << "[ZnHttpServer] route failed: " << errorText;
        finishRequest_(ZnHttpResponse::plain(500, "Internal Server Error", false));
    }

    /// Calls `step` and answers for it when it throws.
    template <typename Step>
    void run_(Step step) {
        try {
            step();
        } catch (const std::exception& error) {
            failRequest_(error.what());
        } catch (...) {
            failRequest_("Unhandled non-std exception");
        }
    }

    const std::shared_ptr<Counters_> counters;
    const ZnHttpResponseCallback completion;
    const long long startedNs;
    std::atomic<bool> isFinished{false};
    bool hasPlace = false; // among those that run on the loop; server's thread only
};

/// One request's place among those that run on the loop, while a frame does. Frames inside it share it.
class ZnHttpServer::LoopPlace_ {
public:
    LoopPlace_(std::shared_ptr<InFlight_> inFlight, std::uint64_t maxRunning) : inFlight_(std::move(inFlight)) {
        isOwner_ = !inFlight_->hasPlace && inFlight_->counters->enterLoop(maxRunning);
        inFlight_->hasPlace |= isOwner_;
        isGranted_ = inFlight_->hasPlace;
    }
    LoopPlace_(const LoopPlace_&) = delete;
    LoopPlace_& operator=(const LoopPlace_&) = delete;
    ~LoopPlace_() {
        if (!isOwner_)
            return;
        inFlight_->hasPlace = false;
        inFlight_->counters->leaveLoop();
    }
    /// Answers when there is none.
    bool isGrantedFor(const ZnHttpRequest& request) const {
        if (!isGranted_)
            inFlight_->finishRequest_(ZnHttpResponse::plain(503, "Server busy", request.keepAlive));
        return isGranted_;
    }

private:
    const std::shared_ptr<InFlight_> inFlight_;
    bool isOwner_ = false;
    bool isGranted_ = false;
};

/// One request with the thread pool. Holds all that it needs: the server may go meanwhile.
///
/// Thread: one of the pool's; a job that the pool drops answers where it is destroyed.
class ZnHttpServer::PoolJob_ {
public:
    /// Counted already, by enterPool.
    PoolJob_(std::shared_ptr<InFlight_> inFlight, std::shared_ptr<const ZnHttpRequest> request,
             std::shared_ptr<const FilterList_> filters, ZnHttpRouter::Target target)
        : inFlight_(std::move(inFlight)),
          request_(std::move(request)),
          filters_(std::move(filters)),
          target_(std::move(target)) {}
    PoolJob_(PoolJob_&& other) = default;
    PoolJob_& operator=(PoolJob_&&) = delete;
    ~PoolJob_() {
        if (inFlight_)
            end_(ZnHttpResponse::plain(503, "ThreadPool unavailable", request_->keepAlive));
    }

    void operator()() {
        const std::shared_ptr<InFlight_> inFlight = inFlight_;
        inFlight->run_([this] {
            ZnHttpResponse response;
            if (!filters_ || !runFilters(*filters_, *request_, &response))
                response = target_.answer(*request_);
            end_(std::move(response));
        });
    }

private:
    void end_(ZnHttpResponse response) {
        const std::shared_ptr<InFlight_> inFlight = std::move(inFlight_);
        inFlight->counters->leavePool(); // before the answer: who has it may come again
        inFlight->finishRequest_(std::move(response));
    }

    std::shared_ptr<InFlight_> inFlight_; // null when the job has ended
    std::shared_ptr<const ZnHttpRequest> request_;
    std::shared_ptr<const FilterList_> filters_;
    ZnHttpRouter::Target target_;
};

/// One request on its way through the middleware, each of which may keep it for a while.
///
/// Thread: the server's; next() brings a call from elsewhere there. Owner: the `next` callables.
class ZnHttpServer::Pipeline_ : public std::enable_shared_from_this<Pipeline_> {
public:
    Pipeline_(ZnHttpServer* server, std::shared_ptr<ZnHttpRequest> request, std::shared_ptr<InFlight_> inFlight)
        : server_(server),
          thread_(zn::atomic::Thread::currentThread()),
          request_(std::move(request)),
          inFlight_(std::move(inFlight)),
          middleware_(server->middleware_) {}

    void step() {
        const std::size_t index = stepIndex_;
        if (index < middleware_->size()) {
            (*middleware_)[index](
                *request_, [self = shared_from_this(), index](bool isHandled, const ZnHttpResponse& response) {
                    const std::shared_ptr<Pipeline_> kept = self; // this callable may be dropped while it runs
                    kept->next_(index, isHandled, response);
                });
        } else if (ZnHttpServer* server = server_.get()) {
            server->runRoute_(request_, inFlight_);
        }
    }

private:
    void next_(std::size_t index, bool isHandled, const ZnHttpResponse& response) {
        if (isHandled) {
            inFlight_->finishRequest_(ZnHttpResponse(response));
            return;
        }
        if (thread_ == zn::atomic::Thread::currentThread())
            leave_(index);
        else
            zn::http::handOver(thread_, [self = shared_from_this(), index] { self->leave_(index); });
    }

    /// Goes on behind the middleware at `index`, unless that has been done or the request was answered.
    void leave_(std::size_t index) {
        if (index != stepIndex_ || inFlight_->isFinished.load(std::memory_order_relaxed))
            return;
        ++stepIndex_;
        inFlight_->run_([this] { step(); });
    }

    const ZnPointer<ZnHttpServer> server_;
    zn::atomic::Thread* const thread_;
    const std::shared_ptr<ZnHttpRequest> request_;
    const std::shared_ptr<InFlight_> inFlight_;
    const std::shared_ptr<const MiddlewareList_> middleware_;
    std::size_t stepIndex_ = 0;
};

ZnHttpServer::ZnHttpServer(ZnObject* parent) : ZnObject(parent), counters_(std::make_shared<Counters_>()) {
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
        completion(std::move(busy));
        return;
    }
    const auto inFlight = std::make_shared<InFlight_>(counters_, std::move(completion), startedNs);
    inFlight->run_([&] {
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

/// What filters and routes say to a request in front of its body; null: it is to be read. A middleware might answer
/// what has no route.
std::unique_ptr<ZnHttpResponse> ZnHttpServer::refusalOf_(ZnHttpRequest& request) const {
    const long long startedNs = monotonicNowNs();
    auto response = std::make_unique<ZnHttpResponse>();
    try {
        if (!requestFilters_ || !runFilters(*requestFilters_, request, response.get())) {
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
                                 const std::shared_ptr<InFlight_>& inFlight, ZnHttpRouter::Target target) {
    if (!counters_->enterPool(limits_.maxThreadPoolRequests)) {
        inFlight->finishRequest_(ZnHttpResponse::plain(503, "ThreadPool saturated", request->keepAlive));
        return;
    }
    auto task =
        std::make_unique<ZnCallableRunnable<PoolJob_>>(PoolJob_(inFlight, request, requestFilters_, std::move(target)));
    bool isSaturated = false;
    if (threadPool_->tryStart(task.get(), 0, &isSaturated))
        static_cast<void>(task.release()); // the pool's; it may have run by now
    else if (isSaturated)
        inFlight->finishRequest_(ZnHttpResponse::plain(503, "ThreadPool saturated", request->keepAlive));
    // Else the job, which goes here, answers.
}

std::uint64_t ZnHttpServer::maxParkedRequests_() const {
    ZnCoreApplication* application = ZnCoreApplication::instance();
    if (limits_.maxParkedRequests > 0 || application == nullptr)
        return std::max<std::uint64_t>(limits_.maxParkedRequests, 1);
    const int fiberCount = application->fiberPool().warmTarget();
    return static_cast<std::uint64_t>(std::max(1, fiberCount - std::min(kSpareFibers, fiberCount / 2)));
}

// From here on user code runs inside each call and may park: behind it only locals are used, the server may be gone.

void ZnHttpServer::runInline_(const std::shared_ptr<ZnHttpRequest>& request,
                              const std::shared_ptr<InFlight_>& inFlight) {
    const LoopPlace_ place(inFlight, maxParkedRequests_());
    if (!place.isGrantedFor(*request))
        return;
    if (requestFilters_ || middleware_)
        runPipeline_(request, inFlight);
    else
        runRoute_(request, inFlight);
}

void ZnHttpServer::runPipeline_(const std::shared_ptr<ZnHttpRequest>& request,
                                const std::shared_ptr<InFlight_>& inFlight) {
    const ZnPointer<ZnHttpServer> self(this);
    ZnHttpResponse response;
    const std::shared_ptr<const FilterList_> filters = requestFilters_;
    if (filters && runFilters(*filters, *request, &response)) {
        inFlight->finishRequest_(std::move(response));
        return;
    }
    if (!self)
        return;
    if (middleware_)
        std::make_shared<Pipeline_>(this, request, inFlight)->step();
    else
        runRoute_(request, inFlight);
}

void ZnHttpServer::runRoute_(const std::shared_ptr<ZnHttpRequest>& request,
                             const std::shared_ptr<InFlight_>& inFlight) {
    const LoopPlace_ place(inFlight, maxParkedRequests_()); // its own when a middleware has waited
    if (!place.isGrantedFor(*request))
        return;
    const ZnHttpRouter::Target target = router_.find(*request);
    if (target.isAsync())
        target.answerAsync(request,
                           [inFlight](ZnHttpResponse response) { inFlight->finishRequest_(std::move(response)); });
    else
        inFlight->finishRequest_(target.answer(*request));
}
