#pragma once

#include "core/types/ZnString.h"

#include <optional>
#include <string_view>

/// What a request of HTTP repeats of its message in headers, for messages whose revision wants that.
///
/// Thread: a value, never changed once the message is on its way.
struct McpMirror {
    ZnString method;              // empty: the header is missing
    std::optional<ZnString> name; // as sent, see decodeMirrored()
    bool isDoubled = false;       // one of these headers, or that of the version, came more than once
    bool isJson = false;          // the content type
};

namespace mcp {

/// The text that a header stands for: what no header can carry comes in Base64, in a marker. Nothing when it is
/// malformed.
std::optional<ZnString> decodeMirrored(std::string_view value);

} // namespace mcp
