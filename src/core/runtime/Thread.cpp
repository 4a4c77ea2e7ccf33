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

/// The records that may be used; a thread_ pointer counts only while it is in here. A record leaves before it goes, so
/// who holds the mutex shared keeps every record that he finds.
struct LiveThreads_ {
    std::shared_lock<std::shared_mutex> lockForUse() {
        const std::lock_guard<std::mutex> guard(entrance);
        return std::shared_lock<std::shared_mutex>(mutex);
    }
    std::unique_lock<std::shared_mutex> lockForChange() {
        const std::lock_guard<std::mutex> guard(entrance);
        return std::unique_lock<std::shared_mutex>(mutex);
    }

    std::mutex entrance; // taken on the way to the other one only: else a stream of posts would keep a change out
    std::shared_mutex mutex;
    std::unordered_set<const Thread*> threads; // guarded by mutex
};

LiveThreads_& liveThreads() {
    static LiveThreads_* const set = new LiveThreads_; // threads may outlive static destruction
    return *set;
}

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
/// An adopted record goes with its thread.
thread_local std::unique_ptr<Thread> adoptedRecord;

} // namespace

Thread::Thread(ZnString name) : name_(std::move(name)), adopted_(false) {
    LiveThreads_& live = liveThreads();
    const auto guard = live.lockForChange();
    live.threads.insert(this);
}

Thread::Thread(ZnCoreApplication* application, ZnString name, bool adopted)
    : name_(std::move(name)),
      threadId_(ZnThreadControl::currentThreadId()),
      running_(adopted),
      adopted_(adopted),
      application_(application) {
    LiveThreads_& live = liveThreads();
    const auto guard = live.lockForChange();
    live.threads.insert(this);
}

Thread::~Thread() {
    requestStop();
    join();
    LiveThreads_& live = liveThreads();
    const auto guard = live.lockForChange();
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
    const auto guard = live.lockForUse();
    if (live.threads.count(thread) == 0)
        return false;
    call(function, *thread);
    return true;
}

bool Thread::start() {
    std::lock_guard<std::mutex> once(startOnceMutex_);
    if (adopted_ || isRunning())
        return true;
    if (currentRecord == this) {
        ZN_LOG_WARNING(kCategory, "Thread::start")
            << "start() called on thread '" << name_ << "' by itself, at its end";
        return false;
    }
    join(); // an earlier run
    stopRequested_.store(false, std::memory_order_relaxed);
    std::unique_lock<std::mutex> lock(startMutex_);
    started_ = false;
    try {
        std::lock_guard<std::mutex> guard(joinMutex_);
        handle_ = std::thread([this] { run_(); });
    } catch (const std::system_error& error) {
        ZN_LOG_ERROR(kCategory, "Thread::start") << "Failed to start thread: " << error.what();
        return false;
    }
    startCondition_.wait(lock, [this] { return started_; });
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
    std::lock_guard<std::mutex> guard(joinMutex_);
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
        handle_.detach();
        delete this;
    }
}

void Thread::noteStart_(bool hasRuntime) {
    std::lock_guard<std::mutex> guard(startMutex_);
    started_ = true;
    hasNoRuntime_ = !hasRuntime;
    // Under the lock: whoever waits may destroy the record as soon as it has seen `started_`.
    startCondition_.notify_all();
}

void Thread::runLoop_(std::unique_ptr<ZnPoller> poller) {
    auto application = std::make_unique<ZnCoreApplication>(std::move(poller), isHelper_); // attaches itself
    running_.store(true, std::memory_order_release);
    noteStart_(true);
    callSafely_(onStart_, "onStart");
    if (!stopRequested_.load(std::memory_order_acquire))
        application->exec(0);
    // Objects on parked stacks must not stay in the sight of others when the stacks go.
    application->unwindFibers();
    application.reset(); // detaches itself
    running_.store(false, std::memory_order_release);
    callSafely_(onFinish_, "onFinish");
}

void Thread::callSafely_(const std::function<void()>& callback, const char* name) {
    std::function<void()> copy;
    {
        std::lock_guard<std::mutex> guard(callbackMutex_);
        copy = callback;
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
    std::lock_guard<std::mutex> guard(callbackMutex_);
    onStart_ = std::move(callback);
}

void Thread::setOnFinish(std::function<void()> callback) {
    std::lock_guard<std::mutex> guard(callbackMutex_);
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
    static std::mutex mutex;
    static Thread* thread = nullptr; // guarded by mutex; runs to the end of the process
    const std::lock_guard<std::mutex> guard(mutex);
    if (thread == nullptr) {
        auto record = std::make_unique<Thread>("ZnFallbackCoreThread");
        // A stop of the process's loops ends those of others; this one still serves what is deleted after that.
        record->keepsRunning_ = true;
        record->setHelper();
        if (record->start())
            thread = record.release(); // else the next need tries again
    }
    return thread;
}

ZnPostResult Thread::offer(ZnTask& task, ZnPostOptions options, ZnFiberPool::Rejection* rejection) {
    std::lock_guard<std::mutex> guard(appMutex_);
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
        std::lock_guard<std::mutex> guard(appMutex_);
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
