#pragma once

#include "core/runtime/ZnThreadPool.h"
#include "core/storage/embeddeddb/StoreCore_.h"

#include <limits>
#include <memory>
#include <vector>

namespace znEmbeddedDbDetail {

class MaintenanceScheduler_;
class MemtableFlush_;

/// Turns sealed memtables into tables, the oldest first, one flush at a time, on the store's thread pool.
///
/// A flush that failed is tried again after 1, 2, 4 ... 60 seconds, and sooner when somebody asks for it; no younger
/// memtable goes before the one that failed.
/// Thread: any. Owner: Store_.
class FlushScheduler_ {
public:
    static constexpr long long kNever = std::numeric_limits<long long>::max();

    FlushScheduler_(StoreCore_& core, ZnThreadPool& pool, MaintenanceScheduler_& maintenance)
        : core_(core), pool_(pool), maintenance_(maintenance) {}

    /// Tells the analysis of locks that the caller holds the mutex, which it knows by another name.
    void assumeLocked() const ZN_ASSUME_HELD(core_.mutex) {}
    /// Begins anew, for a store that has just been opened.
    void reset() ZN_REQUIRES(core_.mutex);
    /// Hands a flush to the pool when there is something to flush and none runs.
    void scheduleIfNeeded() ZN_REQUIRES(core_.mutex);
    /// When runTimers() should be called, in nanoseconds of the monotonic clock.
    long long nextTimerNs() const ZN_REQUIRES(core_.mutex);
    /// Seals and flushes what has lain in memory without a write for the idle time, and tries again what failed.
    void runTimers(long long nowNs) ZN_REQUIRES(core_.mutex);

    /// Sealed memtables that have reached their size.
    std::size_t fullCount() const ZN_REQUIRES(core_.mutex);
    /// Of the latest flush; Ok when it succeeded, or there was none.
    const ZnEmbeddedDbStatus& lastFailure() const ZN_REQUIRES(core_.mutex) { return lastFailure_; }

    /// Writes all that is in memory now to tables, and waits until it is there.
    ZnEmbeddedDbStatus flush() ZN_EXCLUDES(core_.mutex);
    /// By open: writes what recovery found in the logs to tables.
    ZnEmbeddedDbStatus flushRecovered() ZN_EXCLUDES(core_.mutex);
    /// By close, when nothing is committed any more: writes all memtables on the calling thread. `closeLog` is called
    /// when they have been sealed.
    template <typename CloseLog>
    void flushAllSync(CloseLog closeLog) ZN_EXCLUDES(core_.mutex) {
        std::vector<std::shared_ptr<SharedMemtable_>> memtables = sealAll_();
        closeLog();
        flushSealed_(memtables);
    }

private:
    using Memtables_ = std::vector<std::shared_ptr<SharedMemtable_>>;

    bool needsFlush_() const ZN_REQUIRES(core_.mutex);
    std::size_t inputCount_() const ZN_REQUIRES(core_.mutex);
    void runTask_(std::uint64_t generation) ZN_EXCLUDES(core_.mutex);
    ZnEmbeddedDbStatus flushOldest_() ZN_REQUIRES(core_.mutex);
    ZnEmbeddedDbStatus flushMemtablesToTables_(const Memtables_& memtables, std::size_t sealedCount)
        ZN_REQUIRES(core_.mutex);
    ZnEmbeddedDbStatus commit_(const MemtableFlush_& flush, std::size_t sealedCount) ZN_REQUIRES(core_.mutex);
    void noteOutcome_(const ZnEmbeddedDbStatus& status) ZN_REQUIRES(core_.mutex);
    Memtables_ sealAll_() ZN_EXCLUDES(core_.mutex);
    void flushSealed_(const Memtables_& memtables) ZN_EXCLUDES(core_.mutex);

    StoreCore_& core_;
    ZnThreadPool& pool_;
    MaintenanceScheduler_& maintenance_;
    bool flushRunning_ ZN_GUARDED_BY(core_.mutex) = false;
    std::uint64_t
        demandedSequence_ ZN_GUARDED_BY(core_.mutex) = 0;       // small memtables up to it do not wait for a full one
    std::uint64_t attemptCount_ ZN_GUARDED_BY(core_.mutex) = 0; // flushes that have ended, either way
    ZnEmbeddedDbStatus lastFailure_ ZN_GUARDED_BY(core_.mutex);
    long long retryNs_ ZN_GUARDED_BY(core_.mutex) = kNever; // when a failed flush is tried again
    long long retryDelayNs_ ZN_GUARDED_BY(core_.mutex) = 0;
};

} // namespace znEmbeddedDbDetail
