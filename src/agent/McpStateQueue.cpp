#include "agent/McpStateQueue.h"

#include "core/platform/ZnMonotonicClock.h"

#include <chrono>
#include <utility>

namespace {

constexpr int kGatherMs = 20;

} // namespace

void McpStateQueue::add(Call call) {
    const ZnMutexLocker locker(lock_);
    if (work_.calls.size() >= maxCalls_) {
        ++work_.lostCount;
        return;
    }
    work_.calls.push_back(std::move(call));
    if (isFirst_())
        changed_.notify_one();
}

void McpStateQueue::add(SessionChange change) {
    const ZnMutexLocker locker(lock_);
    if (work_.sessions.size() >= maxSessions_) {
        ++work_.lostCount;
        return;
    }
    work_.sessions.push_back(std::move(change));
    if (isFirst_())
        changed_.notify_one();
}

McpStateQueue::Work McpStateQueue::take(int waitMs) {
    const ZnMutexLocker locker(lock_);
    const auto waitUntil = [this](long long deadlineNs) ZN_REQUIRES(lock_) {
        const long long leftNs = deadlineNs - monotonicNowNs();
        if (leftNs > 0)
            changed_.wait_for(lock_, std::chrono::nanoseconds(leftNs));
        return leftNs > 0;
    };
    const long long deadlineNs = monotonicNowNs() + waitMs * 1000000LL;
    while (work_.isEmpty() && !isStopping_) {
        if (waitMs < 0)
            changed_.wait(lock_);
        else if (!waitUntil(deadlineNs))
            break;
    }
    const long long gatheredNs = monotonicNowNs() + kGatherMs * 1000000LL;
    while (!work_.isEmpty() && !isStopping_ && waitUntil(gatheredNs)) {
    }
    return std::exchange(work_, Work());
}

void McpStateQueue::stop() {
    const ZnMutexLocker locker(lock_);
    isStopping_ = true;
    changed_.notify_all();
}

bool McpStateQueue::hasEnded() const {
    const ZnMutexLocker locker(lock_);
    return isStopping_ && work_.isEmpty();
}
