#pragma once

#include "core/types/ZnString.h"

#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>

class ZnJsonArray;
class ZnJsonObject;

enum class JsonType : std::int32_t { Null = 0, Boolean = 1, Integer = 2, Double = 3, String = 4, Object = 5, Array = 6 };

enum class JsonFormat : std::int32_t { Compact = 0, Indented = 1 };

/// One JSON value, with its whole subtree, as a value: two values never share one.
///
/// Copying, comparing, writing and destroying use a bounded amount of stack, whatever the depth of the tree.
/// A number that was read exactly, and that no Integer holds, is a Double that keeps its digits and is written with
/// them; its value is the nearest double, or infinity. Two such numbers are equal if their digits are.
/// A moved-from value is Null.
/// Thread: a value.
class ZnJsonValue {
public:
    ZnJsonValue() noexcept {} // Null
    ZnJsonValue(bool value) noexcept : type_(JsonType::Boolean), boolValue_(value) {}
    ZnJsonValue(int value) noexcept : type_(JsonType::Integer), intValue_(value) {}
    ZnJsonValue(long long value) noexcept : type_(JsonType::Integer), intValue_(value) {}
    ZnJsonValue(std::int64_t value) noexcept : type_(JsonType::Integer), intValue_(value) {}
    ZnJsonValue(double value) noexcept : type_(JsonType::Double), doubleValue_(value) {}
    ZnJsonValue(ZnString value) noexcept : type_(JsonType::String), stringValue_(std::move(value)) {}
    ZnJsonValue(const char* value) : ZnJsonValue(ZnString(value)) {}
    ZnJsonValue(ZnJsonObject value);
    ZnJsonValue(ZnJsonArray value);
    ZnJsonValue(const ZnJsonValue& other) : ZnJsonValue() { copyFrom_(other); }
    ZnJsonValue(ZnJsonValue&& other) noexcept
        : type_(std::exchange(other.type_, JsonType::Null)), boolValue_(other.boolValue_), intValue_(other.intValue_),
          doubleValue_(other.doubleValue_), stringValue_(std::move(other.stringValue_)),
          objectValue_(std::move(other.objectValue_)), arrayValue_(std::move(other.arrayValue_)) {
        other.stringValue_.clear();
    }
    ZnJsonValue& operator=(const ZnJsonValue& other) { return *this = ZnJsonValue(other); }
    ZnJsonValue& operator=(ZnJsonValue&& other) noexcept;
    ~ZnJsonValue() {
        if (isContainer_())
            releaseTree_();
    }

    JsonType type() const noexcept { return type_; }
    bool isNull() const noexcept { return type_ == JsonType::Null; }
    bool isString() const noexcept { return type_ == JsonType::String; }
    bool isObject() const noexcept { return type_ == JsonType::Object; }
    bool isArray() const noexcept { return type_ == JsonType::Array; }

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
    const ZnJsonObject* object() const noexcept { return objectValue_.get(); }
    ZnJsonObject* object() noexcept { return objectValue_.get(); }
    const ZnJsonArray* array() const noexcept { return arrayValue_.get(); }
    ZnJsonArray* array() noexcept { return arrayValue_.get(); }
    /// The text itself, without a copy; empty for any other type than String.
    const ZnString& string() const noexcept { return isString() ? stringValue_ : noText_(); }

    /// The text of the value; with a non-empty `key` scalars are enciphered. A Double is written with the digits it
    /// keeps. Without any, it has the "%g" form if it has a fraction, else it is written in decimal within the signed
    /// 64-bit range and outside it with as many digits as reading it back takes, and an exponent. Infinities and
    /// not-a-number are written as null.
    ZnString toJson(JsonFormat format = JsonFormat::Compact, const ZnString& key = ZnString()) const;

    /// Type and content, of the whole subtree: the Integer 1 and the Double 1.0 differ.
    bool operator==(const ZnJsonValue& other) const;

private:
    friend struct ZnJsonTree_;  // iterative copy, compare and destruction, in ZnJsonValue.cpp
    friend class ZnJsonParser_; // fills values in place
    friend class ZnJsonWriter_;

    // Let the containers stay incomplete here.
    struct DeleteContainer_ {
        void operator()(ZnJsonObject* object) const noexcept;
        void operator()(ZnJsonArray* array) const noexcept;
    };

    static const ZnString& noText_() noexcept;
    /// Of a Double.
    bool keepsDigits_() const noexcept { return !stringValue_.isEmpty(); }
    double double_() const { return keepsDigits_() ? keptDouble_() : doubleValue_; }
    double keptDouble_() const;
    bool isContainer_() const noexcept { return type_ == JsonType::Object || type_ == JsonType::Array; }
    void copyFrom_(const ZnJsonValue& other); // onto a Null
    void releaseTree_() noexcept;             // leaves a Null

    JsonType type_ = JsonType::Null;
    bool boolValue_ = false;
    std::int64_t intValue_ = 0;
    double doubleValue_ = 0.0;
    ZnString stringValue_; // String: the text; Double: the digits it keeps; else empty
    std::unique_ptr<ZnJsonObject, DeleteContainer_> objectValue_; // null unless Object
    std::unique_ptr<ZnJsonArray, DeleteContainer_> arrayValue_;   // null unless Array
};

// Shifting elements must be cheap.
static_assert(std::is_nothrow_move_constructible_v<ZnJsonValue> && std::is_nothrow_move_assignable_v<ZnJsonValue>);
