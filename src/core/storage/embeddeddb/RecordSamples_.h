#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace znEmbeddedDbDetail {

/// Where every sixteenth record of a table lies in its block: a search in a block compares a few of these, and then
/// walks over less than sixteen records instead of some hundreds. A quarter of a byte a record.
///
/// Thread: a value. Filled block by block, record by record; then it does not change.
class RecordSamples_ {
public:
    void beginBlock() {
        firstSamples_.push_back(offsets_.size());
        recordIndex_ = 0;
    }
    /// `offset` is that of the block's next record in the payload.
    void add(std::size_t offset) {
        if (recordIndex_++ % kInterval == 0)
            offsets_.push_back(static_cast<std::uint32_t>(offset));
    }
    /// Offset of the last sampled record of the block whose key is not above `key`; that of the first record when there
    /// is none, or nothing is known about the block.
    std::size_t offsetFor(std::size_t blockIndex, std::string_view payload, std::string_view key) const noexcept;

private:
    static constexpr std::size_t kInterval = 16;

    std::vector<std::uint32_t> offsets_;
    std::vector<std::size_t> firstSamples_; // of each block, index into offsets_
    std::size_t recordIndex_ = 0;           // in the block being filled
};

} // namespace znEmbeddedDbDetail
