#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

/// Integers of the store's files: little-endian, whatever the machine's own order is. Where the orders agree it is one
/// move; compilers do not make one of the loops.
namespace znEmbeddedDbDetail {

template <typename Unsigned>
void storeLe(char* at, Unsigned value) noexcept {
    if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(at, &value, sizeof(value));
    } else {
        for (std::size_t index = 0; index < sizeof(Unsigned); ++index)
            at[index] = static_cast<char>(static_cast<unsigned char>(value >> (8 * index)));
    }
}

template <typename Unsigned>
Unsigned loadLe(const char* at) noexcept {
    Unsigned value = 0;
    if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(&value, at, sizeof(value));
    } else {
        for (std::size_t index = 0; index < sizeof(Unsigned); ++index)
            value = static_cast<Unsigned>(value | Unsigned(static_cast<unsigned char>(at[index])) << (8 * index));
    }
    return value;
}

template <typename Unsigned>
void appendLe(std::string* out, Unsigned value) {
    char bytes[sizeof(Unsigned)];
    storeLe(bytes, value);
    out->append(bytes, sizeof(bytes));
}

/// A 32-bit length and the bytes.
inline void appendSized(std::string* out, std::string_view bytes) {
    appendLe(out, static_cast<std::uint32_t>(bytes.size()));
    out->append(bytes);
}

/// Reads fields from the front of a range and never beyond its end.
///
/// A read that does not fit gives false and leaves reader and output as they were. Views point into the range.
class ByteReader_ {
public:
    explicit ByteReader_(std::string_view bytes) noexcept : rest_(bytes) {}

    std::size_t remaining() const noexcept { return rest_.size(); }
    std::string_view rest() const noexcept { return rest_; }
    /// At most remaining().
    void skip(std::size_t byteCount) noexcept { rest_.remove_prefix(byteCount); }
    bool isAtEnd() const noexcept { return rest_.empty(); }

    template <typename Unsigned>
    bool read(Unsigned* value) noexcept {
        if (rest_.size() < sizeof(Unsigned))
            return false;
        *value = loadLe<Unsigned>(rest_.data());
        rest_.remove_prefix(sizeof(Unsigned));
        return true;
    }
    bool readBytes(std::uint64_t byteCount, std::string_view* bytes) noexcept {
        if (rest_.size() < byteCount)
            return false;
        *bytes = rest_.substr(0, static_cast<std::size_t>(byteCount));
        rest_.remove_prefix(bytes->size());
        return true;
    }
    /// What appendSized wrote.
    bool readSized(std::string_view* bytes) noexcept {
        constexpr std::size_t kLengthBytes = sizeof(std::uint32_t);
        if (rest_.size() < kLengthBytes)
            return false;
        const std::size_t byteCount = loadLe<std::uint32_t>(rest_.data());
        if (rest_.size() - kLengthBytes < byteCount)
            return false;
        *bytes = rest_.substr(kLengthBytes, byteCount);
        rest_.remove_prefix(kLengthBytes + byteCount);
        return true;
    }

private:
    std::string_view rest_;
};

} // namespace znEmbeddedDbDetail
