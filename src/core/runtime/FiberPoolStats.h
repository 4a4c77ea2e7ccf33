#pragma once

#include <array>
#include <cstdint>

/// A moment's counts of a fiber pool.
struct FiberPoolStats {
    int warmSlotCount = 0;
    int spilloverSlotCount = 0; // slots beyond the warm ones
    int idleSlotCount = 0;
    int runningSlotCount = 0;
    int blockedCount = 0;
    std::array<int, 4> laneDepth = {};
    std::uint64_t rejected = 0; // refused posts, and tasks dropped for want of a slot
    std::uint64_t completed = 0;
    std::uint64_t reused = 0; // tasks given to a slot that had run one before
    std::array<int, 4> peakDepth = {};
};
