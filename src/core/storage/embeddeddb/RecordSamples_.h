#pragma once

#include "core/storage/embeddeddb/KeyWord_.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace znEmbeddedDbDetail {

/// Where every eighth record of a table lies in its block: a search in a block compares a few of these, and then
/// walks over less than eight records instead of some hundreds. One and a half bytes a record.
///
/// Thread: a value. Filled block by block, record by record; then it does not change.
class RecordSamples_ {
public:
    /// The block's keys begin with the same `sharedBytes` bytes.
    void beginBlock(std::size_t sharedBytes) {
        blocks_.push_back({offsets_.size(), sharedBytes});
        recordIndex_ = 0;
    }
    /// `offset` is that of the block's next record in the payload.
    void add(std::size_t offset, std::string_view key) {
        if (recordIndex_++ % kInterval != 0)
            return;
        offsets_.push_back(static_cast<std::uint32_t>(offset));
        words_.push_back(keyWord(key, blocks_.back().sharedBytes));
    }
    /// Offset of the last sampled record of the block whose key is not above `key`, which must begin with the block's
    /// shared bytes; that of the first record when there is none, or nothing is known about the block.
    std::size_t offsetFor(std::size_t blockIndex, std::string_view payload, std::string_view key) const noexcept;

private:
    static constexpr std::size_t kInterval = 8;

    struct Block_ {
        std::size_t firstSample; // index into the two lists below
        std::size_t sharedBytes;
    };

    std::vector<Block_> blocks_;
    std::vector<std::uint32_t> offsets_;
    std::vector<std::uint64_t> words_; // of the keys at these offsets, behind the shared bytes
    std::size_t recordIndex_ = 0;      // in the block being filled
};

} // namespace znEmbeddedDbDetail
