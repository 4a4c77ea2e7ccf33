#pragma once

#include "core/ipc/Channel.h"
#include "core/storage/embeddeddb/StorePaths_.h"
#include "core/storage/embeddeddb/StoreState_.h"
#include "core/storage/embeddeddb/SyncPoints_.h"
#include "core/storage/embeddeddb/SyncWatch_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbOptions.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbStats.h"
#include "core/types/ZnMutex.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <map>
#include <memory>

namespace znEmbeddedDbDetail {

/// What the parts of an open store share: its files, its state under one mutex, and the view that readers get.
///
/// Thread: any, as the fields tell. Owner: Store_, by value; outlives the parts.
/// Invariants: every sequence at or below manifest.maxSequence is in tables; a memtable leaves immutableMemtables in
/// the same hold of `mutex` in which its tables come into force.
struct StoreCore_ {
    explicit StoreCore_(ZnStorageFiles& storageFiles) : baseFiles(storageFiles), files(storageFiles) {}

    ZnStorageFiles& baseFiles; // for what may outlive the store
    SyncWatch_ files;          // for everything that the store writes
    SyncPoints_ syncPoints;

    // Set while nothing else runs, by open and by the end of close.
    ZnEmbeddedDbOptions options;
    StorePaths_ paths;
    std::shared_ptr<StoreCounters_> counters = std::make_shared<StoreCounters_>();
    std::shared_ptr<BlobFiles_> blobs;          // a refresh replaces it, with the mutex held
    std::unique_ptr<zn::ipc::Channel> notifier; // null: nobody is told of changes

    ZnMutex mutex;                               // first of the store's locks; see docs/lock-order.md
    std::condition_variable_any workerCondition; // with mutex: something was committed, flushed, or failed
    std::condition_variable_any commitCondition; // with mutex: the commit worker has something to do

    ManifestState_ manifest ZN_GUARDED_BY(mutex);
    TableHandles_ tableHandles ZN_GUARDED_BY(mutex);
    std::shared_ptr<SharedMemtable_> activeMemtable ZN_GUARDED_BY(mutex);
    std::uint64_t activeMemtableBytes ZN_GUARDED_BY(mutex) = 0;
    std::deque<SealedMemtable_> immutableMemtables ZN_GUARDED_BY(mutex); // oldest first
    std::shared_ptr<const TableViews_> tableViews ZN_GUARDED_BY(mutex);  // of `manifest.tables`
    std::shared_ptr<BlobEpoch_> blobEpoch ZN_GUARDED_BY(mutex);
    /// Of blob files that views of earlier epochs may need: in force, or retired and perhaps removed. By id.
    std::map<std::uint64_t, std::weak_ptr<HeldBlobFile_>> heldBlobFiles ZN_GUARDED_BY(mutex);
    std::size_t level0Depth ZN_GUARDED_BY(mutex) = 0; // tables of level 0 of the kind that has most
    // Files with this id and above may be those of work that runs; 0: none runs.
    std::uint64_t flushFirstFileId ZN_GUARDED_BY(mutex) = 0;
    std::uint64_t compactionFirstFileId ZN_GUARDED_BY(mutex) = 0;
    std::uint64_t blobGcFirstFileId ZN_GUARDED_BY(mutex) = 0;
    std::uint64_t lastCommittedSequence ZN_GUARDED_BY(mutex) = 0;
    std::uint64_t durableSequence ZN_GUARDED_BY(mutex) = 0;
    ZnEmbeddedDbStatus backgroundError ZN_GUARDED_BY(mutex);
    bool mayResume ZN_GUARDED_BY(mutex) = false; // the background error is one that can pass
    bool closing ZN_GUARDED_BY(mutex) = false;
    bool compactionRunning ZN_GUARDED_BY(mutex) = false; // set before the task is handed to the pool, as is the next
    bool blobGcRunning ZN_GUARDED_BY(mutex) = false;
    std::uint64_t openGeneration ZN_GUARDED_BY(mutex) = 0; // background work of another one does nothing
    long long lastWriteNs ZN_GUARDED_BY(mutex) = 0;

    void adopt(RecoveredStore_&& recovered) ZN_REQUIRES(mutex);
    /// Everything but the files as in a store that was never opened; background work that is still there does nothing.
    void reset() ZN_REQUIRES(mutex);
    /// From here on every write fails with this status; the first one stays.
    void setBackgroundError(ZnEmbeddedDbStatus status) ZN_REQUIRES(mutex);
    /// Whether background work that was begun in this generation has to end.
    bool isEnding(std::uint64_t generation) const ZN_REQUIRES(mutex) { return closing || openGeneration != generation; }
    /// Nothing is in memory that is not in tables, and no background work but a flush that has just ended.
    bool isIdle() ZN_REQUIRES(mutex);
    /// All files with smaller ids were written by work that is over.
    std::uint64_t firstRunningFileId() const ZN_REQUIRES(mutex);
    /// A new id, of a table or of a blob file; 0 when the work of this generation has to end.
    std::uint64_t takeFileId(std::uint64_t generation) ZN_EXCLUDES(mutex);
    /// Turns a failed sync, wherever it was, into the background error.
    void noteSyncFailure() ZN_REQUIRES(mutex);

    /// Gives readers the state as it is now.
    void publishView() ZN_REQUIRES(mutex);
    ReadViewPtr_ view() const;
    /// A view that does not change: seals what the active memtable holds. Null when the store has been closed
    /// meanwhile.
    ReadViewPtr_ stableView(std::uint64_t* sequence);

    /// Puts the active memtable, unless it is empty, at the end of the line, and an empty one in its place. Publishes.
    void sealActive(bool isFull) ZN_REQUIRES(mutex);
    /// Waits until no manifest is being written; then the next one can be decided on and begun in one hold of the
    /// mutex.
    void awaitManifest() ZN_REQUIRES(mutex);
    /// All or nothing: writes a manifest with the change, makes it the one in force, and only then tells readers. Lets
    /// go of the mutex while the disk works: writers do not wait, and no other change begins.
    ZnEmbeddedDbStatus commitTables(const TableChange_& change) ZN_REQUIRES(mutex);
    /// Whether it is known that a commit that failed changed nothing on the disk, so that its files can be removed.
    bool isOldManifestInForce() ZN_REQUIRES(mutex);
    /// Deletes the logs that are not needed any more; those that cannot be deleted are tried again the next time. Lets
    /// go of the mutex, too.
    void collectObsoleteWalFiles() ZN_REQUIRES(mutex);

    /// Removes tables that went out of force; while somebody checks the files, later.
    void removeTables(std::vector<ZnString> tablePaths) ZN_EXCLUDES(mutex);
    /// From here to the release, tables that go out of force stay on the disk.
    void holdTables() ZN_EXCLUDES(mutex);
    void releaseTables() ZN_EXCLUDES(mutex);

    void fillStats(ZnEmbeddedDbStats* stats) ZN_EXCLUDES(mutex);

private:
    void addBlobGauges_(const ZnString& blobsDir, std::uint64_t usedBytes, ZnEmbeddedDbStats* stats);
    /// Makes tableViews anew from the manifest's tables that have a handle.
    void rebuildReadView_() ZN_REQUIRES(mutex);
    /// The oldest log that is needed when the first `flushedCount` sealed memtables are not.
    std::uint64_t recomputeReplayFromWalId_(std::size_t flushedCount) ZN_REQUIRES(mutex);
    ZnEmbeddedDbStatus writeTables_(ManifestState_* next, const ZnString& walPath, bool dropsNewest) ZN_EXCLUDES(mutex);
    void adoptTables_(const TableChange_& change, ManifestState_&& written) ZN_REQUIRES(mutex);
    void beginMemtable_() ZN_REQUIRES(mutex);
    void mergeSmallSealed_() ZN_REQUIRES(mutex);

    void publishCommit_() ZN_REQUIRES(mutex);

    mutable ZnMutex viewLock_; // leaf; taken after mutex
    ReadViewPtr_ view_ ZN_GUARDED_BY(viewLock_);
    bool manifestBusy_ ZN_GUARDED_BY(mutex) = false; // one is being written
    int tableHolds_ ZN_GUARDED_BY(mutex) = 0;
    std::vector<ZnString> heldTablePaths_ ZN_GUARDED_BY(mutex); // to be removed when nobody holds them
    std::uint64_t manifestCommits_ ZN_GUARDED_BY(mutex) = 0;
};

/// What `work` returns; after an exception, as of memory that is not to be had, code 6. For work without the mutex.
template <typename Work>
ZnEmbeddedDbStatus statusOf(Work work) {
    try {
        return work();
    } catch (const std::exception& exception) {
        return {ZnEmbeddedDbStatus::IoError, ZnString("ended by an exception: ") + exception.what()};
    }
}

} // namespace znEmbeddedDbDetail
