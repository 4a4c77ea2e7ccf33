#pragma once

#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnJsonValue.h"

#include <string_view>

/// A parsed JSON text.
///
/// The dialect: a string that reads as a boolean, null, integer or simple decimal becomes that scalar;
/// a comma may stand before a closing bracket; a repeated key keeps its last value; output is sorted by key.
/// With a key, scalars are stored enciphered in the same text syntax.
/// Thread: a value.
class ZnJsonDocument {
public:
    /// Containers may nest this deep; one level more is the error "JSON nesting too deep".
    static constexpr int kMaxDepth = 256;

    ZnJsonDocument() = default;
    explicit ZnJsonDocument(ZnJsonValue root) : root_(std::move(root)) {}

    /// `*error` is empty on success; on failure it says what is wrong and where, and the root is Null
    /// (except for text behind a complete value, which leaves the value in place).
    static ZnJsonDocument fromJson(std::string_view text, ZnString* error, const ZnString& key = ZnString());

    const ZnJsonValue& root() const noexcept { return root_; }
    ZnJsonValue& root() noexcept { return root_; }
    /// A copy of the root object; an empty one, with an error in the log, when the root is none.
    ZnJsonObject object() const;
    ZnString toJson(JsonFormat format = JsonFormat::Compact, const ZnString& key = ZnString()) const;

private:
    ZnJsonValue root_;
};

/// `text` with the escapes of a JSON string literal, without the quotes.
ZnString escapeJsonString(std::string_view text);
