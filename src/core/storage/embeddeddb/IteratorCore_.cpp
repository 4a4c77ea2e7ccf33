#include "core/storage/embeddeddb/IteratorCore_.h"

#include "core/storage/embeddeddb/IndexKey_.h"
#include "core/storage/embeddeddb/Manifest_.h"
#include "core/storage/embeddeddb/RecordValue_.h"
#include "core/types/ZnAssert.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

std::vector<MergeSource_> sourcesOf(const ReadView_& view, const ZnString& indexName) {
    return indexName.isEmpty() ? primarySources(view) : indexSources(view, indexName);
}

ZnEmbeddedDbIterator iteratorOf(ReadViewPtr_ view, IteratorCore_::Plan plan) {
    ZN_ASSERT(view->active == nullptr);
    return ZnEmbeddedDbIterator(std::make_unique<IteratorCore_>(std::move(view), std::move(plan)));
}

ZnEmbeddedDbIterator indexIteratorOf(ReadViewPtr_ view, IteratorCore_::Plan plan) {
    if (isIndexName(plan.indexName.view()))
        return iteratorOf(std::move(view), std::move(plan));
    return ZnEmbeddedDbIterator(
        ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::InvalidArgument, "no name of an index: \"" + plan.indexName + "\""));
}

/// Of the source that holds the record on which the merge stands.
ZnString placeOf(const RecordMerge_& merge) {
    const TableHandle_* table = merge.source().table();
    return table == nullptr ? ZnString("memory") : table->placeOf(merge.record().key);
}

} // namespace

ZnEmbeddedDbIterator openScan(ReadViewPtr_ view, const ZnEmbeddedDbRange& range) {
    return iteratorOf(std::move(view), {"", boundsOf(range), range.reverse, range.limit, range.keysOnly});
}

ZnEmbeddedDbIterator openIndexLookup(ReadViewPtr_ view, const ZnString& indexName, std::string_view secondaryKey) {
    return indexIteratorOf(std::move(view), {indexName, indexBoundsOf(secondaryKey), false,
                                             std::numeric_limits<std::uint64_t>::max(), false});
}

ZnEmbeddedDbIterator openIndexScan(ReadViewPtr_ view, const ZnString& indexName,
                                   const ZnEmbeddedDbRange& secondaryKeys) {
    return indexIteratorOf(std::move(view), {indexName, indexBoundsOf(secondaryKeys), secondaryKeys.reverse,
                                             secondaryKeys.limit, secondaryKeys.keysOnly});
}

std::vector<MergeSource_> primarySources(const ReadView_& view) {
    std::vector<MergeSource_> sources;
    for (const auto& memtable : view.sealed)
        sources.emplace_back(memtable->sealed().sortedKeys());
    for (const auto& table : view.tables->primaryView)
        sources.emplace_back(table);
    return sources;
}

std::vector<MergeSource_> indexSources(const ReadView_& view, const ZnString& indexName) {
    std::vector<MergeSource_> sources;
    for (const auto& memtable : view.sealed)
        sources.emplace_back(memtable->sealed().sortedIndexKeys(indexName));
    if (const auto tables = view.tables->indexViews.find(indexName); tables != view.tables->indexViews.end())
        for (const auto& table : tables->second)
            sources.emplace_back(table);
    return sources;
}

bool recordHasIndexKey(const FoundRecord_& found, std::string_view indexName, std::string_view secondaryKey) noexcept {
    if (found.record.type == kTombstoneRecord)
        return false;
    if (found.entry == nullptr) {
        StoredValueView_ stored;
        return parseRecordValue(found.record, &stored) && hasIndexKey(stored.metadata, indexName, secondaryKey);
    }
    const IndexKeys_& indexKeys = found.entry->indexKeys();
    const auto keys = indexKeys.find(indexName);
    return keys != indexKeys.end() && std::any_of(keys->second.begin(), keys->second.end(),
                                                  [&](const ZnByteArray& key) { return key.view() == secondaryKey; });
}

IteratorCore_::IteratorCore_(ReadViewPtr_ view, Plan plan)
    : view_(std::move(view)),
      indexName_(std::move(plan.indexName)),
      keysOnly_(plan.keysOnly),
      left_(plan.limit),
      merge_(sourcesOf(*view_, indexName_), std::move(plan.bounds), plan.isReverse) {
    if (left_ > 0)
        settle_();
}

void IteratorCore_::next() {
    ZN_DEBUG_ASSERT(isValid_);
    isValid_ = false;
    if (--left_ == 0)
        return; // without looking for a record that nobody will see
    merge_.advanceKey();
    settle_();
}

/// From where the merge stands to the first record that is to be seen.
void IteratorCore_::settle_() {
    for (; merge_.isValid(); merge_.advanceKey()) {
        if (merge_.record().type == kTombstoneRecord)
            continue;
        if (indexName_.isEmpty()) {
            const MergeSource_& source = merge_.source();
            isValid_ = takeRecord_(source.record(), source.entry(), source.table());
            return;
        }
        const bool isLive = findIndexed_();
        isValid_ = isLive && takeRecord_(found_.record, found_.entry, found_.table);
        if (isLive || !status_.isOk())
            return;
    }
    if (merge_.broken() != nullptr)
        fail_(unreadableTable(*merge_.broken()->table()));
}

/// The primary record to which the index entry leads. False, with status_ Ok, for an entry that is stale.
bool IteratorCore_::findIndexed_() {
    std::string_view primary;
    if (!splitIndexKey(merge_.record().key, &secondaryKey_, &primary))
        return fail_(
            ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::Corruption, "index key does not come apart").at(placeOf(merge_)));
    switch (findRecord(*view_, primary, &found_)) {
    case TableHandle_::Find::Absent: return false;
    case TableHandle_::Find::Unreadable: return fail_(unreadableTable(*found_.table));
    case TableHandle_::Find::Found: break;
    }
    if (recordHasIndexKey(found_, indexName_.view(), secondaryKey_))
        return true;
    StoredValueView_ stored;
    if (found_.record.type != kTombstoneRecord && found_.entry == nullptr && !parseRecordValue(found_.record, &stored))
        return fail_(unreadableValue(*found_.table, found_.record)); // not known to be stale
    return false;
}

/// Parses also when only keys are asked for: a record that cannot be one must not be told of.
bool IteratorCore_::takeRecord_(const RecordView_& record, const MemtableEntry_* entry, const TableHandle_* table) {
    record_ = &record;
    entry_ = entry;
    if (entry != nullptr) {
        value_ = keysOnly_ ? std::string_view() : record.value;
        return true;
    }
    StoredValueView_ stored;
    if (!parseRecordValue(record, &stored))
        return fail_(unreadableValue(*table, record));
    metadata_ = stored.metadata;
    value_ = keysOnly_ ? std::string_view() : stored.value;
    return stored.isInline || keysOnly_ || takeBlob_(stored.blob);
}

bool IteratorCore_::takeBlob_(const BlobRef_& blob) {
    if (ZnEmbeddedDbStatus status = view_->blobs->read(blob, &blobValue_); !status.isOk())
        return fail_(std::move(status));
    value_ = blobValue_.view();
    return true;
}

bool IteratorCore_::fail_(ZnEmbeddedDbStatus status) {
    status_ = std::move(status);
    return false;
}

IndexKeys_ IteratorCore_::indexKeys() const {
    if (entry_ != nullptr)
        return entry_->indexKeys();
    IndexKeys_ keys;
    decodeIndexKeys(metadata_, &keys); // which takeRecord_() has checked
    return keys;
}

} // namespace znEmbeddedDbDetail
