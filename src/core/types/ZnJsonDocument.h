#pragma once

#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnJsonValue.h"

#include <cstddef>
#include <limits>
#include <string_view>

class ZnJsonParser_;

/// How scalars are read. Both accept the same grammar, but for numbers that fit in no 64 bits: only Exact takes them.
enum class JsonReading {
    Dialect,      // a string that reads as a boolean, null, integer or simple decimal becomes that scalar
    QuietDialect, // the same, with nothing of the text in the log
    Exact         // strings stay strings; numbers are written back with the digits that they came with
};

/// A parsed JSON text.
///
/// A comma may stand before a closing bracket; a repeated key keeps its last value; output is sorted by key.
/// A parse needs at most twelve times the memory of the text, and some KiB; most need far less.
/// With a key, scalars are stored enciphered in the same text syntax, and read in the dialect.
/// Thread: a value.
class ZnJsonDocument {
public:
    /// Containers may nest this deep; one level more is the error "JSON nesting too deep".
    static constexpr int kMaxDepth = 256;
    static constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

    ZnJsonDocument() = default;
    explicit ZnJsonDocument(ZnJsonValue root) : root_(std::move(root)) {}

    /// `*error` is empty on success; on failure it says what is wrong and where, and the root is Null
    /// (except for text behind a complete value, which leaves the value in place).
    static ZnJsonDocument fromJson(std::string_view text, ZnString* error, const ZnString& key = ZnString());
    /// More than `maxValues` values, containers included and names not, are the error "JSON has too many values".
    static ZnJsonDocument fromJson(std::string_view text, ZnString* error, JsonReading reading,
                                   std::size_t maxValues = kNoLimit);

    const ZnJsonValue& root() const noexcept { return root_; }
    ZnJsonValue& root() noexcept { return root_; }
    /// A copy of the root object; an empty one, with an error in the log, when the root is none.
    ZnJsonObject object() const;
    ZnString toJson(JsonFormat format = JsonFormat::Compact, const ZnString& key = ZnString()) const;

private:
    static ZnJsonDocument parse_(ZnJsonParser_&& parser, ZnString* error);

    ZnJsonValue root_;
};

/// `text` with the escapes of a JSON string literal, without the quotes.
ZnString escapeJsonString(std::string_view text);
/// Appends the same. `text` may be a part of `*out`.
void appendEscapedJson(ZnString* out, std::string_view text);
