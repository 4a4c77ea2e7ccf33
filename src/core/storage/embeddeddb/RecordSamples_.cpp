#include "core/storage/embeddeddb/RecordSamples_.h"

#include "core/storage/embeddeddb/LittleEndian_.h"

#include <algorithm>

namespace znEmbeddedDbDetail {

namespace {

/// Empty for an offset that is none of this payload's: the file changed after it was checked.
std::string_view keyAt(std::string_view payload, std::size_t offset) noexcept {
    ByteReader_ reader(payload.substr(std::min(offset, payload.size())));
    std::string_view key;
    return reader.readSized(&key) ? key : std::string_view();
}

} // namespace

std::size_t RecordSamples_::offsetFor(std::size_t blockIndex, std::string_view payload,
                                      std::string_view key) const noexcept {
    if (blockIndex >= blocks_.size())
        return 0;
    const auto [first, sharedBytes] = blocks_[blockIndex];
    const std::size_t end = blockIndex + 1 == blocks_.size() ? offsets_.size() : blocks_[blockIndex + 1].firstSample;
    const auto at = [](const auto& list, std::size_t index) {
        return list.begin() + static_cast<std::ptrdiff_t>(index);
    };
    const auto equal = std::equal_range(at(words_, first), at(words_, end), keyWord(key, sharedBytes));
    const auto behind = std::upper_bound(
        at(offsets_, static_cast<std::size_t>(equal.first - words_.begin())),
        at(offsets_, static_cast<std::size_t>(equal.second - words_.begin())), key,
        [&](std::string_view sought, std::uint32_t offset) { return sought < keyAt(payload, offset); });
    return behind == at(offsets_, first) ? 0 : std::min<std::size_t>(*(behind - 1), payload.size());
}

} // namespace znEmbeddedDbDetail
