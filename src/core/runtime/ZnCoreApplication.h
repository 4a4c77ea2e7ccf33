#pragma once

#include "core/platform/ZnConsoleStop.h"
#include "core/platform/ZnPoller.h"
#include "core/runtime/Thread.h"
#include "core/runtime/ZnEventQueue.h"
#include "core/runtime/ZnFiberPool.h"
#include "core/runtime/ZnIoDispatcher.h"
#include "core/runtime/ZnLoadMeter.h"
#include "core/runtime/ZnPost.h"
#include "core/runtime/ZnTimerQueue.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"
#include "core/types/ZnTask.h"

#include <functional>
#include <list>
#include <memory>

class ZnEventLoop;

/// The runtime of one thread: event queues, timers, the fiber pool, the I/O dispatcher and the loop over them.
///
/// Every callback runs on a pooled fiber, but for object events, which run on the loop's own context.
/// Thread: one instance per thread; posting, timers and quit() may be called from any thread, all else belongs
/// to the thread that made it.
/// Owner: the entry function on the main thread, the thread record elsewhere.
class ZnCoreApplication final : private ZnConsoleStopTarget {
public:
    /// For the main thread: parses the command line (argv[0] is skipped) and raises the limit of open descriptors.
    ZnCoreApplication(int argc, char** argv);
    ZnCoreApplication();
    /// For who goes on without an application when ZnPoller::open() gives none; the other two end the process then.
    /// `isHelper`: its loop only works for others, so a stop signal that finds no other one ends the process.
    explicit ZnCoreApplication(std::unique_ptr<ZnPoller> poller, bool isHelper = false);
    /// Deletes the objects that wait for deferred deletion; posts that never ran are destroyed.
    ~ZnCoreApplication() override;
    ZnCoreApplication(const ZnCoreApplication&) = delete;
    ZnCoreApplication& operator=(const ZnCoreApplication&) = delete;

    /// The calling thread's application, or null.
    static ZnCoreApplication* instance() noexcept;
    /// As instance(), made if absent; such an application lives to the end of the process.
    static ZnCoreApplication& instanceOrNew();

    /// Runs the loop until quit(), or for `maxDurationUs` microseconds if that is not 0. Returns the exit code.
    int exec(long long maxDurationUs = 0);
    /// Ends exec() after the callback that runs now. Any thread; it cannot be taken back.
    void quit();
    bool isQuitRequested() const noexcept { return !running_.load(std::memory_order_acquire); }
    /// Runs the loop until `isDone` gives true or `maxMs` milliseconds have passed, also after quit(). Returns the last
    /// answer of `isDone`. On the loop's own context only: for orderly ends, when exec() has returned.
    bool processUntil(const std::function<bool()>& isDone, int maxMs);

    /// Ends every ZnEventLoop wait of this thread, and new ones at once, and runs the loop until no fiber is parked in
    /// one or `maxMs` milliseconds have passed. For an orderly end, before the objects that waiting code uses are
    /// destroyed; on the loop's own context. Fibers that are parked when the application ends are dropped without
    /// unwinding.
    bool endWaits(int maxMs);
    bool isEndingWaits() const noexcept { return endingWaits_; }
    /// For the end of a thread, on the loop's own context: ends every wait, of whatever kind, and lets the parked
    /// fibers run to their ends. Nothing else runs meanwhile: what is queued stays queued.
    void unwindFibers();

    /// Queues `task` for a fiber of this application. False: the pool is full, and the task still the caller's. Any
    /// thread.
    bool post(ZnTask& task, ZnPostOptions options = {});
    /// As post(), on lane 2 or another one; a refused task is destroyed. Any thread.
    bool postEvent(ZnTask task) { return post(task); }
    bool postEventOnLane(ZnTask task, int lane) { return post(task, {.lane = lane}); }
    /// As post(), but what the log has to say is left to the caller, who may hold a lock here but not in logRejected().
    bool offer(ZnTask& task, ZnPostOptions options, ZnFiberPool::Rejection* rejection);
    static void logRejected(const ZnFiberPool::Rejection& rejection);
    /// Queues an object event and takes it over. Priority 1 and above goes before timers and lanes 1 to 3. Never
    /// refused. Any thread.
    void postEvent(ZnObject* receiver, ZnEvent* event, int priority);
    /// Queues the deferred deletion of an object of this thread. Any thread.
    void queueDeletion(ZnObject* object);
    /// Delivers at once: filters of the application, of the receiver, then the receiver. The caller keeps the event.
    bool sendEvent(ZnObject* receiver, ZnEvent* event) { return notify(receiver, event); }
    bool notify(ZnObject* receiver, ZnEvent* event) { return events_.notify(receiver, event); }
    /// `filter` sees every event delivered on this thread; the latest filter goes first.
    void installEventFilter(ZnObject* filter) { events_.installFilter(filter); }

    /// Calls `callback` after `intervalUs` microseconds (at least 1), once or repeatedly, on `lane`. Any thread.
    int addTimer(std::function<void()> callback, int intervalUs, bool singleShot, int lane);
    /// After it returns on the loop's thread the callback does not begin any more. Any thread.
    void removeTimer(int id) { timers_.remove(id); }

    /// Bytes of each fiber's stack, 0 for the default; only before the first post.
    void setEventFiberStackSize(int bytes);

    bool hasArgument(const ZnString& name) const { return parsedOptions_.contains(name); }
    ZnString getArgument(const ZnString& name, const ZnString& defaultValue = ZnString()) const {
        return parsedOptions_.value(name, defaultValue);
    }

    /// All options that were given, by name.
    const ZnMap<ZnString, ZnString>& arguments() const noexcept { return parsedOptions_; }

    ZnFiberPool& fiberPool() noexcept { return fiberPool_; }
    ZnIoDispatcher& ioDispatcher() noexcept { return ioDispatcher_; }
    /// Share of the last second that the loop was busy, 0.0 to 1.0.
    double load() const { return loadMeter_.load(); }
    /// Wakes the loop if it sleeps. Any thread; no system call while it is awake.
    void wake() noexcept { poller_->wake(); }

private:
    friend class ZnEventLoop;

    void parseCommandLine_(int argc, char** argv);
    bool requestStop() noexcept override; // async-signal-safe

    bool runLoop_(const std::function<bool()>* isDone, long long deadlineNs);
    /// At most one unit of work. Returns nanoseconds until the next look: 0 at once, -1 when woken.
    long long processEvents_(long long nowNs);
    void queueEvent_(ZnEventQueue::Queued&& queued, int priority);
    void serveTheStarved_(long long nowNs);
    bool onFull_(ZnTask& task, ZnPostOptions options, ZnFiberPool::Rejection* rejection);
    ZnFiberPool::Rejection countRejected_(int lane);
    void reportRejections_(int lane);

    std::atomic<bool> running_{true}; // cleared by quit() and the console; pairs with isQuitRequested()
    const bool isHelper_;
    int exitCode_ = 0;
    std::uint32_t threadId_ = 0;
    const std::unique_ptr<ZnPoller> poller_;
    ZnFiberContext mainFiber_; // the loop's own context
    ZnFiberPool fiberPool_;
    ZnMap<ZnString, ZnString> parsedOptions_; // immutable after construction
    ZnLoadMeter loadMeter_;
    std::list<ZnEventLoop*> runningLoops_; // whose exec() has not ended
    bool endingWaits_ = false;
    long long lastLookNs_ = 0;   // when the loop last looked into the poller
    unsigned workSinceLook_ = 0; // units of work since then

    ZnEventQueue events_;
    ZnTimerQueue timers_{fiberPool_};
    ZnIoDispatcher ioDispatcher_; // last: its entries hold closures of this application
};

/// Resumes the fiber that is parked under `waitId`, in this thread's pool or any other. Returns whether it was found.
bool unblockFiber(int waitId, int lane);

/// The next wait id of the process: -1, -2, -3 and so on.
int nextFiberWaitId() noexcept;
