#include "core/storage/embeddeddb/Recovery_.h"

#include "core/fs/ZnPath.h"
#include "core/storage/embeddeddb/DurableFiles_.h"
#include "core/storage/embeddeddb/FileNames_.h"
#include "core/storage/embeddeddb/WalWriter_.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

constexpr const char* kCategory = "zn.core.storage.znembeddeddb";
constexpr unsigned kOpeningThreads = 4;
constexpr int kReadOnlyAttempts = 20; // beside a process that writes, each finds another manifest

ZnEmbeddedDbStatus corruption(const char* message, const ZnString& path) {
    return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::Corruption, message).at(path);
}

/// Calls `work(index)` for every index below `count`, on several threads where the system gives them.
template <typename Work>
void forEachInParallel(std::size_t count, Work work) {
    std::atomic<std::size_t> nextIndex{0};
    const auto run = [&] {
        for (std::size_t index = nextIndex++; index < count; index = nextIndex++)
            work(index);
    };
    if (count == 0)
        return;
    std::vector<std::thread> helpers;
    const std::size_t helperCount =
        std::min<std::size_t>(count, std::clamp(std::thread::hardware_concurrency(), 1U, kOpeningThreads)) - 1;
    helpers.reserve(helperCount);
    try {
        while (helpers.size() < helperCount)
            helpers.emplace_back(run);
    } catch (const std::system_error&) { // no more threads: those that there are do it all
    }
    run();
    for (std::thread& helper : helpers)
        helper.join();
}

/// 0 also for a number that no store has come to: a manifest could not hold many that follow it.
std::uint64_t idOf(const ZnString& name, std::string_view prefix, std::string_view suffix) {
    constexpr std::uint64_t kLargestId = std::uint64_t(1) << 62;
    const std::uint64_t id = parseFileId(name, prefix, suffix);
    return id <= kLargestId ? id : 0;
}

std::uint64_t largestId(const std::vector<ZnString>& names, std::string_view prefix, std::string_view suffix) {
    std::uint64_t largest = 0;
    for (const ZnString& name : names)
        largest = std::max(largest, idOf(name, prefix, suffix));
    return largest;
}

/// Of the tables of either level, whatever their suffix is: ".sst", or ".sst.tmp".
std::uint64_t largestTableId(const std::vector<ZnString>& names, std::string_view suffix) {
    return std::max(largestId(names, "L0-", suffix), largestId(names, "L1-", suffix));
}

/// The directories that are not there yet, from `path` upwards.
std::vector<ZnString> missingDirectories(ZnStorageFiles& files, ZnString path) {
    std::vector<ZnString> missing;
    std::vector<ZnString> names;
    for (; !path.isEmpty() && files.list(path, &names) == ENOENT; path = parentPath(path))
        missing.push_back(path);
    return missing;
}

/// Whether a log holds more than its header, or that cannot be ruled out.
bool mayHaveFrames(ZnStorageFiles& files, const ZnString& path) {
    RandomAccessFile_ file(files);
    return !file.open(path, RandomAccessFile_::Mode::ReadOnly) || file.size() > kWalHeaderBytes;
}

/// The first file that only a store with content can have; empty when there is none.
ZnString firstFileOfStore(ZnStorageFiles& files, const StorePaths_& paths, const StoreListing_& listing) {
    for (const ZnString& name : listing.root)
        if (parseFileId(name, kManifestPrefix, kManifestSuffix) > 0)
            return name;
    for (const ZnString& name : listing.wal)
        if (parseFileId(name, kWalPrefix, kWalSuffix) != 0 && mayHaveFrames(files, joinPath(paths.walDir, name)))
            return name;
    for (const auto* names : {&listing.tables, &listing.blobs})
        for (const ZnString& name : *names)
            if (isStoreFileName(name))
                return name;
    return {};
}

} // namespace

ZnEmbeddedDbStatus StoreListing_::read(ZnStorageFiles& files, const StorePaths_& paths) {
    const std::pair<const ZnString*, std::vector<ZnString>*> parts[] = {{&paths.rootPath, &root},
                                                                        {&paths.walDir, &wal},
                                                                        {&paths.tablesDir, &tables},
                                                                        {&paths.blobsDir, &blobs},
                                                                        {&paths.tempDir, &temporary}};
    for (const auto& [directory, names] : parts) {
        names->clear();
        const int code = files.list(*directory, names);
        ZnString error;
        if (code == 0 || code == ENOENT)
            continue;
        failWithCode("FindFirstFileW failed", code, &error);
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(error)).at(*directory);
    }
    return {};
}

ZnEmbeddedDbStatus makeDirectory(ZnStorageFiles& files, const ZnString& path) {
    ZnString error;
    std::vector<ZnString> toSync = missingDirectories(files, path);
    if (const int code = files.makePath(path); code != 0) {
        failWithCode("mkdir failed", code, &error);
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(error)).at(path);
    }
    if (toSync.empty())
        toSync.push_back(path);
    if (const ZnString above = parentPath(toSync.back()); !above.isEmpty())
        toSync.push_back(above);
    for (const ZnString& directory : toSync)
        if (!syncDirectory(files, directory, &error))
            return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(error)).at(directory);
    return {};
}

ZnEmbeddedDbStatus checkNoStore(ZnStorageFiles& files, const StorePaths_& paths) {
    StoreListing_ listing;
    if (ZnEmbeddedDbStatus status = listing.read(files, paths); !status.isOk())
        return status;
    if (const ZnString file = firstFileOfStore(files, paths, listing); !file.isEmpty())
        return corruption("CURRENT is missing", paths.rootPath).at("there is " + file);
    return {};
}

ZnEmbeddedDbStatus createStore(ZnStorageFiles& files, const StorePaths_& paths) {
    if (ZnEmbeddedDbStatus status = checkNoStore(files, paths); !status.isOk())
        return status;
    for (const ZnString* directory :
         {&paths.rootPath, &paths.walDir, &paths.tablesDir, &paths.blobsDir, &paths.tempDir})
        if (ZnEmbeddedDbStatus status = makeDirectory(files, *directory); !status.isOk())
            return status;
    ManifestState_ manifest;
    WalWriter_ log(files);
    files.remove(walPath(paths, manifest.activeWalId)); // of a creation that was cut short
    if (ZnEmbeddedDbStatus status = log.create(paths.walDir, {manifest.activeWalId, 0, 0}); !status.isOk())
        return status;
    ZnString syncError;
    ZnEmbeddedDbStatus status = writeManifest(files, paths.rootPath, &manifest, &syncError);
    if (status.isOk() && !syncError.isEmpty())
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(syncError)).at(paths.rootPath);
    return status;
}

ZnEmbeddedDbStatus Recovery_::run(RecoveredStore_* store) {
    std::uint64_t manifestId = 0;
    ZnEmbeddedDbStatus status = readCurrent(files_, paths_.rootPath, &manifestId);
    for (int attempt = 1; status.isOk(); ++attempt) {
        *store = {};
        status = runOnce_(store, manifestId);
        if (status.isOk() || !options_.readOnly || attempt == kReadOnlyAttempts)
            break;
        // Whoever writes may have replaced what was being read, or have been in the middle of a write.
        const std::uint64_t manifestIdBefore = manifestId;
        const ZnEmbeddedDbStatus failure = std::exchange(status, readCurrent(files_, paths_.rootPath, &manifestId));
        const bool isSameManifest = status.isOk() && manifestId == manifestIdBefore;
        if (isSameManifest && lacksBlobFile_) { // nobody has collected it: whoever reads its values is told
            ZN_LOG_WARNING(kCategory, "ZnEmbeddedDb::open") << failure.message();
            return {};
        }
        if (isSameManifest && attempt > 2)
            return failure;
    }
    return status;
}

ZnEmbeddedDbStatus Recovery_::runOnce_(RecoveredStore_* store, std::uint64_t manifestId) {
    logs_.clear();
    tableSequence_ = 0;
    lastFrameSequence_ = 0;
    lacksBlobFile_ = false;
    ZnEmbeddedDbStatus status = readManifest(files_, paths_.rootPath, manifestId, &store->manifest);
    if (status.isOk())
        status = listing_.read(files_, paths_);
    if (status.isOk())
        status = findLogs_(*store); // before anything else is read: what is written meanwhile is left out as a whole
    if (status.isOk() && knownBlobs_ != nullptr && !options_.verifyFilters)
        status = pinListedBlobFiles_(store, manifestId);
    if (status.isOk())
        status = openTables_(store);
    if (!status.isOk())
        return status;
    // A number in the manifest has no checksum: what the tables do not show to be in them comes from the logs.
    for (const TableMeta_& table : store->manifest.tables)
        tableSequence_ = std::max(tableSequence_, table.maxSequence);
    store->manifest.manifestId = manifestId + 1;
    raiseIds_(store);
    status = replayLogs_(store);
    if (status.isOk() && knownBlobs_ != nullptr && options_.verifyFilters)
        status = pinUsedBlobFiles_(store);
    return status;
}

ZnEmbeddedDbStatus Recovery_::openTables_(RecoveredStore_* store) {
    const std::vector<TableMeta_>& metas = store->manifest.tables;
    std::vector<std::shared_ptr<const TableHandle_>> tables(metas.size());
    std::vector<ZnEmbeddedDbStatus> statuses(metas.size());
    const std::vector<std::size_t> unknown = shareTables_(metas, &tables);
    forEachInParallel(unknown.size(), [&](std::size_t nth) {
        const std::size_t index = unknown[nth];
        const auto table = std::make_shared<TableHandle_>();
        table->open(files_, paths_.rootPath, metas[index], {options_.verifyFilters}, &statuses[index]);
        tables[index] = table;
    });
    for (std::size_t index = 0; index < metas.size(); ++index) {
        const ZnString& name = metas[index].fileName;
        if (!statuses[index].isOk() && std::count(listing_.tables.begin(), listing_.tables.end(), name) == 0)
            return corruption("table is missing", joinPath(paths_.tablesDir, name));
        if (!statuses[index].isOk())
            return statuses[index].at(joinPath(paths_.tablesDir, name));
        store->tableHandles[metas[index].fileName.str()] = std::move(tables[index]);
    }
    return {};
}

/// Gives the indexes of those that are left to be opened.
std::vector<std::size_t> Recovery_::shareTables_(const std::vector<TableMeta_>& metas,
                                                 std::vector<std::shared_ptr<const TableHandle_>>* tables) const {
    std::vector<std::size_t> unknown;
    for (std::size_t index = 0; index < metas.size(); ++index) {
        const auto known = knownTables_.find(metas[index].fileName.str());
        if (known != knownTables_.end() && known->second->meta() == metas[index])
            (*tables)[index] = known->second;
        else
            unknown.push_back(index);
    }
    return unknown;
}

/// Without knowing which of them are needed. As long as the manifest is in force, nobody takes those away; descriptors
/// from before are not shared, as the id of a file that no table came to refer to may have been given out again.
ZnEmbeddedDbStatus Recovery_::pinListedBlobFiles_(RecoveredStore_* store, std::uint64_t manifestId) {
    store->blobs = knownBlobs_->emptyCopy();
    for (const ZnString& name : listing_.blobs)
        if (const std::uint64_t id = idOf(name, kBlobPrefix, kBlobSuffix); id != 0)
            if (const ZnEmbeddedDbStatus status = store->blobs->pin(id, nullptr); !status.isOk())
                ZN_LOG_DEBUG(kCategory, "ZnEmbeddedDb::open") << status.message();
    std::uint64_t manifestIdNow = 0;
    ZnEmbeddedDbStatus status = readCurrent(files_, paths_.rootPath, &manifestIdNow);
    if (status.isOk() && manifestIdNow != manifestId)
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, "the store changes all the time").at(paths_.rootPath);
    return status;
}

/// Fails for a file that is not there. One that is there and cannot be opened may vanish later, but trying again would
/// not change that.
ZnEmbeddedDbStatus Recovery_::pinUsedBlobFiles_(RecoveredStore_* store) {
    store->blobs = knownBlobs_->emptyCopy();
    std::set<std::uint64_t> usedIds;
    for (const auto& [name, table] : store->tableHandles)
        for (const auto& [id, byteCount] : table->blobUses())
            usedIds.insert(id);
    ZnEmbeddedDbStatus missing;
    for (const std::uint64_t id : usedIds) {
        const ZnEmbeddedDbStatus status = store->blobs->pin(id, knownBlobs_.get());
        if (status.isOk())
            continue;
        std::vector<ZnString> names;
        files_.list(paths_.blobsDir, &names);
        if (std::count(names.begin(), names.end(), blobFileName(id)) == 0)
            missing = status;
        else
            ZN_LOG_WARNING(kCategory, "ZnEmbeddedDb::open") << status.message();
    }
    lacksBlobFile_ = !missing.isOk();
    return missing;
}

/// The log that was active when the manifest was written must be there: only a later manifest lets it be removed.
ZnEmbeddedDbStatus Recovery_::findLogs_(const RecoveredStore_& store) {
    for (const ZnString& name : listing_.wal) {
        const std::uint64_t walId = idOf(name, kWalPrefix, kWalSuffix);
        if (walId != 0 && walId >= store.manifest.replayFromWalId)
            logs_.push_back(walId);
    }
    std::sort(logs_.begin(), logs_.end());
    if (std::binary_search(logs_.begin(), logs_.end(), store.manifest.activeWalId))
        return {};
    ZnEmbeddedDbStatus missing = corruption("log is missing", walPath(paths_, store.manifest.activeWalId));
    if (!options_.salvageLog)
        return missing;
    ZN_LOG_ERROR(kCategory, "ZnEmbeddedDb::open") << missing.message() << ": what it held is given up";
    return {};
}

/// Above every id that is on the disk: the manifest may be older than the last id that was given out.
void Recovery_::raiseIds_(RecoveredStore_* store) const {
    ManifestState_& manifest = store->manifest;
    const std::uint64_t tableId =
        std::max({largestTableId(listing_.tables, ".sst"), largestTableId(listing_.temporary, ".sst.tmp"),
                  largestId(listing_.blobs, kBlobPrefix, kBlobSuffix)});
    manifest.nextTableId = std::max(manifest.nextTableId, tableId + 1);
    manifest.nextWalId = std::max(manifest.nextWalId, largestId(listing_.wal, kWalPrefix, kWalSuffix) + 1);
    manifest.manifestId = std::max(manifest.manifestId, largestId(listing_.root, kManifestPrefix, kManifestSuffix) + 1);
}

ZnEmbeddedDbStatus Recovery_::replayLogs_(RecoveredStore_* store) {
    store->lastSequence = store->manifest.maxSequence;
    bool isEnd = false;
    if (ZnEmbeddedDbStatus status = dropUnfinished_(*store); !status.isOk())
        return status;
    for (std::size_t logIndex = 0; logIndex < logs_.size() && !isEnd; ++logIndex)
        if (ZnEmbeddedDbStatus status = replayLog_(store, logIndex, &isEnd); !status.isOk())
            return status;
    return {};
}

/// A log whose making failed, or was cut short, has no whole header and no frames; no manifest knows it, and what was
/// written after a failure is in the log before it. Had it held anything, the next log would tell.
ZnEmbeddedDbStatus Recovery_::dropUnfinished_(const RecoveredStore_& store) {
    std::vector<std::uint64_t> finished;
    for (const std::uint64_t walId : logs_) {
        WalReader_ reader(files_);
        if (ZnEmbeddedDbStatus status = reader.open(paths_.walDir, walId); !status.isOk())
            return status;
        if (walId <= store.manifest.activeWalId || reader.hasHeader() ||
            reader.classifyTail(0) != WalReader_::Tail::Torn)
            finished.push_back(walId);
    }
    logs_ = std::move(finished);
    return {};
}

ZnEmbeddedDbStatus Recovery_::replayLog_(RecoveredStore_* store, std::size_t logIndex, bool* isEnd) {
    const std::uint64_t walId = logs_[logIndex];
    WalReader_ reader(files_);
    if (ZnEmbeddedDbStatus status = reader.open(paths_.walDir, walId); !status.isOk())
        return status;
    if (ZnEmbeddedDbStatus status = checkHeader_(*store, logIndex, reader, isEnd); !status.isOk() || *isEnd)
        return status;
    for (;;) {
        switch (reader.next()) {
        case WalReader_::Step::Frame:
            if (reader.frame().firstSequence <= lastFrameSequence_)
                return damage_(logIndex, reader.goodBytes(), "log goes back in its sequences", isEnd);
            if (ZnEmbeddedDbStatus status = applyFrame_(store, walId, reader); !status.isOk())
                return status;
            break;
        case WalReader_::Step::End: return {};
        case WalReader_::Step::Failed: return reader.status();
        case WalReader_::Step::Invalid:
            if (const WalReader_::Tail tail = reader.classifyTail(tableSequence_); tail != WalReader_::Tail::Covered)
                return endOfLog_(logIndex, &reader, tail, isEnd);
        }
    }
}

ZnEmbeddedDbStatus Recovery_::checkHeader_(const RecoveredStore_& store, std::size_t logIndex, const WalReader_& reader,
                                           bool* isEnd) {
    if (!reader.hasHeader())
        return damage_(logIndex, 0, "invalid log header", isEnd);
    if (reader.header().previousSequence > store.lastSequence)
        return damage_(logIndex, 0, "the log before this one lacks its end", isEnd);
    return {};
}

/// What follows is no frame: the end of a write that was cut short, or damage.
ZnEmbeddedDbStatus Recovery_::endOfLog_(std::size_t logIndex, WalReader_* reader, WalReader_::Tail tail, bool* isEnd) {
    if (tail == WalReader_::Tail::Failed)
        return reader->status();
    const bool isLast = logIndex + 1 == logs_.size();
    if (!isLast && nextLogNeedsNothingOf_(logIndex))
        return {};
    if (!isLast || tail == WalReader_::Tail::Damaged)
        return damage_(logIndex, reader->goodBytes(), "log is damaged", isEnd);
    return {};
}

/// Whether all that the log held, up to the beginning of the next one, is in tables.
bool Recovery_::nextLogNeedsNothingOf_(std::size_t logIndex) const {
    WalReader_ next(files_);
    return next.open(paths_.walDir, logs_[logIndex + 1]).isOk() && next.hasHeader() &&
           next.header().previousSequence <= tableSequence_;
}

/// With salvageLog, the store ends here; without, it is not opened.
ZnEmbeddedDbStatus Recovery_::damage_(std::size_t logIndex, std::uint64_t offset, const char* what, bool* isEnd) {
    const ZnString path = walPath(paths_, logs_[logIndex]);
    if (!options_.salvageLog)
        return corruption(what, path).at("offset " + ZnString::number(offset));
    ZN_LOG_ERROR(kCategory, "ZnEmbeddedDb::open")
        << what << ": " << path << ": what stands behind offset " << offset << ", and " << logs_.size() - logIndex - 1
        << " later logs, are given up";
    *isEnd = true;
    return {};
}

ZnEmbeddedDbStatus Recovery_::applyFrame_(RecoveredStore_* store, std::uint64_t walId, const WalReader_& reader) {
    WalOperationReader_ operations = reader.operations();
    std::uint64_t sequence = reader.frame().firstSequence;
    for (WalOperation_ operation; operations.next(&operation); ++sequence) {
        if (sequence <= tableSequence_)
            continue;
        if (store->memtables.empty() || store->memtables.back().isFull)
            store->memtables.push_back({std::make_shared<SharedMemtable_>(), false, false});
        SealedMemtable_& last = store->memtables.back();
        const MemtableWriteScope_ scope(last.memtable->lock);
        Memtable_& table = last.memtable->table;
        if (!table.apply(operation, sequence))
            return corruption("log holds no stored value", walPath(paths_, walId));
        if (table.walId == 0)
            table.walId = walId;
    }
    lastFrameSequence_ = reader.lastSequence();
    store->lastSequence = std::max(store->lastSequence, lastFrameSequence_);
    if (!store->memtables.empty()) { // between frames only: a batch does not straddle two
        SealedMemtable_& last = store->memtables.back();
        const MemtableReadScope_ scope(last.memtable->lock);
        last.isFull = last.memtable->table.approximateBytes() >= options_.memtableSizeBytes;
    }
    return {};
}

void Recovery_::clean(const ManifestState_& manifest, const TableHandles_& tables) {
    std::set<ZnString> tablePaths;
    std::set<ZnString> blobPaths;
    bool knowsBlobUses = true;
    for (const auto& [name, table] : tables) {
        tablePaths.insert(joinPath(paths_.tablesDir, table->meta().fileName));
        knowsBlobUses = knowsBlobUses && table->knowsBlobUses();
        for (const auto& [id, byteCount] : table->blobUses())
            blobPaths.insert(blobPath(paths_, id));
    }
    removeUnknown_(paths_.rootPath, listing_.root, {}, ".tmp");
    removeUnknown_(paths_.tempDir, listing_.temporary, {}, ".tmp");
    removeUnknown_(paths_.tablesDir, listing_.tables, tablePaths, ".sst");
    removeUnknown_(paths_.blobsDir, listing_.blobs, blobPaths, knowsBlobUses ? kBlobSuffix : ".tmp");
    removeUnknown_(paths_.walDir, listing_.wal, {}, ".tmp"); // logs themselves are removed by the manifest
    removeOldManifests(files_, paths_.rootPath, manifest.manifestId - 1, options_.keepManifests);
}

void Recovery_::removeUnknown_(const ZnString& directory, const std::vector<ZnString>& names,
                               const std::set<ZnString>& known, std::string_view suffix) const {
    for (const ZnString& name : names) {
        const ZnString path = joinPath(directory, name);
        const bool isOurs = isStoreFileName(name);
        if (isOurs && name.endsWith(suffix) && known.count(path) == 0)
            files_.remove(path);
        else if (!isOurs)
            ZN_LOG_WARNING(kCategory, "ZnEmbeddedDb::open") << "no file of a store, left alone: " << path;
    }
}

} // namespace znEmbeddedDbDetail
