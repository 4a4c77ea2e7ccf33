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
    if (blockIndex >= firstSamples_.size())
        return 0;
    const auto begin = offsets_.begin() + static_cast<std::ptrdiff_t>(firstSamples_[blockIndex]);
    const auto end = blockIndex + 1 == firstSamples_.size()
                         ? offsets_.end()
                         : offsets_.begin() + static_cast<std::ptrdiff_t>(firstSamples_[blockIndex + 1]);
    const auto behind = std::upper_bound(begin, end, key, [&](std::string_view sought, std::uint32_t offset) {
        return sought < keyAt(payload, offset);
    });
    return behind == begin ? 0 : std::min<std::size_t>(*(behind - 1), payload.size());
}

} // namespace znEmbeddedDbDetail
