#pragma once

#include "core/types/ZnString.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Growable bytes with a null flag, NUL-terminated behind the size.
///
/// Null (default-constructed, or moved from) differs from empty; every mutation leaves the null state.
/// Bytes are taken from the front in amortised linear time (consumeFront), so it serves as a stream buffer.
/// Thread: a value. Misuse throws std::invalid_argument or std::out_of_range.
class ZnByteArray {
public:
    ZnByteArray() noexcept = default;
    ZnByteArray(const ZnString& text);
    explicit ZnByteArray(std::string_view bytes);
    explicit ZnByteArray(const std::string& bytes) : ZnByteArray(std::string_view(bytes)) {}
    /// Up to its NUL; a null pointer counts as empty.
    explicit ZnByteArray(const char* text)
        : ZnByteArray(text == nullptr ? std::string_view("") : std::string_view(text)) {}
    ZnByteArray(const char* data, std::size_t byteCount);
    ZnByteArray(const ZnByteArray& other);
    ZnByteArray(ZnByteArray&& other) noexcept;
    ZnByteArray& operator=(const ZnByteArray& other);
    ZnByteArray& operator=(ZnByteArray&& other) noexcept;
    ~ZnByteArray() = default;

    void assign(const char* data, std::size_t byteCount);
    void append(const char* data, std::size_t byteCount);
    void append(std::string_view bytes) { append(bytes.data(), bytes.size()); }
    void append(const ZnByteArray& other) { append(other.view()); }
    /// The source may lie inside this array. A position at or past size() appends.
    void insert(std::size_t position, const char* data, std::size_t byteCount);
    /// Empty and not null; the capacity stays.
    void clear();
    void reserve(std::size_t byteCount);
    /// Drops the first `byteCount` bytes, all of them if there are fewer.
    void consumeFront(std::size_t byteCount);
    /// Empty and not null, and the memory given back.
    void release() noexcept;

    std::size_t size() const noexcept { return static_cast<std::size_t>(size_); }
    bool isEmpty() const noexcept { return size_ == 0; }
    bool isNull() const noexcept { return null_; }
    /// NUL-terminated; valid until the next mutation.
    const char* data() const noexcept { return data_.empty() ? "" : data_.data() + begin_; }
    std::string_view view() const noexcept { return {data(), size()}; }
    ZnString toZnString() const { return ZnString(view()); }
    char& operator[](std::size_t index);
    char operator[](std::size_t index) const;
    /// A null array is less than any non-empty one and never greater; else memcmp, then length.
    bool operator<(const ZnByteArray& other) const noexcept;
    bool operator==(const ZnByteArray& other) const noexcept { return view() == other.view(); }
    /// The whole content must be one number in `base`; else (also out of range) 0 with *ok false.
    long long toLongLong(bool* ok = nullptr, int base = 10) const;

private:
    void makeRoom_(std::size_t byteCount);
    void compact_();

    std::vector<char> data_; // bytes before begin_ have been consumed; empty while null
    std::size_t begin_ = 0;
    std::uint64_t size_ = 0;
    bool null_ = true;
};
