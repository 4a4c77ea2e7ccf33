#include "core/storage/embeddeddb/ZnEmbeddedDbBlobGcWorker.h"

#include "core/fs/ZnPath.h"
#include "core/storage/embeddeddb/FileNames_.h"
#include "core/storage/embeddeddb/NewestRecords_.h"
#include "core/storage/embeddeddb/RecordValue_.h"

#include <algorithm>
#include <set>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

constexpr std::uint64_t kDeadPercent = 30;
constexpr std::uint64_t kKeysPerCheck = 1024; // whether the store is about to close

ZnEmbeddedDbStatus closingStatus() {
    return {ZnEmbeddedDbStatus::NotAvailable, "database is closing"};
}

} // namespace

ZnEmbeddedDbStatus BlobGcManager_::runBlobGc() {
    if (!begin_())
        return isEnding_() ? closingStatus() : ZnEmbeddedDbStatus();
    core_.syncPoints.reach("gc.observed");
    findBlobFiles_();
    if (blobFiles_.empty())
        return {};
    if (ZnEmbeddedDbStatus status = countLiveBytes_(); !status.isOk())
        return status;
    if (!isWorthwhile_())
        return {};
    core_.syncPoints.reach("gc.decided");
    const ZnEmbeddedDbStatus status = statusOf([this] {
        ZnEmbeddedDbStatus written = rewrite_();
        core_.syncPoints.reach("gc.rewritten");
        return written;
    });
    if (status.isOk())
        return commit_();
    removeNewFiles_(); // nothing has ever referred to them
    return status;
}

bool BlobGcManager_::begin_() {
    const ZnMutexLocker locker(core_.mutex);
    if (core_.isEnding(generation_) || !(isDemanded_ || core_.isIdle()))
        return false;
    paths_ = core_.paths;
    counters_ = core_.counters;
    blobs_ = core_.blobs;
    blobThresholdBytes_ = core_.options.blobThresholdBytes;
    verifiesFilters_ = core_.options.verifyFilters;
    observedSequence_ = core_.lastCommittedSequence;
    observedManifestId_ = core_.manifest.manifestId;
    firstUnknownFileId_ = core_.firstRunningFileId();
    oldTables_ = core_.tableViews->primaryView;
    for (const auto& [id, file] : core_.heldBlobFiles)
        if (const auto held = file.lock(); held != nullptr && held->isRetired())
            retired_.insert(id);
    return true;
}

bool BlobGcManager_::isEnding_() const {
    const ZnMutexLocker locker(core_.mutex);
    return core_.isEnding(generation_);
}

/// A file that cannot be opened is passed over. So is one without an id: nothing would ever remove it, and each flush
/// would begin a run. So is one that is there for older views alone: they still need it, and their end removes it.
void BlobGcManager_::findBlobFiles_() {
    for (const ZnString& path : listFiles(core_.files, paths_.blobsDir, kBlobPrefix, kBlobSuffix)) {
        const std::uint64_t id = parseFileId(path, kBlobPrefix, kBlobSuffix);
        RandomAccessFile_ file(core_.files);
        if (id != 0 && retired_.count(id) == 0 && path == blobPath(paths_, id) &&
            file.open(path, RandomAccessFile_::Mode::ReadOnly))
            blobFiles_.push_back({id, file.size()});
    }
}

/// Calls `visit(record)` for the newest record of every key, but for tombstones, and `see(record)` for every record.
template <typename Visit, typename See>
ZnEmbeddedDbStatus BlobGcManager_::forEachLive_(Visit visit, See see) {
    NewestRecords_ records(oldTables_);
    for (std::uint64_t keyCount = 1; records.isValid(); ++keyCount) {
        const FoundRecord_ found = records.take(see);
        if (found.record.type != kTombstoneRecord)
            if (ZnEmbeddedDbStatus status = visit(found); !status.isOk())
                return status;
        if (keyCount % kKeysPerCheck == 0 && isEnding_())
            return closingStatus();
    }
    return records.status();
}

/// Files of work that is not over are left out, unless a table in force refers to them.
ZnEmbeddedDbStatus BlobGcManager_::countLiveBytes_() {
    const auto countLive = [this](const FoundRecord_& found) {
        StoredValueView_ stored;
        if (!parseRecordValue(found.record, &stored))
            return unreadableValue(*found.table, found.record);
        if (!stored.isInline)
            liveBytes_[stored.blob.blobFileId] += stored.blob.size;
        return ZnEmbeddedDbStatus();
    };
    const auto noteFile = [this](const RecordView_& record) {
        StoredValueView_ stored;
        if (record.type == kBlobRecord && parseRecordValue(record, &stored))
            liveBytes_.try_emplace(stored.blob.blobFileId, 0);
    };
    ZnEmbeddedDbStatus status = forEachLive_(countLive, noteFile);
    std::erase_if(blobFiles_, [this](const BlobFileUse_& file) {
        return file.blobFileId >= firstUnknownFileId_ && liveBytes_.count(file.blobFileId) == 0;
    });
    return status;
}

bool BlobGcManager_::isWorthwhile_() const {
    return std::any_of(blobFiles_.begin(), blobFiles_.end(), [this](const BlobFileUse_& file) {
        const auto at = liveBytes_.find(file.blobFileId);
        const std::uint64_t live = at == liveBytes_.end() ? 0 : std::min(at->second, file.fileBytes);
        return live == 0 || (file.fileBytes - live) * 100 >= file.fileBytes * kDeadPercent;
    });
}

ZnEmbeddedDbStatus BlobGcManager_::rewrite_() {
    std::unique_ptr<TableWriter_> writer; // from the first live record on
    const auto add = [&](const FoundRecord_& found) {
        ZnEmbeddedDbStatus status = writer == nullptr ? beginTable_(&writer) : ZnEmbeddedDbStatus();
        return status.isOk() ? addRecord_(writer.get(), found) : status;
    };
    ZnEmbeddedDbStatus status = forEachLive_(add, [](const RecordView_&) {});
    if (status.isOk() && newBlobId_ != 0) // before a table that refers to it gets its name
        status = blobWriter_.flush();
    counters_->blobBytesWritten.add(blobWriter_.writtenBytes());
    return status.isOk() && writer != nullptr ? finishTable_(writer.get()) : status;
}

ZnEmbeddedDbStatus BlobGcManager_::beginTable_(std::unique_ptr<TableWriter_>* writer) {
    TableMeta_ meta;
    meta.kind = kPrimaryTable;
    meta.level = 1;
    meta.fileId = core_.takeFileId(generation_);
    if (meta.fileId == 0)
        return closingStatus();
    *writer = std::make_unique<TableWriter_>(core_.files, paths_.tempDir, paths_.tablesDir, std::move(meta));
    return (*writer)->open();
}

ZnEmbeddedDbStatus BlobGcManager_::addRecord_(TableWriter_* writer, const FoundRecord_& found) {
    const RecordView_& record = found.record;
    StoredValueView_ stored;
    if (!parseRecordValue(record, &stored))
        return unreadableValue(*found.table, record);
    if (stored.isInline && stored.value.size() <= blobThresholdBytes_)
        return writer->add(record);
    std::string_view value = stored.value;
    if (!stored.isInline) {
        if (ZnEmbeddedDbStatus status = blobs_->read(stored.blob, &blobValue_); !status.isOk())
            return status;
        value = blobValue_.view();
    }
    storedValue_.clear();
    if (value.size() <= blobThresholdBytes_) {
        encodeInlineValueWith(stored.metadata, value, &storedValue_);
        return writer->add({record.key, record.sequence, kInlineRecord, storedValue_});
    }
    BlobRef_ blob;
    if (ZnEmbeddedDbStatus status = externalize_(value, &blob); !status.isOk())
        return status;
    encodeBlobValueWith(stored.metadata, blob, &storedValue_);
    return writer->add({record.key, record.sequence, kBlobRecord, storedValue_});
}

ZnEmbeddedDbStatus BlobGcManager_::externalize_(std::string_view value, BlobRef_* blob) {
    if (isEnding_())
        return closingStatus();
    if (newBlobId_ == 0) {
        newBlobId_ = core_.takeFileId(generation_);
        if (newBlobId_ == 0)
            return closingStatus();
        if (ZnEmbeddedDbStatus status = blobWriter_.open(paths_.blobsDir, newBlobId_); !status.isOk())
            return status;
    }
    return blobWriter_.append(value, blob);
}

/// Gives the table its name, and reads it back as readers will.
ZnEmbeddedDbStatus BlobGcManager_::finishTable_(TableWriter_* writer) {
    ZnString syncError;
    if (ZnEmbeddedDbStatus status = writer->finish(&syncError); !status.isOk())
        return status;
    TableMeta_ meta = writer->meta();
    meta.blobFileId = newBlobId_;
    newTablePath_ = joinPath(paths_.tablesDir, meta.fileName);
    if (!syncError.isEmpty())
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(syncError)).at(newTablePath_);
    auto table = std::make_shared<TableHandle_>();
    ZnEmbeddedDbStatus status;
    if (!table->open(core_.files, paths_.rootPath, meta, {verifiesFilters_}, &status))
        return status.at(newTablePath_);
    newTable_ = std::move(table);
    return {};
}

/// Whether the store is not any more what the work was done for.
bool BlobGcManager_::isVoid_() {
    if (!isDemanded_)
        return !core_.isIdle() || core_.lastCommittedSequence != observedSequence_ ||
               core_.manifest.manifestId != observedManifestId_;
    return !std::all_of(oldTables_.begin(), oldTables_.end(), [this](const auto& table) ZN_NO_THREAD_SAFETY_ANALYSIS {
        return core_.tableHandles.count(table->meta().fileName.str()) != 0;
    });
}

ZnEmbeddedDbStatus BlobGcManager_::commit_() {
    bool isNewUnneeded = true; // the files of this run; else they are in force, or may be
    bool isOldUnneeded = false;
    ZnEmbeddedDbStatus status;
    {
        const ZnMutexLocker locker(core_.mutex);
        core_.awaitManifest();
        core_.noteSyncFailure();
        status = core_.isEnding(generation_) ? closingStatus() : core_.backgroundError;
        if (status.isOk() && isVoid_()) {
            counters_->blobGcAbandonedCount.add();
            status = {ZnEmbeddedDbStatus::NotAvailable, "the store was written to meanwhile"};
        }
        if (status.isOk()) {
            status = commitTables_();
            isNewUnneeded = !status.isOk() && core_.isOldManifestInForce();
            isOldUnneeded = status.isOk() && core_.backgroundError.isOk();
            if (isOldUnneeded)
                endEpoch_();
        }
    }
    core_.syncPoints.reach("gc.committed");
    if (isNewUnneeded)
        removeNewFiles_();
    if (isOldUnneeded)
        core_.removeTables(oldTablePaths_());
    return status;
}

ZnEmbeddedDbStatus BlobGcManager_::commitTables_() {
    TableChange_ change;
    if (newTable_ != nullptr)
        change.added.push_back(newTable_);
    for (const auto& table : oldTables_)
        change.removed.push_back(table->meta());
    change.endsBlobEpoch = true;
    epoch_ = core_.blobEpoch; // kept until it has got its files
    ZnEmbeddedDbStatus status = core_.commitTables(change);
    if (status.isOk())
        counters_->blobGcCount.add();
    return status;
}

std::vector<ZnString> BlobGcManager_::oldTablePaths_() const {
    std::vector<ZnString> paths;
    for (const auto& table : oldTables_)
        paths.push_back(joinPath(paths_.tablesDir, table->meta().fileName));
    return paths;
}

/// Gives the epoch that has ended the files that its views may need: those that went out of force, and those of tables
/// that flushes have added meanwhile, which a later run may retire while the views are still there.
void BlobGcManager_::endEpoch_() {
    std::set<std::uint64_t> inForce; // besides the new one, each of the flush that made the table
    for (const auto& table : core_.tableViews->primaryView)
        inForce.insert(table->meta().blobFileId);
    inForce.erase(newBlobId_);
    inForce.erase(0);
    BlobEpoch_::Held held;
    for (const std::uint64_t id : inForce)
        held.push_back(heldBlobFile_(id));
    for (const BlobFileUse_& file : blobFiles_) {
        if (file.blobFileId == newBlobId_ || inForce.count(file.blobFileId) != 0)
            continue;
        held.push_back(heldBlobFile_(file.blobFileId));
        held.back()->retire();
    }
    epoch_->hold(std::move(held));
    std::erase_if(core_.heldBlobFiles, [](const auto& entry) { return entry.second.expired(); });
}

/// One object for each file, however many epochs need it.
std::shared_ptr<HeldBlobFile_> BlobGcManager_::heldBlobFile_(std::uint64_t blobFileId) {
    std::weak_ptr<HeldBlobFile_>& known = core_.heldBlobFiles[blobFileId];
    std::shared_ptr<HeldBlobFile_> file = known.lock();
    if (file == nullptr)
        known = file =
            std::make_shared<HeldBlobFile_>(core_.baseFiles, blobs_, blobFileId, blobPath(paths_, blobFileId));
    return file;
}

/// What cannot be removed is an orphan, which the next opening removes.
void BlobGcManager_::removeNewFiles_() const {
    if (!newTablePath_.isEmpty())
        core_.files.remove(newTablePath_);
    if (newBlobId_ != 0)
        core_.files.remove(blobPath(paths_, newBlobId_));
}

} // namespace znEmbeddedDbDetail
