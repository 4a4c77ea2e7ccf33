#pragma once

#include "core/storage/embeddeddb/PendingWrite_.h"
#include "core/storage/embeddeddb/StoreCore_.h"
#include "core/storage/embeddeddb/WalWriter_.h"

#include <deque>
#include <memory>
#include <span>
#include <thread>
#include <vector>

namespace znEmbeddedDbDetail {

class FlushScheduler_;
class MaintenanceScheduler_;

/// Brings writes into the log and into the active memtable, in one order, many at once where many wait.
///
/// A writer that finds nobody else does it on its own thread, which spares two thread switches; all others leave their
/// write in the queue, for the commit worker. Whoever commits holds commitActive_ and, with it, the log; the store's
/// mutex is free while the disk works. Its many private functions are the steps of one commit, which share that hold.
/// Thread: any, where nothing else is said. Owner: Store_.
class CommitQueue_ {
public:
    CommitQueue_(StoreCore_& core, FlushScheduler_& flushes, MaintenanceScheduler_& maintenance);

    /// Begins the log of this opening, under the next id. Nothing is in force before a manifest names it. By open.
    ZnEmbeddedDbStatus beginLog() ZN_EXCLUDES(core_.mutex);
    /// Code 6 when the system has no thread to give.
    ZnEmbeddedDbStatus startCommitWorker() ZN_EXCLUDES(core_.mutex);

    /// Blocks until the write is committed, or has failed.
    ZnEmbeddedDbStatus commit(const std::shared_ptr<PendingWrite_>& write) ZN_EXCLUDES(core_.mutex);
    /// `write->whenDone` is called on the committing thread, or on this one when the write is refused.
    void commitAsync(const std::shared_ptr<PendingWrite_>& write) ZN_EXCLUDES(core_.mutex);
    /// When it is Ok, everything committed before the call is on stable storage.
    ZnEmbeddedDbStatus sync(bool forClose) ZN_EXCLUDES(core_.mutex);

    /// By close. Syncs what is not synced yet, as far as that is possible; after it nobody commits any more.
    void stopCommitWorker() ZN_EXCLUDES(core_.mutex);
    void failPendingWrites() ZN_EXCLUDES(core_.mutex);
    void closeLog();
    std::uint64_t logBytes() ZN_EXCLUDES(core_.mutex);

private:
    using WritePtr_ = std::shared_ptr<PendingWrite_>;
    using Group_ = std::vector<WritePtr_>;
    using GroupView_ = std::span<const WritePtr_>;
    class ActiveScope_;

    ZnEmbeddedDbStatus refusal_() const ZN_REQUIRES(core_.mutex);
    void enqueue_(WritePtr_ write) ZN_REQUIRES(core_.mutex);
    bool mayLead_(const PendingWrite_& write) const ZN_REQUIRES(core_.mutex);
    void runWorker_();
    void runOnce_() ZN_REQUIRES(core_.mutex);
    bool wantsSync_(long long nowNs) const ZN_REQUIRES(core_.mutex);
    bool hasWork_(long long nowNs) const ZN_REQUIRES(core_.mutex);
    bool hasUnsynced_() const ZN_REQUIRES(core_.mutex);
    void waitForWork_() ZN_REQUIRES(core_.mutex);
    void waitForGroup_() ZN_REQUIRES(core_.mutex);
    void takeGroup_(Group_* group) ZN_REQUIRES(core_.mutex);

    // With commitActive_ set by the caller; these let go of the mutex while the disk works.
    ZnEmbeddedDbStatus commitOrFail_(GroupView_ group) ZN_REQUIRES(core_.mutex);
    ZnEmbeddedDbStatus commitGroup_(GroupView_ group) ZN_REQUIRES(core_.mutex);
    ZnEmbeddedDbStatus makeRoom_() ZN_REQUIRES(core_.mutex);
    ZnEmbeddedDbStatus waitForFlush_() ZN_REQUIRES(core_.mutex);
    ZnEmbeddedDbStatus waitForCompaction_() ZN_REQUIRES(core_.mutex);
    void noteStall_(long long beganNs) ZN_REQUIRES(core_.mutex);
    ZnEmbeddedDbStatus rotate_() ZN_REQUIRES(core_.mutex);
    ZnEmbeddedDbStatus createLog_(std::uint64_t walId, std::uint64_t previousSequence, WalWriter_* log);
    void prepareLog_() ZN_REQUIRES(core_.mutex);
    ZnEmbeddedDbStatus append_(GroupView_ group, bool syncs) ZN_REQUIRES(core_.mutex);
    ZnEmbeddedDbStatus syncLog_() ZN_REQUIRES(core_.mutex);
    void insert_(GroupView_ group, std::uint64_t firstSequence) ZN_REQUIRES(core_.mutex);
    void leave_() ZN_REQUIRES(core_.mutex);

    static void callBack_(const PendingWrite_& write, const ZnEmbeddedDbStatus& status);
    static void finish_(GroupView_ group, const ZnEmbeddedDbStatus& status);

    StoreCore_& core_;
    FlushScheduler_& flushes_;
    MaintenanceScheduler_& maintenance_;
    WalWriter_ log_;                  // of whoever holds commitActive_, as is batches_
    std::vector<WalBatch_*> batches_; // of the group; kept for its capacity
    std::uint64_t failedWalId_ = 0;   // of a log whose making failed; it is made again under the same id
    std::unique_ptr<WalWriter_> nextLog_ ZN_GUARDED_BY(core_.mutex); // an empty file, made while nobody waits
    bool wantsNextLog_ ZN_GUARDED_BY(core_.mutex) = false;
    bool preparesLog_ ZN_GUARDED_BY(core_.mutex) = false; // somebody makes a log, and nobody else may
    std::thread commitThread_;

    std::deque<WritePtr_> pendingWrites_ ZN_GUARDED_BY(core_.mutex);
    bool commitActive_ ZN_GUARDED_BY(core_.mutex) = false;
    bool commitWorkerRunning_ ZN_GUARDED_BY(core_.mutex) = false;
    bool commitStopRequested_ ZN_GUARDED_BY(core_.mutex) = false;
    bool syncRequested_ ZN_GUARDED_BY(core_.mutex) = false;
    std::uint64_t logBytes_ ZN_GUARDED_BY(core_.mutex) = 0; // of the log that is written to
    std::uint64_t nextSequence_ ZN_GUARDED_BY(core_.mutex) = 1;
    long long periodicDueNs_ ZN_GUARDED_BY(core_.mutex) = 0;       // 0: nothing waits for the interval
    std::size_t expectedWriters_ ZN_GUARDED_BY(core_.mutex) = 0;   // that will probably come back at once
    std::uint64_t delayedWalBytes_ ZN_GUARDED_BY(core_.mutex) = 0; // written in all, when writers were last slowed down
    long long syncNs_ ZN_GUARDED_BY(core_.mutex) = 0;              // what a sync took, lately
};

} // namespace znEmbeddedDbDetail
