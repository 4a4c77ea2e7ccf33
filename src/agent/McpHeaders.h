#pragma once

#include "core/io/http/ZnHttpContext.h"

#include <algorithm>
#include <string_view>

namespace mcp {

/// A header of the request, trimmed; empty when it is missing. `name` in lower case. Valid as long as the request.
inline std::string_view headerText(const ZnHttpContext& context, std::string_view name) {
    const ZnString* value = context.findRequestHeader(name);
    return value == nullptr ? std::string_view() : trimmedView(value->view());
}

/// Whether `text` may be sent as a header value.
inline bool isHeaderValue(std::string_view text) {
    return std::none_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7F;
    });
}

} // namespace mcp
