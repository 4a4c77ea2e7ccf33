#pragma once

#include "core/types/ZnJsonNode.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <string_view>
#include <type_traits>
#include <utility>

class ZnJsonArray;
class ZnJsonObject;

enum class JsonFormat : std::int32_t { Compact = 0, Indented = 1 };

/// One JSON value, with its whole subtree, as a value: two values never share one.
///
/// Sixteen bytes: scalars and texts of up to fourteen bytes lie in the value itself. What is parsed or copied lies in
/// common memory of up to 64 KiB at a time, which lives as long as any part of it.
/// Copying, comparing, writing and destroying use a bounded amount of stack, whatever the depth of the tree.
/// A number that was read exactly, and that no Integer holds, is a Double that keeps its digits and is written with
/// them; its value is the nearest double, or infinity. Two such numbers are equal if their digits are.
/// A moved-from value is Null.
/// Thread: a value.
class ZnJsonValue : public ZnJsonNode_ {
public:
    ZnJsonValue() noexcept : ZnJsonNode_(ZnJsonCell_()) {} // Null
    ZnJsonValue(bool value) noexcept : ZnJsonNode_(ZnJsonCell_(JsonType::Boolean, value ? 1 : 0)) {}
    ZnJsonValue(int value) noexcept : ZnJsonNode_(ZnJsonCell_(JsonType::Integer, value)) {}
    ZnJsonValue(long long value) noexcept : ZnJsonNode_(ZnJsonCell_(JsonType::Integer, value)) {}
    ZnJsonValue(std::int64_t value) noexcept : ZnJsonNode_(ZnJsonCell_(JsonType::Integer, value)) {}
    ZnJsonValue(double value) noexcept : ZnJsonNode_(ZnJsonCell_(value)) {}
    /// A copy of the text, which has at most 2^32 - 1 bytes (std::length_error).
    explicit ZnJsonValue(std::string_view value);
    ZnJsonValue(const ZnString& value) : ZnJsonValue(value.view()) {}
    ZnJsonValue(const char* value) : ZnJsonValue(value == nullptr ? std::string_view() : std::string_view(value)) {}
    ZnJsonValue(ZnJsonObject value) noexcept;
    ZnJsonValue(ZnJsonArray value) noexcept;
    ZnJsonValue(const ZnJsonValue& other) = default;
    ZnJsonValue(ZnJsonValue&& other) noexcept : ZnJsonNode_(other.takeCell_(JsonType::Null)) {}
    ZnJsonValue& operator=(ZnJsonValue other) noexcept { // by value: it may be a part of what is given up
        std::swap(cell_, other.cell_);
        return *this;
    }

    JsonType type() const noexcept { return cell_.type(); }
    bool isNull() const noexcept { return type() == JsonType::Null; }
    bool isString() const noexcept { return type() == JsonType::String; }
    bool isObject() const noexcept { return type() == JsonType::Object; }
    bool isArray() const noexcept { return type() == JsonType::Array; }

    /// String: its text. Boolean, Integer, Double ("%f", or the digits it keeps), Null ("null"): their text.
    /// Object, Array: `fallback`.
    ZnString toStringOr(const ZnString& fallback) const;
    /// A debug text: strings quoted and escaped, containers as "ZnJsonValue(Object)" and "ZnJsonValue(Array)".
    ZnString toDisplayString() const;
    bool toBool(bool fallback) const;
    /// Integer: its low 32 bits. Double: truncated, held within the range of the result; not-a-number gives 0.
    int toInt(int fallback) const;
    long long toLongLong() const;
    /// Rounded half away from zero to `decimals` places when that is above 0.
    double toDouble(double fallback, int decimals = 0) const;
    /// Copies of the container, or an empty one for any other type.
    ZnJsonObject toObject() const;
    ZnJsonArray toArray() const;

    /// The container itself, without a copy; null for any other type. Valid until the value changes.
    const ZnJsonObject* object() const noexcept;
    ZnJsonObject* object() noexcept;
    const ZnJsonArray* array() const noexcept;
    ZnJsonArray* array() noexcept;
    /// The text itself, without a copy; empty for any other type than String. Valid until the value changes or moves.
    std::string_view string() const noexcept { return isString() ? cell_.text() : std::string_view(); }

    /// The text of the value; with a non-empty `key` scalars are enciphered. A Double is written with the digits it
    /// keeps. Without any, it has the "%g" form if it has a fraction, else it is written in decimal within the signed
    /// 64-bit range and outside it with as many digits as reading it back takes, and an exponent. Infinities and
    /// not-a-number are written as null.
    ZnString toJson(JsonFormat format = JsonFormat::Compact, const ZnString& key = ZnString()) const;
    /// Appends the compact text.
    void appendJson(ZnString* out) const;

    /// Type and content, of the whole subtree: the Integer 1 and the Double 1.0 differ.
    bool operator==(const ZnJsonValue& other) const { return isEqual_(other); }

private:
    double double_() const; // of a Double
};

// Shifting elements must be cheap.
static_assert(sizeof(ZnJsonValue) == 16 && std::is_nothrow_move_constructible_v<ZnJsonValue> &&
              std::is_nothrow_move_assignable_v<ZnJsonValue>);
