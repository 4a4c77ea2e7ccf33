#include "core/runtime/ZnPoolDrain_.h"

#include "core/platform/ZnMonotonicClock.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnPoolRetirement_.h"
#include "core/types/ZnLogger.h"

namespace {

constexpr const char* kCategory = "zn.core.runtime.znthreadpool";
constexpr int kDrainLane = 1;
constexpr int kRetryUs = 1000;
/// So long a worker runs tasks in one go, at least one. Its timers and sockets are that much late at most.
constexpr long long kTurnNs = 50000;

} // namespace

void ZnPoolDrain_::post(ZnPoolState_& state, ZnPoolWorker_& worker) {
    ZnTask drain(ZnPoolDrain_(state, worker));
    postTask(worker.thread->handle(), drain,
             {.lane = kDrainLane,
              .whenFull = ZnPostOptions::WhenFull::Wait,
              .whenNotRunning = ZnPostOptions::WhenNotRunning::Refuse});
}

ZnPoolDrain_::ZnPoolDrain_(ZnPoolState_& state, ZnPoolWorker_& worker)
    : state_(&state), worker_(&worker), alive_(state.weak_from_this()) {}

ZnPoolDrain_::ZnPoolDrain_(ZnPoolDrain_&& other) noexcept
    : state_(std::exchange(other.state_, nullptr)), worker_(other.worker_), alive_(std::move(other.alive_)) {}

ZnPoolDrain_::~ZnPoolDrain_() {
    if (state_ == nullptr || alive_.expired() || !worker_->thread->isCurrent()) // elsewhere it was not taken
        return;
    const auto retry = [state = state_, worker = worker_, alive = alive_] {
        if (!alive.expired())
            run_(*state, *worker, alive);
    };
    ZnCoreApplication::instance()->addTimer(retry, kRetryUs, true, kDrainLane);
}

void ZnPoolDrain_::operator()() {
    ZnPoolState_* state = std::exchange(state_, nullptr);
    if (!alive_.expired())
        run_(*state, *worker_, alive_);
}

void ZnPoolDrain_::run_(ZnPoolState_& state, ZnPoolWorker_& worker, const std::weak_ptr<ZnPoolState_>& alive) {
    ZnRunnable* task = takeTask_(state, worker);
    const long long untilNs = worker.lastActivityNs + kTurnNs;
    while (task != nullptr) {
        const bool autoDelete = worker.orphan != nullptr;
        runSafely_(*task, worker.id);
        // The task may have deleted the pool; no other thread can before this one has ended.
        if (!alive.expired())
            worker.orphan = nullptr;
        if (autoDelete)
            delete task;
        if (alive.expired())
            return;
        task = finishTask_(state, worker, untilNs);
    }
}

void ZnPoolDrain_::runSafely_(ZnRunnable& task, std::uint32_t workerId) {
    try {
        task.run();
    } catch (const std::exception& error) {
        ZN_LOG_ERROR(kCategory, "ZnThreadPool::drainOneTaskOnWorker_")
            << "ZnRunnable::run() threw exception on worker " << workerId << ": " << error.what()
            << " \u2014 continuing execution";
    } catch (...) {
        ZN_LOG_ERROR(kCategory, "ZnThreadPool::drainOneTaskOnWorker_")
            << "ZnRunnable::run() threw unknown exception on worker " << workerId << " \u2014 continuing execution";
    }
}

ZnRunnable* ZnPoolDrain_::takeTask_(ZnPoolState_& state, ZnPoolWorker_& worker) {
    ZnMutexLocker locker(state.lock);
    worker.scheduled = false;
    if (worker.retiring || worker.running || worker.tasks.empty())
        return nullptr;
    worker.lastActivityNs = monotonicNowNs();
    return state.beginFirst(worker);
}

ZnRunnable* ZnPoolDrain_::finishTask_(ZnPoolState_& state, ZnPoolWorker_& worker, long long untilNs) {
    ZnCoreApplication& application = *ZnCoreApplication::instance();
    // Short tasks follow each other without a way through the loop, while nothing there waits for its turn.
    const bool mayGoOn = !application.fiberPool().hasQueuedWork() && !application.isQuitRequested();
    bool needsDrain = false;
    bool needsExpiry = false;
    bool hasWaiters = false;
    std::uint32_t generation = 0;
    {
        ZnMutexLocker locker(state.lock);
        --state.activeCount;
        worker.running = false;
        worker.lastActivityNs = monotonicNowNs();
        if (mayGoOn && !worker.tasks.empty() && worker.lastActivityNs < untilNs)
            return state.beginFirst(worker);
        needsDrain = worker.needsDrain();
        needsExpiry = !needsDrain && ZnPoolRetirement_::beginIdleTime(state, worker, &generation);
        hasWaiters = state.isWatched();
    }
    // The worker and the pool stay: this thread has to end before they are destroyed.
    if (needsDrain)
        post(state, worker);
    if (needsExpiry)
        ZnPoolRetirement_::armExpiry(state, worker, generation);
    if (hasWaiters)
        state.wakeWaiters();
    return nullptr;
}
