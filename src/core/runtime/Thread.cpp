#include "core/runtime/Thread.h"

#include "core/platform/ZnThreadControl.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/types/ZnLogger.h"

#include <memory>
#include <shared_mutex>
#include <system_error>
#include <unordered_set>

namespace zn::atomic {
namespace {

constexpr const char* kCategory = "zn.core.runtime.znthread";

/// A shared lock that a change always gets: who comes later waits behind it. Else a stream of posts would keep it out.
class ZN_CAPABILITY("shared_mutex") FairLock_ {
public:
    void lockForUse() ZN_ACQUIRE_SHARED() {
        const ZnMutexLocker locker(entrance_);
        native_.lock_shared();
    }
    void unlockAfterUse() ZN_RELEASE_GENERIC() { native_.unlock_shared(); }
    void lockForChange() ZN_ACQUIRE() {
        const ZnMutexLocker locker(entrance_);
        native_.lock();
    }
    void unlockAfterChange() ZN_RELEASE() { native_.unlock(); }

private:
    ZnMutex entrance_; // taken on the way to the other one only
    std::shared_mutex native_;
};

/// The records that may be used; a thread_ pointer counts only while it is in here. A record leaves before it is
/// destroyed, so who holds the lock for use keeps every record that he finds.
struct LiveThreads_ {
    FairLock_ lock;
    std::unordered_set<const Thread*> threads ZN_GUARDED_BY(lock);
};

LiveThreads_& liveThreads() {
    static LiveThreads_* const set = new LiveThreads_; // threads may outlive static destruction
    return *set;
}

class ZN_SCOPED_CAPABILITY UseScope_ {
public:
    explicit UseScope_(FairLock_& lock) ZN_ACQUIRE_SHARED(lock) : lock_(lock) { lock_.lockForUse(); }
    ~UseScope_() ZN_RELEASE_GENERIC() { lock_.unlockAfterUse(); }
    UseScope_(const UseScope_&) = delete;
    UseScope_& operator=(const UseScope_&) = delete;

private:
    FairLock_& lock_;
};

class ZN_SCOPED_CAPABILITY ChangeScope_ {
public:
    explicit ChangeScope_(FairLock_& lock) ZN_ACQUIRE(lock) : lock_(lock) { lock_.lockForChange(); }
    ~ChangeScope_() ZN_RELEASE() { lock_.unlockAfterChange(); }
    ChangeScope_(const ChangeScope_&) = delete;
    ChangeScope_& operator=(const ChangeScope_&) = delete;

private:
    FairLock_& lock_;
};

/// The record of the fallback thread, which runs to the end of the process.
struct Fallback_ {
    ZnMutex mutex;
    Thread* thread ZN_GUARDED_BY(mutex) = nullptr;
};

/// Ends an application's loop when it has had its turn, or when it is refused or dropped.
class QuitAtEnd_ {
public:
    explicit QuitAtEnd_(ZnCoreApplication* application) : application_(application) {}
    QuitAtEnd_(QuitAtEnd_&& other) noexcept : application_(std::exchange(other.application_, nullptr)) {}
    QuitAtEnd_& operator=(QuitAtEnd_&&) = delete;
    ~QuitAtEnd_() {
        if (application_ != nullptr)
            application_->quit();
    }
    void operator()() {}

private:
    ZnCoreApplication* application_;
};

thread_local Thread* currentRecord = nullptr;
/// An adopted record is destroyed with its thread.
thread_local std::unique_ptr<Thread> adoptedRecord;

} // namespace

Thread::Thread(ZnString name) : name_(std::move(name)), adopted_(false) {
    LiveThreads_& live = liveThreads();
    const ChangeScope_ scope(live.lock);
    live.threads.insert(this);
}

Thread::Thread(ZnCoreApplication* application, ZnString name, bool adopted)
    : name_(std::move(name)),
      threadId_(ZnThreadControl::currentThreadId()),
      running_(adopted),
      adopted_(adopted),
      application_(application) {
    LiveThreads_& live = liveThreads();
    const ChangeScope_ scope(live.lock);
    live.threads.insert(this);
}

Thread::~Thread() {
    requestStop();
    join();
    LiveThreads_& live = liveThreads();
    const ChangeScope_ scope(live.lock);
    live.threads.erase(this);
    if (currentRecord == this)
        currentRecord = nullptr;
}

bool Thread::isLive(const Thread* thread) {
    return withLive(const_cast<Thread*>(thread), [](Thread&) {});
}

bool Thread::callIfLive_(Thread* thread, void (*call)(void*, Thread&), void* function) {
    if (thread == nullptr)
        return false;
    LiveThreads_& live = liveThreads();
    const UseScope_ scope(live.lock);
    if (live.threads.count(thread) == 0)
        return false;
    call(function, *thread);
    return true;
}

bool Thread::start() {
    const ZnMutexLocker once(startOnceMutex_);
    if (adopted_ || isRunning())
        return true;
    if (currentRecord == this) {
        ZN_LOG_WARNING(kCategory, "Thread::start")
            << "start() called on thread '" << name_ << "' by itself, at its end";
        return false;
    }
    join(); // an earlier run
    stopRequested_.store(false, std::memory_order_relaxed);
    const ZnMutexLocker locker(startMutex_);
    started_ = false;
    try {
        const ZnMutexLocker joinLocker(joinMutex_);
        handle_ = std::thread([this] { run_(); });
    } catch (const std::system_error& error) {
        ZN_LOG_ERROR(kCategory, "Thread::start") << "Failed to start thread: " << error.what();
        return false;
    }
    while (!started_)
        startCondition_.wait(startMutex_);
    return !hasNoRuntime_; // it ran, even if its work has ended by now
}

void Thread::requestStop() {
    if (adopted_)
        return;
    stopRequested_.store(true, std::memory_order_release);
    withApplication([](ZnCoreApplication* application) {
        if (application == nullptr)
            return;
        ZnTask quit{QuitAtEnd_(application)};
        application->post(quit,
                          {.lane = ZnFiberPool::kFirstLane, .whenFull = ZnPostOptions::WhenFull::RefuseInSilence});
    });
}

void Thread::join() {
    const ZnMutexLocker locker(joinMutex_);
    if (handle_.joinable())
        handle_.join();
}

void Thread::deleteAtEnd() {
    deleteAtEnd_ = true;
}

void Thread::run_() {
    currentRecord = this;
    threadId_.store(ZnThreadControl::currentThreadId(), std::memory_order_release);
    std::unique_ptr<ZnPoller> poller = ZnPoller::open();
    if (!poller) {
        ZN_LOG_ERROR(kCategory, "Thread::start") << "Failed to start thread: no descriptors for its loop";
        currentRecord = nullptr;
        noteStart_(false);
        return;
    }
    do {
        runLoop_(std::move(poller));
        const bool goesOn = keepsRunning_ && !stopRequested_.load(std::memory_order_acquire);
        poller = goesOn ? ZnPoller::open() : nullptr;
    } while (poller);
    currentRecord = nullptr;
    if (deleteAtEnd_) {
        {
            const ZnMutexLocker locker(joinMutex_);
            handle_.detach();
        }
        delete this;
    }
}

void Thread::noteStart_(bool hasRuntime) {
    const ZnMutexLocker locker(startMutex_);
    started_ = true;
    hasNoRuntime_ = !hasRuntime;
    // Under the lock: whoever waits may destroy the record as soon as it has seen `started_`.
    startCondition_.notify_all();
}

void Thread::runLoop_(std::unique_ptr<ZnPoller> poller) {
    auto application = std::make_unique<ZnCoreApplication>(std::move(poller), isHelper_); // attaches itself
    running_.store(true, std::memory_order_release);
    noteStart_(true);
    callSafely_(&Thread::onStart_, "onStart");
    if (!stopRequested_.load(std::memory_order_acquire))
        application->exec(0);
    // Objects on parked stacks must not stay in the sight of others when the stacks are freed.
    application->unwindFibers();
    application.reset(); // detaches itself
    running_.store(false, std::memory_order_release);
    callSafely_(&Thread::onFinish_, "onFinish");
}

void Thread::callSafely_(std::function<void()> Thread::*callback, const char* name) {
    std::function<void()> copy;
    {
        const ZnMutexLocker locker(callbackMutex_);
        copy = this->*callback;
    }
    if (!copy)
        return;
    try {
        copy();
    } catch (const std::exception& error) {
        ZN_LOG_ERROR(kCategory, "Thread::run_") << "Unhandled exception in " << name << ": " << error.what();
    } catch (...) {
        ZN_LOG_ERROR(kCategory, "Thread::run_") << "Unhandled unknown exception in " << name;
    }
}

void Thread::setOnStart(std::function<void()> callback) {
    const ZnMutexLocker locker(callbackMutex_);
    onStart_ = std::move(callback);
}

void Thread::setOnFinish(std::function<void()> callback) {
    const ZnMutexLocker locker(callbackMutex_);
    onFinish_ = std::move(callback);
}

Thread* Thread::currentThread() {
    if (currentRecord == nullptr && ZnCoreApplication::instance() != nullptr) {
        adoptedRecord = std::make_unique<Thread>(ZnCoreApplication::instance(), "MainThread", true);
        currentRecord = adoptedRecord.get();
    }
    return currentRecord;
}

Thread* Thread::fallbackThread() {
    static Fallback_& fallback = *new Fallback_; // threads may outlive static destruction
    const ZnMutexLocker locker(fallback.mutex);
    if (fallback.thread == nullptr) {
        auto record = std::make_unique<Thread>("ZnFallbackCoreThread");
        // A stop of the process's loops ends those of others; this one still serves what is deleted after that.
        record->keepsRunning_ = true;
        record->setHelper();
        if (record->start())
            fallback.thread = record.release(); // else the next need tries again
    }
    return fallback.thread;
}

ZnPostResult Thread::offer(ZnTask& task, ZnPostOptions options, ZnFiberPool::Rejection* rejection) {
    const ZnMutexLocker locker(appMutex_);
    if (application_ != nullptr)
        return application_->offer(task, options, rejection) ? ZnPostResult::Queued : ZnPostResult::Full;
    if (options.whenNotRunning == ZnPostOptions::WhenNotRunning::Refuse)
        return ZnPostResult::NotRunning;
    pending_.push_back({std::move(task), options});
    return ZnPostResult::Kept;
}

void Thread::attachApplication(ZnCoreApplication* application) {
    if (currentRecord != nullptr) // else made on demand by currentThread()
        currentRecord->attach_(application);
}

void Thread::attach_(ZnCoreApplication* application) {
    std::vector<Pending_> pending;
    {
        const ZnMutexLocker locker(appMutex_);
        application_ = application;
        if (adopted_)
            running_.store(application != nullptr, std::memory_order_release);
        if (application != nullptr)
            pending.swap(pending_);
    }
    for (Pending_& entry : pending)
        application->post(entry.task, entry.options);
}

} // namespace zn::atomic
