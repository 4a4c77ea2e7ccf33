#pragma once

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <stdexcept>
#include <utility>
#include <vector>

/// What ZnList and ZnVector share: contiguous elements, deep copies, checked access. Misuse throws as the members
/// say.
template <typename T>
class ZnSequence {
public:
    using value_type = T;
    using const_reference = const T&;
    using iterator = typename std::vector<T>::iterator;
    using const_iterator = typename std::vector<T>::const_iterator;

    ZnSequence() = default;
    ZnSequence(std::initializer_list<T> values) : values_(values) {}

    std::size_t size() const noexcept { return values_.size(); }
    bool isEmpty() const noexcept { return values_.empty(); }
    void clear() noexcept { values_.clear(); }
    void reserve(std::size_t count) { values_.reserve(count); }
    void append(T value) { values_.push_back(std::move(value)); }
    bool contains(const T& value) const { return std::find(values_.begin(), values_.end(), value) != values_.end(); }

    /// std::runtime_error when empty.
    T& first() { return requireFirst_(), values_.front(); }
    const T& first() const { return requireFirst_(), values_.front(); }
    T& last() { return requireLast_(), values_.back(); }
    const T& last() const { return requireLast_(), values_.back(); }
    T takeFirst() {
        requireFirst_();
        T value = std::move(values_.front());
        values_.erase(values_.begin());
        return value;
    }
    /// Puts `value` in front of the element at `index`; size() appends. std::out_of_range above that.
    void insert(std::size_t index, T value) {
        if (index > values_.size())
            throw std::out_of_range("Index out of range");
        values_.insert(values_.begin() + static_cast<std::ptrdiff_t>(index), std::move(value));
    }
    T& operator[](std::size_t index) noexcept { return values_[index]; } // index below size()
    const T& operator[](std::size_t index) const noexcept { return values_[index]; }

    auto begin() noexcept { return values_.begin(); }
    auto end() noexcept { return values_.end(); }
    auto begin() const noexcept { return values_.begin(); }
    auto end() const noexcept { return values_.end(); }
    bool operator==(const ZnSequence& other) const = default;

protected:
    std::vector<T> values_;

private:
    void requireFirst_() const {
        if (values_.empty())
            throw std::runtime_error("Cannot access first element of an empty container");
    }
    void requireLast_() const {
        if (values_.empty())
            throw std::runtime_error("Cannot access last element of an empty container");
    }
};
