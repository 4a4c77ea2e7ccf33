#include "agent/McpSessionTable.h"

#include <utility>

bool McpSessionTable::add(std::shared_ptr<McpBridgeSession> session, long long nowNs) {
    if (byId_.size() >= kMaxSessions) {
        const Entry_& oldest = byUse_.front();
        if (nowNs - oldest.lastUsedNs < kIdleNs)
            return false;
        remove(oldest.session->id.view());
    }
    const std::string_view id = session->id.view();
    remove(id); // a key must lie in the session that it leads to
    byId_.insert(id, byUse_.insert(byUse_.end(), {std::move(session), nowNs}));
    return true;
}

std::shared_ptr<McpBridgeSession> McpSessionTable::find(std::string_view id, long long nowNs) {
    const auto at = byId_.find(id);
    if (at == byId_.end())
        return nullptr;
    at->second->lastUsedNs = nowNs;
    byUse_.splice(byUse_.end(), byUse_, at->second);
    return at->second->session;
}

bool McpSessionTable::remove(std::string_view id) {
    const auto at = byId_.find(id);
    if (at == byId_.end())
        return false;
    const Order_::iterator entry = at->second;
    byId_.erase(at); // first: the key lies in the session
    byUse_.erase(entry);
    return true;
}
