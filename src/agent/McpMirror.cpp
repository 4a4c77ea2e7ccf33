#include "agent/McpMirror.h"

#include "core/types/ZnCrypto.h"

#include <algorithm>
#include <string>

namespace {

constexpr std::string_view kMarkBegin = "=?base64?";
constexpr std::string_view kMarkEnd = "?=";

bool isPlain(char c) {
    return (c >= 0x20 && c <= 0x7E) || c == '\t';
}

} // namespace

namespace mcp {

std::optional<ZnString> decodeMirrored(std::string_view value) {
    if (!std::all_of(value.begin(), value.end(), isPlain))
        return std::nullopt;
    const bool isMarked = value.starts_with(kMarkBegin) && value.ends_with(kMarkEnd) &&
                          value.size() >= kMarkBegin.size() + kMarkEnd.size();
    if (!isMarked)
        return ZnString(value);
    value.remove_prefix(kMarkBegin.size());
    value.remove_suffix(kMarkEnd.size());
    const ZnCrypto::Bytes bytes = ZnCrypto::base64Decode(ZnString(value));
    if (ZnCrypto::base64Encode(bytes).view() != value) // one text has one form, or others read another one out of it
        return std::nullopt;
    return ZnString(std::string(bytes.begin(), bytes.end()));
}

} // namespace mcp
