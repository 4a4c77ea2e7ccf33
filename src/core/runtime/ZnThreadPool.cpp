#include "core/runtime/ZnThreadPool.h"

#include "core/platform/ZnMonotonicClock.h"
#include "core/runtime/ZnPoolDrain_.h"
#include "core/runtime/ZnPoolRetirement_.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <thread>

namespace {

constexpr const char* kCategory = "zn.core.runtime.znthreadpool";
constexpr long long kNsPerMs = 1000000;

long long nowMs() {
    return monotonicNowNs() / kNsPerMs;
}

int processorCount() {
    return std::max(static_cast<int>(std::thread::hardware_concurrency()), 1);
}

} // namespace

ZnThreadPool::Deadline ZnThreadPool::Deadline::inMs(long long ms) {
    return {false, nowMs() + ms};
}

ZnThreadPool::ZnThreadPool(ZnObject* parent) : ZnObject(parent), state_(std::make_shared<ZnPoolState_>()) {
    setMaxThreadCount(processorCount());
}

ZnThreadPool::~ZnThreadPool() {
    dropQueued_();
    waitForRunning_();
    ZnPoolState_::Workers workers;
    {
        ZnMutexLocker locker(state_->lock);
        for (const ZnPoolWorkerRef_& worker : state_->workers)
            worker->retiring = true;
        workers.swap(state_->workers);
        workers.insert(workers.end(), state_->expired.begin(), state_->expired.end());
        state_->expired.clear();
    }
    for (const ZnPoolWorkerRef_& worker : workers)
        worker->thread->quit(); // all of them first: they end side by side
    workers.clear();            // joins
}

void ZnThreadPool::dropQueued_() {
    std::vector<ZnPoolTask_> dropped; // deleted without the lock: their destructors may do anything
    {
        ZnMutexLocker locker(state_->lock);
        state_->isShuttingDown = true;
        for (const ZnPoolWorkerRef_& worker : state_->workers) {
            dropped.insert(dropped.end(), worker->tasks.begin(), worker->tasks.end());
            worker->tasks.clear();
        }
        state_->queuedTaskCount = 0;
    }
    for (const ZnPoolTask_& task : dropped)
        task.release();
}

void ZnThreadPool::waitForRunning_() {
    // What runs on the calling thread itself ends later, and finds the pool destroyed.
    const auto isAwaited = [](const ZnPoolWorkerRef_& worker) {
        return worker->running && !worker->thread->isCurrent();
    };
    const auto isRunning = [&] {
        ZnMutexLocker locker(state_->lock);
        return std::any_of(state_->workers.begin(), state_->workers.end(), isAwaited);
    };
    const ZnMutexLocker done(state_->doneMutex);
    while (isRunning())
        state_->doneCondition.wait(state_->doneMutex);
}

// --- new tasks

void ZnThreadPool::start(ZnRunnable* task, int priority) {
    if (task == nullptr)
        return;
    const Outcome_ outcome = submit_(task, priority);
    if (outcome.verdict == Verdict_::Accepted)
        return;
    if (outcome.verdict == Verdict_::Saturated) {
        ZN_LOG_WARNING(kCategory, "ZnThreadPool::start")
            << "ZnThreadPool saturated; rejecting task because queuedTaskCount=" << outcome.queuedTaskCount
            << " reached maxQueuedTaskCount=" << outcome.limit;
    }
    ZnPoolTask_{task, priority}.release();
}

bool ZnThreadPool::tryStart(ZnRunnable* task, int priority, bool* saturated) {
    const Outcome_ outcome = task == nullptr ? Outcome_() : submit_(task, priority);
    if (saturated != nullptr)
        *saturated = outcome.verdict == Verdict_::Saturated;
    return outcome.verdict == Verdict_::Accepted;
}

ZnThreadPool::Outcome_ ZnThreadPool::submit_(ZnRunnable* task, int priority) {
    ZnPoolState_& state = *state_;
    ZnPoolState_::Workers ended; // joined and deleted without the lock
    ZnPoolWorkerRef_ toDrain;
    {
        ZnMutexLocker locker(state.lock);
        ZnPoolRetirement_::takeEnded(state, &ended);
        if (state.isShuttingDown || state.isWaitingForDone)
            return {};
        ZnPoolWorker_* worker = state.chooseWorker();
        if (worker == nullptr)
            return {};
        if (worker->isBusy() && state.queuedTaskCount >= state.queueLimit()) {
            ++state.rejectedCount;
            return {Verdict_::Saturated, state.queuedTaskCount, state.queueLimit()};
        }
        if (!state.insert(*worker, {task, priority}))
            return {Verdict_::Accepted};
        toDrain = worker->shared_from_this();
    }
    ZnPoolDrain_::post(state, *toDrain);
    return {Verdict_::Accepted};
}

// --- waiting

bool ZnThreadPool::waitForDone(Deadline deadline) {
    ZnPoolRetirement_::reap(*state_);
    if (!beginWait_())
        return false;
    const bool isDone = awaitDone_(deadline);
    {
        ZnMutexLocker locker(state_->lock);
        state_->isWaitingForDone = false;
    }
    ZnPoolRetirement_::reap(*state_);
    return isDone;
}

bool ZnThreadPool::beginWait_() {
    bool onWorker = false;
    {
        ZnMutexLocker locker(state_->lock);
        onWorker = std::any_of(state_->workers.begin(), state_->workers.end(),
                               [](const ZnPoolWorkerRef_& worker) { return worker->thread->isCurrent(); });
        if (!onWorker)
            return !std::exchange(state_->isWaitingForDone, true);
    }
    ZN_LOG_WARNING(kCategory, "ZnThreadPool::waitForDone")
        << "waitForDone() called from a ZnThreadPool worker; refusing to self-block";
    return false;
}

bool ZnThreadPool::awaitDone_(Deadline deadline) {
    const ZnMutexLocker done(state_->doneMutex);
    for (;;) {
        {
            ZnMutexLocker locker(state_->lock);
            if (state_->isDone())
                return true;
        }
        if (deadline.forever) {
            state_->doneCondition.wait(state_->doneMutex);
            continue;
        }
        const long long now = nowMs();
        if (deadline.ticks <= now)
            return false;
        state_->doneCondition.wait_for(state_->doneMutex,
                                       std::chrono::milliseconds(std::min<long long>(deadline.ticks - now, INT_MAX)));
    }
}

// --- settings and counts

void ZnThreadPool::set_(int ZnThreadPoolSettings::*field, int value) {
    ZnMutexLocker locker(state_->lock);
    state_->settings.*field = value;
}

int ZnThreadPool::get_(int ZnThreadPoolSettings::*field) const {
    ZnMutexLocker locker(state_->lock);
    return state_->settings.*field;
}

int ZnThreadPool::activeCount() const {
    ZnMutexLocker locker(state_->lock);
    return state_->activeCount;
}

int ZnThreadPool::queuedTaskCount() const {
    ZnMutexLocker locker(state_->lock);
    return state_->queuedTaskCount;
}

int ZnThreadPool::threadCount() const {
    ZnMutexLocker locker(state_->lock);
    return static_cast<int>(state_->workers.size());
}

int ZnThreadPool::rejectedCount() const {
    ZnMutexLocker locker(state_->lock);
    return state_->rejectedCount;
}
