#include "core/io/http/ZnHttpServerCounters_.h"

#include "core/platform/ZnMonotonicClock.h"

#include <algorithm>

void ZnHttpServerCounters_::refuseConnection() {
    ZnMutexLocker lock(statsLock_);
    ++stats_.connectionsRefused;
}

bool ZnHttpServerCounters_::admit(std::uint64_t maxInFlight, std::size_t bodyBytes) {
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

bool ZnHttpServerCounters_::enterLoop(std::uint64_t maxRunning) {
    if (runningOnLoop_ < maxRunning) {
        ++runningOnLoop_;
        return true;
    }
    ZnMutexLocker lock(statsLock_);
    ++stats_.busyRefused;
    return false;
}

void ZnHttpServerCounters_::abandon() {
    ZnMutexLocker lock(statsLock_);
    --stats_.inFlight;
}

void ZnHttpServerCounters_::record(const ZnHttpResponse& response, long long startedNs, bool wasAdmitted) {
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

bool ZnHttpServerCounters_::enterPool(std::uint64_t maxQueued) {
    ZnMutexLocker lock(statsLock_);
    if (maxQueued > 0 && static_cast<std::uint64_t>(threadPoolQueued_) >= maxQueued) {
        ++stats_.poolRefused;
        return false;
    }
    ++threadPoolQueued_;
    return true;
}

void ZnHttpServerCounters_::leavePool() {
    ZnMutexLocker lock(statsLock_);
    --threadPoolQueued_;
}

ZnHttpServerStats ZnHttpServerCounters_::snapshot() {
    ZnMutexLocker lock(statsLock_);
    ZnHttpServerStats copy = stats_;
    for (const auto& [status, count] : statusCounts_)
        copy.statusCounts.insert(ZnString::number(status), count);
    return copy;
}
