#pragma once

#include "core/types/ZnJsonValue.h"

/// A JSON array. A value with deep copies; moving one leaves it empty.
///
/// Elements lie next to each other: references to them hold until the array grows.
class ZnJsonArray : public ZnJsonNode_ {
public:
    ZnJsonArray() noexcept : ZnJsonNode_(ZnJsonCell_(JsonType::Array)) {}
    ZnJsonArray(const ZnJsonArray& other) = default;
    ZnJsonArray(ZnJsonArray&& other) noexcept : ZnJsonNode_(other.takeCell_(JsonType::Array)) {}
    ZnJsonArray& operator=(ZnJsonArray other) noexcept { // by value: it may be a part of what is given up
        std::swap(cell_, other.cell_);
        return *this;
    }

    void append(ZnJsonValue value);
    std::size_t size() const noexcept { return cell_.block.count; }
    bool isEmpty() const noexcept { return size() == 0; }
    void reserve(std::size_t count);
    /// std::out_of_range "Index out of bounds" at or above size().
    const ZnJsonValue& at(std::size_t index) const;
    ZnJsonValue& at(std::size_t index);
    ZnJsonValue* begin() noexcept { return cell_.values(); }
    ZnJsonValue* end() noexcept { return begin() + size(); }
    const ZnJsonValue* begin() const noexcept { return cell_.values(); }
    const ZnJsonValue* end() const noexcept { return begin() + size(); }
    bool operator==(const ZnJsonArray& other) const { return isEqual_(other); }

private:
    friend class ZnJsonValue; // is the array when it holds one
};
