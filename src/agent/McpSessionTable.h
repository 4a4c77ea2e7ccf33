#pragma once

#include "agent/McpBridgeSession.h"
#include "core/types/ZnMap.h"

#include <list>
#include <memory>
#include <string_view>

/// The MCP sessions by id, bounded: a session in use never vanishes. Room is made by one that has had no second request
/// for a minute, else by one that was idle for an hour.
///
/// Thread: none of its own; the owner locks.
/// Invariant: byId_ holds the sessions of both lists, which are ordered by lastUsedNs.
class McpSessionTable {
public:
    static constexpr std::size_t kMaxSessions = 10000;
    static constexpr long long kIdleNs = 3600LL * 1000000000;
    static constexpr long long kUnusedNs = 60LL * 1000000000;

    /// False, with nothing changed, when the table is full of sessions that must not go yet. `*evicted`: the id of the
    /// one that made room, if any did.
    bool add(std::shared_ptr<McpBridgeSession> session, long long nowNs, ZnString* evicted);
    /// Null for an unknown id. A session that is found counts as used now.
    std::shared_ptr<McpBridgeSession> find(std::string_view id, long long nowNs);
    bool remove(std::string_view id);
    std::size_t size() const noexcept { return byId_.size(); }

private:
    struct Entry_ {
        std::shared_ptr<McpBridgeSession> session;
        long long lastUsedNs;
        bool isUsed; // which list it is in
    };
    using Order_ = std::list<Entry_>;

    bool makeRoom_(const Order_& order, long long idleNs, long long nowNs, ZnString* evicted);

    Order_ unused_;                                  // made, and never asked for since; the oldest first
    Order_ used_;                                    // idle the longest first
    ZnMap<std::string_view, Order_::iterator> byId_; // keys lie in the sessions
};
