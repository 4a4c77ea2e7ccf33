#include "core/runtime/ZnPoolRetirement_.h"

#include "core/platform/ZnMonotonicClock.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnPoolDrain_.h"

#include <climits>

namespace ZnPoolRetirement_ {
namespace {

constexpr long long kNsPerMs = 1000000;

void retire(ZnPoolState_& state, ZnPoolWorker_& worker) ZN_REQUIRES(state.lock) {
    worker.retiring = true;
    const auto isIt = [&](const auto& entry) { return entry.get() == &worker; };
    const auto at = std::find_if(state.workers.begin(), state.workers.end(), isIt);
    if (at == state.workers.end())
        return;
    state.expired.push_back(std::move(*at));
    state.workers.erase(at);
}

void expire(ZnPoolState_& state, ZnPoolWorker_& worker, std::uint32_t generation);

void armIn(ZnPoolState_& state, ZnPoolWorker_& worker, std::uint32_t generation, long long delayNs) {
    // A longer time than a timer can take is reached in several rounds.
    const auto delayUs = static_cast<int>(std::clamp<long long>(delayNs / 1000 + 1, 1, INT_MAX));
    ZnCoreApplication::instance()->addTimer(
        [state = &state, worker = &worker, generation, alive = state.weak_from_this()] {
            if (!alive.expired())
                expire(*state, *worker, generation);
        },
        delayUs, true, ZnFiberPool::kFirstLane);
}

void expire(ZnPoolState_& state, ZnPoolWorker_& worker, std::uint32_t generation) {
    const long long fullNs = worker.expiryMs * kNsPerMs;
    long long againInNs = 0;
    bool leaves = false;
    {
        ZnMutexLocker locker(state.lock);
        if (worker.retiring || worker.isBusy()) {
            worker.expiryArmed = false; // armed anew at the end of its last task
            return;
        }
        const long long leftNs = worker.lastActivityNs + fullNs - monotonicNowNs();
        const bool mayLeave = !state.isShuttingDown && !state.isWaitingForDone;
        leaves = mayLeave && generation == worker.generation && leftNs <= 0;
        againInNs = mayLeave ? leftNs : fullNs; // it has worked since, or its time is longer than a timer's
        generation = worker.generation;
        if (leaves)
            retire(state, worker);
    }
    if (leaves)
        worker.thread->quit();
    else
        armIn(state, worker, generation, againInNs);
}

void rescue(ZnPoolState_& state, const std::deque<ZnPoolTask_>& tasks, ZnPoolState_::Workers* toDrain,
            std::vector<ZnPoolTask_>* lost) ZN_REQUIRES(state.lock) {
    state.queuedTaskCount -= static_cast<int>(tasks.size());
    for (const ZnPoolTask_& task : tasks) {
        ZnPoolWorker_* worker = state.chooseWorker();
        if (worker == nullptr)
            lost->push_back(task);
        else if (state.insert(*worker, task))
            toDrain->push_back(worker->shared_from_this());
    }
}

} // namespace

bool beginIdleTime(ZnPoolState_& state, ZnPoolWorker_& worker, std::uint32_t* generation) {
    static_cast<void>(state); // its lock is held
    *generation = ++worker.generation;
    return worker.expiryMs >= 0 && !std::exchange(worker.expiryArmed, true);
}

void armExpiry(ZnPoolState_& state, ZnPoolWorker_& worker, std::uint32_t generation) {
    armIn(state, worker, generation, worker.expiryMs * kNsPerMs);
}

void workerEnded(ZnPoolState_& state, ZnPoolWorker_& worker) {
    ZnPoolState_::Workers toDrain;
    std::vector<ZnPoolTask_> lost;
    {
        ZnMutexLocker locker(state.lock);
        if (!worker.retiring) {
            // Its loop was ended by a task or by a stop of the process: a parked task never goes on, queued ones may.
            retire(state, worker);
            if (std::exchange(worker.running, false))
                --state.activeCount;
            if (worker.orphan != nullptr)
                lost.push_back({std::exchange(worker.orphan, nullptr), 0});
            rescue(state, std::exchange(worker.tasks, {}), &toDrain, &lost);
        }
    }
    for (const ZnPoolWorkerRef_& other : toDrain)
        ZnPoolDrain_::post(state, *other);
    for (const ZnPoolTask_& task : lost)
        task.release();
    state.wakeWaiters();
}

void takeEnded(ZnPoolState_& state, ZnPoolState_::Workers* ended) {
    for (std::size_t i = state.expired.size(); i-- > 0;) {
        if (state.expired[i]->thread->isRunning())
            continue;
        ended->push_back(std::move(state.expired[i]));
        state.expired.erase(state.expired.begin() + static_cast<std::ptrdiff_t>(i));
    }
}

void reap(ZnPoolState_& state) {
    ZnPoolState_::Workers ended; // joined and deleted without the lock
    ZnMutexLocker locker(state.lock);
    takeEnded(state, &ended);
}

} // namespace ZnPoolRetirement_
