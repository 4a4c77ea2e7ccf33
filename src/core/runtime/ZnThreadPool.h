#pragma once

#include "core/object/ZnObject.h"
#include "core/runtime/ZnRunnable.h"
#include "core/runtime/ZnThread.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

class ZnCoreApplication;

/// Runs tasks on a set of worker threads that grows with the load and shrinks again.
///
/// Each worker has an event loop and a queue of its own, ordered by priority (higher first) and arrival. A task goes to
/// the least loaded worker and stays there. It runs on a fiber: while it is parked its worker takes no other task.
/// Thread: every operation may be called from any thread, also from a task, but for the destructor.
/// Owner: whoever made it; it may have no thread of its own with a loop.
/// Invariant: what the workers' closures touch, the pool and their Worker_, lives until the worker's thread has been
/// joined. Only a pool that is deleted on one of its own workers goes earlier; those closures look at aliveToken_.
class ZnThreadPool : public ZnObject {
public:
    ZN_OBJECT(ZnThreadPool, ZnObject)

    /// A point in time, in milliseconds of the monotonic clock.
    struct Deadline {
        bool forever = true;
        long long ticks = 0;

        /// `ms` milliseconds from now.
        static Deadline inMs(long long ms);
    };

    /// As many threads as there are processors, an automatic queue limit, idle workers leave after 30 seconds.
    explicit ZnThreadPool(ZnObject* parent = nullptr);
    /// Refuses new work, drops what is queued (deleting autoDelete tasks) and blocks until what runs has ended; so no
    /// running task may need the calling thread's loop. A task may delete its own pool, which does not wait for it.
    ~ZnThreadPool() override;

    /// Queues `task`, or drops it: a refused task is deleted if its autoDelete is set, and a full queue is logged.
    void start(ZnRunnable* task, int priority = 0);
    /// Queues `task` and returns true, or leaves it with the caller and sets `*saturated` (may be null) to whether the
    /// queue is full; otherwise the pool is ending, in waitForDone, or without threads. Logs nothing.
    bool tryStart(ZnRunnable* task, int priority = 0, bool* saturated = nullptr);

    /// Blocks the thread until nothing runs or is queued: true; false at the deadline. New tasks are refused meanwhile.
    /// False at once on a worker of this pool, and while another call waits. Not for a thread whose loop the tasks
    /// need.
    bool waitForDone(Deadline deadline);
    bool waitForDone() { return waitForDone(Deadline()); }

    void setMaxThreadCount(int count) { set_(&ZnThreadPool::maxThreadCount_, count); }
    int maxThreadCount() const { return get_(&ZnThreadPool::maxThreadCount_); }
    /// Above 0: so many tasks may be queued; 0: 32 for each thread; below 0: no limit.
    void setMaxQueuedTaskCount(int count) { set_(&ZnThreadPool::maxQueuedTaskCount_, count); }
    int maxQueuedTaskCount() const { return get_(&ZnThreadPool::maxQueuedTaskCount_); }
    /// How long a worker stays without work; below 0: for ever. For workers made from now on, as the next three.
    void setExpiryTimeoutMs(int ms) { set_(&ZnThreadPool::expiryTimeoutMs_, ms); }
    int expiryTimeoutMs() const { return get_(&ZnThreadPool::expiryTimeoutMs_); }
    /// Bytes of each task's stack, 0 for the default.
    void setStackSize(int bytes) { set_(&ZnThreadPool::stackSize_, bytes); }
    int stackSize() const { return get_(&ZnThreadPool::stackSize_); }
    /// 0 idle, 1 lowest, 2 low, 3 normal, 4 high, 5 highest, 6 time-critical, 7 from the hint. As far as permitted.
    void setPriority(int priority) { set_(&ZnThreadPool::priority_, priority); }
    int priority() const { return get_(&ZnThreadPool::priority_); }
    /// For priority 7: 1 somewhat more than normal, 2 somewhat less, else normal.
    void setPriorityHint(int hint) { set_(&ZnThreadPool::priorityHint_, hint); }
    int priorityHint() const { return get_(&ZnThreadPool::priorityHint_); }
    /// Threads to leave out of maxThreadCount; one worker there is in any case.
    void setReservedThreadCount(int count) { set_(&ZnThreadPool::reservedThreadCount_, count); }
    int reservedThreadCount() const { return get_(&ZnThreadPool::reservedThreadCount_); }

    /// Tasks that run now, parked ones included.
    int activeCount() const { return get_(&ZnThreadPool::activeCount_); }
    /// Tasks that wait for their turn.
    int queuedTaskCount() const { return get_(&ZnThreadPool::queuedTaskCount_); }
    /// Workers that take tasks.
    int threadCount() const;
    /// Tasks refused so far because the queue was full.
    int rejectedCount() const { return get_(&ZnThreadPool::rejectedCount_); }

private:
    struct Task_ {
        ZnRunnable* runnable = nullptr;
        int priority = 0;
    };
    /// All but `id`, `thread`, `expiryMs` and `orphan` is guarded by lock_.
    struct Worker_ : std::enable_shared_from_this<Worker_> {
        std::uint32_t id = 0;
        std::unique_ptr<ZnThread> thread;
        std::deque<Task_> tasks;      // higher priorities first, then in order of arrival
        ZnRunnable* orphan = nullptr; // the running task if the pool has to delete it; used on the worker's thread only
        bool running = false;
        bool scheduled = false; // a drain closure is on its way
        bool retiring = false;
        bool expiryArmed = false;     // a timer for the expiry is on its way
        std::uint32_t generation = 0; // changes whenever the worker stops being idle
        int expiryMs = 30000;
        long long lastActivityNs = 0;
    };
    using WorkerRef_ = std::shared_ptr<Worker_>;
    class Drain_;
    enum class Verdict_ { Accepted, Saturated, Refused };
    struct Outcome_ {
        Verdict_ verdict = Verdict_::Refused;
        int queuedTaskCount = 0; // these two when Saturated
        int limit = 0;
    };

    void set_(int ZnThreadPool::*field, int value);
    int get_(int ZnThreadPool::*field) const;
    static void release_(ZnRunnable* task);
    Outcome_ submit_(ZnRunnable* task, int priority);
    Worker_* chooseWorker_() ZN_REQUIRES(lock_);
    Worker_* leastLoaded_() const ZN_REQUIRES(lock_);
    Worker_* createWorker_() ZN_REQUIRES(lock_);
    static bool isBusy_(const Worker_& worker);
    int queueLimit_() const ZN_REQUIRES(lock_);
    /// Returns whether the caller has to post a drain, when it has released the lock.
    bool insert_(Worker_& worker, Task_ task) ZN_REQUIRES(lock_);
    bool needsDrain_(Worker_& worker) ZN_REQUIRES(lock_);
    void postDrain_(Worker_* worker);

    // On the worker's thread.
    void drainWorker_(Worker_* worker, const std::weak_ptr<bool>& alive);
    ZnRunnable* takeTask_(Worker_* worker);
    ZnRunnable* beginFirst_(Worker_& worker) ZN_REQUIRES(lock_);
    static void runSafely_(ZnRunnable& task, std::uint32_t workerId);
    /// Returns the task to go on with, or null when the fiber has to end.
    ZnRunnable* finishTask_(Worker_* worker, long long untilNs);
    void armExpiry_(Worker_* worker, std::uint32_t generation, long long delayNs);
    void expire_(Worker_* worker, std::uint32_t generation);
    void workerEnded_(Worker_* worker);

    void retire_(Worker_* worker) ZN_REQUIRES(lock_);
    void rescue_(std::deque<Task_> tasks, std::vector<WorkerRef_>* toDrain, std::vector<ZnRunnable*>* lost)
        ZN_REQUIRES(lock_);
    void takeEnded_(std::vector<WorkerRef_>* ended) ZN_REQUIRES(lock_);
    void reap_();
    bool isDone_() const ZN_REQUIRES(lock_);
    bool isWatched_() const ZN_REQUIRES(lock_);
    void broadcast_();
    bool beginWait_();
    bool awaitDone_(Deadline deadline);
    void dropQueued_();
    void waitForRunning_();

    const std::shared_ptr<bool> aliveToken_;
    std::mutex doneMutex_; // before lock_; held by waiters between their test and their sleep
    std::condition_variable doneCondition_;

    mutable ZnMutex lock_; // released before a task runs, a thread is joined and a waiter is woken
    std::vector<WorkerRef_> workers_ ZN_GUARDED_BY(lock_);
    std::vector<WorkerRef_> expired_ ZN_GUARDED_BY(lock_); // retired, still being stopped
    int maxThreadCount_ ZN_GUARDED_BY(lock_);
    int maxQueuedTaskCount_ ZN_GUARDED_BY(lock_) = 0;
    int expiryTimeoutMs_ ZN_GUARDED_BY(lock_) = 30000;
    int stackSize_ ZN_GUARDED_BY(lock_) = 0;
    int priority_ ZN_GUARDED_BY(lock_) = 3;
    int priorityHint_ ZN_GUARDED_BY(lock_) = 0;
    int reservedThreadCount_ ZN_GUARDED_BY(lock_) = 0;
    int activeCount_ ZN_GUARDED_BY(lock_) = 0;
    int queuedTaskCount_ ZN_GUARDED_BY(lock_) = 0; // over all workers
    int rejectedCount_ ZN_GUARDED_BY(lock_) = 0;
    std::uint32_t workerIdCounter_ ZN_GUARDED_BY(lock_) = 0;
    bool waitingForDone_ ZN_GUARDED_BY(lock_) = false;
    bool shuttingDown_ ZN_GUARDED_BY(lock_) = false;
};
