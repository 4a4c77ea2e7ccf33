#pragma once

#include "core/runtime/ZnThreadPool.h"
#include "core/storage/embeddeddb/StoreCore_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbCompactionWorker.h"

#include <cstdint>
#include <memory>

namespace znEmbeddedDbDetail {

/// Decides when tables are merged and garbage is collected, at most one of each at a time, on the store's thread pool.
///
/// Thread: any. Owner: Store_. Invariant: compactionRunning and blobGcRunning are set exactly while there is a task.
class MaintenanceScheduler_ {
public:
    MaintenanceScheduler_(StoreCore_& core, ZnThreadPool& pool) : core_(core), pool_(pool) {}

    /// Tells the analysis of locks that the caller holds the mutex, which it knows by another name.
    void assumeLocked() const ZN_ASSUME_HELD(core_.mutex) {}
    /// Begins anew, for a store that has just been opened or closed.
    void reset() ZN_REQUIRES(core_.mutex);

    /// Merges all tables of level 0, of every kind, when one kind has four of them. By flushes, compactions and open.
    void scheduleL0CompactionIfNeeded() ZN_REQUIRES(core_.mutex);
    /// Has a store that is idle look for blob files worth collecting.
    void scheduleBlobGcIfNeeded() ZN_REQUIRES(core_.mutex);

    /// Merges all tables of every kind into one each, and waits for it. Writers go on.
    ZnEmbeddedDbStatus compactAll() ZN_EXCLUDES(core_.mutex);
    /// Collects garbage that is in tables, whether or not the store is idle, and waits for it. Writers go on.
    ZnEmbeddedDbStatus collectGarbage() ZN_EXCLUDES(core_.mutex);
    /// Clears a background error that can pass, and gives the one that is left.
    ZnEmbeddedDbStatus resume() ZN_EXCLUDES(core_.mutex);

private:
    /// Of a run that somebody waits for.
    struct Outcome_ {
        bool isDone = false; // guarded by the mutex, as is the rest
        ZnEmbeddedDbStatus status;
    };
    using OutcomePtr_ = std::shared_ptr<Outcome_>;

    CompactionGroups_ dueGroups_() const ZN_REQUIRES(core_.mutex);
    CompactionGroups_ allGroups_() const ZN_REQUIRES(core_.mutex);
    bool startCompaction_(CompactionGroups_ groups, const OutcomePtr_& outcome) ZN_REQUIRES(core_.mutex);
    bool startBlobGc_(bool isDemanded, const OutcomePtr_& outcome) ZN_REQUIRES(core_.mutex);
    template <typename Task>
    bool start_(Task task);
    void runCompaction_(std::uint64_t generation, const CompactionGroups_& groups, Outcome_& outcome)
        ZN_EXCLUDES(core_.mutex);
    void runBlobGc_(std::uint64_t generation, bool isDemanded, Outcome_& outcome) ZN_EXCLUDES(core_.mutex);
    void noteCompaction_(const ZnEmbeddedDbStatus& status) ZN_REQUIRES(core_.mutex);
    ZnEmbeddedDbStatus refusal_(std::uint64_t generation) const ZN_REQUIRES(core_.mutex);
    ZnEmbeddedDbStatus await_(const OutcomePtr_& outcome, std::uint64_t generation) ZN_REQUIRES(core_.mutex);

    StoreCore_& core_;
    ZnThreadPool& pool_;
    int failedInRow_ ZN_GUARDED_BY(core_.mutex) = 0;    // compactions
    int garbageDemands_ ZN_GUARDED_BY(core_.mutex) = 0; // while there are any, no compaction begins
};

} // namespace znEmbeddedDbDetail
