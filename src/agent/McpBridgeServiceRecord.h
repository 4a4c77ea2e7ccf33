#pragma once

#include "agent/McpServiceRules.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <utility>
#include <vector>

/// One service of the allowlist. Never changed once it was read: calls share it, also with a newer list in force.
struct McpBridgeServiceRecord {
    static constexpr std::int32_t kDefaultTimeoutMs = 15000;
    /// Of the protocol: Legacy has a handshake, Modern is revision 2026-07-28, Auto is whichever the service speaks.
    enum class Era { Legacy, Modern, Auto };

    ZnString id;
    ZnString title;
    ZnString description;
    ZnString transport = "streamable-http";
    ZnString endpoint;                                  // full URL
    ZnString bearerToken;                               // leaves the agent only in requests to `endpoint`
    std::vector<std::pair<ZnString, ZnString>> headers; // likewise: names and values of further ones
    ZnString problem;                                   // why it must not be called, for clients; empty: it may be
    ZnString tlsCaFile;
    McpServiceRules rules;
    bool enabled = true;
    bool interop = false;                       // requests and answers are exact, and answers may be event streams
    Era era = Era::Legacy;                      // another one has `interop` on
    bool keepsSessions = false;                 // calls without a session get one that the agent keeps
    std::int32_t timeoutMs = kDefaultTimeoutMs; // of one upstream call, 1 or more

    bool operator==(const McpBridgeServiceRecord& other) const = default;
    std::int32_t limitMs() const noexcept { return timeoutMs < 1 ? kDefaultTimeoutMs : timeoutMs; }
};
