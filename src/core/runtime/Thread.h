#pragma once

#include "core/runtime/ZnPost.h"
#include "core/types/ZnMutex.h"
#include "core/types/ZnString.h"
#include "core/types/ZnTask.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

class ZnCoreApplication;
class ZnPoller;

namespace zn::atomic {

/// The record of a thread that runs an event loop; every ZnObject points at one as its owning thread.
///
/// Thread: any, unless a member says otherwise. Owner: whoever made it; adopted records and the fallback record
/// belong to the process and live to its end.
/// Invariant: a record in the live set may be used; one that another thread may destroy, in withLive() only.
class Thread {
public:
    /// A record that start() gives a thread of its own.
    explicit Thread(ZnString name);
    /// A record around the calling thread.
    Thread(ZnCoreApplication* application, ZnString name, bool adopted);
    ~Thread(); // stops and joins a thread that it started
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /// Starts the thread and returns once its runtime accepts posts; true when it runs (also if it already did). False,
    /// with a line in the log, when the system has no thread or no descriptors to give, and on the thread itself while
    /// it ends: it cannot wait for its own end.
    bool start();
    /// Before start(): the thread only works for others. A stop signal ends its loop like any other one, but a program
    /// that has no other loops ends at once.
    void setHelper() noexcept { isHelper_ = true; }
    /// Asks the thread's loop to end after what is queued on lane 0; nothing when it does not run.
    void requestStop();
    /// Any thread but this one.
    void join();
    /// On this thread itself: the record takes itself over and is deleted at the thread's end.
    void deleteAtEnd();
    bool isRunning() const noexcept { return running_.load(std::memory_order_acquire); }
    /// The system's id of the thread, 0 before it has run.
    std::uint32_t threadId() const noexcept { return threadId_.load(std::memory_order_acquire); }
    /// Whether both are records of one thread of the system.
    bool isSameAs(const Thread& other) const noexcept {
        return this == &other || (threadId() != 0 && threadId() == other.threadId());
    }
    const ZnString& name() const noexcept { return name_; }

    /// Run on the thread before its loop begins and after its runtime has ended. An exception ends there, with a line
    /// in the log.
    void setOnStart(std::function<void()> callback);
    void setOnFinish(std::function<void()> callback);

    /// The calling thread's record: made on demand when the thread has a ZnCoreApplication, else null.
    static Thread* currentThread();
    /// The thread of objects and posts that have none of their own; started on first need, null if that fails.
    static Thread* fallbackThread();
    /// For the thread itself, or where someone keeps the record; else the answer is old when it arrives.
    static bool isLive(const Thread* thread);
    /// Runs `function` with the record, which is not destroyed meanwhile; false, and nothing run, when it was. The
    /// function may post; it must not do anything that waits, and must not make or end a record.
    template <typename Function>
    static bool withLive(Thread* thread, Function function) {
        return callIfLive_(
            thread, [](void* call, Thread& record) { (*static_cast<Function*>(call))(record); }, &function);
    }

    /// Runs `function` with the thread's application, or null, while the application cannot end. The function
    /// may post; it must not do anything that waits.
    template <typename Function>
    auto withApplication(Function function) {
        const ZnMutexLocker locker(appMutex_);
        return function(application_);
    }
    /// The heart of postTask(): posts on the thread's application, or does what the options say. What the log has to
    /// say is left to the caller: see ZnCoreApplication::offer.
    ZnPostResult offer(ZnTask& task, ZnPostOptions options, ZnFiberPool::Rejection* rejection);
    /// Called by an application on its own thread when it begins (`application`) and ends (null).
    static void attachApplication(ZnCoreApplication* application);

    /// As withApplication; without one, `task` is kept for the time when the thread's runtime exists and the result is
    /// `fallback`.
    template <typename Result, typename Function>
    Result withApplicationOrPending(ZnTask& task, int lane, Result fallback, Function function) {
        const ZnMutexLocker locker(appMutex_);
        if (application_ != nullptr)
            return function(*application_);
        pending_.push_back({std::move(task), {.lane = lane}});
        return fallback;
    }

private:
    struct Pending_ {
        ZnTask task;
        ZnPostOptions options;
    };

    static bool callIfLive_(Thread* thread, void (*call)(void*, Thread&), void* function);
    void run_();
    void runLoop_(std::unique_ptr<ZnPoller> poller);
    void noteStart_(bool hasRuntime);
    void attach_(ZnCoreApplication* application);
    void callSafely_(std::function<void()> Thread::*callback, const char* name);

    const ZnString name_;
    ZnMutex joinMutex_; // held while joining, for several waiters
    std::thread handle_ ZN_GUARDED_BY(joinMutex_);
    bool deleteAtEnd_ = false;               // on the thread itself
    std::atomic<std::uint32_t> threadId_{0}; // set on the thread itself; pairs with threadId()
    std::atomic<bool> running_{false};
    std::atomic<bool> stopRequested_{false};
    const bool adopted_;
    bool isHelper_ = false;     // set before the start, as is the next one
    bool keepsRunning_ = false; // its loop begins anew unless requestStop() was called

    ZnMutex appMutex_;
    ZnCoreApplication* application_ ZN_GUARDED_BY(appMutex_) = nullptr;
    std::vector<Pending_> pending_ ZN_GUARDED_BY(appMutex_); // posts from before the application

    ZnMutex startOnceMutex_; // held by start(), before joinMutex_ and startMutex_
    ZnMutex startMutex_;
    std::condition_variable_any startCondition_;
    bool started_ ZN_GUARDED_BY(startMutex_) = false; // the runtime is there, or cannot be made
    bool hasNoRuntime_ ZN_GUARDED_BY(startMutex_) = false;

    ZnMutex callbackMutex_;
    std::function<void()> onStart_ ZN_GUARDED_BY(callbackMutex_);
    std::function<void()> onFinish_ ZN_GUARDED_BY(callbackMutex_);
};

} // namespace zn::atomic
