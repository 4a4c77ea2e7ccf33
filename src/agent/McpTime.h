#pragma once

#include "core/types/ZnString.h"

#include <optional>
#include <string_view>

// Moments as microseconds since 1970, and as text in UTC.
namespace mcp {

constexpr long long kUsPerSecond = 1000000;
constexpr long long kUsPerDay = 86400 * kUsPerSecond;

/// By the system's clock, which may be set back.
long long wallNowUs();

/// As RFC 3339 has it, with milliseconds: "2026-11-24T00:35:05.123Z".
ZnString utcText(long long unixUs);
/// Its day: "2026-11-24".
ZnString dayText(long long unixUs);

/// Reads RFC 3339 (the time of the day may be left out, and means midnight in UTC), or a span before `nowUs`: a whole
/// number with s, m, h, d or w behind it. Nothing for any other text.
std::optional<long long> readTime(std::string_view text, long long nowUs);

} // namespace mcp
