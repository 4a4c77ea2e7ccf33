#include "core/types/ZnByteArray.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <utility>

// data_ is either empty, which stands for no bytes at all, or holds the consumed bytes, the valid bytes and
// one terminating NUL, and nothing behind it.

namespace {

void requirePointer(const char* data, std::size_t byteCount, const char* message) {
    if (data == nullptr && byteCount > 0)
        throw std::invalid_argument(message);
}

bool liesInside(const std::vector<char>& bytes, const char* data) {
    const std::less<const char*> before; // a total order, also for unrelated pointers
    return !bytes.empty() && !before(data, bytes.data()) && before(data, bytes.data() + bytes.size());
}

} // namespace

ZnByteArray::ZnByteArray(const ZnString& text) : ZnByteArray(text.view()) {}

ZnByteArray::ZnByteArray(std::string_view bytes) {
    assign(bytes.data(), bytes.size());
}

ZnByteArray::ZnByteArray(const char* data, std::size_t byteCount) {
    requirePointer(data, byteCount, "ZnByteArray: null data with length.");
    if (data != nullptr)
        assign(data, byteCount);
}

ZnByteArray::ZnByteArray(const ZnByteArray& other) {
    if (!other.null_)
        assign(other.data(), other.size());
}

ZnByteArray::ZnByteArray(ZnByteArray&& other) noexcept
    : data_(std::move(other.data_)),
      begin_(std::exchange(other.begin_, 0)),
      size_(std::exchange(other.size_, 0)),
      null_(std::exchange(other.null_, true)) {
    other.data_.clear();
}

ZnByteArray& ZnByteArray::operator=(const ZnByteArray& other) {
    if (this == &other)
        return *this;
    clear();
    append(other.data(), other.size());
    null_ = other.null_;
    return *this;
}

ZnByteArray& ZnByteArray::operator=(ZnByteArray&& other) noexcept {
    if (this == &other)
        return *this;
    data_ = std::move(other.data_);
    other.data_.clear();
    begin_ = std::exchange(other.begin_, 0);
    size_ = std::exchange(other.size_, 0);
    null_ = std::exchange(other.null_, true);
    return *this;
}

void ZnByteArray::assign(const char* data, std::size_t byteCount) {
    requirePointer(data, byteCount, "ZnByteArray: null pointer with data.");
    if (liesInside(data_, data)) {
        const std::vector<char> aside(data, data + byteCount);
        clear();
        append(aside.data(), aside.size());
        return;
    }
    clear();
    append(data, byteCount);
}

void ZnByteArray::append(const char* data, std::size_t byteCount) {
    requirePointer(data, byteCount, "ZnByteArray: null pointer with positive length.");
    null_ = false;
    if (byteCount == 0)
        return;
    if (liesInside(data_, data)) {
        const std::vector<char> aside(data, data + byteCount);
        append(aside.data(), aside.size());
        return;
    }
    makeRoom_(byteCount);
    if (!data_.empty())
        data_.pop_back(); // the terminator
    data_.insert(data_.end(), data, data + byteCount);
    data_.push_back('\0');
    size_ += byteCount;
}

void ZnByteArray::insert(std::size_t position, const char* data, std::size_t byteCount) {
    requirePointer(data, byteCount, "ZnByteArray: null pointer with positive length.");
    null_ = false;
    if (byteCount == 0)
        return;
    if (position >= size()) {
        append(data, byteCount);
        return;
    }
    if (liesInside(data_, data)) {
        const std::vector<char> aside(data, data + byteCount);
        insert(position, aside.data(), aside.size());
        return;
    }
    data_.insert(data_.begin() + static_cast<std::ptrdiff_t>(begin_ + position), data, data + byteCount);
    size_ += byteCount;
}

void ZnByteArray::clear() {
    null_ = false;
    begin_ = 0;
    size_ = 0;
    data_.clear();
}

void ZnByteArray::reserve(std::size_t byteCount) {
    data_.reserve(begin_ + byteCount + 1);
}

void ZnByteArray::consumeFront(std::size_t byteCount) {
    const std::size_t consumed = std::min(byteCount, size());
    if (consumed == size()) {
        clear();
        return;
    }
    begin_ += consumed;
    size_ -= consumed;
    // Moving the rest costs less than what has been consumed since the last move, so the sum stays linear.
    if (begin_ > size_)
        compact_();
}

void ZnByteArray::release() noexcept {
    std::vector<char>().swap(data_);
    begin_ = 0;
    size_ = 0;
    null_ = false;
}

char& ZnByteArray::operator[](std::size_t index) {
    null_ = false;
    if (index >= size())
        throw std::out_of_range("ZnByteArray::operator[] out of range.");
    return data_[begin_ + index];
}

char ZnByteArray::operator[](std::size_t index) const {
    if (index >= size())
        throw std::out_of_range("ZnByteArray::operator[] const out of range.");
    return data_[begin_ + index];
}

bool ZnByteArray::operator<(const ZnByteArray& other) const noexcept {
    return !other.null_ && view() < other.view();
}

long long ZnByteArray::toLongLong(bool* ok, int base) const {
    if (ok != nullptr)
        *ok = false;
    if (isEmpty())
        return 0;
    const int savedErrno = std::exchange(errno, 0);
    char* end = nullptr;
    const long long value = std::strtoll(data(), &end, base);
    const bool isWhole = errno == 0 && end == data() + size();
    errno = savedErrno;
    if (!isWhole)
        return 0;
    if (ok != nullptr)
        *ok = true;
    return value;
}

/// Reuses the consumed front when that is large enough to pay for the move; else grows at least by half.
void ZnByteArray::makeRoom_(std::size_t byteCount) {
    const std::size_t needed = size() + byteCount + 1;
    if (begin_ + needed <= data_.capacity())
        return;
    if (needed <= data_.capacity() && begin_ >= size() / 2) {
        compact_();
        return;
    }
    std::vector<char> larger;
    larger.reserve(std::max(needed, data_.capacity() + data_.capacity() / 2));
    larger.insert(larger.end(), data_.begin() + static_cast<std::ptrdiff_t>(begin_), data_.end());
    data_ = std::move(larger);
    begin_ = 0;
}

void ZnByteArray::compact_() {
    data_.erase(data_.begin(), data_.begin() + static_cast<std::ptrdiff_t>(begin_));
    begin_ = 0;
}
