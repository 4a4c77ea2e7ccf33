#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// The records that every store gets: keys of 16 digits in the order of their numbers, values of one size that a
/// compressor would halve. The same in every run.
///
/// Thread: any, once made.
class Records {
public:
    using Key = std::array<char, 16>;

    Records(std::uint32_t recordCount, std::size_t valueBytes);

    std::uint32_t count() const { return count_; }
    std::size_t recordBytes() const { return sizeof(Key) + valueBytes_; }
    std::uint64_t totalBytes() const { return std::uint64_t{count_} * recordBytes(); }
    static Key key(std::uint32_t record) { return digits_(2 * std::uint64_t{record}); }
    /// A key between those that are there.
    static Key missingKey(std::uint32_t record) { return digits_(2 * std::uint64_t{record} + 1); }
    std::string_view value(std::uint32_t record) const;
    /// The numbers of all records, shuffled.
    std::vector<std::uint32_t> shuffled() const;

private:
    static Key digits_(std::uint64_t number);

    const std::uint32_t count_;
    const std::size_t valueBytes_;
    std::string pool_; // values are pieces of it
};

inline std::string_view viewOf(const Records::Key& key) {
    return {key.data(), key.size()};
}
