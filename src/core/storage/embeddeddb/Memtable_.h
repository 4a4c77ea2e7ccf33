#pragma once

#include "core/storage/embeddeddb/BloomFilter_.h"
#include "core/storage/embeddeddb/MemtableArena_.h"
#include "core/storage/embeddeddb/StoredValue_.h"
#include "core/storage/embeddeddb/WalFrame_.h"
#include "core/types/ZnMap.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <memory_resource>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace znEmbeddedDbDetail {

/// One entry of a secondary index in memory.
struct IndexEntry_ {
    bool tombstone = false;
    std::uint64_t sequence = 0;
};

/// One record in memory; its value is always there.
struct MemtableEntry_ {
    bool tombstone = false;
    std::uint64_t sequence = 0;
    HeldBytes_ value;
    std::unique_ptr<const IndexKeys_> keys; // null: none

    const IndexKeys_& indexKeys() const noexcept;
};

/// Lets a map with keys in an arena be asked with a view.
struct KeyHash_ {
    using is_transparent = void;
    std::size_t operator()(std::string_view key) const noexcept {
        return static_cast<std::size_t>(BloomFilter_::firstHashOf(key));
    }
    std::size_t operator()(const HeldBytes_& key) const noexcept { return (*this)(key.view()); }
};
struct KeyEqual_ {
    using is_transparent = void;
    static std::string_view viewOf(std::string_view key) noexcept { return key; }
    static std::string_view viewOf(const HeldBytes_& key) noexcept { return key.view(); }
    template <typename Left, typename Right>
    bool operator()(const Left& left, const Right& right) const noexcept {
        return viewOf(left) == viewOf(right);
    }
};

/// The records that are in the log and not yet in tables: the newest of each key.
///
/// Thread: none of its own; whoever shares it holds a reader/writer lock. sort() counts as writing.
/// Invariant: of the entries offered for a key it holds the one with the largest sequence, of equal ones the
/// last.
class Memtable_ {
public:
    using Primary = std::pmr::unordered_map<HeldBytes_, MemtableEntry_, KeyHash_, KeyEqual_>;
    using Index = std::pmr::unordered_map<HeldBytes_, IndexEntry_, KeyHash_, KeyEqual_>;
    using Indexes = std::map<ZnString, Index, std::less<>>;
    using SortedKeys = std::vector<const Primary::value_type*>;
    using SortedIndexKeys = std::vector<const Index::value_type*>;

    /// Counted for an entry besides its keys and its value.
    static constexpr std::uint64_t kEntryBytes = 128;

    Memtable_() = default;
    Memtable_(const Memtable_&) = delete;
    Memtable_& operator=(const Memtable_&) = delete;

    /// Makes room for so many records, so that the first ones do not move again and again.
    void reserve(std::size_t recordCount) { primary_.reserve(recordCount); }
    /// Does what one operation of the log tells: the record, its secondary keys, and those that it retires.
    /// False, with nothing done, when it does not decode.
    bool apply(const WalOperation_& operation, std::uint64_t sequence);
    /// A tombstone, or an inline value.
    void insert(std::string_view key, const ValueEntry_& entry);
    void insertIndex(const ZnString& indexName, std::string_view indexKey, IndexEntry_ entry);
    /// Takes in copies of all that `source` holds.
    void merge(const Memtable_& source);

    /// Null for a key that it knows nothing about; a tombstone is an entry.
    const MemtableEntry_* find(std::string_view key) const;
    const IndexEntry_* findIndex(std::string_view indexName, std::string_view indexKey) const;
    bool isEmpty() const noexcept { return primary_.empty() && indexes_.empty(); }
    const Primary& primary() const noexcept { return primary_; }
    const Indexes& indexes() const noexcept { return indexes_; }

    /// Builds the two lists below, which are good until the next change.
    void sort();
    /// In ascending order of the keys.
    const SortedKeys& sortedKeys() const noexcept { return sortedKeys_; }
    /// Empty for an index without entries.
    const SortedIndexKeys& sortedIndexKeys(const ZnString& indexName) const noexcept;

    std::uint64_t minSequence() const noexcept { return minSequence_; } // smallest above 0
    std::uint64_t maxSequence() const noexcept { return maxSequence_; }
    /// What all entries that were ever put in took; overwritten ones are not taken off.
    std::uint64_t approximateBytes() const noexcept { return approximateBytes_; }

    std::uint64_t walId = 0; // oldest log that holds records of it; 0 for none

private:
    void put_(std::string_view key, std::string_view value, const IndexKeys_& indexKeys, bool isTombstone,
              std::uint64_t sequence);
    Index& index_(const ZnString& indexName);
    void noteEntry_(std::uint64_t sequence, std::uint64_t byteCount);

    MemtableArena_ arena_; // of all that follows it
    Primary primary_{&arena_};
    Indexes indexes_;
    std::uint64_t minSequence_ = 0;
    std::uint64_t maxSequence_ = 0;
    std::uint64_t approximateBytes_ = 0;
    SortedKeys sortedKeys_;
    ZnMap<ZnString, SortedIndexKeys> sortedIndexKeys_;
};

} // namespace znEmbeddedDbDetail
