#pragma once

#include "core/types/ZnString.h"

#include <cstdint>
#include <memory>

class ZnJsonArray;
class ZnJsonObject;

enum class JsonType : std::int32_t { Null = 0, Boolean = 1, Integer = 2, Double = 3, String = 4, Object = 5, Array = 6 };

enum class JsonFormat : std::int32_t { Compact = 0, Indented = 1 };

/// One JSON value, with its whole subtree, as a value: two values never share one.
///
/// Copying, comparing, writing and destroying use a bounded amount of stack, whatever the depth of the tree.
/// A moved-from value is Null.
/// Thread: a value.
class ZnJsonValue {
public:
    ZnJsonValue() noexcept; // Null
    ZnJsonValue(bool value) noexcept;
    ZnJsonValue(int value) noexcept;
    ZnJsonValue(long long value) noexcept;
    ZnJsonValue(std::int64_t value) noexcept;
    ZnJsonValue(double value) noexcept;
    ZnJsonValue(ZnString value) noexcept;
    ZnJsonValue(const char* value);
    ZnJsonValue(ZnJsonObject value);
    ZnJsonValue(ZnJsonArray value);
    ZnJsonValue(const ZnJsonValue& other);
    ZnJsonValue(ZnJsonValue&& other) noexcept;
    ZnJsonValue& operator=(const ZnJsonValue& other);
    ZnJsonValue& operator=(ZnJsonValue&& other) noexcept;
    ~ZnJsonValue();

    JsonType type() const noexcept;
    bool isNull() const noexcept { return type() == JsonType::Null; }
    bool isString() const noexcept { return type() == JsonType::String; }
    bool isObject() const noexcept { return type() == JsonType::Object; }
    bool isArray() const noexcept { return type() == JsonType::Array; }

    /// String: its text. Boolean, Integer, Double ("%f"), Null ("null"): their text. Object, Array: `fallback`.
    ZnString toStringOr(const ZnString& fallback) const;
    /// A debug text: strings quoted and escaped, containers as "ZnJsonValue(Object)" and "ZnJsonValue(Array)".
    ZnString toDisplayString() const;
    bool toBool(bool fallback) const;
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
    /// The text itself, without a copy; empty for any other type than String.
    const ZnString& string() const noexcept;

    /// The text of the value; with a non-empty `key` scalars are enciphered.
    ZnString toJson(JsonFormat format = JsonFormat::Compact, const ZnString& key = ZnString()) const;

    bool operator==(const ZnJsonValue& other) const;

private:
    friend struct ZnJsonTree_; // iterative copy, compare and destruction, in ZnJsonValue.cpp

    JsonType type_ = JsonType::Null;
    bool boolValue_ = false;
    std::int64_t intValue_ = 0;
    double doubleValue_ = 0.0;
    ZnString stringValue_;
    std::unique_ptr<ZnJsonObject> objectValue_; // null unless Object
    std::unique_ptr<ZnJsonArray> arrayValue_;   // null unless Array
};
