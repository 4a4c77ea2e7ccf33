#pragma once

#include "core/types/ZnByteArray.h"

#include <cstdint>
#include <string_view>

namespace znEmbeddedDbDetail {

/// Rules out keys that a table does not hold: `mayContain` is true for every key that was added, and for about one in a
/// hundred others.
///
/// Thread: a value; any may ask while nobody adds.
struct BloomFilter_ {
    /// Two hashes of a key, from which all its bits follow.
    struct Hash {
        std::uint64_t first;
        std::uint64_t second;
    };

    static constexpr std::uint32_t kHashCount = 6;

    static Hash hashOf(std::string_view key) noexcept;
    /// The first of the two alone.
    static std::uint64_t firstHashOf(std::string_view key) noexcept;
    /// 10 bits a key, 256 bits at least.
    static std::uint64_t byteLengthFor(std::uint64_t keyCount) noexcept;

    /// Makes a filter without bits one of 32 bytes first.
    void add(std::string_view key) { add(hashOf(key)); }
    void add(Hash hash);
    /// A filter without bits rules nothing out.
    bool mayContain(std::string_view key) const noexcept { return mayContain(hashOf(key)); }
    bool mayContain(Hash hash) const noexcept;

    ZnByteArray bits;
    std::uint32_t hashCount = kHashCount;
};

} // namespace znEmbeddedDbDetail
