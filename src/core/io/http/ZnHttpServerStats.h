#pragma once

#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"

#include <cstdint>

/// A snapshot of a server's counters.
///
/// Thread: a value.
struct ZnHttpServerStats {
    std::int64_t requestsStarted = 0;
    std::int64_t responsesFinished = 0;
    std::int64_t inFlight = 0;
    std::int64_t bytesIn = 0;  // request bodies
    std::int64_t bytesOut = 0; // response bodies, of files and chunks too
    std::int64_t totalLatencyMs = 0;
    std::int64_t maxLatencyMs = 0;
    std::int64_t connectionsRefused = 0;
    std::int64_t busyRefused = 0;
    std::int64_t poolRefused = 0;                // by maxThreadPoolRequests
    ZnMap<ZnString, std::uint64_t> statusCounts; // by the status in decimal
};
