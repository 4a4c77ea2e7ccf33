#pragma once

#include "core/platform/ZnFiberContext.h"
#include "core/runtime/FiberPoolStats.h"
#include "core/runtime/ZnFiberSlots.h"
#include "core/types/ZnMutex.h"
#include "core/types/ZnTask.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <unordered_map>

/// Runs every closure of an application on a stack of its own, so that a callback may wait by parking its fiber
/// while the loop serves others.
///
/// Four lanes: 0 is always first (resumes, responses handed to a session's thread), 1 to 3 share by credits of 8, 4
/// and 1; 2 is the default. A bounded number of closures is queued or running at a time, on lanes 0 and 1 somewhat
/// more. Parked fibers do not take that room, or what is to wake them could not run; there may be parkedLimit of them
/// before new work is refused. Slots beyond the warm ones are made as they are needed, and freed when they are not.
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
        int spilloverLimit = 16; // what lanes 0 and 1 may have queued or running beyond the warm slots
        int stackSize = 131072;  // bytes of each stack
        int parkedLimit = 4000;
    };

    /// What a post is for. Timers and readiness are wake-ups: they are accepted however many fibers are parked, since
    /// they may be what those wait for. There are never more of them than timers and handles.
    enum class Purpose : std::uint8_t { NewWork, WakeUp };

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

    bool canAccept(int lane, Purpose purpose = Purpose::NewWork) const { return roomFor(lane, purpose) > 0; }
    /// How many more posts canAccept() would allow.
    int roomFor(int lane, Purpose purpose = Purpose::NewWork) const;
    /// Queues the task, or leaves it with the caller and returns false.
    bool submit(ZnTask& task, int lane, Purpose purpose = Purpose::NewWork);

    /// What is to be done about a refused post.
    struct Rejection {
        bool isFirst = false; // of a burst: report it, and the others a second later
        int lane = kDefaultLane;
    };
    Rejection countRejected(int lane);
    /// The refusals of a lane that have not been reported; they are then no longer so.
    std::uint64_t takeUnreported(int lane);

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
    /// Resumes every parked fiber and lets it run to its end: waits return at once meanwhile. Queued tasks stay queued.
    /// A fiber that goes on waiting is left parked. On the main fiber only.
    void unwindParked();

    FiberPoolStats stats() const;
    /// Drops everything: tasks are destroyed without running, parked stacks freed without unwinding. Objects on such
    /// stacks count as destroyed.
    void shutdown();

private:
    static void fiberEntry_(void* argument);
    static int laneIndex_(int lane) { return lane < 0 || lane >= kLaneCount ? kLaneCount - 1 : lane; }
    static void executeCallbackSafely_(ZnTask& task);
    void runTask_(ZnFiberSlot& slot);
    bool makeContext_(ZnFiberSlot& slot);
    void freeSlot_(ZnFiberSlot& slot) ZN_REQUIRES(lock_);
    static void logDropped_();
    int capacityOf_(int lane) const;
    std::size_t stackBytes_() const ZN_REQUIRES(lock_);
    int depthOf_(int lane) const ZN_REQUIRES(lock_);
    void noteDepth_(int lane) ZN_REQUIRES(lock_);
    int chooseLane_() ZN_REQUIRES(lock_);
    int laneByCredits_() ZN_REQUIRES(lock_);
    void freeSpareGroups_();
    ZnFiberSlot* takeReady_(int lane) ZN_REQUIRES(lock_);
    ZnFiberSlot* takeTask_(int lane, ZnTask* dropped) ZN_REQUIRES(lock_);
    ZnFiberSlot* takeAnyReady_();
    void switchTo_(ZnFiberSlot& slot);
    bool mayPark_(ZnFiberSlot& slot) const;
    void noteTaken_(int lane) ZN_REQUIRES(lock_);
    void makeReady_(ZnFiberSlot& slot, int lane) ZN_REQUIRES(lock_);

    ZnFiberContext* mainFiber_ = nullptr;
    ZnFiberSlot* current_ = nullptr; // owner thread only, as is the next one
    bool isUnwinding_ = false;
    std::atomic<bool> warmedUp_{false};
    std::atomic<int> queuedCount_{0};   // ready slots and tasks of all lanes; changed under lock_
    std::atomic<int> laneZeroCount_{0}; // the same for lane 0
    std::atomic<int> load_{0};          // queued tasks and slots neither idle nor parked; changed under lock_
    std::atomic<int> parkedCount_{0};   // changed under lock_
    std::atomic<int> warmTarget_{500};
    std::atomic<int> spilloverLimit_{16};
    std::atomic<int> parkedLimit_{4000};

    mutable ZnMutex lock_; // leaf lock; never held across a switch
    Config config_ ZN_GUARDED_BY(lock_);
    ZnFiberSlots slots_ ZN_GUARDED_BY(lock_){this};
    std::array<std::deque<ZnFiberSlot*>, kLaneCount> readyQueues_ ZN_GUARDED_BY(lock_);
    std::array<std::deque<ZnTask>, kLaneCount> taskQueues_ ZN_GUARDED_BY(lock_);
    std::unordered_map<int, ZnFiberSlot*> blocked_ ZN_GUARDED_BY(lock_);
    std::array<int, 3> laneCredits_ ZN_GUARDED_BY(lock_) = {8, 4, 1};
    std::uint64_t rejectedCount_ ZN_GUARDED_BY(lock_) = 0;
    std::uint64_t completedCount_ ZN_GUARDED_BY(lock_) = 0;
    std::uint64_t reusedCount_ ZN_GUARDED_BY(lock_) = 0;
    std::array<int, kLaneCount> peakDepth_ ZN_GUARDED_BY(lock_) = {};
    std::array<std::uint64_t, kLaneCount> unreported_ ZN_GUARDED_BY(lock_) = {};
    std::array<bool, kLaneCount> isReportDue_ ZN_GUARDED_BY(lock_) = {};
};
