#pragma once

#include "core/storage/embeddeddb/LittleEndian_.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

// Sorted keys that begin with the same bytes are told apart by the eight bytes behind these, as one number: most
// comparisons then need no look at a key, which lies elsewhere in memory.
namespace znEmbeddedDbDetail {

/// Number of bytes with which both begin; all keys between the two begin with them too.
inline std::size_t commonBytes(std::string_view left, std::string_view right) noexcept {
    const auto at = std::mismatch(left.begin(), left.end(), right.begin(), right.end()).first;
    return static_cast<std::size_t>(at - left.begin());
}

/// The eight bytes behind the first `skip`, the first of them weighing most; those that the key has not count as 0. Of
/// two keys with the same first `skip` bytes, that with the smaller word is less; equal words tell nothing.
inline std::uint64_t keyWord(std::string_view key, std::size_t skip) noexcept {
    constexpr std::size_t kWordBytes = sizeof(std::uint64_t);
    if (key.size() >= skip + kWordBytes) [[likely]]
        return __builtin_bswap64(loadLe<std::uint64_t>(key.data() + skip));
    std::uint64_t word = 0;
    for (std::size_t index = skip; index < skip + kWordBytes; ++index)
        word = word << 8 | (index < key.size() ? static_cast<unsigned char>(key[index]) : 0u);
    return word;
}

} // namespace znEmbeddedDbDetail
