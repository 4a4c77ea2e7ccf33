#pragma once

#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <set>
#include <string_view>
#include <utility>

/// The failures of one client since its last success.
struct FailureRecord {
    std::int32_t count = 0;        // 0 to 2
    std::int64_t blockedUntil = 0; // monotonic nanoseconds
};

/// The failure throttle: blocks a client for 5 seconds after its first failure and for 60 after every later one,
/// until it succeeds. Bounded: the record that expires first, or expired the longest ago, makes room.
///
/// Thread: none of its own; the owner locks. Every operation is logarithmic, also under a flood of new clients.
/// Invariant: byKey_ and byExpiry_ hold the same records.
class McpFailureTable {
public:
    static constexpr std::size_t kMaxRecords = 10000;
    static constexpr long long kFirstBlockNs = 5LL * 1000000000;
    static constexpr long long kLaterBlockNs = 60LL * 1000000000;

    /// Whole seconds, rounded up, for which the client is still blocked; 0: not blocked.
    long long waitSeconds(std::string_view key, long long nowNs) const;
    void recordFailure(std::string_view key, long long nowNs);
    void clear(std::string_view key);
    std::size_t size() const noexcept { return byKey_.size(); }

private:
    using Expiry_ = std::pair<long long, std::string_view>; // blockedUntil, key

    ZnMap<ZnString, FailureRecord> byKey_;
    std::set<Expiry_> byExpiry_; // keys lie in byKey_
};
