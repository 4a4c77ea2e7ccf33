#pragma once

#include "core/platform/ZnFiberContext.h"
#include "core/types/ZnMutex.h"
#include "core/types/ZnTask.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <unordered_map>
#include <vector>

/// A moment's counts of a pool.
struct FiberPoolStats {
    int warmSlotCount = 0;
    int spilloverSlotCount = 0;
    int idleSlotCount = 0;
    int runningSlotCount = 0;
    int blockedCount = 0;
    std::array<int, 4> laneDepth = {};
    std::uint64_t rejected = 0; // refused posts, and tasks dropped for want of a slot
    std::uint64_t completed = 0;
    std::uint64_t reused = 0; // tasks given to a slot that had run one before
    std::array<int, 4> peakDepth = {};
};

/// Runs every closure of an application on a stack of its own, so that a callback may wait by parking its fiber
/// while the loop serves others.
///
/// Four lanes: 0 is always first (resumes, responses handed to a session's thread), 1 to 3 share by credits of 8, 4
/// and 1; 2 is the default. Lanes 0 and 1 may use spillover slots beyond the warm ones.
/// Thread: fibers run on the owner's thread only; submit, unblock, canAccept and stats may be called from any.
/// Owner: the ZnCoreApplication, by value.
class ZnFiberPool {
public:
    static constexpr int kLaneCount = 4;
    static constexpr int kFirstLane = 0;
    static constexpr int kDefaultLane = 2;

    struct Config {
        int warmMinimum = 500;
        int warmMaximum = 500;
        int spilloverLimit = 16;
        int stackSize = 131072; // bytes of each stack
    };

    ZnFiberPool();
    ~ZnFiberPool();
    ZnFiberPool(const ZnFiberPool&) = delete;
    ZnFiberPool& operator=(const ZnFiberPool&) = delete;

    /// The context that the loop runs on; without it tasks are dropped.
    void setMainFiber(ZnFiberContext* context);
    /// Takes effect for slots that do not exist yet; out-of-range members are put right.
    void configure(const Config& config);
    int warmTarget() const;
    bool isWarmedUp() const { return warmedUp_.load(std::memory_order_acquire); }
    /// Makes the warm slots; their contexts come at first use. Owner thread.
    void ensureWarmedUp();

    bool canAccept(int lane) const;
    /// How many more posts canAccept(lane) would allow.
    int roomFor(int lane) const;
    /// Queues the task, or leaves it with the caller and returns false.
    bool submit(ZnTask& task, int lane);
    /// Counts a refused post. Returns how many refusals to report now: at most once a second and lane not 0.
    std::uint64_t countRejected(int lane);
    /// Reports `refusalCount` refusals, if it is not 0; to be called without a lock.
    static void logRejected(int lane, std::uint64_t refusalCount);

    bool hasQueuedWork() const { return queuedCount_.load(std::memory_order_acquire) > 0; }
    bool hasLaneZeroWork() const { return laneZeroCount_.load(std::memory_order_acquire) > 0; }
    /// Resumes a parked fiber or begins a task, and returns when it has ended or parked. Returns whether it did or
    /// dropped anything. On the main fiber only.
    bool runNextWorkItem();

    /// Parks the running fiber until unblock(waitId). Returns at once when called off a fiber. When the wake-up may
    /// come from another thread, that thread sets `*alreadyWoken` before it calls unblock: then none is lost.
    void yieldCurrent(int waitId, const std::atomic<bool>* alreadyWoken = nullptr);
    /// Makes the fiber that is parked under `waitId` ready on `lane`. False when there is none.
    bool unblock(int waitId, int lane);
    /// Whether the caller runs on a fiber of this pool.
    bool isOnFiber() const noexcept { return current_ != nullptr; }

    FiberPoolStats stats() const;
    /// Drops everything: tasks are destroyed without running, parked stacks freed without unwinding.
    void shutdown();

private:
    struct FiberSlot_ {
        ZnFiberPool* pool = nullptr;
        std::unique_ptr<ZnFiberStacks> ownStacks; // spillover slots have a mapping of their own
        ZnFiberStacks* stacks = nullptr;
        std::size_t stackIndex = 0;
        std::unique_ptr<ZnFiberContext> fiber; // made at first use
        ZnTask task;
        int resumeLane = kDefaultLane;
        int waitId = 0; // non-zero while parked
        bool spillover = false;
        bool idle = true;
        bool fresh = true; // until its first task has ended
    };
    struct RejectLog_ {
        long long lastReportNs = 0;
        std::uint64_t unreported = 0;
    };

    static void fiberEntry_(void* argument);
    static int laneIndex_(int lane) { return lane < 0 || lane >= kLaneCount ? kLaneCount - 1 : lane; }
    static void executeCallbackSafely_(ZnTask& task);
    void runTask_(FiberSlot_& slot);
    bool makeContext_(FiberSlot_& slot);
    void freeSlot_(FiberSlot_& slot) ZN_REQUIRES(lock_);
    static void logDropped_();
    int capacityOf_(int lane) const;
    int depthOf_(int lane) const ZN_REQUIRES(lock_);
    void noteDepth_(int lane) ZN_REQUIRES(lock_);
    int chooseLane_() ZN_REQUIRES(lock_);
    int laneByCredits_() ZN_REQUIRES(lock_);
    FiberSlot_* createSpilloverSlotLocked_() ZN_REQUIRES(lock_);
    FiberSlot_* acquireSlot_(int lane) ZN_REQUIRES(lock_);
    FiberSlot_* acquireSpilloverSlot_() ZN_REQUIRES(lock_);
    static FiberSlot_* popBack_(std::vector<FiberSlot_*>& slots);
    FiberSlot_* takeReady_(int lane) ZN_REQUIRES(lock_);
    FiberSlot_* takeTask_(int lane, ZnTask* dropped) ZN_REQUIRES(lock_);
    void switchTo_(FiberSlot_& slot);

    ZnFiberContext* mainFiber_ = nullptr;
    FiberSlot_* current_ = nullptr;         // owner thread only
    std::atomic<bool> warmedUp_{false};
    std::atomic<int> queuedCount_{0};       // ready slots and tasks of all lanes; changed under lock_
    std::atomic<int> laneZeroCount_{0};     // the same for lane 0
    std::atomic<int> load_{0};              // queued tasks and slots that are not idle; changed under lock_
    std::atomic<int> warmTarget_{500};
    std::atomic<int> spilloverLimit_{16};

    mutable ZnMutex lock_; // after an application's loopMutex_; never held across a switch
    Config config_ ZN_GUARDED_BY(lock_);
    std::unique_ptr<ZnFiberStacks> warmStacks_ ZN_GUARDED_BY(lock_);
    std::vector<std::unique_ptr<FiberSlot_>> slots_ ZN_GUARDED_BY(lock_);
    std::vector<FiberSlot_*> idleWarm_ ZN_GUARDED_BY(lock_);      // last in, first out: warm stacks stay warm
    std::vector<FiberSlot_*> idleSpillover_ ZN_GUARDED_BY(lock_); // likewise
    std::array<std::deque<FiberSlot_*>, kLaneCount> readyQueues_ ZN_GUARDED_BY(lock_);
    std::array<std::deque<ZnTask>, kLaneCount> taskQueues_ ZN_GUARDED_BY(lock_);
    std::unordered_map<int, FiberSlot_*> blocked_ ZN_GUARDED_BY(lock_);
    std::array<int, 3> laneCredits_ ZN_GUARDED_BY(lock_) = {8, 4, 1};
    int warmSlotCount_ ZN_GUARDED_BY(lock_) = 0;
    int spilloverSlotCount_ ZN_GUARDED_BY(lock_) = 0;
    std::uint64_t rejectedCount_ ZN_GUARDED_BY(lock_) = 0;
    std::uint64_t completedCount_ ZN_GUARDED_BY(lock_) = 0;
    std::uint64_t reusedCount_ ZN_GUARDED_BY(lock_) = 0;
    std::array<int, kLaneCount> peakDepth_ ZN_GUARDED_BY(lock_) = {};
    std::array<RejectLog_, kLaneCount> rejectLog_ ZN_GUARDED_BY(lock_);
};
