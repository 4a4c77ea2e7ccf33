#pragma once

#include "core/object/ZnObject.h"
#include "core/runtime/ZnRunnable.h"
#include "core/runtime/ZnThreadPoolSettings.h"

#include <memory>

class ZnPoolState_;

/// Runs tasks on a set of worker threads that grows with the load and shrinks again.
///
/// Each worker has an event loop and a queue of its own, ordered by priority (higher first) and arrival. A task goes to
/// the least loaded worker and stays there. It runs on a fiber: while it is parked its worker takes no other task.
/// Thread: every operation may be called from any thread, also from a task, but for the destructor.
/// Owner: whoever made it; it may have no thread of its own with a loop.
/// Invariant: what the workers' closures touch, the pool's state and their worker, lives until the worker's thread has
/// been joined. Only a pool that is deleted on one of its own workers ends earlier; those closures see that.
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

    void setMaxThreadCount(int count) { set_(&ZnThreadPoolSettings::maxThreadCount, count); }
    int maxThreadCount() const { return get_(&ZnThreadPoolSettings::maxThreadCount); }
    /// Above 0: so many tasks may be queued; 0: 32 for each thread; below 0: no limit.
    void setMaxQueuedTaskCount(int count) { set_(&ZnThreadPoolSettings::maxQueuedTaskCount, count); }
    int maxQueuedTaskCount() const { return get_(&ZnThreadPoolSettings::maxQueuedTaskCount); }
    /// How long a worker stays without work; below 0: for ever. For workers made from now on, as the next three.
    void setExpiryTimeoutMs(int ms) { set_(&ZnThreadPoolSettings::expiryTimeoutMs, ms); }
    int expiryTimeoutMs() const { return get_(&ZnThreadPoolSettings::expiryTimeoutMs); }
    /// Bytes of each task's stack, 0 for the default.
    void setStackSize(int bytes) { set_(&ZnThreadPoolSettings::stackSize, bytes); }
    int stackSize() const { return get_(&ZnThreadPoolSettings::stackSize); }
    /// 0 idle, 1 lowest, 2 low, 3 normal, 4 high, 5 highest, 6 time-critical, 7 from the hint. As far as permitted.
    void setPriority(int priority) { set_(&ZnThreadPoolSettings::priority, priority); }
    int priority() const { return get_(&ZnThreadPoolSettings::priority); }
    /// For priority 7: 1 somewhat more than normal, 2 somewhat less, else normal.
    void setPriorityHint(int hint) { set_(&ZnThreadPoolSettings::priorityHint, hint); }
    int priorityHint() const { return get_(&ZnThreadPoolSettings::priorityHint); }
    /// Threads to leave out of maxThreadCount; one worker there is in any case.
    void setReservedThreadCount(int count) { set_(&ZnThreadPoolSettings::reservedThreadCount, count); }
    int reservedThreadCount() const { return get_(&ZnThreadPoolSettings::reservedThreadCount); }

    /// Tasks that run now, parked ones included.
    int activeCount() const;
    /// Tasks that wait for their turn.
    int queuedTaskCount() const;
    /// Workers that take tasks.
    int threadCount() const;
    /// Tasks refused so far because the queue was full.
    int rejectedCount() const;

private:
    enum class Verdict_ { Accepted, Saturated, Refused };
    struct Outcome_ {
        Verdict_ verdict = Verdict_::Refused;
        int queuedTaskCount = 0; // these two when Saturated
        int limit = 0;
    };

    void set_(int ZnThreadPoolSettings::*field, int value);
    int get_(int ZnThreadPoolSettings::*field) const;
    Outcome_ submit_(ZnRunnable* task, int priority);
    bool beginWait_();
    bool awaitDone_(Deadline deadline);
    void dropQueued_();
    void waitForRunning_();

    const std::shared_ptr<ZnPoolState_> state_; // others have weak references
};
