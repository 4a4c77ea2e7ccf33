#include "core/storage/embeddeddb/TableCursor_.h"

#include "core/types/ZnAssert.h"

#include <utility>

namespace znEmbeddedDbDetail {

TableCursor_::TableCursor_(std::shared_ptr<const TableHandle_> table) : table_(std::move(table)) {}

void TableCursor_::seekToFirst() {
    enterBlock_(0);
}

void TableCursor_::seek(std::string_view key) {
    enterBlock_(table_->blockIndexFor(key), key);
    while (isValid_ && record_.key < key)
        next();
}

void TableCursor_::enterBlock_(std::size_t blockIndex, std::string_view key) {
    isValid_ = false;
    isBroken_ = false;
    blockIndex_ = blockIndex;
    if (blockIndex >= table_->sparseIndex().size())
        return;
    std::string_view records;
    isBroken_ = !table_->blockTailFor(key, blockIndex, &records); // the empty key stands in front of all
    if (isBroken_)
        return;
    rest_ = ByteReader_(records);
    isValid_ = readRecord(&rest_, &record_);
    isBroken_ = !isValid_;
}

void TableCursor_::next() {
    ZN_ASSERT(isValid_);
    if (rest_.isAtEnd()) {
        enterBlock_(blockIndex_ + 1);
        return;
    }
    isValid_ = readRecord(&rest_, &record_);
    isBroken_ = !isValid_;
}

} // namespace znEmbeddedDbDetail
