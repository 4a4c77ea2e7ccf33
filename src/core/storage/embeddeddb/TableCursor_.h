#pragma once

#include "core/storage/embeddeddb/LittleEndian_.h"
#include "core/storage/embeddeddb/TableHandle_.h"

#include <cstddef>
#include <memory>
#include <string_view>

namespace znEmbeddedDbDetail {

/// Goes forward through the records of a table, without copies.
///
/// Thread: one at a time. Holds the table; its views are good as long as it, or anybody else, does.
class TableCursor_ {
public:
    explicit TableCursor_(std::shared_ptr<const TableHandle_> table);

    void seekToFirst();
    /// To the first record whose key is not less.
    void seek(std::string_view key);
    void next();
    /// False at the end, before any seek, and when isBroken().
    bool isValid() const noexcept { return isValid_; }
    /// A block could not be read: what came before is not all there is.
    bool isBroken() const noexcept { return isBroken_; }
    const RecordView_& record() const noexcept { return record_; }

private:
    /// To the first record of the block, or with a key, to one that does not stand behind it.
    void enterBlock_(std::size_t blockIndex, std::string_view key = std::string_view());

    std::shared_ptr<const TableHandle_> table_;
    std::size_t blockIndex_ = 0;
    ByteReader_ rest_{std::string_view()}; // of the block, behind record_
    RecordView_ record_;
    bool isValid_ = false;
    bool isBroken_ = false;
};

} // namespace znEmbeddedDbDetail
