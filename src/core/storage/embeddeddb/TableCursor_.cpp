#include "core/storage/embeddeddb/TableCursor_.h"

#include <algorithm>
#include <utility>

namespace znEmbeddedDbDetail {

TableCursor_::TableCursor_(std::shared_ptr<const TableHandle_> table) : table_(std::move(table)) {}

void TableCursor_::seekToFirst() {
    if (enterBlock_(0))
        readAt_(0);
}

void TableCursor_::seekToLast() {
    const std::size_t blockCount = table_->sparseIndex().size();
    if (enterBlock_(blockCount == 0 ? 0 : blockCount - 1))
        readBefore_(payload_.size());
}

void TableCursor_::seek(std::string_view key) {
    const std::size_t blockIndex = table_->blockIndexFor(key);
    if (enterBlock_(blockIndex))
        readAt_(table_->searchOffset(key, blockIndex, payload_));
    while (isValid_ && record_.key < key)
        next();
}

void TableCursor_::seekBefore(std::string_view key) {
    seek(key);
    if (isValid_)
        previous();
    else if (!isBroken_)
        seekToLast();
}

void TableCursor_::enterNextBlock_() {
    if (enterBlock_(blockIndex_ + 1))
        readAt_(0);
}

void TableCursor_::stepBack_() {
    if (offset_ > 0)
        readBefore_(offset_);
    else if (blockIndex_ == 0)
        isValid_ = false;
    else if (enterBlock_(blockIndex_ - 1))
        readBefore_(payload_.size());
}

/// Leaves the cursor without a record. False when there is no such block, or it cannot be read.
bool TableCursor_::enterBlock_(std::size_t blockIndex) {
    isValid_ = false;
    isBroken_ = false;
    blockIndex_ = blockIndex;
    offsets_.clear();
    listedTo_ = 0;
    if (blockIndex >= table_->sparseIndex().size())
        return false;
    isBroken_ = !table_->blockPayload(table_->sparseIndex()[blockIndex], &payload_);
    return !isBroken_;
}

/// To the last record in front of `offset`, which is that of a record, or the end of the block.
void TableCursor_::readBefore_(std::size_t offset) {
    for (isValid_ = true; isValid_ && listedTo_ < offset; listedTo_ = nextOffset_) {
        readAt_(listedTo_);
        offsets_.push_back(listedTo_);
    }
    const auto at = std::lower_bound(offsets_.begin(), offsets_.end(), offset);
    isBroken_ = !isValid_ || at == offsets_.begin(); // a block without records is none
    isValid_ = !isBroken_;
    if (!isValid_)
        return;
    listIndex_ = static_cast<std::size_t>(at - offsets_.begin()) - 1;
    readAt_(offsets_[listIndex_]);
}

} // namespace znEmbeddedDbDetail
