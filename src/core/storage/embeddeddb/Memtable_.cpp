#include "core/storage/embeddeddb/Memtable_.h"

#include "core/storage/embeddeddb/IndexKey_.h"
#include "core/storage/embeddeddb/KeyWord_.h"

#include "core/types/ZnAssert.h"

#include <algorithm>
#include <string>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

/// The place of an entry with that key and sequence; null when a newer one is there.
template <typename Map>
typename Map::mapped_type* placeFor(Map* map, MemtableArena_* arena, std::string_view key, std::uint64_t sequence) {
    const auto [at, isNew] = map->try_emplace(HeldBytes_(key));
    if (isNew)
        at->first.moveTo(arena->hold(key).data());
    else if (at->second.sequence > sequence)
        return nullptr;
    return &at->second;
}

template <typename Map>
std::vector<const typename Map::value_type*> sortedEntries(const Map& map) {
    struct Item {
        std::uint64_t word;
        const typename Map::value_type* entry;
    };
    std::vector<Item> items;
    items.reserve(map.size());
    std::size_t skip = map.empty() ? 0 : map.begin()->first.size();
    for (const auto& entry : map)
        skip = std::min(skip, commonBytes(map.begin()->first.view(), entry.first.view()));
    for (const auto& entry : map)
        items.push_back({keyWord(entry.first.view(), skip), &entry});
    std::sort(items.begin(), items.end(), [](const Item& left, const Item& right) {
        return left.word != right.word ? left.word < right.word : left.entry->first.view() < right.entry->first.view();
    });
    std::vector<const typename Map::value_type*> sorted;
    sorted.reserve(items.size());
    for (const Item& item : items)
        sorted.push_back(item.entry);
    return sorted;
}

std::uint64_t smallestAboveZero(std::uint64_t left, std::uint64_t right) {
    return left == 0 || right == 0 ? std::max(left, right) : std::min(left, right);
}

std::uint64_t bytesOf(const IndexKeys_& indexKeys) {
    std::uint64_t byteCount = 0;
    for (const auto& [indexName, keys] : indexKeys)
        for (const ZnByteArray& key : keys)
            byteCount += key.size();
    return byteCount;
}

} // namespace

const IndexKeys_& MemtableEntry_::indexKeys() const noexcept {
    static const IndexKeys_ kNone;
    return keys == nullptr ? kNone : *keys;
}

bool Memtable_::apply(const WalOperation_& operation, std::uint64_t sequence) {
    StoredValueView_ stored;
    IndexKeys_ indexKeys;
    RetiredKeys_ retired;
    if (!decodeRetiredKeys(operation, &retired))
        return false;
    if (!operation.isRemove && (!parseStoredValue(operation.storedValue, &stored) || !stored.isInline ||
                                !decodeIndexKeys(stored.metadata, &indexKeys)))
        return false;
    std::string indexKey;
    for (const RetiredKey_& key : retired) {
        indexKey.clear();
        appendIndexKey(&indexKey, key.key.view(), operation.key);
        insertIndex(key.indexName, indexKey, {true, sequence});
    }
    for (const auto& [indexName, keys] : indexKeys) {
        for (const ZnByteArray& key : keys) {
            indexKey.clear();
            appendIndexKey(&indexKey, key.view(), operation.key);
            insertIndex(indexName, indexKey, {false, sequence});
        }
    }
    put_(operation.key, stored.value, indexKeys, operation.isRemove, sequence);
    return true;
}

void Memtable_::noteEntry_(std::uint64_t sequence, std::uint64_t byteCount) {
    minSequence_ = smallestAboveZero(minSequence_, sequence);
    maxSequence_ = std::max(maxSequence_, sequence);
    approximateBytes_ += byteCount + kEntryBytes;
}

void Memtable_::insert(std::string_view key, const ValueEntry_& entry) {
    ZN_ASSERT(entry.tombstone || entry.inlineValue);
    put_(key, entry.value.view(), entry.indexKeys, entry.tombstone, entry.sequence);
}

void Memtable_::put_(std::string_view key, std::string_view value, const IndexKeys_& indexKeys, bool isTombstone,
                     std::uint64_t sequence) {
    noteEntry_(sequence, key.size() + value.size() + bytesOf(indexKeys));
    MemtableEntry_* entry = placeFor(&primary_, &arena_, key, sequence);
    if (entry == nullptr)
        return;
    entry->tombstone = isTombstone;
    entry->sequence = sequence;
    entry->value = arena_.hold(value);
    entry->keys = indexKeys.isEmpty() ? nullptr : std::make_unique<const IndexKeys_>(indexKeys);
}

Memtable_::Index& Memtable_::index_(const ZnString& indexName) {
    return indexes_.try_emplace(indexName, &arena_).first->second;
}

void Memtable_::insertIndex(const ZnString& indexName, std::string_view indexKey, IndexEntry_ entry) {
    noteEntry_(entry.sequence, indexKey.size());
    if (IndexEntry_* place = placeFor(&index_(indexName), &arena_, indexKey, entry.sequence))
        *place = entry;
}

void Memtable_::merge(const Memtable_& source) {
    walId = smallestAboveZero(walId, source.walId);
    minSequence_ = smallestAboveZero(minSequence_, source.minSequence_);
    maxSequence_ = std::max(maxSequence_, source.maxSequence_);
    const std::uint64_t byteCount = approximateBytes_ + source.approximateBytes_;
    for (const auto& [key, entry] : source.primary_)
        put_(key.view(), entry.value.view(), entry.indexKeys(), entry.tombstone, entry.sequence);
    for (const auto& [indexName, index] : source.indexes_)
        for (const auto& [key, entry] : index)
            insertIndex(indexName, key.view(), entry);
    approximateBytes_ = byteCount; // overwritten entries included, as before
}

const MemtableEntry_* Memtable_::find(std::string_view key) const {
    const auto at = primary_.find(key);
    return at == primary_.end() ? nullptr : &at->second;
}

const IndexEntry_* Memtable_::findIndex(std::string_view indexName, std::string_view indexKey) const {
    const auto index = indexes_.find(indexName);
    if (index == indexes_.end())
        return nullptr;
    const auto at = index->second.find(indexKey);
    return at == index->second.end() ? nullptr : &at->second;
}

void Memtable_::sort() {
    sortedKeys_ = sortedEntries(primary_);
    for (const auto& [indexName, index] : indexes_)
        sortedIndexKeys_[indexName] = sortedEntries(index);
}

const Memtable_::SortedIndexKeys& Memtable_::sortedIndexKeys(const ZnString& indexName) const noexcept {
    static const SortedIndexKeys kNone;
    const auto at = sortedIndexKeys_.find(indexName);
    return at == sortedIndexKeys_.end() ? kNone : at->second;
}

} // namespace znEmbeddedDbDetail
