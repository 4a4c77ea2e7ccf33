#pragma once

#include "core/runtime/ZnFiberPool.h"
#include "core/runtime/ZnTimerTable.h"
#include "core/types/ZnMutex.h"

#include <atomic>
#include <functional>
#include <memory>

/// The timers of one application. Those that are due go to its fiber pool, as many as there is room for: a firing may
/// be late, but is not lost.
///
/// Thread: add() and remove() may be called from any; all else belongs to the application's thread.
/// Owner: the ZnCoreApplication, by value.
class ZnTimerQueue {
public:
    explicit ZnTimerQueue(ZnFiberPool& pool) : pool_(pool) {}

    /// Calls `callback` after `intervalUs` microseconds (at least 1), once or repeatedly, on `lane`. Returns its id.
    /// The caller wakes the loop.
    int add(std::function<void()>&& callback, int intervalUs, bool singleShot, int lane);
    /// After it returns on the loop's thread the callback does not begin any more.
    void remove(int id);
    /// Hands the timers that are due to the pool. Returns nanoseconds to the next look, or -1 without timers.
    long long postDue(long long nowNs) {
        const long long dueNs = nextDueNs_.load(std::memory_order_acquire);
        if (dueNs < 0 || dueNs > nowNs)
            return dueNs < 0 ? -1 : dueNs - nowNs;
        return postAllDue_(nowNs);
    }
    /// Cancels and destroys all timers.
    void clear();

private:
    class Fire_;

    long long postAllDue_(long long nowNs);
    /// False when there was no room for all of them.
    bool postDueOf_(std::size_t group, long long nowNs);
    void fire_(const std::shared_ptr<ZnTimerRecord>& record);
    void putBack_(const std::shared_ptr<ZnTimerRecord>& record, long long dueNs);
    void mirrorNext_() ZN_REQUIRES(lock_);

    ZnFiberPool& pool_;
    std::atomic<long long> nextDueNs_{-1}; // mirrors timers_: -1 for none
    ZnMutex lock_;                         // leaf lock, never held while user code runs
    ZnTimerTable timers_ ZN_GUARDED_BY(lock_);
};
