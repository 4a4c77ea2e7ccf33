#include "core/runtime/ZnFiberPool.h"

#include "core/platform/ZnMonotonicClock.h"
#include "core/types/ZnAssert.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

namespace {

constexpr const char* kCategory = "zn.core.runtime.znfiberpool";
constexpr int kDefaultStackBytes = 131072;
constexpr std::array<int, 3> kLaneCredits = {8, 4, 1};
constexpr long long kReportIntervalNs = 1000000000LL;

// Instrumented code needs far more stack.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kStackFactor = 4;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr int kStackFactor = 4;
#else
constexpr int kStackFactor = 1;
#endif
#else
constexpr int kStackFactor = 1;
#endif

} // namespace

ZnFiberPool::ZnFiberPool() = default;

ZnFiberPool::~ZnFiberPool() {
    shutdown();
}

void ZnFiberPool::setMainFiber(ZnFiberContext* context) {
    mainFiber_ = context;
}

void ZnFiberPool::configure(const Config& config) {
    ZnMutexLocker locker(lock_);
    config_ = config;
    config_.warmMinimum = std::max(config_.warmMinimum, 0);
    config_.warmMaximum = std::max(config_.warmMaximum, config_.warmMinimum);
    config_.spilloverLimit = std::max(config_.spilloverLimit, 0);
    if (config_.stackSize <= 0)
        config_.stackSize = kDefaultStackBytes;
    warmTarget_.store(std::min(config_.warmMinimum, config_.warmMaximum), std::memory_order_relaxed);
    spilloverLimit_.store(config_.spilloverLimit, std::memory_order_relaxed);
}

int ZnFiberPool::warmTarget() const {
    return warmTarget_.load(std::memory_order_relaxed);
}

void ZnFiberPool::ensureWarmedUp() {
    if (isWarmedUp() || mainFiber_ == nullptr)
        return;
    ZnMutexLocker locker(lock_);
    const auto target = static_cast<std::size_t>(warmTarget());
    const std::size_t stackBytes = static_cast<std::size_t>(config_.stackSize) * kStackFactor;
    warmStacks_ = std::make_unique<ZnFiberStacks>(std::max<std::size_t>(target, 1), stackBytes);
    if (warmStacks_->isValid()) {
        slots_.reserve(target + static_cast<std::size_t>(config_.spilloverLimit));
        idleWarm_.reserve(target);
        for (std::size_t i = 0; i < target; ++i) {
            auto slot = std::make_unique<FiberSlot_>();
            slot->pool = this;
            slot->stacks = warmStacks_.get();
            slot->stackIndex = target - 1 - i; // the last one added is the first one used
            idleWarm_.push_back(slot.get());
            slots_.push_back(std::move(slot));
        }
        warmSlotCount_ = static_cast<int>(target);
    } else {
        ZN_LOG_ERROR(kCategory, "ZnFiberPool::ensureWarmedUp") << "Failed to create fiber. Error: " << errno;
    }
    warmedUp_.store(true, std::memory_order_release);
}

int ZnFiberPool::capacityOf_(int lane) const {
    return warmTarget() + (laneIndex_(lane) <= 1 ? spilloverLimit_.load(std::memory_order_relaxed) : 0);
}

bool ZnFiberPool::canAccept(int lane) const {
    return roomFor(lane) > 0;
}

int ZnFiberPool::roomFor(int lane) const {
    return capacityOf_(lane) - load_.load(std::memory_order_relaxed);
}

int ZnFiberPool::depthOf_(int lane) const {
    const auto index = static_cast<std::size_t>(lane);
    return static_cast<int>(readyQueues_[index].size() + taskQueues_[index].size());
}

void ZnFiberPool::noteDepth_(int lane) {
    int& peak = peakDepth_[static_cast<std::size_t>(lane)];
    peak = std::max(peak, depthOf_(lane));
    queuedCount_.fetch_add(1, std::memory_order_release);
    if (lane == kFirstLane)
        laneZeroCount_.fetch_add(1, std::memory_order_release);
}

bool ZnFiberPool::submit(ZnTask& task, int lane) {
    lane = laneIndex_(lane);
    ZnMutexLocker locker(lock_);
    if (!canAccept(lane))
        return false;
    taskQueues_[static_cast<std::size_t>(lane)].push_back(std::move(task));
    load_.fetch_add(1, std::memory_order_relaxed);
    noteDepth_(lane);
    return true;
}

std::uint64_t ZnFiberPool::countRejected(int lane) {
    ZnMutexLocker locker(lock_);
    ++rejectedCount_;
    RejectLog_& log = rejectLog_[static_cast<std::size_t>(laneIndex_(lane))];
    ++log.unreported;
    const long long nowNs = monotonicNowNs();
    if (log.lastReportNs != 0 && nowNs - log.lastReportNs < kReportIntervalNs)
        return 0;
    log.lastReportNs = nowNs;
    return std::exchange(log.unreported, 0);
}

void ZnFiberPool::logRejected(int lane, std::uint64_t refusalCount) {
    if (refusalCount == 0)
        return;
    ZN_LOG_WARNING("zn.core.runtime.zncoreapplication", "ZnCoreApplication::postEventOnLaneImpl_")
        << "ZnFiberPool saturated; rejecting posted event on lane=" << lane << " (" << refusalCount
        << (refusalCount == 1 ? " refusal)" : " refusals since the last report)");
}

int ZnFiberPool::chooseLane_() {
    if (depthOf_(kFirstLane) > 0)
        return kFirstLane;
    for (int round = 0; round < 2; ++round) {
        if (laneCredits_[0] <= 0 && laneCredits_[1] <= 0 && laneCredits_[2] <= 0)
            laneCredits_ = kLaneCredits;
        const int lane = laneByCredits_();
        if (lane > 0)
            return lane;
        if (depthOf_(1) + depthOf_(2) + depthOf_(3) == 0)
            return -1;
        laneCredits_ = kLaneCredits; // the lanes that have work have spent theirs
    }
    return -1;
}

int ZnFiberPool::laneByCredits_() {
    for (int lane = 1; lane < kLaneCount; ++lane) {
        int& credit = laneCredits_[static_cast<std::size_t>(lane - 1)];
        if (credit > 0 && depthOf_(lane) > 0) {
            --credit;
            return lane;
        }
    }
    return -1;
}

ZnFiberPool::FiberSlot_* ZnFiberPool::createSpilloverSlotLocked_() {
    auto slot = std::make_unique<FiberSlot_>();
    slot->pool = this;
    slot->spillover = true;
    slot->resumeLane = 1;
    slot->ownStacks =
        std::make_unique<ZnFiberStacks>(1, static_cast<std::size_t>(config_.stackSize) * kStackFactor);
    slot->stacks = slot->ownStacks.get();
    if (!slot->stacks->isValid())
        return nullptr; // as with no slot
    ++spilloverSlotCount_;
    slots_.push_back(std::move(slot));
    return slots_.back().get();
}

ZnFiberPool::FiberSlot_* ZnFiberPool::acquireSlot_(int lane) {
    FiberSlot_* slot = nullptr;
    // Tasks of lanes 2 and 3 were accepted because warm slots were left for them. Lanes 0 and 1, which may go first,
    // take spillover slots rather than those, so that no accepted task ends without a slot.
    const std::size_t reserved = lane > 1 ? 0 : taskQueues_[2].size() + taskQueues_[3].size();
    if (idleWarm_.size() > reserved)
        slot = popBack_(idleWarm_);
    else if (lane <= 1)
        slot = acquireSpilloverSlot_();
    if (slot == nullptr && !idleWarm_.empty())
        slot = popBack_(idleWarm_);
    if (slot != nullptr)
        slot->idle = false;
    return slot;
}

ZnFiberPool::FiberSlot_* ZnFiberPool::acquireSpilloverSlot_() {
    if (!idleSpillover_.empty())
        return popBack_(idleSpillover_);
    return spilloverSlotCount_ < config_.spilloverLimit ? createSpilloverSlotLocked_() : nullptr;
}

ZnFiberPool::FiberSlot_* ZnFiberPool::popBack_(std::vector<FiberSlot_*>& slots) {
    FiberSlot_* slot = slots.back();
    slots.pop_back();
    return slot;
}

ZnFiberPool::FiberSlot_* ZnFiberPool::takeReady_(int lane) {
    std::deque<FiberSlot_*>& queue = readyQueues_[static_cast<std::size_t>(lane)];
    FiberSlot_* slot = queue.front();
    queue.pop_front();
    slot->resumeLane = lane;
    return slot;
}

ZnFiberPool::FiberSlot_* ZnFiberPool::takeTask_(int lane, ZnTask* dropped) {
    std::deque<ZnTask>& queue = taskQueues_[static_cast<std::size_t>(lane)];
    ZnTask task = std::move(queue.front());
    queue.pop_front();
    FiberSlot_* slot = mainFiber_ == nullptr ? nullptr : acquireSlot_(lane);
    if (slot == nullptr) {
        load_.fetch_sub(1, std::memory_order_relaxed);
        ++rejectedCount_;
        *dropped = std::move(task);
        return nullptr;
    }
    // The task leaves the queue and its slot leaves the idle ones: the load stays what it was.
    if (!slot->fresh)
        ++reusedCount_;
    slot->waitId = 0;
    slot->resumeLane = lane;
    slot->task = std::move(task);
    return slot;
}

bool ZnFiberPool::runNextWorkItem() {
    ensureWarmedUp();
    ZnTask dropped; // destroyed without the lock: its captures may do anything
    FiberSlot_* slot = nullptr;
    {
        ZnMutexLocker locker(lock_);
        const int lane = chooseLane_();
        if (lane < 0)
            return false;
        queuedCount_.fetch_sub(1, std::memory_order_relaxed);
        if (lane == kFirstLane)
            laneZeroCount_.fetch_sub(1, std::memory_order_relaxed);
        slot = readyQueues_[static_cast<std::size_t>(lane)].empty() ? takeTask_(lane, &dropped) : takeReady_(lane);
    }
    if (slot == nullptr) {
        logDropped_();
        return true;
    }
    if (slot->fiber != nullptr || makeContext_(*slot))
        switchTo_(*slot);
    return true;
}

void ZnFiberPool::logDropped_() {
    ZN_LOG_WARNING(kCategory, "ZnFiberPool::runNextWorkItem")
        << "Dropping queued fiber task because no dispatch slot is available.";
}

bool ZnFiberPool::makeContext_(FiberSlot_& slot) {
    if (void* stack = slot.stacks->prepare(slot.stackIndex)) {
        slot.fiber = std::make_unique<ZnFiberContext>(stack, slot.stacks->stackBytes(), &fiberEntry_, &slot);
        return true;
    }
    ZN_LOG_ERROR(kCategory, "ZnFiberPool::createFiberSlotLocked_") << "Failed to create fiber. Error: " << errno;
    logDropped_();
    const ZnTask dropped = std::move(slot.task); // destroyed without the lock
    ZnMutexLocker locker(lock_);
    ++rejectedCount_;
    freeSlot_(slot); // the next task may have more luck
    return false;
}

void ZnFiberPool::switchTo_(FiberSlot_& slot) {
    ZN_ASSERT(current_ == nullptr);
    current_ = &slot;
    mainFiber_->switchTo(*slot.fiber);
    current_ = nullptr;
}

void ZnFiberPool::fiberEntry_(void* argument) {
    FiberSlot_& slot = *static_cast<FiberSlot_*>(argument);
    for (;;) {
        slot.pool->runTask_(slot);
        slot.fiber->switchTo(*slot.pool->mainFiber_);
    }
}

void ZnFiberPool::runTask_(FiberSlot_& slot) {
    executeCallbackSafely_(slot.task);
    ZnMutexLocker locker(lock_);
    slot.fresh = false;
    ++completedCount_;
    freeSlot_(slot);
}

void ZnFiberPool::freeSlot_(FiberSlot_& slot) {
    slot.waitId = 0;
    slot.idle = true;
    load_.fetch_sub(1, std::memory_order_relaxed);
    (slot.spillover ? idleSpillover_ : idleWarm_).push_back(&slot);
}

void ZnFiberPool::executeCallbackSafely_(ZnTask& task) {
    try {
        task();
        task.reset(); // captures go on the fiber, where they may still park
    } catch (const std::exception& error) {
        ZN_LOG_ERROR(kCategory, "ZnFiberPool::executeCallbackSafely_")
            << "Unhandled exception in fiber callback: " << error.what();
    } catch (...) {
        ZN_LOG_ERROR(kCategory, "ZnFiberPool::executeCallbackSafely_")
            << "Unhandled unknown exception in fiber callback";
    }
    task.reset();
}

void ZnFiberPool::yieldCurrent(int waitId, const std::atomic<bool>* alreadyWoken) {
    FiberSlot_* slot = current_;
    if (slot == nullptr || mainFiber_ == nullptr)
        return;
    {
        ZnMutexLocker locker(lock_);
        if (alreadyWoken != nullptr && alreadyWoken->load(std::memory_order_acquire))
            return;
        FiberSlot_*& entry = blocked_[waitId];
        if (entry != nullptr)
            entry->waitId = 0;
        entry = slot;
        slot->waitId = waitId;
    }
    slot->fiber->switchTo(*mainFiber_);
}

bool ZnFiberPool::unblock(int waitId, int lane) {
    lane = laneIndex_(lane);
    ZnMutexLocker locker(lock_);
    const auto at = blocked_.find(waitId);
    if (at == blocked_.end())
        return false;
    FiberSlot_* slot = at->second;
    blocked_.erase(at);
    slot->waitId = 0;
    readyQueues_[static_cast<std::size_t>(lane)].push_back(slot);
    noteDepth_(lane);
    return true;
}

FiberPoolStats ZnFiberPool::stats() const {
    ZnMutexLocker locker(lock_);
    FiberPoolStats stats;
    stats.warmSlotCount = warmSlotCount_;
    stats.spilloverSlotCount = spilloverSlotCount_;
    stats.idleSlotCount = static_cast<int>(idleWarm_.size() + idleSpillover_.size());
    stats.blockedCount = static_cast<int>(blocked_.size());
    int readyCount = 0;
    for (int lane = 0; lane < kLaneCount; ++lane) {
        stats.laneDepth[static_cast<std::size_t>(lane)] = depthOf_(lane);
        readyCount += static_cast<int>(readyQueues_[static_cast<std::size_t>(lane)].size());
    }
    stats.runningSlotCount =
        warmSlotCount_ + spilloverSlotCount_ - stats.idleSlotCount - stats.blockedCount - readyCount;
    stats.rejected = rejectedCount_;
    stats.completed = completedCount_;
    stats.reused = reusedCount_;
    stats.peakDepth = peakDepth_;
    return stats;
}

void ZnFiberPool::shutdown() {
    // Destroyed from the last to the first: queued tasks, what the slots hold, and the stacks at the very end, as
    // captures may point into them.
    std::unique_ptr<ZnFiberStacks> stacks;
    std::vector<std::unique_ptr<FiberSlot_>> slots;
    std::array<std::deque<ZnTask>, kLaneCount> tasks;
    {
        ZnMutexLocker locker(lock_);
        tasks.swap(taskQueues_);
        slots.swap(slots_);
        stacks.swap(warmStacks_);
        for (std::deque<FiberSlot_*>& queue : readyQueues_)
            queue.clear();
        blocked_.clear();
        idleWarm_.clear();
        idleSpillover_.clear();
        warmSlotCount_ = 0;
        spilloverSlotCount_ = 0;
        queuedCount_.store(0, std::memory_order_relaxed);
        laneZeroCount_.store(0, std::memory_order_relaxed);
        load_.store(0, std::memory_order_relaxed);
        warmedUp_.store(false, std::memory_order_release);
    }
    for (std::unique_ptr<FiberSlot_>& slot : slots)
        slot->task.reset();
}
