#include "core/storage/embeddeddb/ZnEmbeddedDbCompactionWorker.h"

#include "core/fs/ZnPath.h"
#include "core/storage/embeddeddb/IndexKey_.h"
#include "core/storage/embeddeddb/IteratorCore_.h"
#include "core/storage/embeddeddb/NewestRecords_.h"
#include "core/storage/embeddeddb/RecordValue_.h"

#include <algorithm>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

constexpr std::uint64_t kKeysPerCheck = 1024; // whether the store is about to close

ZnEmbeddedDbStatus closingStatus() {
    return {ZnEmbeddedDbStatus::NotAvailable, "database is closing"};
}

} // namespace

ZnEmbeddedDbStatus CompactionManager_::runL0Compaction(const CompactionGroups_& groups) {
    if (!pin_(groups))
        return closingStatus();
    const ZnEmbeddedDbStatus status = statusOf([this] { return writeOutputs_(); });
    if (status.isOk())
        return commit_();
    removeOutputs_(); // nothing has ever referred to them
    return status;
}

ZnEmbeddedDbStatus CompactionManager_::writeOutputs_() {
    core_.syncPoints.reach("compaction.pinned");
    for (const PinnedGroup_& pinned : pinned_)
        if (ZnEmbeddedDbStatus status = merge_(pinned); !status.isOk())
            return status;
    core_.syncPoints.reach("compaction.merged");
    ZnEmbeddedDbStatus status = openOutputs_();
    core_.syncPoints.reach("compaction.opened");
    return status;
}

/// Takes hold of the inputs that are in force, so that they can be read whatever happens to the set of tables. What a
/// manifest that is being written takes out of force must not come back: a garbage collection that has gone so far does
/// not see this run.
bool CompactionManager_::pin_(const CompactionGroups_& groups) {
    const ZnMutexLocker locker(core_.mutex);
    core_.awaitManifest();
    if (core_.isEnding(generation_))
        return false;
    paths_ = core_.paths;
    counters_ = core_.counters;
    verifiesFilters_ = core_.options.verifyFilters;
    primaries_.tables = core_.tableViews;
    primaries_.counters = std::make_shared<StoreCounters_>(); // these lookups are no reading that anybody asked for
    for (const CompactionGroup_& group : groups) {
        PinnedGroup_ pinned{&group, {}, group.isWhole};
        for (const TableMeta_& input : group.inputs) {
            const auto handle = core_.tableHandles.find(input.fileName.str());
            if (handle != core_.tableHandles.end())
                pinned.tables.push_back(handle->second);
            else
                pinned.isWhole = false;
        }
        std::sort(pinned.tables.begin(), pinned.tables.end(),
                  [](const auto& left, const auto& right) { return isNewerTable(left->meta(), right->meta()); });
        pinned_.push_back(std::move(pinned));
    }
    return true;
}

bool CompactionManager_::isEnding_() const {
    const ZnMutexLocker locker(core_.mutex);
    return core_.isEnding(generation_);
}

ZnEmbeddedDbStatus CompactionManager_::merge_(const PinnedGroup_& pinned) {
    NewestRecords_ records(pinned.tables);
    std::unique_ptr<TableWriter_> writer;
    ZnEmbeddedDbStatus status;
    if (records.isValid())
        status = beginTable_(*pinned.group, &writer);
    for (std::uint64_t keyCount = 1; status.isOk() && records.isValid(); ++keyCount) {
        const FoundRecord_ newest =
            records.take([&](const RecordView_& record) { writer->noteSequence(record.sequence); });
        if (isKept_(pinned, newest, &status))
            status = writer->add(newest.record);
        if (keyCount % kKeysPerCheck == 0 && isEnding_())
            status = closingStatus();
    }
    if (status.isOk())
        status = records.status();
    if (!status.isOk())
        return status;
    for (const auto& table : pinned.tables) {
        obsolete_.push_back(table->meta());
        counters_->compactionBytesRead.add(table->fileBytes());
    }
    return writer == nullptr || writer->meta().recordCount == 0 ? status : finishTable_(writer.get());
}

/// Whether the newest record of a key goes on. A failure, too, is told by false, and by the status.
bool CompactionManager_::isKept_(const PinnedGroup_& pinned, const FoundRecord_& found,
                                 ZnEmbeddedDbStatus* status) const {
    const RecordView_& record = found.record;
    if (record.type == kTombstoneRecord)
        return !pinned.isWhole; // an older table may still hold the key
    if (pinned.group->kind == kIndexTable)
        return !pinned.isWhole || !isStale_(pinned.group->indexName, record.key, status);
    StoredValueView_ stored;
    if (parseRecordValue(record, &stored))
        return true;
    *status = unreadableValue(*found.table, record);
    return false;
}

/// Whether an entry of an index leads to a record that lacks the secondary key, or to none. One that a newer record has
/// again has a newer entry, too. With a failure in the status, the answer is true.
bool CompactionManager_::isStale_(const ZnString& indexName, std::string_view indexKey,
                                  ZnEmbeddedDbStatus* status) const {
    std::string secondary;
    std::string_view primary;
    if (!splitIndexKey(indexKey, &secondary, &primary))
        return false; // for verify() to find
    FoundRecord_ record;
    const TableHandle_::Find result = findRecord(primaries_, primary, &record);
    if (result == TableHandle_::Find::Unreadable)
        *status = unreadableTable(*record.table);
    return result != TableHandle_::Find::Found || !recordHasIndexKey(record, indexName.view(), secondary);
}

ZnEmbeddedDbStatus CompactionManager_::beginTable_(const CompactionGroup_& group,
                                                   std::unique_ptr<TableWriter_>* writer) {
    TableMeta_ meta;
    meta.kind = group.kind;
    meta.level = 1;
    meta.fileId = core_.takeFileId(generation_);
    meta.indexName = group.indexName;
    if (meta.fileId == 0)
        return closingStatus();
    *writer = std::make_unique<TableWriter_>(core_.files, paths_.tempDir, paths_.tablesDir, std::move(meta));
    return (*writer)->open();
}

ZnEmbeddedDbStatus CompactionManager_::finishTable_(TableWriter_* writer) {
    ZnString syncError;
    if (ZnEmbeddedDbStatus status = writer->finish(&syncError); !status.isOk())
        return status;
    outputMetas_.push_back(writer->meta());
    outputPaths_.push_back(joinPath(paths_.tablesDir, writer->meta().fileName));
    counters_->compactionBytesWritten.add(writer->writtenBytes());
    if (syncError.isEmpty())
        return {};
    return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(syncError)).at(outputPaths_.back());
}

/// Reads them back as readers will.
ZnEmbeddedDbStatus CompactionManager_::openOutputs_() {
    for (const TableMeta_& meta : outputMetas_) {
        if (isEnding_())
            return closingStatus();
        auto table = std::make_shared<TableHandle_>();
        ZnEmbeddedDbStatus status;
        if (!table->open(core_.files, paths_.rootPath, meta, {verifiesFilters_}, &status))
            return status.at(joinPath(paths_.tablesDir, meta.fileName));
        outputs_.push_back(std::move(table));
    }
    return {};
}

ZnEmbeddedDbStatus CompactionManager_::commit_() {
    bool areOutputsUnneeded = true; // else they are in force, or may be
    bool areInputsUnneeded = false;
    ZnEmbeddedDbStatus status;
    {
        const ZnMutexLocker locker(core_.mutex);
        core_.awaitManifest();
        core_.noteSyncFailure();
        status = core_.isEnding(generation_) ? closingStatus() : core_.backgroundError;
        if (status.isOk()) {
            status = core_.commitTables({outputs_, obsolete_, 0, 0, false});
            areOutputsUnneeded = !status.isOk() && core_.isOldManifestInForce();
            areInputsUnneeded = status.isOk() && core_.backgroundError.isOk();
        }
        if (status.isOk() && !outputs_.empty())
            counters_->compactionCount.add();
    }
    core_.syncPoints.reach("compaction.committed");
    if (areOutputsUnneeded)
        removeOutputs_();
    if (areInputsUnneeded)
        core_.removeTables(obsoletePaths_());
    return status;
}

std::vector<ZnString> CompactionManager_::obsoletePaths_() const {
    std::vector<ZnString> paths;
    for (const TableMeta_& table : obsolete_)
        paths.push_back(joinPath(paths_.tablesDir, table.fileName));
    return paths;
}

/// What cannot be removed is an orphan, which the next opening removes.
void CompactionManager_::removeOutputs_() const {
    for (const ZnString& path : outputPaths_)
        core_.files.remove(path);
}

} // namespace znEmbeddedDbDetail
