#include "core/runtime/ZnTimerQueue.h"

#include "core/platform/ZnMonotonicClock.h"

#include <algorithm>

namespace {
constexpr long long kNsPerUs = 1000;
} // namespace

/// The closure of one firing. If the pool drops it, the timer goes back in line: a firing is late, not lost.
class ZnTimerQueue::Fire_ {
public:
    Fire_(ZnTimerQueue& queue, std::shared_ptr<ZnTimerRecord> record) : queue_(&queue), record_(std::move(record)) {}
    Fire_(Fire_&& other) noexcept = default;
    Fire_& operator=(Fire_&&) = delete;
    ~Fire_() {
        if (record_)
            queue_->putBack_(record_, monotonicNowNs());
    }
    void operator()() {
        const std::shared_ptr<ZnTimerRecord> record = std::move(record_);
        queue_->fire_(record);
    }

private:
    ZnTimerQueue* queue_;
    std::shared_ptr<ZnTimerRecord> record_;
};

int ZnTimerQueue::add(std::function<void()>&& callback, int intervalUs, bool singleShot, int lane) {
    const long long intervalNs = std::max(intervalUs, 1) * kNsPerUs;
    ZnMutexLocker locker(lock_);
    const int id = timers_.add(std::move(callback), intervalNs, singleShot, lane, monotonicNowNs() + intervalNs)->id;
    mirrorNext_();
    return id;
}

void ZnTimerQueue::remove(int id) {
    std::shared_ptr<ZnTimerRecord> removed; // destroyed without the lock
    ZnMutexLocker locker(lock_);
    removed = timers_.remove(id);
    mirrorNext_();
}

void ZnTimerQueue::clear() {
    ZnTimerTable dropped; // the callbacks are destroyed without the lock
    ZnMutexLocker locker(lock_);
    std::swap(dropped, timers_);
    dropped.cancelAll();
}

void ZnTimerQueue::mirrorNext_() {
    nextDueNs_.store(timers_.nextDueNs(), std::memory_order_release);
}

long long ZnTimerQueue::postAllDue_(long long nowNs) {
    bool allPosted = true;
    for (std::size_t group = 0; group < ZnTimerTable::kGroupCount; ++group)
        allPosted = postDueOf_(group, nowNs) && allPosted;
    const long long nextDueNs = nextDueNs_.load(std::memory_order_acquire);
    if (!allPosted) // the pool is full of work, which goes first
        return 0;
    return nextDueNs < 0 ? -1 : std::max(nextDueNs - nowNs, 0LL);
}

bool ZnTimerQueue::postDueOf_(std::size_t group, long long nowNs) {
    for (;;) {
        std::shared_ptr<ZnTimerRecord> record;
        {
            ZnMutexLocker locker(lock_);
            const ZnTimerRecord* next = timers_.next(group);
            if (next == nullptr || next->dueNs > nowNs)
                return true;
            if (!pool_.canAccept(next->lane, ZnFiberPool::Purpose::WakeUp))
                return false;
            record = timers_.takeNext(group);
            mirrorNext_();
        }
        const int lane = record->lane;
        ZnTask fire(Fire_(*this, std::move(record)));
        if (!pool_.submit(fire, lane, ZnFiberPool::Purpose::WakeUp)) // on its own thread: nobody sleeps
            return false; // another thread took the room; the timer goes back in line
    }
}

void ZnTimerQueue::fire_(const std::shared_ptr<ZnTimerRecord>& record) {
    if (record->cancelled.load(std::memory_order_acquire))
        return;
    if (record->singleShot) {
        ZnMutexLocker locker(lock_);
        timers_.forget(record->id);
    } else {
        putBack_(record, monotonicNowNs() + record->intervalNs);
    }
    record->callback();
}

void ZnTimerQueue::putBack_(const std::shared_ptr<ZnTimerRecord>& record, long long dueNs) {
    ZnMutexLocker locker(lock_);
    timers_.putBack(record, dueNs);
    mirrorNext_();
}
