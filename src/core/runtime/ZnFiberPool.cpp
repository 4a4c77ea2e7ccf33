#include "core/runtime/ZnFiberPool.h"

#include "core/object/ZnLiveObjects.h"
#include "core/object/ZnSlotScope.h"
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
/// A fiber that is to unwind and waits more often than this does not mean to end.
constexpr int kMaxRefusedWaits = 1000;

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
    config_.parkedLimit = std::max(config_.parkedLimit, 0);
    warmTarget_.store(std::min(config_.warmMinimum, config_.warmMaximum), std::memory_order_relaxed);
    parkedLimit_.store(config_.parkedLimit, std::memory_order_relaxed);
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
    if (target > 0 && !slots_.addGroup(target, stackBytes_(), true))
        ZN_LOG_ERROR(kCategory, "ZnFiberPool::ensureWarmedUp") << "Failed to create fiber. Error: " << errno;
    warmedUp_.store(true, std::memory_order_release);
}

std::size_t ZnFiberPool::stackBytes_() const {
    return static_cast<std::size_t>(config_.stackSize) * kStackFactor;
}

int ZnFiberPool::capacityOf_(int lane) const {
    return warmTarget() + (laneIndex_(lane) <= 1 ? spilloverLimit_.load(std::memory_order_relaxed) : 0);
}

int ZnFiberPool::roomFor(int lane, Purpose purpose) const {
    const int room = capacityOf_(lane) - load_.load(std::memory_order_relaxed);
    if (purpose == Purpose::WakeUp)
        return room;
    return std::min(room, parkedLimit_.load(std::memory_order_relaxed) - parkedCount_.load(std::memory_order_relaxed));
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

void ZnFiberPool::noteTaken_(int lane) {
    queuedCount_.fetch_sub(1, std::memory_order_relaxed);
    if (lane == kFirstLane)
        laneZeroCount_.fetch_sub(1, std::memory_order_relaxed);
}

bool ZnFiberPool::submit(ZnTask& task, int lane, Purpose purpose) {
    lane = laneIndex_(lane);
    ZnMutexLocker locker(lock_);
    if (!canAccept(lane, purpose))
        return false;
    taskQueues_[static_cast<std::size_t>(lane)].push_back(std::move(task));
    load_.fetch_add(1, std::memory_order_relaxed);
    noteDepth_(lane);
    return true;
}

ZnFiberPool::Rejection ZnFiberPool::countRejected(int lane) {
    lane = laneIndex_(lane);
    const auto index = static_cast<std::size_t>(lane);
    ZnMutexLocker locker(lock_);
    ++rejectedCount_;
    ++unreported_[index];
    return {!std::exchange(isReportDue_[index], true), lane};
}

std::uint64_t ZnFiberPool::takeUnreported(int lane) {
    const auto index = static_cast<std::size_t>(laneIndex_(lane));
    ZnMutexLocker locker(lock_);
    isReportDue_[index] = false;
    return std::exchange(unreported_[index], 0);
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

ZnFiberSlot* ZnFiberPool::takeReady_(int lane) {
    std::deque<ZnFiberSlot*>& queue = readyQueues_[static_cast<std::size_t>(lane)];
    ZnFiberSlot* slot = queue.front();
    queue.pop_front();
    slot->resumeLane = lane;
    return slot;
}

ZnFiberSlot* ZnFiberPool::takeTask_(int lane, ZnTask* dropped) {
    std::deque<ZnTask>& queue = taskQueues_[static_cast<std::size_t>(lane)];
    ZnTask task = std::move(queue.front());
    queue.pop_front();
    ZnFiberSlot* slot = mainFiber_ == nullptr ? nullptr : slots_.acquire(stackBytes_());
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
    ZnFiberSlot* slot = nullptr;
    {
        ZnMutexLocker locker(lock_);
        const int lane = chooseLane_();
        if (lane < 0)
            return false;
        noteTaken_(lane);
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

bool ZnFiberPool::makeContext_(ZnFiberSlot& slot) {
    ZnFiberStacks& stacks = slot.group->stacks;
    if (void* stack = stacks.prepare(slot.stackIndex)) {
        slot.fiber = std::make_unique<ZnFiberContext>(stack, stacks.stackBytes(), &fiberEntry_, &slot);
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

void ZnFiberPool::switchTo_(ZnFiberSlot& slot) {
    ZN_ASSERT(current_ == nullptr);
    current_ = &slot;
    // Each stack has a chain of slot scopes of its own. The loop's is put away; a parked fiber brings its own back.
    const auto* outerScope = std::exchange(zn::detail::ZnSlotScope::current(), nullptr);
    mainFiber_->switchTo(*slot.fiber);
    zn::detail::ZnSlotScope::current() = outerScope;
    current_ = nullptr;
    if (slot.idle && slot.group->busyCount == 0 && !slot.group->isWarm)
        freeSpareGroups_();
}

void ZnFiberPool::freeSpareGroups_() {
    ZnFiberSlots::Groups spare; // unmapped without the lock
    ZnMutexLocker locker(lock_);
    spare = slots_.takeSpare();
}

void ZnFiberPool::fiberEntry_(void* argument) {
    ZnFiberSlot& slot = *static_cast<ZnFiberSlot*>(argument);
    for (;;) {
        slot.pool->runTask_(slot);
        slot.fiber->switchTo(*slot.pool->mainFiber_);
    }
}

void ZnFiberPool::runTask_(ZnFiberSlot& slot) {
    executeCallbackSafely_(slot.task);
    ZnMutexLocker locker(lock_);
    slot.fresh = false;
    ++completedCount_;
    freeSlot_(slot);
}

void ZnFiberPool::freeSlot_(ZnFiberSlot& slot) {
    load_.fetch_sub(1, std::memory_order_relaxed);
    slots_.release(slot);
}

void ZnFiberPool::executeCallbackSafely_(ZnTask& task) {
    try {
        task();
        task.reset(); // captures are destroyed on the fiber, where they may still park
    } catch (const std::exception& error) {
        ZN_LOG_ERROR(kCategory, "ZnFiberPool::executeCallbackSafely_")
            << "Unhandled exception in fiber callback: " << error.what();
    } catch (...) {
        ZN_LOG_ERROR(kCategory, "ZnFiberPool::executeCallbackSafely_")
            << "Unhandled unknown exception in fiber callback";
    }
    task.reset();
}

bool ZnFiberPool::mayPark_(ZnFiberSlot& slot) const {
    return !isUnwinding_ || ++slot.refusedWaits > kMaxRefusedWaits;
}

void ZnFiberPool::yieldCurrent(int waitId, const std::atomic<bool>* alreadyWoken) {
    ZnFiberSlot* slot = current_;
    if (slot == nullptr || mainFiber_ == nullptr || !mayPark_(*slot))
        return;
    {
        ZnMutexLocker locker(lock_);
        if (alreadyWoken != nullptr && alreadyWoken->load(std::memory_order_acquire))
            return;
        ZnFiberSlot*& entry = blocked_[waitId];
        if (entry != nullptr)
            entry->waitId = 0;
        entry = slot;
        slot->waitId = waitId;
        load_.fetch_sub(1, std::memory_order_relaxed);
        parkedCount_.fetch_add(1, std::memory_order_relaxed);
    }
    const auto* scope = zn::detail::ZnSlotScope::current();
    slot->fiber->switchTo(*mainFiber_);
    zn::detail::ZnSlotScope::current() = scope;
}

bool ZnFiberPool::unblock(int waitId, int lane) {
    ZnMutexLocker locker(lock_);
    const auto at = blocked_.find(waitId);
    if (at == blocked_.end())
        return false;
    ZnFiberSlot* slot = at->second;
    blocked_.erase(at);
    makeReady_(*slot, laneIndex_(lane));
    return true;
}

void ZnFiberPool::makeReady_(ZnFiberSlot& slot, int lane) {
    slot.waitId = 0;
    load_.fetch_add(1, std::memory_order_relaxed);
    parkedCount_.fetch_sub(1, std::memory_order_relaxed);
    readyQueues_[static_cast<std::size_t>(lane)].push_back(&slot);
    noteDepth_(lane);
}

void ZnFiberPool::unwindParked() {
    ZN_ASSERT(current_ == nullptr);
    isUnwinding_ = true;
    {
        ZnMutexLocker locker(lock_);
        for (const auto& [waitId, slot] : blocked_)
            makeReady_(*slot, kFirstLane);
        blocked_.clear();
    }
    while (ZnFiberSlot* slot = takeAnyReady_())
        switchTo_(*slot);
    isUnwinding_ = false;
}

ZnFiberSlot* ZnFiberPool::takeAnyReady_() {
    ZnMutexLocker locker(lock_);
    for (int lane = 0; lane < kLaneCount; ++lane) {
        if (readyQueues_[static_cast<std::size_t>(lane)].empty())
            continue;
        noteTaken_(lane);
        return takeReady_(lane);
    }
    return nullptr;
}

FiberPoolStats ZnFiberPool::stats() const {
    ZnMutexLocker locker(lock_);
    FiberPoolStats stats;
    stats.warmSlotCount = slots_.warmCount();
    stats.spilloverSlotCount = slots_.grownCount();
    stats.idleSlotCount = slots_.idleCount();
    stats.blockedCount = static_cast<int>(blocked_.size());
    int readyCount = 0;
    for (int lane = 0; lane < kLaneCount; ++lane) {
        stats.laneDepth[static_cast<std::size_t>(lane)] = depthOf_(lane);
        readyCount += static_cast<int>(readyQueues_[static_cast<std::size_t>(lane)].size());
    }
    stats.runningSlotCount =
        stats.warmSlotCount + stats.spilloverSlotCount - stats.idleSlotCount - stats.blockedCount - readyCount;
    stats.rejected = rejectedCount_;
    stats.completed = completedCount_;
    stats.reused = reusedCount_;
    stats.peakDepth = peakDepth_;
    return stats;
}

void ZnFiberPool::shutdown() {
    // Destroyed from the last to the first: queued tasks, then what the slots hold, and the stacks at the very end, as
    // captures may point into them.
    ZnFiberSlots::Groups groups;
    std::array<std::deque<ZnTask>, kLaneCount> tasks;
    {
        ZnMutexLocker locker(lock_);
        tasks.swap(taskQueues_);
        groups = slots_.takeAll();
        for (std::deque<ZnFiberSlot*>& queue : readyQueues_)
            queue.clear();
        blocked_.clear();
        queuedCount_.store(0, std::memory_order_relaxed);
        laneZeroCount_.store(0, std::memory_order_relaxed);
        load_.store(0, std::memory_order_relaxed);
        parkedCount_.store(0, std::memory_order_relaxed);
        warmedUp_.store(false, std::memory_order_release);
    }
    for (const std::unique_ptr<ZnStackGroup>& group : groups) {
        if (group->busyCount > 0) // fibers that are dropped without unwinding
            ZnLiveObjects::instance().forgetWithin(group->stacks.begin(), group->stacks.end());
        for (ZnFiberSlot& slot : group->slots)
            slot.task.reset();
    }
}
