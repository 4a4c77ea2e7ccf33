#pragma once

#include "agent/McpSessionKeeper.h"
#include "core/storage/embeddeddb/ZnEmbeddedDb.h"
#include "core/types/ZnString.h"

#include <string>
#include <string_view>
#include <vector>

// The form in which sessions stand in the store of a state directory: the key is "s/" and the hash of the id, the value
// a JSON object. Whoever reads the store learns no id with which a session could be used.
namespace mcp {

std::string sessionKey(const ZnString& hash);
ZnString sessionText(const McpBridgeSession& session, bool isUsed, long long day);

/// The sessions that were last used on `oldestDay` or later, at most `maxCount`, those last used first to last. The
/// others are removed from the store.
std::vector<McpKeptSession> loadSessions(ZnEmbeddedDb& store, long long oldestDay, long long today,
                                         std::size_t maxCount);

} // namespace mcp
