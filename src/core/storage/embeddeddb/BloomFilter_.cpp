#include "core/storage/embeddeddb/BloomFilter_.h"

#include <algorithm>

namespace znEmbeddedDbDetail {

namespace {

constexpr std::uint64_t kPrime = 0x100000001B3;
constexpr std::uint64_t kFirstStart = 0x14650FB0739D0383;
constexpr std::uint64_t kSecondStart = 0x100000001B3;
constexpr std::uint64_t kLeastBytes = 32;

} // namespace

BloomFilter_::Hash BloomFilter_::hashOf(std::string_view key) noexcept {
    Hash hash{kFirstStart, kSecondStart};
    for (const char c : key) {
        const auto byte = static_cast<unsigned char>(c);
        hash.first = (hash.first ^ byte) * kPrime;
        hash.second = (hash.second ^ byte) * kPrime;
    }
    return hash;
}

std::uint64_t BloomFilter_::firstHashOf(std::string_view key) noexcept {
    std::uint64_t hash = kFirstStart;
    for (const char c : key)
        hash = (hash ^ static_cast<unsigned char>(c)) * kPrime;
    return hash;
}

std::uint64_t BloomFilter_::byteLengthFor(std::uint64_t keyCount) noexcept {
    return (std::max<std::uint64_t>(keyCount * 10, kLeastBytes * 8) + 7) / 8;
}

void BloomFilter_::add(Hash hash) {
    if (bits.isEmpty()) {
        bits.append(std::string(kLeastBytes, '\0'));
        hashCount = kHashCount;
    }
    char* bytes = &bits[0];
    const std::uint64_t bitCount = bits.size() * 8;
    for (std::uint32_t index = 0; index < hashCount; ++index, hash.first += hash.second) {
        const std::uint64_t bit = hash.first % bitCount;
        bytes[bit >> 3] = static_cast<char>(bytes[bit >> 3] | (1 << (bit & 7)));
    }
}

bool BloomFilter_::mayContain(Hash hash) const noexcept {
    if (bits.isEmpty())
        return true;
    const char* bytes = bits.data();
    const std::uint64_t bitCount = bits.size() * 8;
    for (std::uint32_t index = 0; index < hashCount; ++index, hash.first += hash.second) {
        const std::uint64_t bit = hash.first % bitCount;
        if ((static_cast<unsigned char>(bytes[bit >> 3]) & (1u << (bit & 7))) == 0)
            return false;
    }
    return true;
}

} // namespace znEmbeddedDbDetail
