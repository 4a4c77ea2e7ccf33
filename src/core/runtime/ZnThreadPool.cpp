#include "core/runtime/ZnThreadPool.h"

#include "core/platform/ZnMonotonicClock.h"
#include "core/platform/ZnThreadControl.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <thread>

namespace {

constexpr const char* kCategory = "zn.core.runtime.znthreadpool";
constexpr long long kNsPerMs = 1000000;
constexpr int kQueuedTasksPerThread = 32;
constexpr int kDrainLane = 1;
/// So long a worker runs tasks in one go, at least one. Its timers and sockets are that much late at most.
constexpr long long kTurnNs = 50000;

long long nowMs() {
    return monotonicNowNs() / kNsPerMs;
}

int processorCount() {
    return std::max(static_cast<int>(std::thread::hardware_concurrency()), 1);
}

/// What the system's threads understand of a pool's two settings.
int threadPriority(int priority, int hint) {
    constexpr int kPriorities[] = {-15, -2, -1, 0, 1, 2, 15};
    constexpr int kInherit = 7;
    if (priority == kInherit)
        return hint == 1 ? 1 : hint == 2 ? -1 : 0;
    return priority < 0 || priority > kInherit ? 0 : kPriorities[priority];
}

} // namespace

ZnThreadPool::Deadline ZnThreadPool::Deadline::inMs(long long ms) {
    return {false, nowMs() + ms};
}

ZnThreadPool::ZnThreadPool(ZnObject* parent)
    : ZnObject(parent), aliveToken_(std::make_shared<bool>(true)), maxThreadCount_(processorCount()) {}

ZnThreadPool::~ZnThreadPool() {
    dropQueued_();
    waitForRunning_();
    std::vector<WorkerRef_> workers;
    {
        ZnMutexLocker locker(lock_);
        for (const WorkerRef_& worker : workers_)
            worker->retiring = true;
        workers.swap(workers_);
        workers.insert(workers.end(), expired_.begin(), expired_.end());
        expired_.clear();
    }
    for (const WorkerRef_& worker : workers)
        worker->thread->quit(); // all of them first: they end side by side
    workers.clear();            // joins
}

void ZnThreadPool::dropQueued_() {
    std::vector<Task_> dropped; // deleted without the lock: their destructors may do anything
    {
        ZnMutexLocker locker(lock_);
        shuttingDown_ = true;
        for (const WorkerRef_& worker : workers_) {
            dropped.insert(dropped.end(), worker->tasks.begin(), worker->tasks.end());
            worker->tasks.clear();
        }
        queuedTaskCount_ = 0;
    }
    for (const Task_& task : dropped)
        release_(task.runnable);
}

void ZnThreadPool::waitForRunning_() {
    std::unique_lock<std::mutex> done(doneMutex_);
    doneCondition_.wait(done, [this] {
        ZnMutexLocker locker(lock_);
        // What runs on the calling thread itself ends later, and finds the pool gone.
        return std::none_of(workers_.begin(), workers_.end(),
                            [](const WorkerRef_& worker) { return worker->running && !worker->thread->isCurrent(); });
    });
}

// --- new tasks

void ZnThreadPool::release_(ZnRunnable* task) {
    if (task->autoDelete)
        delete task;
}

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
    release_(task);
}

bool ZnThreadPool::tryStart(ZnRunnable* task, int priority, bool* saturated) {
    const Outcome_ outcome = task == nullptr ? Outcome_() : submit_(task, priority);
    if (saturated != nullptr)
        *saturated = outcome.verdict == Verdict_::Saturated;
    return outcome.verdict == Verdict_::Accepted;
}

ZnThreadPool::Outcome_ ZnThreadPool::submit_(ZnRunnable* task, int priority) {
    std::vector<WorkerRef_> ended; // joined and deleted without the lock
    WorkerRef_ toDrain;
    {
        ZnMutexLocker locker(lock_);
        takeEnded_(&ended);
        if (shuttingDown_ || waitingForDone_)
            return {};
        Worker_* worker = chooseWorker_();
        if (worker == nullptr)
            return {};
        if (isBusy_(*worker) && queuedTaskCount_ >= queueLimit_()) {
            ++rejectedCount_;
            return {Verdict_::Saturated, queuedTaskCount_, queueLimit_()};
        }
        if (!insert_(*worker, {task, priority}))
            return {Verdict_::Accepted};
        toDrain = worker->shared_from_this();
    }
    postDrain_(toDrain.get()); // without the lock: it may have to wake a sleeping thread
    return {Verdict_::Accepted};
}

bool ZnThreadPool::isBusy_(const Worker_& worker) {
    return worker.running || worker.scheduled || !worker.tasks.empty();
}

int ZnThreadPool::queueLimit_() const {
    if (maxQueuedTaskCount_ != 0)
        return maxQueuedTaskCount_ > 0 ? maxQueuedTaskCount_ : INT_MAX;
    const int threads = std::max(maxThreadCount_, 1);
    return threads > INT_MAX / kQueuedTasksPerThread ? INT_MAX : threads * kQueuedTasksPerThread;
}

ZnThreadPool::Worker_* ZnThreadPool::chooseWorker_() {
    const int cap = std::max(maxThreadCount_ - reservedThreadCount_, 1);
    Worker_* best = leastLoaded_();
    if ((best != nullptr && !isBusy_(*best)) || workers_.size() >= static_cast<std::size_t>(cap))
        return best;
    Worker_* created = createWorker_();
    return created != nullptr ? created : best;
}

ZnThreadPool::Worker_* ZnThreadPool::leastLoaded_() const {
    const auto load = [](const Worker_& worker) {
        return worker.tasks.size() + (worker.running || worker.scheduled ? 1 : 0);
    };
    const auto best = std::min_element(workers_.begin(), workers_.end(), [&](const auto& left, const auto& right) {
        return std::pair(load(*left), left->lastActivityNs) < std::pair(load(*right), right->lastActivityNs);
    });
    return best == workers_.end() ? nullptr : best->get();
}

ZnThreadPool::Worker_* ZnThreadPool::createWorker_() {
    const auto worker = std::make_shared<Worker_>();
    worker->id = ++workerIdCounter_;
    worker->expiryMs = expiryTimeoutMs_;
    worker->lastActivityNs = monotonicNowNs();
    worker->thread =
        std::make_unique<ZnThread>("ZnThreadPoolWorker_" + ZnString::number(static_cast<long long>(worker->id)));
    ZnThread& thread = *worker->thread;
    thread.handle().setHelper(); // a program that has nothing but pools ends by its first stop signal
    // The loop itself raises the thread's priority when it begins, and its first fiber fixes the stack size.
    thread.connect(&ZnThread::started, [stackSize = stackSize_] {
        if (stackSize > 0)
            ZnCoreApplication::instance()->setEventFiberStackSize(stackSize);
    });
    thread.connect(&ZnThread::finished, [this, at = worker.get(), alive = std::weak_ptr<bool>(aliveToken_)] {
        if (!alive.expired())
            workerEnded_(at);
    });
    if (!thread.start())
        return nullptr;
    postToThread(
        &thread.handle(),
        [priority = threadPriority(priority_, priorityHint_)] { ZnThreadControl::setPriority(priority); },
        ZnFiberPool::kFirstLane);
    workers_.push_back(worker);
    return worker.get();
}

bool ZnThreadPool::insert_(Worker_& worker, Task_ task) {
    const auto at =
        std::upper_bound(worker.tasks.begin(), worker.tasks.end(), task,
                         [](const Task_& left, const Task_& right) { return left.priority > right.priority; });
    worker.tasks.insert(at, task);
    ++queuedTaskCount_;
    return needsDrain_(worker);
}

bool ZnThreadPool::needsDrain_(Worker_& worker) {
    if (worker.tasks.empty() || worker.retiring || worker.running || worker.scheduled)
        return false;
    worker.scheduled = true;
    return true;
}

/// A drain on its way to its worker. One that the loop drops for want of a stack comes again by a timer: else the
/// worker would count as scheduled for ever.
class ZnThreadPool::Drain_ {
public:
    Drain_(ZnThreadPool* pool, Worker_* worker) : pool_(pool), worker_(worker), alive_(pool->aliveToken_) {}
    Drain_(Drain_&& other) noexcept
        : pool_(std::exchange(other.pool_, nullptr)), worker_(other.worker_), alive_(std::move(other.alive_)) {}
    Drain_& operator=(Drain_&&) = delete;
    ~Drain_() {
        constexpr int kRetryUs = 1000;
        if (pool_ == nullptr || alive_.expired() || !worker_->thread->isCurrent()) // elsewhere it was not taken
            return;
        const auto retry = [pool = pool_, worker = worker_, alive = alive_] {
            if (!alive.expired())
                pool->drainWorker_(worker, alive);
        };
        ZnCoreApplication::instance()->addTimer(retry, kRetryUs, true, kDrainLane);
    }
    void operator()() {
        ZnThreadPool* pool = std::exchange(pool_, nullptr);
        if (!alive_.expired())
            pool->drainWorker_(worker_, alive_);
    }

private:
    ZnThreadPool* pool_; // null once it has run or moved
    Worker_* worker_;
    std::weak_ptr<bool> alive_;
};

void ZnThreadPool::postDrain_(Worker_* worker) {
    ZnTask drain(Drain_(this, worker));
    // Without a loop the thread is ending, and its tasks move to another worker.
    postTask(worker->thread->handle(), drain,
             {.lane = kDrainLane,
              .whenFull = ZnPostOptions::WhenFull::Wait,
              .whenNotRunning = ZnPostOptions::WhenNotRunning::Refuse});
}

// --- on a worker's thread

void ZnThreadPool::drainWorker_(Worker_* worker, const std::weak_ptr<bool>& alive) {
    ZnRunnable* task = takeTask_(worker);
    const long long untilNs = worker->lastActivityNs + kTurnNs;
    while (task != nullptr) {
        const bool autoDelete = worker->orphan != nullptr;
        runSafely_(*task, worker->id);
        // The task may have deleted the pool; no other thread can before this one has ended.
        if (!alive.expired())
            worker->orphan = nullptr;
        if (autoDelete)
            delete task;
        if (alive.expired())
            return;
        task = finishTask_(worker, untilNs);
    }
}

void ZnThreadPool::runSafely_(ZnRunnable& task, std::uint32_t workerId) {
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

ZnRunnable* ZnThreadPool::takeTask_(Worker_* worker) {
    ZnMutexLocker locker(lock_);
    worker->scheduled = false;
    if (worker->retiring || worker->running || worker->tasks.empty())
        return nullptr;
    worker->lastActivityNs = monotonicNowNs();
    return beginFirst_(*worker);
}

ZnRunnable* ZnThreadPool::beginFirst_(Worker_& worker) {
    ZnRunnable* task = worker.tasks.front().runnable;
    worker.tasks.pop_front();
    --queuedTaskCount_;
    ++activeCount_;
    worker.running = true;
    worker.orphan = task->autoDelete ? task : nullptr;
    ++worker.generation;
    return task;
}

ZnRunnable* ZnThreadPool::finishTask_(Worker_* worker, long long untilNs) {
    ZnCoreApplication& application = *ZnCoreApplication::instance();
    // Short tasks follow each other without a way through the loop, while nothing there waits for its turn.
    const bool mayGoOn = !application.fiberPool().hasQueuedWork() && !application.isQuitRequested();
    bool drain = false;
    bool arm = false;
    bool wakeWaiters = false;
    std::uint32_t generation = 0;
    {
        ZnMutexLocker locker(lock_);
        --activeCount_;
        worker->running = false;
        worker->lastActivityNs = monotonicNowNs();
        if (mayGoOn && !worker->tasks.empty() && worker->lastActivityNs < untilNs)
            return beginFirst_(*worker);
        drain = needsDrain_(*worker);
        if (!drain) {
            generation = ++worker->generation;
            arm = worker->expiryMs >= 0 && !worker->expiryArmed;
            worker->expiryArmed = worker->expiryArmed || arm;
        }
        wakeWaiters = isWatched_();
    }
    // The worker and the pool stay: this thread has to end before they go.
    if (drain)
        postDrain_(worker);
    if (arm)
        armExpiry_(worker, generation, worker->expiryMs * kNsPerMs);
    if (wakeWaiters)
        broadcast_();
    return nullptr;
}

void ZnThreadPool::armExpiry_(Worker_* worker, std::uint32_t generation, long long delayNs) {
    // A longer time than a timer can take is reached in several rounds.
    const auto delayUs = static_cast<int>(std::clamp<long long>(delayNs / 1000 + 1, 1, INT_MAX));
    ZnCoreApplication::instance()->addTimer(
        [this, worker, generation, alive = std::weak_ptr<bool>(aliveToken_)] {
            if (!alive.expired())
                expire_(worker, generation);
        },
        delayUs, true, ZnFiberPool::kFirstLane);
}

void ZnThreadPool::expire_(Worker_* worker, std::uint32_t generation) {
    const long long fullNs = worker->expiryMs * kNsPerMs;
    long long againInNs = 0;
    bool leaves = false;
    {
        ZnMutexLocker locker(lock_);
        if (worker->retiring || isBusy_(*worker)) {
            worker->expiryArmed = false; // armed anew at the end of its last task
            return;
        }
        const long long leftNs = worker->lastActivityNs + fullNs - monotonicNowNs();
        const bool mayLeave = !shuttingDown_ && !waitingForDone_;
        leaves = mayLeave && generation == worker->generation && leftNs <= 0;
        againInNs = mayLeave ? leftNs : fullNs; // it has worked since, or its time is longer than a timer's
        generation = worker->generation;
        if (leaves)
            retire_(worker);
    }
    if (leaves)
        worker->thread->quit();
    else
        armExpiry_(worker, generation, againInNs);
}

void ZnThreadPool::retire_(Worker_* worker) {
    worker->retiring = true;
    const auto at =
        std::find_if(workers_.begin(), workers_.end(), [&](const auto& entry) { return entry.get() == worker; });
    if (at == workers_.end())
        return;
    expired_.push_back(std::move(*at));
    workers_.erase(at);
}

void ZnThreadPool::workerEnded_(Worker_* worker) {
    std::vector<WorkerRef_> toDrain;
    std::vector<ZnRunnable*> lost;
    {
        ZnMutexLocker locker(lock_);
        if (!worker->retiring) {
            // Its loop was ended by a task or by a stop of the process: a parked task never goes on, queued ones may.
            retire_(worker);
            if (std::exchange(worker->running, false))
                --activeCount_;
            if (worker->orphan != nullptr)
                lost.push_back(std::exchange(worker->orphan, nullptr));
            rescue_(std::exchange(worker->tasks, {}), &toDrain, &lost);
        }
    }
    for (const WorkerRef_& other : toDrain)
        postDrain_(other.get());
    for (ZnRunnable* task : lost)
        release_(task);
    broadcast_();
}

void ZnThreadPool::rescue_(std::deque<Task_> tasks, std::vector<WorkerRef_>* toDrain, std::vector<ZnRunnable*>* lost) {
    queuedTaskCount_ -= static_cast<int>(tasks.size());
    for (const Task_& task : tasks) {
        Worker_* worker = chooseWorker_();
        if (worker == nullptr)
            lost->push_back(task.runnable);
        else if (insert_(*worker, task))
            toDrain->push_back(worker->shared_from_this());
    }
}

// --- workers that have ended

void ZnThreadPool::takeEnded_(std::vector<WorkerRef_>* ended) {
    for (std::size_t i = expired_.size(); i-- > 0;) {
        if (expired_[i]->thread->isRunning())
            continue;
        ended->push_back(std::move(expired_[i]));
        expired_.erase(expired_.begin() + static_cast<std::ptrdiff_t>(i));
    }
}

void ZnThreadPool::reap_() {
    std::vector<WorkerRef_> ended; // joined and deleted without the lock
    ZnMutexLocker locker(lock_);
    takeEnded_(&ended);
}

// --- waiting

bool ZnThreadPool::isDone_() const {
    return activeCount_ == 0 && queuedTaskCount_ == 0;
}

bool ZnThreadPool::isWatched_() const {
    return shuttingDown_ || (waitingForDone_ && isDone_());
}

void ZnThreadPool::broadcast_() {
    std::lock_guard<std::mutex> guard(doneMutex_); // a waiter is not between its test and its sleep
    doneCondition_.notify_all();
}

bool ZnThreadPool::waitForDone(Deadline deadline) {
    reap_();
    if (!beginWait_())
        return false;
    const bool isDone = awaitDone_(deadline);
    {
        ZnMutexLocker locker(lock_);
        waitingForDone_ = false;
    }
    reap_();
    return isDone;
}

bool ZnThreadPool::beginWait_() {
    bool onWorker = false;
    {
        ZnMutexLocker locker(lock_);
        onWorker = std::any_of(workers_.begin(), workers_.end(),
                               [](const WorkerRef_& worker) { return worker->thread->isCurrent(); });
        if (!onWorker)
            return !std::exchange(waitingForDone_, true);
    }
    ZN_LOG_WARNING(kCategory, "ZnThreadPool::waitForDone")
        << "waitForDone() called from a ZnThreadPool worker; refusing to self-block";
    return false;
}

bool ZnThreadPool::awaitDone_(Deadline deadline) {
    std::unique_lock<std::mutex> done(doneMutex_);
    for (;;) {
        {
            ZnMutexLocker locker(lock_);
            if (isDone_())
                return true;
        }
        if (deadline.forever) {
            doneCondition_.wait(done);
            continue;
        }
        const long long now = nowMs();
        if (deadline.ticks <= now)
            return false;
        doneCondition_.wait_for(done, std::chrono::milliseconds(std::min<long long>(deadline.ticks - now, INT_MAX)));
    }
}

// --- settings and counts

void ZnThreadPool::set_(int ZnThreadPool::*field, int value) {
    ZnMutexLocker locker(lock_);
    this->*field = value;
}

int ZnThreadPool::get_(int ZnThreadPool::*field) const {
    ZnMutexLocker locker(lock_);
    return this->*field;
}

int ZnThreadPool::threadCount() const {
    ZnMutexLocker locker(lock_);
    return static_cast<int>(workers_.size());
}
