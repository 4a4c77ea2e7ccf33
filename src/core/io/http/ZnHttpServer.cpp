#include "core/io/http/ZnHttpServer.h"

#include "core/io/ZnTcpSocket.h"
#include "core/io/http/ZnHttpSession.h"
#include "core/platform/ZnMonotonicClock.h"
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
        stats_.bytesOut += static_cast<std::int64_t>(response.body.size());
        ++statusCounts_[response.status];
    }

    ZnHttpServerStats snapshot() {
        ZnMutexLocker lock(statsLock_);
        ZnHttpServerStats copy = stats_;
        for (const auto& [status, count] : statusCounts_)
            copy.statusCounts.insert(ZnString::number(status), count);
        return copy;
    }

private:
    ZnMutex statsLock_; // leaf lock
    ZnHttpServerStats stats_ ZN_GUARDED_BY(statsLock_);
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

    void finishRequest_(ZnHttpResponse response) {
        if (isFinished.exchange(true, std::memory_order_relaxed)) // only tells one caller from another
            return;
        counters->record(response, startedNs, true);
        completion(std::move(response));
    }

    void failRequest_(const char* errorText) {
        ZN_LOG_ERROR(kCategory, "ZnHttpServer::handleRequest_") << "[ZnHttpServer] route failed: " << errorText;
        finishRequest_(ZnHttpResponse::plain(500, "Internal Server Error", false));
    }

    const std::shared_ptr<Counters_> counters;
    const ZnHttpResponseCallback completion;
    const long long startedNs;
    std::atomic<bool> isFinished{false};
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

ZnHttpServerStats ZnHttpServer::stats() const {
    return counters_->snapshot();
}

void ZnHttpServer::setLimits(const ZnHttpLimits& limits) {
    limits_ = limits;
    sslServer_.setMaxHandshakes(static_cast<std::size_t>(limits.maxConnections));
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
    const bool keepAlive = request->keepAlive;
    // The handler runs inside this call and may park: behind it the server may be gone, and only locals are used.
    try {
        const auto finish = [inFlight](ZnHttpResponse response) { inFlight->finishRequest_(std::move(response)); };
        if (!router_.dispatchAsync(request, finish))
            inFlight->finishRequest_(ZnHttpResponse::plain(404, "Not Found", keepAlive));
    } catch (const std::exception& error) {
        inFlight->failRequest_(error.what());
    } catch (...) {
        inFlight->failRequest_("Unhandled non-std exception");
    }
}
