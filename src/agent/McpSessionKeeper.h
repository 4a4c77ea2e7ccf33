#pragma once

#include "agent/McpBridgeSession.h"

#include <memory>

/// A session that was kept. Thread: a value.
struct McpKeptSession {
    std::shared_ptr<McpBridgeSession> session; // without its id, which only the client knows
    bool isUsed = false;                       // its client has had a second request
    bool isOfToday = false;                    // it was last used on this day
};

/// Keeps sessions beyond the end of the agent, by the hashes of their ids.
///
/// Thread: any. It is called with a lock held, and must not wait for anything.
class McpSessionKeeper {
public:
    virtual ~McpSessionKeeper() = default;
    /// A new session, or one with a first use, on this day or at all. The day: since 1970.
    virtual void keep(const McpBridgeSession& session, bool isUsed, long long day) = 0;
    virtual void forget(const McpBridgeSession& session) = 0;
};
