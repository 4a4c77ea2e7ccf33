#include "core/storage/embeddeddb/StoreCore_.h"

#include "core/fs/ZnPath.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/storage/embeddeddb/FileNames_.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <map>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

constexpr const char* kCategory = "zn.core.storage.znembeddeddb";
constexpr std::size_t kSmallSealedLimit = 4;
constexpr std::uint64_t kMergedUnderLockBytes = 1024 * 1024; // a copy of so much takes about a millisecond
constexpr std::uint64_t kManifestCleanInterval = 16;

struct CounterField {
    Counter_ StoreCounters_::*counter;
    std::uint64_t ZnEmbeddedDbStats::*field;
};
constexpr CounterField kCounterFields[] = {
    {&StoreCounters_::putCount, &ZnEmbeddedDbStats::putCount},
    {&StoreCounters_::removeCount, &ZnEmbeddedDbStats::removeCount},
    {&StoreCounters_::getCount, &ZnEmbeddedDbStats::getCount},
    {&StoreCounters_::getHitCount, &ZnEmbeddedDbStats::getHitCount},
    {&StoreCounters_::scanCount, &ZnEmbeddedDbStats::scanCount},
    {&StoreCounters_::indexLookupCount, &ZnEmbeddedDbStats::indexLookupCount},
    {&StoreCounters_::batchCount, &ZnEmbeddedDbStats::batchCount},
    {&StoreCounters_::groupCount, &ZnEmbeddedDbStats::groupCount},
    {&StoreCounters_::walBytesWritten, &ZnEmbeddedDbStats::walBytesWritten},
    {&StoreCounters_::walSyncCount, &ZnEmbeddedDbStats::walSyncCount},
    {&StoreCounters_::walRotationCount, &ZnEmbeddedDbStats::walRotationCount},
    {&StoreCounters_::flushCount, &ZnEmbeddedDbStats::flushCount},
    {&StoreCounters_::flushBytesWritten, &ZnEmbeddedDbStats::flushBytesWritten},
    {&StoreCounters_::flushFailedCount, &ZnEmbeddedDbStats::flushFailedCount},
    {&StoreCounters_::compactionCount, &ZnEmbeddedDbStats::compactionCount},
    {&StoreCounters_::compactionBytesRead, &ZnEmbeddedDbStats::compactionBytesRead},
    {&StoreCounters_::compactionBytesWritten, &ZnEmbeddedDbStats::compactionBytesWritten},
    {&StoreCounters_::compactionFailedCount, &ZnEmbeddedDbStats::compactionFailedCount},
    {&StoreCounters_::blobGcCount, &ZnEmbeddedDbStats::blobGcCount},
    {&StoreCounters_::blobGcAbandonedCount, &ZnEmbeddedDbStats::blobGcAbandonedCount},
    {&StoreCounters_::blobBytesWritten, &ZnEmbeddedDbStats::blobBytesWritten},
    {&StoreCounters_::blobBytesRead, &ZnEmbeddedDbStats::blobBytesRead},
    {&StoreCounters_::bloomNegativeCount, &ZnEmbeddedDbStats::bloomNegativeCount},
    {&StoreCounters_::bloomFalsePositiveCount, &ZnEmbeddedDbStats::bloomFalsePositiveCount},
    {&StoreCounters_::stallCount, &ZnEmbeddedDbStats::stallCount},
    {&StoreCounters_::stallMicroseconds, &ZnEmbeddedDbStats::stallMicroseconds},
};

std::uint64_t bytesOf(SharedMemtable_& memtable) {
    const MemtableReadScope_ scope(memtable.lock);
    return memtable.table.approximateBytes();
}

std::uint64_t newestOf(const std::vector<TableMeta_>& tables) {
    std::uint64_t newest = 0;
    for (const TableMeta_& table : tables)
        newest = std::max(newest, table.maxSequence);
    return newest;
}

/// The memtable that stands for two adjoining ones.
std::shared_ptr<SharedMemtable_> mergedOf(SharedMemtable_& older, SharedMemtable_& newer) {
    auto merged = std::make_shared<SharedMemtable_>();
    const MemtableWriteScope_ scope(merged->lock);
    for (SharedMemtable_* source : {&older, &newer}) {
        const MemtableReadScope_ sourceScope(source->lock);
        merged->table.merge(source->table);
    }
    return merged;
}

} // namespace

ZnString walPath(const StorePaths_& paths, std::uint64_t walId) {
    return joinPath(paths.walDir, walFileName(walId));
}

ZnString blobPath(const StorePaths_& paths, std::uint64_t blobFileId) {
    return joinPath(paths.blobsDir, blobFileName(blobFileId));
}

bool isNewerTable(const TableMeta_& left, const TableMeta_& right) {
    return left.level != right.level ? left.level < right.level : left.fileId > right.fileId;
}

void removeOldManifests(ZnStorageFiles& files, const ZnString& rootPath, std::uint64_t currentId,
                        std::uint32_t keptCount) {
    std::vector<std::uint64_t> ids;
    for (const ZnString& path : listFiles(files, rootPath, kManifestPrefix, kManifestSuffix)) {
        const std::uint64_t id = parseFileId(path, kManifestPrefix, kManifestSuffix);
        if (id < currentId && path == joinPath(rootPath, manifestFileName(id))) // else it is none, or the one in force
            ids.push_back(id);
    }
    std::sort(ids.begin(), ids.end(), std::greater<>());
    for (std::size_t index = keptCount - 1; index < ids.size(); ++index)
        files.remove(joinPath(rootPath, manifestFileName(ids[index])));
}

void StoreCore_::adopt(RecoveredStore_&& recovered) {
    manifest = std::move(recovered.manifest);
    tableHandles = std::move(recovered.tableHandles);
    immutableMemtables = std::move(recovered.memtables);
    if (recovered.blobs != nullptr)
        blobs = std::move(recovered.blobs);
    beginMemtable_();
    lastCommittedSequence = recovered.lastSequence;
    durableSequence = manifest.maxSequence;
    lastWriteNs = monotonicNowNs();
    blobEpoch = std::make_shared<BlobEpoch_>();
    rebuildReadView_();
    publishView();
}

void StoreCore_::reset() {
    ++openGeneration; // the options stay: a writer may read them while the store is closed
    paths = {};
    counters = std::make_shared<StoreCounters_>();
    blobs = nullptr;
    manifest = {};
    tableHandles.clear();
    beginMemtable_();
    immutableMemtables.clear();
    tableViews = nullptr;
    blobEpoch = nullptr;
    heldBlobFiles.clear();
    level0Depth = 0;
    flushFirstFileId = 0;
    compactionFirstFileId = 0;
    blobGcFirstFileId = 0;
    lastCommittedSequence = 0;
    durableSequence = 0;
    backgroundError = {};
    mayResume = false;
    closing = false;
    compactionRunning = false;
    blobGcRunning = false;
    manifestCommits_ = 0;
    files.forget();
    ReadViewPtr_ last; // as in publishView
    const ZnMutexLocker locker(viewLock_);
    view_.swap(last);
}

void StoreCore_::beginMemtable_() {
    activeMemtable = std::make_shared<SharedMemtable_>();
    activeMemtableBytes = 0;
}

void StoreCore_::setBackgroundError(ZnEmbeddedDbStatus status) {
    if (!backgroundError.isOk())
        return;
    ZN_LOG_ERROR(kCategory, "ZnEmbeddedDb::setBackgroundError")
        << paths.rootPath << " takes no more writes: " << status.message();
    backgroundError = std::move(status);
    workerCondition.notify_all();
    commitCondition.notify_all();
}

bool StoreCore_::isIdle() {
    if (closing || options.readOnly || compactionRunning || !immutableMemtables.empty())
        return false;
    const MemtableReadScope_ scope(activeMemtable->lock);
    return activeMemtable->table.isEmpty();
}

std::uint64_t StoreCore_::firstRunningFileId() const {
    std::uint64_t first = manifest.nextTableId;
    for (const std::uint64_t id : {flushFirstFileId, compactionFirstFileId, blobGcFirstFileId})
        first = id == 0 ? first : std::min(first, id);
    return first;
}

std::uint64_t StoreCore_::takeFileId(std::uint64_t generation) {
    const ZnMutexLocker locker(mutex);
    return isEnding(generation) ? 0 : manifest.nextTableId++;
}

void StoreCore_::noteSyncFailure() {
    if (files.hasFailed())
        setBackgroundError({ZnEmbeddedDbStatus::IoError, files.failure()});
}

void StoreCore_::rebuildReadView_() {
    auto views = std::make_shared<TableViews_>();
    std::vector<TableMeta_> tables = manifest.tables;
    std::sort(tables.begin(), tables.end(), isNewerTable);
    std::map<ZnString, std::size_t> level0Counts; // by index name, which is empty for primary tables
    level0Depth = 0;
    for (const TableMeta_& table : tables) {
        if (table.level == 0)
            level0Depth = std::max(level0Depth, ++level0Counts[table.indexName]);
        const auto handle = tableHandles.find(table.fileName.str());
        if (handle == tableHandles.end())
            continue;
        if (table.kind == kIndexTable) {
            views->indexViews[table.indexName].push_back(handle->second);
            continue;
        }
        views->primaryView.push_back(handle->second);
        if (views->largestPrimaryKey < handle->second->lastKey())
            views->largestPrimaryKey = handle->second->lastKey();
    }
    tableViews = std::move(views);
}

void StoreCore_::publishView() {
    auto next = std::make_shared<ReadView_>();
    next->active = activeMemtable;
    next->sealed.reserve(immutableMemtables.size());
    for (auto sealed = immutableMemtables.rbegin(); sealed != immutableMemtables.rend(); ++sealed)
        next->sealed.push_back(sealed->memtable);
    next->tables = tableViews;
    next->blobs = blobs;
    next->counters = counters;
    next->blobEpoch = blobEpoch;
    ReadViewPtr_ last = std::move(next); // what nobody needs any more is destroyed with the lock released
    const ZnMutexLocker locker(viewLock_);
    view_.swap(last);
}

ReadViewPtr_ StoreCore_::view() const {
    const ZnMutexLocker locker(viewLock_);
    return view_;
}

ReadViewPtr_ StoreCore_::stableView(std::uint64_t* sequence) {
    const ZnMutexLocker locker(mutex);
    sealActive(false);
    *sequence = lastCommittedSequence;
    const ReadViewPtr_ current = view();
    if (current == nullptr)
        return nullptr;
    auto stable = std::make_shared<ReadView_>(*current);
    stable->active = nullptr;
    return stable;
}

void StoreCore_::sealActive(bool isFull) {
    {
        const MemtableReadScope_ scope(activeMemtable->lock);
        if (activeMemtable->table.isEmpty())
            return;
    }
    immutableMemtables.push_back({std::move(activeMemtable), isFull, false});
    beginMemtable_();
    if (isFull) { // the next one is likely to become as full
        const std::uint64_t recordCount = std::clamp<std::uint64_t>(options.memtableSizeBytes / 256, 512, 65536);
        const MemtableWriteScope_ scope(activeMemtable->lock);
        activeMemtable->table.reserve(static_cast<std::size_t>(recordCount));
    }
    mergeSmallSealed_();
    publishView();
}

/// Keeps the line short when every write is followed by a snapshot: adjoining small ones of about the same size become
/// one, so that a record is copied a few times at most. What has come together to a full one is flushed.
void StoreCore_::mergeSmallSealed_() {
    const auto isSmall = [](const SealedMemtable_& sealed) { return !sealed.isFull && !sealed.isFlushing; };
    const auto firstSmall = std::find_if_not(immutableMemtables.rbegin(), immutableMemtables.rend(), isSmall).base();
    const auto first = static_cast<std::size_t>(firstSmall - immutableMemtables.begin());
    std::uint64_t allBytes = 0;
    for (std::size_t index = first; index < immutableMemtables.size(); ++index)
        allBytes += bytesOf(*immutableMemtables[index].memtable);
    if (allBytes >= options.memtableSizeBytes) {
        immutableMemtables.back().isFull = true;
        return;
    }
    while (immutableMemtables.size() - first > kSmallSealedLimit) {
        SealedMemtable_& newer = immutableMemtables.back();
        SealedMemtable_& older = immutableMemtables[immutableMemtables.size() - 2];
        const std::uint64_t newerBytes = bytesOf(*newer.memtable);
        const std::uint64_t olderBytes = bytesOf(*older.memtable);
        if (olderBytes > 2 * newerBytes || olderBytes + newerBytes > kMergedUnderLockBytes)
            return;
        older.memtable = mergedOf(*older.memtable, *newer.memtable);
        immutableMemtables.pop_back();
    }
}

std::uint64_t StoreCore_::recomputeReplayFromWalId_(std::size_t flushedCount) {
    std::uint64_t oldest = manifest.activeWalId == 0 ? 1 : manifest.activeWalId;
    const auto consider = [&oldest](SharedMemtable_& memtable) {
        const MemtableReadScope_ scope(memtable.lock);
        if (memtable.table.walId != 0)
            oldest = std::min(oldest, memtable.table.walId);
    };
    consider(*activeMemtable);
    for (std::size_t index = flushedCount; index < immutableMemtables.size(); ++index)
        consider(*immutableMemtables[index].memtable);
    return oldest;
}

void StoreCore_::awaitManifest() {
    while (manifestBusy_)
        workerCondition.wait(mutex);
}

/// Opening takes from the log what no table shows to have been in one. When the newest records are dropped, as they
/// were tombstones, it comes to their part of the log once more, which nobody may ever have synced.
ZnEmbeddedDbStatus StoreCore_::writeTables_(ManifestState_* next, const ZnString& walPath, bool dropsNewest) {
    syncPoints.reach("manifest.begun");
    ZnString error;
    RandomAccessFile_ log(files); // of its own: the log's belongs to whoever commits
    if (dropsNewest && !(log.open(walPath, RandomAccessFile_::Mode::ReadWrite, &error) && log.flushData(&error)))
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(error)).at(walPath);
    return writeManifest(files, paths.rootPath, next);
}

ZnEmbeddedDbStatus StoreCore_::commitTables(const TableChange_& change) {
    awaitManifest();
    ManifestState_ next = manifest;
    for (const TableMeta_& table : change.removed)
        std::erase(next.tables, table);
    for (const auto& table : change.added)
        next.tables.push_back(table->meta());
    next.maxSequence = std::max(next.maxSequence, change.maxSequence);
    next.replayFromWalId = recomputeReplayFromWalId_(change.flushedMemtableCount);
    const bool dropsNewest = newestOf(next.tables) < newestOf(manifest.tables);
    const ZnString activeWal = walPath(paths, manifest.activeWalId); // those before it are synced
    manifestBusy_ = true;
    mutex.unlock();
    ZnEmbeddedDbStatus status = statusOf([&] { return writeTables_(&next, activeWal, dropsNewest); });
    mutex.lock();
    noteSyncFailure();
    if (status.isOk()) {
        adoptTables_(change, std::move(next));
        publishCommit_();
    }
    manifestBusy_ = false;
    workerCondition.notify_all();
    return status;
}

/// With the mutex released: another process that stands still must not hold the store. No other manifest is written
/// meanwhile, so that the last that is told is the last.
void StoreCore_::publishCommit_() {
    if (notifier == nullptr)
        return;
    const std::uint64_t sequence = lastCommittedSequence;
    const std::uint64_t manifestId = manifest.manifestId;
    mutex.unlock();
    notifier->publish(sequence, manifestId);
    mutex.lock();
}

/// What others changed while the manifest was written stays as they left it: the ids that were given out, and the log.
void StoreCore_::adoptTables_(const TableChange_& change, ManifestState_&& written) {
    manifest.manifestId = written.manifestId;
    manifest.maxSequence = written.maxSequence;
    manifest.replayFromWalId = written.replayFromWalId;
    manifest.tables = std::move(written.tables);
    for (const TableMeta_& table : change.removed)
        tableHandles.erase(table.fileName.str());
    for (const auto& table : change.added)
        tableHandles[table->meta().fileName.str()] = table;
    const auto flushed = static_cast<std::ptrdiff_t>(change.flushedMemtableCount);
    immutableMemtables.erase(immutableMemtables.begin(), immutableMemtables.begin() + flushed);
    if (change.endsBlobEpoch)
        blobEpoch = std::make_shared<BlobEpoch_>();
    rebuildReadView_();
    publishView();
}

bool StoreCore_::isOldManifestInForce() {
    std::uint64_t manifestId = 0;
    return backgroundError.isOk() && readCurrent(files, paths.rootPath, &manifestId).isOk() &&
           manifestId + 1 == manifest.manifestId;
}

void StoreCore_::collectObsoleteWalFiles() {
    if (!backgroundError.isOk())
        return;
    const std::uint64_t replayFrom = manifest.replayFromWalId;
    const std::uint64_t manifestId = manifest.manifestId - 1;
    const bool cleansManifests = ++manifestCommits_ % kManifestCleanInterval == 0;
    mutex.unlock(); // removing a large file takes its time
    for (const ZnString& path : listFiles(files, paths.walDir, kWalPrefix, kWalSuffix)) {
        const std::uint64_t id = parseFileId(path, kWalPrefix, kWalSuffix);
        if (id != 0 && id < replayFrom)
            files.remove(path);
    }
    if (cleansManifests)
        removeOldManifests(files, paths.rootPath, manifestId, options.keepManifests);
    mutex.lock();
}

void StoreCore_::removeTables(std::vector<ZnString> tablePaths) {
    {
        const ZnMutexLocker locker(mutex);
        if (tableHolds_ > 0) {
            heldTablePaths_.insert(heldTablePaths_.end(), tablePaths.begin(), tablePaths.end());
            return;
        }
    }
    for (const ZnString& path : tablePaths) // one that stays is an orphan, which the next opening removes
        files.remove(path);
}

void StoreCore_::holdTables() {
    const ZnMutexLocker locker(mutex);
    ++tableHolds_;
}

void StoreCore_::releaseTables() {
    std::vector<ZnString> tablePaths;
    {
        const ZnMutexLocker locker(mutex);
        if (--tableHolds_ == 0)
            tablePaths.swap(heldTablePaths_);
    }
    removeTables(std::move(tablePaths));
}

void StoreCore_::fillStats(ZnEmbeddedDbStats* stats) {
    std::uint64_t usedBlobBytes = 0;
    ZnString blobsDir;
    {
        const ZnMutexLocker locker(mutex);
        for (const auto& [counter, field] : kCounterFields)
            stats->*field = ((*counters).*counter).value();
        for (const TableMeta_& table : manifest.tables)
            ++(table.level == 0 ? stats->level0TableCount : stats->level1TableCount);
        for (const auto& [name, handle] : tableHandles) {
            stats->tableBytes += handle->fileBytes();
            for (const auto& [blobFileId, byteCount] : handle->blobUses())
                usedBlobBytes += byteCount;
        }
        stats->memtableCount = immutableMemtables.size() + 1;
        stats->memtableBytes = bytesOf(*activeMemtable);
        for (const SealedMemtable_& sealed : immutableMemtables)
            stats->memtableBytes += bytesOf(*sealed.memtable);
        stats->lastCommittedSequence = lastCommittedSequence;
        stats->durableSequence = durableSequence;
        stats->backgroundError = backgroundError;
        blobsDir = paths.blobsDir;
    }
    addBlobGauges_(blobsDir, usedBlobBytes, stats);
}

/// Asks the disk, without the mutex: what is being written meanwhile may or may not be counted.
void StoreCore_::addBlobGauges_(const ZnString& blobsDir, std::uint64_t usedBytes, ZnEmbeddedDbStats* stats) {
    for (const ZnString& path : listFiles(baseFiles, blobsDir, kBlobPrefix, kBlobSuffix)) {
        RandomAccessFile_ file(baseFiles);
        if (!file.open(path, RandomAccessFile_::Mode::ReadOnly))
            continue;
        ++stats->blobFileCount;
        stats->blobBytes += file.size();
    }
    stats->deadBlobBytes = stats->blobBytes - std::min(stats->blobBytes, usedBytes);
}

} // namespace znEmbeddedDbDetail
