#include "agent/McpSessionTable.h"

#include <utility>

bool McpSessionTable::makeRoom_(const Order_& order, long long idleNs, long long nowNs, ZnString* evicted) {
    if (order.empty() || nowNs - order.front().lastUsedNs < idleNs)
        return false;
    *evicted = order.front().session->id;
    return remove(evicted->view());
}

bool McpSessionTable::add(std::shared_ptr<McpBridgeSession> session, long long nowNs, ZnString* evicted) {
    if (byId_.size() >= kMaxSessions && !makeRoom_(unused_, kUnusedNs, nowNs, evicted) &&
        !makeRoom_(used_, kIdleNs, nowNs, evicted))
        return false;
    const std::string_view id = session->id.view();
    remove(id); // a key must lie in the session that it leads to
    byId_.insert(id, unused_.insert(unused_.end(), {std::move(session), nowNs, false}));
    return true;
}

std::shared_ptr<McpBridgeSession> McpSessionTable::find(std::string_view id, long long nowNs) {
    const auto at = byId_.find(id);
    if (at == byId_.end())
        return nullptr;
    const Order_::iterator entry = at->second;
    used_.splice(used_.end(), entry->isUsed ? used_ : unused_, entry);
    entry->isUsed = true;
    entry->lastUsedNs = nowNs;
    return entry->session;
}

bool McpSessionTable::remove(std::string_view id) {
    const auto at = byId_.find(id);
    if (at == byId_.end())
        return false;
    const Order_::iterator entry = at->second;
    byId_.erase(at); // first: the key lies in the session
    (entry->isUsed ? used_ : unused_).erase(entry);
    return true;
}
