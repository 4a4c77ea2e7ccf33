#pragma once

#include "core/storage/embeddeddb/PointRead_.h"
#include "core/storage/embeddeddb/ReadView_.h"
#include "core/storage/embeddeddb/RecordMerge_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDb.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace znEmbeddedDbDetail {

/// Iterators over a view, which must be one without an active memtable. They begin on their first record.
ZnEmbeddedDbIterator openScan(ReadViewPtr_ view, const ZnEmbeddedDbRange& range);
ZnEmbeddedDbIterator openIndexLookup(ReadViewPtr_ view, const ZnString& indexName, std::string_view secondaryKey);
ZnEmbeddedDbIterator openIndexScan(ReadViewPtr_ view, const ZnString& indexName,
                                   const ZnEmbeddedDbRange& secondaryKeys);

/// Sources of a merge, in the order of the view: of its primary records, and of one index.
std::vector<MergeSource_> primarySources(const ReadView_& view);
std::vector<MergeSource_> indexSources(const ReadView_& view, const ZnString& indexName);

/// Whether a record has that secondary key. False also for a tombstone, and for a stored value that does not parse.
bool recordHasIndexKey(const FoundRecord_& found, std::string_view indexName, std::string_view secondaryKey) noexcept;

/// What an iterator does: goes from one record that is to be seen to the next.
///
/// Every hit of an index is checked, as its entries may be older than the records they lead to.
/// Thread: one at a time. Owner: a ZnEmbeddedDbIterator. Keeps the view alive, in whose memory keys and inline values
/// lie.
class IteratorCore_ {
public:
    /// Which records, and how. Thread: a value.
    struct Plan {
        ZnString indexName; // empty: the records themselves, in the order of their keys
        KeyBounds_ bounds;  // of the keys, or of the index keys
        bool isReverse = false;
        std::uint64_t limit = 0;
        bool keysOnly = false;
    };

    IteratorCore_(ReadViewPtr_ view, Plan plan);

    bool isValid() const noexcept { return isValid_; }
    void next();
    std::string_view key() const noexcept { return record_->key; }
    std::string_view value() const noexcept { return value_; }
    std::uint64_t sequence() const noexcept { return record_->sequence; }
    IndexKeys_ indexKeys() const;
    std::string_view secondaryKey() const noexcept { return secondaryKey_; }
    const ZnEmbeddedDbStatus& status() const noexcept { return status_; }

private:
    void settle_();
    bool findIndexed_();
    bool takeRecord_(const RecordView_& record, const MemtableEntry_* entry, const TableHandle_* table);
    bool takeBlob_(const BlobRef_& blob);
    bool fail_(ZnEmbeddedDbStatus status);

    const ReadViewPtr_ view_;
    const ZnString indexName_;
    const bool keysOnly_;
    std::uint64_t left_; // records that may still be given, this one included
    RecordMerge_ merge_;
    bool isValid_ = false;
    const RecordView_* record_ = nullptr;   // on which it stands: the merge's, or that of found_
    const MemtableEntry_* entry_ = nullptr; // of the record, when it is in memory
    FoundRecord_ found_;                    // to which an index led
    std::string_view metadata_;             // of the record, when it is in a table
    std::string_view value_;
    ZnByteArray blobValue_; // what value_ is a view of, when it lies in a blob file
    std::string secondaryKey_;
    ZnEmbeddedDbStatus status_;
};

} // namespace znEmbeddedDbDetail
