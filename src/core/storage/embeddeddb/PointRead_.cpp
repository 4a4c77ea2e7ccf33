#include "core/storage/embeddeddb/PointRead_.h"

#include "core/storage/embeddeddb/RecordValue_.h"

#include <utility>
#include <vector>

namespace znEmbeddedDbDetail {

namespace {

using Find = TableHandle_::Find;

ZnEmbeddedDbStatus notFound() {
    return {ZnEmbeddedDbStatus::NotFound, "no such key"}; // short enough to take no memory: misses are many
}

Find findInTables(const TableList_& tables, std::string_view key, StoreCounters_& counters, FoundRecord_* found) {
    const BloomFilter_::Hash hash = BloomFilter_::hashOf(key);
    FilterCounts_ counts;
    Find result = Find::Absent;
    for (const auto& table : tables) {
        result = table->find(key, hash, &found->record, &counts);
        found->table = table.get();
        if (result != Find::Absent)
            break;
    }
    if (counts.negativeCount != 0) // threads share these: touched once a lookup at most
        counters.bloomNegativeCount.add(counts.negativeCount);
    if (counts.falsePositiveCount != 0)
        counters.bloomFalsePositiveCount.add(counts.falsePositiveCount);
    return result;
}

ZnEmbeddedDbStatus readEntry(const MemtableEntry_& entry, ZnByteArray* value, IndexKeys_* indexKeys) {
    if (entry.tombstone)
        return notFound();
    if (value != nullptr)
        value->assign(entry.value.data(), entry.value.size());
    if (indexKeys != nullptr)
        *indexKeys = entry.indexKeys();
    return {};
}

ZnEmbeddedDbStatus readFound(const ReadView_& view, const FoundRecord_& found, ZnByteArray* value,
                             IndexKeys_* indexKeys) {
    if (found.entry != nullptr)
        return readEntry(*found.entry, value, indexKeys);
    if (found.record.type == kTombstoneRecord)
        return notFound();
    StoredValueView_ stored;
    if (!parseRecordValue(found.record, &stored))
        return unreadableValue(*found.table, found.record);
    if (value != nullptr && stored.isInline)
        value->assign(stored.value.data(), stored.value.size());
    else if (value != nullptr)
        if (ZnEmbeddedDbStatus status = view.blobs->read(stored.blob, value); !status.isOk())
            return status;
    if (indexKeys != nullptr)
        decodeIndexKeys(stored.metadata, indexKeys); // which has just been checked
    return {};
}

ZnEmbeddedDbStatus readBelowActive(const ReadView_& view, std::string_view key, ZnByteArray* value,
                                   IndexKeys_* indexKeys) {
    FoundRecord_ found;
    switch (findRecord(view, key, &found)) {
    case Find::Found: return readFound(view, found, value, indexKeys);
    case Find::Unreadable: return unreadableTable(*found.table);
    case Find::Absent: break;
    }
    return notFound();
}

/// Takes a value that was looked for, or its absence, as an answer. False for a failure.
bool takeAnswer(const ZnEmbeddedDbStatus& status, ZnByteArray value, std::optional<ZnByteArray>* answer) {
    if (status.isOk())
        *answer = std::move(value);
    return status.isOk() || status.code() == ZnEmbeddedDbStatus::NotFound;
}

} // namespace

ZnEmbeddedDbStatus unreadableTable(const TableHandle_& table) {
    return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::Corruption, "table block does not decode").at(table.path());
}

ZnEmbeddedDbStatus unreadableValue(const TableHandle_& table, const RecordView_& record) {
    return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::Corruption, "stored value does not parse")
        .at(table.placeOf(record.value));
}

TableHandle_::Find findRecord(const ReadView_& view, std::string_view key, FoundRecord_* found) {
    for (const auto& memtable : view.sealed) {
        if (const MemtableEntry_* entry = unsorted(*memtable).find(key)) {
            const std::uint32_t type = entry->tombstone ? kTombstoneRecord : kInlineRecord;
            *found = {{key, entry->sequence, type, entry->value.view()}, entry, nullptr};
            return Find::Found;
        }
    }
    found->entry = nullptr;
    if (view.tables->largestPrimaryKey.view() < key)
        return Find::Absent;
    return findInTables(view.tables->primaryView, key, *view.counters, found);
}

TableHandle_::Find findIndexRecord(const ReadView_& view, const ZnString& indexName, std::string_view indexKey,
                                   FoundRecord_* found) {
    for (const auto& memtable : view.sealed) {
        if (const IndexEntry_* entry = unsorted(*memtable).findIndex(indexName.view(), indexKey)) {
            const std::uint32_t type = entry->tombstone ? kTombstoneRecord : kInlineRecord;
            *found = {{indexKey, entry->sequence, type, {}}, nullptr, nullptr};
            return Find::Found;
        }
    }
    found->entry = nullptr;
    const auto tables = view.tables->indexViews.find(indexName);
    if (tables == view.tables->indexViews.end())
        return Find::Absent;
    return findInTables(tables->second, indexKey, *view.counters, found);
}

ZnEmbeddedDbStatus readRecord(const ReadView_& view, std::string_view key, ZnByteArray* value, IndexKeys_* indexKeys) {
    if (view.active != nullptr) {
        const MemtableReadScope_ scope(view.active->lock);
        if (const MemtableEntry_* entry = view.active->table.find(key))
            return readEntry(*entry, value, indexKeys);
    }
    return readBelowActive(view, key, value, indexKeys);
}

ZnEmbeddedDbStatus readRecords(const ReadView_& view, const ZnVector<ZnByteArray>& keys,
                               ZnVector<std::optional<ZnByteArray>>* values) {
    ZnVector<std::optional<ZnByteArray>> answers;
    std::vector<bool> isDecided(keys.size());
    for (std::size_t index = 0; index < keys.size(); ++index)
        answers.append(std::nullopt);
    if (view.active != nullptr) {
        const MemtableReadScope_ scope(view.active->lock); // once: a batch is seen as a whole or not at all
        for (std::size_t index = 0; index < keys.size(); ++index) {
            const MemtableEntry_* entry = view.active->table.find(keys[index].view());
            isDecided[index] = entry != nullptr;
            ZnByteArray value;
            if (entry != nullptr)
                if (ZnEmbeddedDbStatus status = readEntry(*entry, &value, nullptr);
                    !takeAnswer(status, std::move(value), &answers[index]))
                    return status;
        }
    }
    for (std::size_t index = 0; index < keys.size(); ++index) {
        ZnByteArray value;
        if (isDecided[index])
            continue;
        if (ZnEmbeddedDbStatus status = readBelowActive(view, keys[index].view(), &value, nullptr);
            !takeAnswer(status, std::move(value), &answers[index]))
            return status;
    }
    *values = std::move(answers);
    return {};
}

} // namespace znEmbeddedDbDetail
