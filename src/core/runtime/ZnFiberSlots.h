#pragma once

#include "core/platform/ZnFiberContext.h"
#include "core/types/ZnTask.h"

#include <cstddef>
#include <memory>
#include <vector>

class ZnFiberPool;
struct ZnStackGroup;

/// A stack of a fiber pool, with the fiber that lies on it and what it runs.
struct ZnFiberSlot {
    ZnFiberPool* pool = nullptr;
    ZnStackGroup* group = nullptr;
    std::size_t stackIndex = 0;
    std::unique_ptr<ZnFiberContext> fiber; // made at first use
    ZnTask task;
    int resumeLane = 0;
    int waitId = 0;       // non-zero while parked
    int refusedWaits = 0; // while the parked ones are unwound
    bool idle = true;
    bool fresh = true; // until its first task has ended
};

/// The stacks of one mapping with their slots.
struct ZnStackGroup {
    ZnStackGroup(std::size_t stackCount, std::size_t stackBytes) : stacks(stackCount, stackBytes), slots(stackCount) {}

    ZnFiberStacks stacks;
    std::vector<ZnFiberSlot> slots; // never resized: fibers hold the addresses
    int busyCount = 0;
    bool isWarm = false;
};

/// The slots of a fiber pool: those of the first group are warm and stay, groups beyond it come and go.
///
/// Thread: none of its own; the pool guards it. Owner: the ZnFiberPool, by value.
class ZnFiberSlots {
public:
    using Groups = std::vector<std::unique_ptr<ZnStackGroup>>;

    explicit ZnFiberSlots(ZnFiberPool* pool) : pool_(pool) {}

    /// Makes slots; false, with errno, when the system has no memory for them.
    bool addGroup(std::size_t slotCount, std::size_t stackBytes, bool isWarm);
    /// An idle slot, a warm one if there is one; null when there is none and none can be made.
    ZnFiberSlot* acquire(std::size_t stackBytes);
    void release(ZnFiberSlot& slot);
    /// Takes out the groups beyond the warm one that nobody uses, but for a few idle slots. To be freed without a lock.
    Groups takeSpare();
    /// Takes out everything.
    Groups takeAll();

    int warmCount() const noexcept { return warmCount_; }
    int grownCount() const noexcept { return grownCount_; }
    int idleCount() const noexcept { return static_cast<int>(idleWarm_.size() + idleGrown_.size()); }

private:
    ZnFiberPool* const pool_;
    Groups groups_;
    std::vector<ZnFiberSlot*> idleWarm_;  // last in, first out: warm stacks stay warm
    std::vector<ZnFiberSlot*> idleGrown_; // likewise, of the other groups
    int warmCount_ = 0;
    int grownCount_ = 0;
};
