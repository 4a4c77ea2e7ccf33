#pragma once

#include "agent/McpBridgeSession.h"
#include "core/types/ZnMap.h"

#include <list>
#include <memory>
#include <string_view>

/// The MCP sessions by id, bounded: a session in use never vanishes, one that was idle for an hour may make room.
///
/// Thread: none of its own; the owner locks.
/// Invariant: byId_ and byUse_ hold the same sessions; byUse_ is ordered by lastUsedNs.
class McpSessionTable {
public:
    static constexpr std::size_t kMaxSessions = 10000;
    static constexpr long long kIdleNs = 3600LL * 1000000000;

    /// False, with nothing changed, when the table is full of sessions that were all used within the last hour.
    bool add(std::shared_ptr<McpBridgeSession> session, long long nowNs);
    /// Null for an unknown id. A session that is found counts as used now.
    std::shared_ptr<McpBridgeSession> find(std::string_view id, long long nowNs);
    bool remove(std::string_view id);
    std::size_t size() const noexcept { return byId_.size(); }

private:
    struct Entry_ {
        std::shared_ptr<McpBridgeSession> session;
        long long lastUsedNs;
    };
    using Order_ = std::list<Entry_>;

    Order_ byUse_;                                   // idle the longest first
    ZnMap<std::string_view, Order_::iterator> byId_; // keys lie in the sessions
};
