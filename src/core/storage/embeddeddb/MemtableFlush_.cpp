#include "core/storage/embeddeddb/MemtableFlush_.h"

#include "core/fs/ZnPath.h"
#include "core/storage/embeddeddb/FileNames_.h"

#include <algorithm>
#include <set>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

/// Goes through several sorted lists at once, in the order of the keys; of equal keys it gives the entry with the
/// largest sequence, of equal sequences that of the last list. Few lists: a linear search is as good as any.
template <typename Entry>
class SortedMerge {
public:
    void add(const std::vector<const Entry*>& list) {
        if (!list.empty())
            lists_.push_back({list.data(), list.data() + list.size()});
    }
    const Entry* next() {
        if (lists_.empty())
            return nullptr;
        const Entry* newest = *lists_.front().at;
        for (const List& list : lists_) {
            const int order = &list == &lists_.front() ? 0 : (*list.at)->first.view().compare(newest->first.view());
            if (order < 0 || (order == 0 && newest->second.sequence <= (*list.at)->second.sequence))
                newest = *list.at;
        }
        for (List& list : lists_)
            if ((*list.at)->first.view() == newest->first.view())
                ++list.at;
        std::erase_if(lists_, [](const List& list) { return list.at == list.end; });
        return newest;
    }

private:
    struct List {
        const Entry* const* at;
        const Entry* const* end;
    };
    std::vector<List> lists_;
};

} // namespace

MemtableFlush_::MemtableFlush_(ZnStorageFiles& files, const StorePaths_& paths, StoreCounters_& counters,
                               Settings settings, const std::vector<MemtablePtr>& memtables)
    : files_(files), paths_(paths), counters_(counters), settings_(std::move(settings)), blobWriter_(files) {
    for (const MemtablePtr& memtable : memtables) {
        memtables_.push_back(&memtable->sealed());
        maxSequence_ = std::max(maxSequence_, memtables_.back()->maxSequence());
    }
}

ZnEmbeddedDbStatus MemtableFlush_::run() {
    if (ZnEmbeddedDbStatus status = writePrimary_(); !status.isOk())
        return status;
    std::set<ZnString> indexNames;
    for (const Memtable_* memtable : memtables_)
        for (const auto& [indexName, index] : memtable->indexes())
            indexNames.insert(indexName);
    for (const ZnString& indexName : indexNames)
        if (ZnEmbeddedDbStatus status = writeIndex_(indexName); !status.isOk())
            return status;
    return {};
}

TableMeta_ MemtableFlush_::newMeta_(std::int32_t kind, const ZnString& indexName) {
    TableMeta_ meta;
    meta.kind = kind;
    meta.level = settings_.level;
    meta.fileId = settings_.nextTableId();
    meta.indexName = indexName;
    return meta;
}

ZnEmbeddedDbStatus MemtableFlush_::writePrimary_() {
    SortedMerge<Memtable_::Primary::value_type> entries;
    for (const Memtable_* memtable : memtables_)
        entries.add(memtable->sortedKeys());
    const auto* entry = entries.next();
    if (entry == nullptr)
        return {};
    TableWriter_ writer(files_, paths_.tempDir, paths_.tablesDir, newMeta_(kPrimaryTable, {}));
    ZnEmbeddedDbStatus status = writer.open();
    for (; status.isOk() && entry != nullptr; entry = entries.next())
        status = addPrimary_(&writer, entry->first.view(), entry->second);
    if (status.isOk() && blobFileId_ != 0) // before a table that refers to it gets its name
        status = blobWriter_.flush();
    counters_.blobBytesWritten.add(blobWriter_.writtenBytes());
    return status.isOk() ? finish_(&writer, blobFileId_) : status;
}

ZnEmbeddedDbStatus MemtableFlush_::addPrimary_(TableWriter_* writer, std::string_view key,
                                               const MemtableEntry_& entry) {
    storedValue_.clear();
    if (entry.tombstone)
        return writer->add({key, entry.sequence, kTombstoneRecord, {}});
    if (entry.value.size() <= settings_.blobThresholdBytes) {
        encodeInlineValue(entry.value.view(), entry.indexKeys(), &storedValue_);
        return writer->add({key, entry.sequence, kInlineRecord, storedValue_});
    }
    BlobRef_ blob;
    if (ZnEmbeddedDbStatus status = externalizeBlobValueToFile_(entry, &blob); !status.isOk())
        return status;
    encodeBlobValue(blob, entry.indexKeys(), &storedValue_);
    return writer->add({key, entry.sequence, kBlobRecord, storedValue_});
}

ZnEmbeddedDbStatus MemtableFlush_::externalizeBlobValueToFile_(const MemtableEntry_& entry, BlobRef_* blob) {
    if (blobFileId_ == 0) {
        blobFileId_ = settings_.nextTableId();
        if (ZnEmbeddedDbStatus status = blobWriter_.open(paths_.blobsDir, blobFileId_); !status.isOk())
            return status;
    }
    return blobWriter_.append(entry.value.view(), blob);
}

ZnEmbeddedDbStatus MemtableFlush_::writeIndex_(const ZnString& indexName) {
    SortedMerge<Memtable_::Index::value_type> entries;
    for (const Memtable_* memtable : memtables_)
        entries.add(memtable->sortedIndexKeys(indexName));
    const auto* entry = entries.next();
    if (entry == nullptr)
        return {};
    TableWriter_ writer(files_, paths_.tempDir, paths_.tablesDir, newMeta_(kIndexTable, indexName));
    ZnEmbeddedDbStatus status = writer.open();
    for (; status.isOk() && entry != nullptr; entry = entries.next()) {
        const std::uint32_t type = entry->second.tombstone ? kTombstoneRecord : kInlineRecord;
        status = writer.add({entry->first.view(), entry->second.sequence, type, {}});
    }
    return status.isOk() ? finish_(&writer, 0) : status;
}

/// Gives the table its name, and reads it back as readers will.
ZnEmbeddedDbStatus MemtableFlush_::finish_(TableWriter_* writer, std::uint64_t blobFileId) {
    ZnString syncError;
    if (ZnEmbeddedDbStatus status = writer->finish(&syncError); !status.isOk())
        return status;
    TableMeta_ meta = writer->meta();
    meta.blobFileId = blobFileId;
    finishedPaths_.push_back(joinPath(paths_.tablesDir, meta.fileName));
    if (!syncError.isEmpty())
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(syncError)).at(finishedPaths_.back());
    auto table = std::make_shared<TableHandle_>();
    ZnEmbeddedDbStatus status;
    if (!table->open(files_, paths_.rootPath, meta, settings_.tableOptions, &status))
        return status.at(finishedPaths_.back());
    counters_.flushBytesWritten.add(table->fileBytes());
    tables_.push_back(std::move(table));
    return {};
}

void MemtableFlush_::removeFiles() {
    for (const ZnString& path : finishedPaths_)
        files_.remove(path);
    if (blobFileId_ != 0)
        files_.remove(joinPath(paths_.blobsDir, blobFileName(blobFileId_)));
}

} // namespace znEmbeddedDbDetail
