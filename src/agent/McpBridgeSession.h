#pragma once

#include "core/types/ZnString.h"

/// One MCP session: what a client agreed on in `initialize`. Shared, so that a running handler keeps it.
struct McpBridgeSession {
    ZnString id;   // value of the session header
    ZnString hash; // of the id, under which a session is kept; empty where none is
    ZnString tag;  // of the id, see mcp::sessionTag; empty where nobody has asked for it yet
    ZnString protocolVersion;
    ZnString clientName;
    ZnString clientVersion;
    long long createdUs = 0;  // since 1970
    bool initialized = false; // no request depends on it
};
