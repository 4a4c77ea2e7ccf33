#pragma once

#include "agent/McpServiceRules.h"
#include "core/types/ZnString.h"

#include <cstdint>

/// One service of the allowlist. Read from the file at start and never changed: handlers share it.
struct McpBridgeServiceRecord {
    static constexpr std::int32_t kDefaultTimeoutMs = 15000;

    ZnString id;
    ZnString title;
    ZnString description;
    ZnString transport = "streamable-http";
    ZnString endpoint;    // full URL
    ZnString bearerToken; // leaves the agent only in requests to `endpoint`
    ZnString tlsCaFile;
    McpServiceRules rules;
    bool enabled = true;
    bool interop = false;                       // requests and answers are exact, and answers may be event streams
    bool keepsSessions = false;                 // calls without a session get one that the agent keeps
    std::int32_t timeoutMs = kDefaultTimeoutMs; // of one upstream call, 1 or more

    std::int32_t limitMs() const noexcept { return timeoutMs < 1 ? kDefaultTimeoutMs : timeoutMs; }
};
