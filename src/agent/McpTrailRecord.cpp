#include "agent/McpTrailRecord.h"

#include "agent/McpText.h"
#include "agent/McpTime.h"
#include "core/types/ZnJsonDocument.h"

#include <algorithm>
#include <charconv>

namespace mcp {
namespace {

constexpr std::size_t kNumberBytes = 16;
constexpr std::size_t kServiceBytes = 256;
constexpr std::size_t kShownHashBytes = 8;

/// JSON lets U+007F to U+009F stand as they are; terminals take some of them for commands.
void appendEscapedControls(ZnString* out, std::string_view text) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : '\0');
        const bool isPair = byte == 0xC2 && next < 0xA0;
        if (byte != 0x7F && !isPair) {
            *out += text[i];
            continue;
        }
        const unsigned char code = isPair ? next : byte;
        *out += "\\u00";
        *out += kDigits[code >> 4];
        *out += kDigits[code & 15];
        i += isPair ? 1 : 0;
    }
}

/// As nearly all names are: they stand in JSON as they are.
bool isPlain(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return c >= ' ' && c < '\x7F' && c != '"' && c != '\\'; });
}

void appendMember(ZnString* out, const char* name, const ZnString& text) {
    *out += ",\"";
    *out += name;
    *out += "\": \"";
    if (isPlain(text.view()))
        *out += text;
    else
        appendEscapedControls(out, escapeJsonString(wellFormed(text).view()).view());
    *out += '"';
}

template <typename Number>
void appendNumber(ZnString* out, const char* name, Number number) {
    *out += ",\"";
    *out += name;
    *out += "\": ";
    *out += ZnString::number(number);
}

ZnString millisecondsText(long long durationNs) {
    const long long us = std::max(durationNs, 0LL) / 1000;
    return ZnString::number(us / 1000) + "." + std::to_string(1000 + us % 1000).substr(1);
}

ZnVector<ZnByteArray> oneKey(std::string_view text) {
    ZnVector<ZnByteArray> keys;
    keys.append(ZnByteArray(text));
    return keys;
}

} // namespace

std::string trailKey(long long number) {
    const std::string digits = std::to_string(number);
    const std::size_t zeroCount = kNumberBytes - std::min(kNumberBytes, digits.size());
    return std::string(kTrailPrefix) + std::string(zeroCount, '0') + digits;
}

std::optional<long long> trailNumber(std::string_view key) {
    long long number = 0;
    if (!key.starts_with(kTrailPrefix) || key.size() != kTrailPrefix.size() + kNumberBytes ||
        std::from_chars(key.data() + kTrailPrefix.size(), key.data() + key.size(), number).ptr !=
            key.data() + key.size())
        return std::nullopt;
    return number;
}

ZnString trailServiceName(std::string_view service) {
    return ZnString(service.substr(0, kServiceBytes));
}

ZnString trailText(const McpCallRecord& call, long long endedUs) {
    ZnString out = "{\"time\": \"" + utcText(endedUs) + "\"";
    appendMember(&out, "service", trailServiceName(call.service.view()));
    appendMember(&out, "method", call.method);
    appendMember(&out, "tool", call.tool);
    appendMember(&out, "outcome", McpCallRecord::nameOf(call.outcome()));
    out += ",\"ms\": " + millisecondsText(call.endedNs - call.beganNs);
    appendNumber(&out, "status", call.status);
    if (call.transportCode != 0)
        appendNumber(&out, "transportCode", call.transportCode);
    if (call.answer.rpcCode)
        appendNumber(&out, "rpcCode", *call.answer.rpcCode);
    appendNumber(&out, "bytesIn", call.bytesIn);
    appendNumber(&out, "bytesOut", call.bytesOut);
    if (call.session)
        appendMember(&out, "session", ZnString(call.session->hash.view().substr(0, kShownHashBytes)));
    out += '}';
    return out;
}

ZnEmbeddedDbIndexKeys trailIndexKeys(const McpCallRecord& call, long long endedUs) {
    ZnEmbeddedDbIndexKeys keys;
    keys.insert(kTrailServiceIndex, oneKey(trailServiceName(call.service.view()).view()));
    keys.insert(kTrailOutcomeIndex, oneKey(McpCallRecord::nameOf(call.outcome())));
    keys.insert(kTrailDayIndex, oneKey(dayText(endedUs).view()));
    return keys;
}

} // namespace mcp
