#pragma once

#include "agent/McpObserver.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbBatch.h"
#include "core/types/ZnString.h"

#include <optional>
#include <string>
#include <string_view>

// The form in which calls stand in the store of a state directory:
//
//     key    "c/" and 16 digits: the microseconds since 1970 when the call had ended, or one more than the key before,
//            so that the order of the keys is that in which calls were written, whatever the clock does
//     value  {"time": ...} as a line of JSON, see trailText()
//     index  "service", "outcome", "day" (as in "2026-11-24"), each with the text that the value has
namespace mcp {

constexpr std::string_view kTrailPrefix = "c/";
constexpr const char* kTrailServiceIndex = "service";
constexpr const char* kTrailOutcomeIndex = "outcome";
constexpr const char* kTrailDayIndex = "day";

std::string trailKey(long long number);
/// Nothing for a key that is none of a call.
std::optional<long long> trailNumber(std::string_view key);

/// As it stands in the index.
ZnString trailServiceName(std::string_view service);

/// One line of JSON; control characters of names are escaped, also those above 7F.
ZnString trailText(const McpCallRecord& call, long long endedUs);
ZnEmbeddedDbIndexKeys trailIndexKeys(const McpCallRecord& call, long long endedUs);

} // namespace mcp
