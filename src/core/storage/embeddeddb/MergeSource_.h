#pragma once

#include "core/storage/embeddeddb/KeyBounds_.h"
#include "core/storage/embeddeddb/Memtable_.h"
#include "core/storage/embeddeddb/TableCursor_.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>

namespace znEmbeddedDbDetail {

/// One sorted source of a merge: a table, or what a sealed memtable holds of records or of one index.
///
/// Goes one way through the keys within bounds. No virtual calls: a scan asks for every record. A table whose first key
/// in that direction is known without reading stands in front of it, and touches no block before load().
/// Thread: one at a time; not moved after begin(). Owner: a RecordMerge_, which lives no longer than the view that the
/// source is of.
class MergeSource_ {
public:
    explicit MergeSource_(std::shared_ptr<const TableHandle_> table) : table_(std::move(table)) {}
    explicit MergeSource_(const Memtable_::SortedKeys& records) : records_(&records) {}
    explicit MergeSource_(const Memtable_::SortedIndexKeys& indexEntries) : indexEntries_(&indexEntries) {}

    /// Goes to the first record in `bounds`, which must outlive the source; the last one with `isReverse`.
    void begin(const KeyBounds_& bounds, bool isReverse);
    /// False past the last record in bounds, and when isBroken().
    bool isValid() const noexcept { return isValid_; }
    /// A block of the table could not be read.
    bool isBroken() const noexcept { return cursor_.has_value() && cursor_->isBroken(); }
    /// The rest only while isValid(). A record must be loaded before more than its key is used, and before advance().
    void load() {
        if (isLazy_)
            readFirst_();
    }
    void advance() {
        if (cursor_.has_value())
            advanceCursor_();
        else
            advancePosition_();
    }
    std::string_view key() const noexcept { return record_->key; }
    /// The value of a memtable's is the user's, of a table's the stored one; of an index it is empty.
    const RecordView_& record() const noexcept { return *record_; }
    /// Null unless it is a primary record of a memtable.
    const MemtableEntry_* entry() const noexcept { return entry_; }
    /// Null unless it is of a table.
    const TableHandle_* table() const noexcept { return table_.get(); }

    /// The smallest and the largest key, whatever the bounds. Only for sources that are not empty.
    std::string_view firstKey() const noexcept;
    std::string_view lastKey() const noexcept;
    bool isEmpty() const noexcept { return table_ != nullptr ? table_->sparseIndex().empty() : listSize_() == 0; }

private:
    void beginTable_(const KeyBounds_& bounds);
    void beginList_(const KeyBounds_& bounds);
    void beginLazily_(std::string_view key);
    void readFirst_();
    void advanceCursor_() {
        if (isReverse_)
            cursor_->previous();
        else
            cursor_->next();
        takeCursor_();
    }
    void takeCursor_() {
        isValid_ = cursor_->isValid();
        if (isValid_ && checksBound_)
            isValid_ = isReverse_ ? bound_ <= record_->key : record_->key < bound_;
    }
    void advancePosition_() {
        --left_;
        position_ += isReverse_ ? std::size_t(-1) : std::size_t(1);
        takePosition_();
    }
    void takePosition_() noexcept;
    std::size_t listSize_() const noexcept { return records_ != nullptr ? records_->size() : indexEntries_->size(); }
    std::string_view keyAt_(std::size_t position) const noexcept {
        return records_ != nullptr ? (*records_)[position]->first.view() : (*indexEntries_)[position]->first.view();
    }
    std::size_t positionOf_(std::string_view key) const noexcept;

    std::shared_ptr<const TableHandle_> table_;                // or
    const Memtable_::SortedKeys* records_ = nullptr;           // or
    const Memtable_::SortedIndexKeys* indexEntries_ = nullptr; // exactly one of the three
    RecordView_ ownRecord_;               // of a list, or the key alone of a table that has not been read
    const RecordView_* record_ = nullptr; // ownRecord_, or that of the cursor: copying it costs more than reading it
    const MemtableEntry_* entry_ = nullptr;
    bool isValid_ = false;
    bool isLazy_ = false; // there is a key alone, and the cursor has not been placed
    bool isReverse_ = false;
    bool checksBound_ = false; // the table has keys beyond `bound_`
    std::string_view bound_;   // where it ends; in reverse it is included
    std::optional<TableCursor_> cursor_;
    std::size_t position_ = 0; // in a list
    std::size_t left_ = 0;     // of a list, `position_` included
};

} // namespace znEmbeddedDbDetail
