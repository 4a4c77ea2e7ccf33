#pragma once

#include "core/storage/embeddeddb/TableHandle_.h"
#include "core/types/ZnAssert.h"

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

namespace znEmbeddedDbDetail {

/// Goes through the records of a table, either way, without copies.
///
/// Records lie one behind the other without a way back, so going back takes a list of where those in front are in the
/// block; it is made once a block, and grows only as far as needed.
/// Thread: one at a time. Holds the table; its views are good as long as it, or anybody else, does.
class TableCursor_ {
public:
    explicit TableCursor_(std::shared_ptr<const TableHandle_> table);

    void seekToFirst();
    void seekToLast();
    /// To the first record whose key is not less.
    void seek(std::string_view key);
    /// To the last record whose key is less.
    void seekBefore(std::string_view key);
    /// Both only while isValid().
    void next() {
        ZN_DEBUG_ASSERT(isValid_);
        if (nextOffset_ < payload_.size())
            readAt_(nextOffset_);
        else
            enterNextBlock_();
    }
    void previous() {
        ZN_DEBUG_ASSERT(isValid_);
        const bool isListed = listIndex_ < offsets_.size() && offsets_[listIndex_] == offset_;
        if (isListed && listIndex_ > 0)
            readAt_(offsets_[--listIndex_]);
        else
            stepBack_();
    }
    /// False beyond either end, before any seek, and when isBroken().
    bool isValid() const noexcept { return isValid_; }
    /// A block could not be read: what came before is not all there is.
    bool isBroken() const noexcept { return isBroken_; }
    const RecordView_& record() const noexcept { return record_; }
    const TableHandle_& table() const noexcept { return *table_; }

private:
    bool enterBlock_(std::size_t blockIndex);
    void enterNextBlock_();
    void stepBack_();
    void readAt_(std::size_t offset) {
        ByteReader_ reader(payload_.substr(offset));
        isValid_ = readRecord(&reader, &record_);
        isBroken_ = !isValid_;
        offset_ = offset;
        nextOffset_ = payload_.size() - reader.remaining();
    }
    void readBefore_(std::size_t offset);

    std::shared_ptr<const TableHandle_> table_;
    std::size_t blockIndex_ = 0;
    std::string_view payload_;         // of the block
    std::size_t offset_ = 0;           // of record_ in it
    std::size_t nextOffset_ = 0;       // behind record_
    std::vector<std::size_t> offsets_; // of the block's records in front of listedTo_
    std::size_t listedTo_ = 0;
    std::size_t listIndex_ = 0; // of offset_ in the list, when that is what stands there
    RecordView_ record_;
    bool isValid_ = false;
    bool isBroken_ = false;
};

} // namespace znEmbeddedDbDetail
