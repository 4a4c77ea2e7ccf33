#include "core/storage/embeddeddb/Memtable_.h"

#include "core/storage/embeddeddb/IndexKey_.h"
#include "core/storage/embeddeddb/KeyWord_.h"

#include <algorithm>
#include <string>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

/// Puts the entry in unless a newer one is there.
template <typename Map, typename Entry>
void insertNewest(Map* map, ZnByteArray key, Entry entry) {
    const auto [at, isNew] = map->try_emplace(std::move(key), std::move(entry)); // moves only into a new place
    if (!isNew && at->second.sequence <= entry.sequence)
        at->second = std::move(entry);
}

template <typename Map>
void mergeNewest(Map* target, const Map& source) {
    target->reserve(target->size() + source.size());
    for (const auto& [key, entry] : source)
        insertNewest(target, key, entry);
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

ZnByteArray indexKeyOf(std::string_view secondary, std::string_view primary) {
    std::string key;
    appendIndexKey(&key, secondary, primary);
    return ZnByteArray(key);
}

} // namespace

bool Memtable_::apply(const WalOperation_& operation, std::uint64_t sequence) {
    ValueEntry_ entry;
    RetiredKeys_ retired;
    if (!decodeRetiredKeys(operation, &retired))
        return false;
    if (!operation.isRemove &&
        (!decodeStoredValue(operation.storedValue.data(), operation.storedValue.size(), &entry) || !entry.inlineValue))
        return false;
    entry.tombstone = operation.isRemove;
    entry.sequence = sequence;
    for (const RetiredKey_& key : retired)
        insertIndex(key.indexName, indexKeyOf(key.key.view(), operation.key), {true, sequence});
    for (const auto& [indexName, keys] : entry.indexKeys)
        for (const ZnByteArray& key : keys)
            insertIndex(indexName, indexKeyOf(key.view(), operation.key), {false, sequence});
    insert(ZnByteArray(operation.key), std::move(entry));
    return true;
}

void Memtable_::noteEntry_(std::uint64_t sequence, std::uint64_t byteCount) {
    minSequence_ = smallestAboveZero(minSequence_, sequence);
    maxSequence_ = std::max(maxSequence_, sequence);
    approximateBytes_ += byteCount + kEntryBytes;
}

void Memtable_::insert(ZnByteArray key, ValueEntry_ entry) {
    std::uint64_t byteCount = key.size() + entry.value.size();
    for (const auto& [indexName, keys] : entry.indexKeys)
        for (const ZnByteArray& indexKey : keys)
            byteCount += indexKey.size();
    noteEntry_(entry.sequence, byteCount);
    insertNewest(&primary_, std::move(key), std::move(entry));
}

void Memtable_::insertIndex(const ZnString& indexName, ZnByteArray indexKey, IndexEntry_ entry) {
    noteEntry_(entry.sequence, indexKey.size());
    insertNewest(&indexes_[indexName], std::move(indexKey), entry);
}

void Memtable_::merge(const Memtable_& source) {
    walId = smallestAboveZero(walId, source.walId);
    minSequence_ = smallestAboveZero(minSequence_, source.minSequence_);
    maxSequence_ = std::max(maxSequence_, source.maxSequence_);
    approximateBytes_ += source.approximateBytes_;
    mergeNewest(&primary_, source.primary_);
    for (const auto& [indexName, index] : source.indexes_)
        mergeNewest(&indexes_[indexName], index);
}

const ValueEntry_* Memtable_::find(std::string_view key) const {
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
