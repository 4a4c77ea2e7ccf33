#pragma once

#include "core/io/http/ZnHttpResponse.h"
#include "core/io/http/ZnHttpServerStats.h"
#include "core/types/ZnMutex.h"
#include "core/types/ZnThreadAnnotations.h"

#include <cstddef>
#include <cstdint>
#include <map>

/// The counters of one server, and the limits that are theirs to keep.
///
/// Thread: any, but for enterLoop and leaveLoop. Owner: shared by the server and its requests in flight, which may
/// outlive it.
class ZnHttpServerCounters_ {
public:
    void refuseConnection();

    /// False: `maxInFlight` requests, if that is not 0, are being handled already.
    bool admit(std::uint64_t maxInFlight, std::size_t bodyBytes);
    /// An admitted request has ended without a response.
    void abandon();
    void record(const ZnHttpResponse& response, long long startedNs, bool wasAdmitted);

    /// False: `maxRunning` handlers run on the loop already. Server's thread, as leaveLoop.
    bool enterLoop(std::uint64_t maxRunning);
    void leaveLoop() { --runningOnLoop_; }

    /// False: `maxQueued` requests, if that is not 0, are with the thread pool already.
    bool enterPool(std::uint64_t maxQueued);
    void leavePool();

    ZnHttpServerStats snapshot();

private:
    std::uint64_t runningOnLoop_ = 0; // handlers, most of them parked; server's thread only
    ZnMutex statsLock_;               // leaf lock
    ZnHttpServerStats stats_ ZN_GUARDED_BY(statsLock_);
    std::int64_t threadPoolQueued_ ZN_GUARDED_BY(statsLock_) = 0;         // handed to the pool, not answered yet
    std::map<int, std::uint64_t> statusCounts_ ZN_GUARDED_BY(statsLock_); // becomes stats_.statusCounts
};
