#pragma once

#include "agent/McpBridgeSession.h"
#include "agent/McpSessionKeeper.h"
#include "core/types/ZnMap.h"

#include <list>
#include <memory>
#include <string_view>
#include <vector>

/// The MCP sessions by id, bounded: a session in use never vanishes. Room is made by one that has had no second request
/// for a minute, else by one that was idle for an hour.
///
/// With a keeper sessions outlive the agent. One that was restored is known by its hash alone, until its client names
/// the id.
/// Thread: none of its own; the owner locks.
/// Invariant: byId_ and byHash_ hold the sessions of both lists, which are ordered by lastUsedNs; each is in one of
/// them.
class McpSessionTable {
public:
    static constexpr std::size_t kMaxSessions = 10000;
    static constexpr long long kIdleNs = 3600LL * 1000000000;
    static constexpr long long kUnusedNs = 60LL * 1000000000;
    static constexpr std::size_t kMaxIdBytes = 256; // a longer one is none that was given out

    /// The keeper is told of every change from now on. `sessions`, at most kMaxSessions, those last used first to last:
    /// they count as used now where that was today, else as idle. To an empty table only.
    void restore(std::shared_ptr<McpSessionKeeper> keeper, std::vector<McpKeptSession> sessions, long long nowNs);

    /// False, with nothing changed, when the table is full of sessions that must not go yet. `*evicted`: the id of the
    /// one that made room, if any did.
    bool add(std::shared_ptr<McpBridgeSession> session, long long nowNs, ZnString* evicted);
    /// Null for an unknown id. A session that is found counts as used now.
    std::shared_ptr<McpBridgeSession> find(std::string_view id, long long nowNs);
    bool remove(std::string_view id);
    std::size_t size() const noexcept { return byId_.size() + byHash_.size(); }

private:
    struct Entry_ {
        std::shared_ptr<McpBridgeSession> session;
        long long lastUsedNs;
        bool isUsed;       // which list it is in
        long long keptDay; // of the last use that the keeper knows of
    };
    using Order_ = std::list<Entry_>;

    bool look_(std::string_view id, Order_::iterator* entry);
    void erase_(Order_::iterator entry);
    void noteUse_(Entry_* entry, long long nowNs);
    bool makeRoom_(Order_& order, long long idleNs, long long nowNs, ZnString* evicted);

    Order_ unused_;                                    // made, and never asked for since; the oldest first
    Order_ used_;                                      // idle the longest first
    ZnMap<std::string_view, Order_::iterator> byId_;   // keys lie in the sessions
    ZnMap<std::string_view, Order_::iterator> byHash_; // likewise; those whose id is not known yet
    std::shared_ptr<McpSessionKeeper> keeper_;         // null without one
};
