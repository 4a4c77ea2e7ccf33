#pragma once

#include "core/types/ZnJsonValue.h"
#include "core/types/ZnVector.h"

/// A JSON array. A value with deep copies.
class ZnJsonArray {
public:
    ZnJsonArray() = default;

    void append(ZnJsonValue value) { values_.append(std::move(value)); }
    /// Appends a Null and gives it.
    ZnJsonValue& appendNull() { return values_.appendNew(); }
    std::size_t size() const noexcept { return values_.size(); }
    bool isEmpty() const noexcept { return values_.isEmpty(); }
    void reserve(std::size_t count) { values_.reserve(count); }
    /// std::out_of_range "Index out of bounds" at or above size().
    const ZnJsonValue& at(std::size_t index) const;
    ZnJsonValue& at(std::size_t index);
    auto begin() noexcept { return values_.begin(); }
    auto end() noexcept { return values_.end(); }
    auto begin() const noexcept { return values_.begin(); }
    auto end() const noexcept { return values_.end(); }
    bool operator==(const ZnJsonArray& other) const;

private:
    ZnVector<ZnJsonValue> values_;
};
