#pragma once

#include <atomic>
#include <cstdint>

namespace znEmbeddedDbDetail {

/// A number that any thread raises and nobody decides by.
class Counter_ {
public:
    void add(std::uint64_t count = 1) noexcept { value_.fetch_add(count, std::memory_order_relaxed); }
    std::uint64_t value() const noexcept { return value_.load(std::memory_order_relaxed); }

private:
    std::atomic<std::uint64_t> value_{0};
};

/// The counters of one opening of a store; what they count is told in ZnEmbeddedDbStats.
///
/// Thread: any. Owner: shared by the store and the views of it, which may outlive it.
struct StoreCounters_ {
    Counter_ putCount;
    Counter_ removeCount;
    Counter_ getCount;
    Counter_ getHitCount;
    Counter_ scanCount;
    Counter_ indexLookupCount;
    Counter_ batchCount;
    Counter_ groupCount;
    Counter_ walBytesWritten;
    Counter_ walSyncCount;
    Counter_ walRotationCount;
    Counter_ flushCount;
    Counter_ flushBytesWritten;
    Counter_ flushFailedCount;
    Counter_ compactionCount;
    Counter_ compactionBytesRead;
    Counter_ compactionBytesWritten;
    Counter_ compactionFailedCount;
    Counter_ blobGcCount;
    Counter_ blobGcAbandonedCount;
    Counter_ blobBytesWritten;
    Counter_ blobBytesRead;
    Counter_ bloomNegativeCount;
    Counter_ bloomFalsePositiveCount;
    Counter_ stallCount;
    Counter_ stallMicroseconds;
};

} // namespace znEmbeddedDbDetail
