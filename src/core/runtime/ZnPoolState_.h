#pragma once

#include "core/runtime/ZnPoolWorker_.h"
#include "core/runtime/ZnThreadPoolSettings.h"
#include "core/types/ZnMutex.h"

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <vector>

/// What a thread pool and the closures on its workers share: the workers, the settings and the counts.
///
/// Thread: any; `lock` guards everything. It is released before a task runs, a thread is joined and a waiter is woken.
/// Owner: the ZnThreadPool alone. The closures hold a weak reference, which tells that the pool has been deleted on one
/// of its own workers; but for that it lives until all workers' threads have been joined.
class ZnPoolState_ : public std::enable_shared_from_this<ZnPoolState_> {
public:
    using Workers = std::vector<ZnPoolWorkerRef_>;

    /// An idle worker, else a new one, else the one with the least work; null when no thread can be made.
    ZnPoolWorker_* chooseWorker() ZN_REQUIRES(lock);
    /// Returns whether the caller has to post a drain: see ZnPoolWorker_::needsDrain.
    bool insert(ZnPoolWorker_& worker, ZnPoolTask_ task) ZN_REQUIRES(lock);
    /// The worker's first task, which runs from now on.
    ZnRunnable* beginFirst(ZnPoolWorker_& worker) ZN_REQUIRES(lock);
    /// How many tasks may be queued.
    int queueLimit() const ZN_REQUIRES(lock);

    bool isDone() const ZN_REQUIRES(lock) { return activeCount == 0 && queuedTaskCount == 0; }
    /// Whether somebody waits for what has just come about.
    bool isWatched() const ZN_REQUIRES(lock) { return isShuttingDown || (isWaitingForDone && isDone()); }
    void wakeWaiters() ZN_EXCLUDES(lock);

    ZnMutex doneMutex; // before `lock`; held by waiters between their test and their sleep
    std::condition_variable_any doneCondition;

    mutable ZnMutex lock;
    Workers workers ZN_GUARDED_BY(lock);
    Workers expired ZN_GUARDED_BY(lock); // retired, still being stopped
    ZnThreadPoolSettings settings ZN_GUARDED_BY(lock);
    int activeCount ZN_GUARDED_BY(lock) = 0;
    int queuedTaskCount ZN_GUARDED_BY(lock) = 0; // over all workers
    int rejectedCount ZN_GUARDED_BY(lock) = 0;
    std::uint32_t workerIdCounter ZN_GUARDED_BY(lock) = 0;
    bool isWaitingForDone ZN_GUARDED_BY(lock) = false;
    bool isShuttingDown ZN_GUARDED_BY(lock) = false;

private:
    ZnPoolWorker_* leastLoaded_() const ZN_REQUIRES(lock);
    ZnPoolWorker_* createWorker_() ZN_REQUIRES(lock);
};
