#include "core/runtime/ZnPoolState_.h"

#include "core/platform/ZnMonotonicClock.h"
#include "core/platform/ZnThreadControl.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnPoolRetirement_.h"

#include <climits>

namespace {

constexpr int kQueuedTasksPerThread = 32;

/// What the system's threads understand of a pool's two settings.
int threadPriority(int priority, int hint) {
    constexpr int kPriorities[] = {-15, -2, -1, 0, 1, 2, 15};
    constexpr int kInherit = 7;
    if (priority == kInherit)
        return hint == 1 ? 1 : hint == 2 ? -1 : 0;
    return priority < 0 || priority > kInherit ? 0 : kPriorities[priority];
}

} // namespace

int ZnPoolState_::queueLimit() const {
    if (settings.maxQueuedTaskCount != 0)
        return settings.maxQueuedTaskCount > 0 ? settings.maxQueuedTaskCount : INT_MAX;
    const int threads = std::max(settings.maxThreadCount, 1);
    return threads > INT_MAX / kQueuedTasksPerThread ? INT_MAX : threads * kQueuedTasksPerThread;
}

ZnPoolWorker_* ZnPoolState_::chooseWorker() {
    const int cap = std::max(settings.maxThreadCount - settings.reservedThreadCount, 1);
    ZnPoolWorker_* best = leastLoaded_();
    if ((best != nullptr && !best->isBusy()) || workers.size() >= static_cast<std::size_t>(cap))
        return best;
    ZnPoolWorker_* created = createWorker_();
    return created != nullptr ? created : best;
}

ZnPoolWorker_* ZnPoolState_::leastLoaded_() const {
    const auto best = std::min_element(workers.begin(), workers.end(), [](const auto& left, const auto& right) {
        return std::pair(left->load(), left->lastActivityNs) < std::pair(right->load(), right->lastActivityNs);
    });
    return best == workers.end() ? nullptr : best->get();
}

ZnPoolWorker_* ZnPoolState_::createWorker_() {
    const auto worker = std::make_shared<ZnPoolWorker_>();
    worker->id = ++workerIdCounter;
    worker->expiryMs = settings.expiryTimeoutMs;
    worker->lastActivityNs = monotonicNowNs();
    worker->thread =
        std::make_unique<ZnThread>("ZnThreadPoolWorker_" + ZnString::number(static_cast<long long>(worker->id)));
    ZnThread& thread = *worker->thread;
    thread.handle().setHelper(); // a program that has nothing but pools ends by its first stop signal
    // The loop itself raises the thread's priority when it begins, and its first fiber fixes the stack size.
    thread.connect(&ZnThread::started, [stackSize = settings.stackSize] {
        if (stackSize > 0)
            ZnCoreApplication::instance()->setEventFiberStackSize(stackSize);
    });
    thread.connect(&ZnThread::finished, [this, at = worker.get(), alive = weak_from_this()] {
        if (!alive.expired())
            ZnPoolRetirement_::workerEnded(*this, *at);
    });
    if (!thread.start())
        return nullptr;
    postToThread(
        &thread.handle(),
        [priority = threadPriority(settings.priority, settings.priorityHint)] {
            ZnThreadControl::setPriority(priority);
        },
        ZnFiberPool::kFirstLane);
    workers.push_back(worker);
    return worker.get();
}

bool ZnPoolState_::insert(ZnPoolWorker_& worker, ZnPoolTask_ task) {
    worker.insert(task);
    ++queuedTaskCount;
    return worker.needsDrain();
}

ZnRunnable* ZnPoolState_::beginFirst(ZnPoolWorker_& worker) {
    ZnRunnable* task = worker.tasks.front().runnable;
    worker.tasks.pop_front();
    --queuedTaskCount;
    ++activeCount;
    worker.running = true;
    worker.orphan = task->autoDelete ? task : nullptr;
    ++worker.generation;
    return task;
}

void ZnPoolState_::wakeWaiters() {
    const ZnMutexLocker locker(doneMutex); // a waiter is not between its test and its sleep
    doneCondition.notify_all();
}
