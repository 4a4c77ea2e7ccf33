#include "agent/McpSessionTable.h"

#include "agent/McpText.h"
#include "agent/McpTime.h"

#include <utility>

namespace {

constexpr long long kDayCheckNs = 3600LL * 1000000000;

long long today() {
    return mcp::wallNowUs() / mcp::kUsPerDay;
}

} // namespace

void McpSessionTable::restore(std::shared_ptr<McpSessionKeeper> keeper, std::vector<McpKeptSession> sessions,
                              long long nowNs) {
    keeper_ = std::move(keeper);
    for (McpKeptSession& kept : sessions) {
        const std::string_view hash = kept.session->hash.view();
        Order_& order = kept.isUsed ? used_ : unused_;
        const long long lastUsedNs = kept.isOfToday ? nowNs : nowNs - kIdleNs;
        const long long keptDay = kept.isOfToday ? today() : 0;
        byHash_.insert(hash, order.insert(order.end(), {std::move(kept.session), lastUsedNs, kept.isUsed, keptDay}));
    }
}

bool McpSessionTable::makeRoom_(Order_& order, long long idleNs, long long nowNs, ZnString* evicted) {
    if (order.empty() || nowNs - order.front().lastUsedNs < idleNs)
        return false;
    *evicted = order.front().session->id;
    erase_(order.begin());
    return true;
}

bool McpSessionTable::add(std::shared_ptr<McpBridgeSession> session, long long nowNs, ZnString* evicted) {
    if (size() >= kMaxSessions && !makeRoom_(unused_, kUnusedNs, nowNs, evicted) &&
        !makeRoom_(used_, kIdleNs, nowNs, evicted))
        return false;
    const std::string_view id = session->id.view();
    remove(id); // a key must lie in the session that it leads to
    if (keeper_)
        session->hash = mcp::sha256Text(id);
    const long long keptDay = keeper_ ? today() : 0;
    if (keeper_)
        keeper_->keep(*session, false, keptDay);
    byId_.insert(id, unused_.insert(unused_.end(), {std::move(session), nowNs, false, keptDay}));
    return true;
}

std::shared_ptr<McpBridgeSession> McpSessionTable::find(std::string_view id, long long nowNs) {
    Order_::iterator entry;
    if (!look_(id, &entry))
        return nullptr;
    used_.splice(used_.end(), entry->isUsed ? used_ : unused_, entry);
    if (keeper_)
        noteUse_(&*entry, nowNs);
    entry->isUsed = true;
    entry->lastUsedNs = nowNs;
    return entry->session;
}

bool McpSessionTable::remove(std::string_view id) {
    Order_::iterator entry;
    const bool isThere = look_(id, &entry);
    if (isThere)
        erase_(entry);
    return isThere;
}

/// False for an unknown id. A restored session has its id from now on.
bool McpSessionTable::look_(std::string_view id, Order_::iterator* entry) {
    if (const auto at = byId_.find(id); at != byId_.end()) {
        *entry = at->second;
        return true;
    }
    if (byHash_.isEmpty() || id.size() > kMaxIdBytes)
        return false;
    const auto at = byHash_.find(mcp::sha256Text(id).view());
    if (at == byHash_.end())
        return false;
    *entry = at->second;
    byHash_.erase(at);
    (*entry)->session->id = ZnString(id);
    byId_.insert((*entry)->session->id.view(), *entry);
    return true;
}

void McpSessionTable::erase_(Order_::iterator entry) {
    if (keeper_)
        keeper_->forget(*entry->session);
    const McpBridgeSession& session = *entry->session;
    if (session.id.isEmpty()) // the keys lie in the session, so they go first
        byHash_.remove(session.hash.view());
    else
        byId_.remove(session.id.view());
    (entry->isUsed ? used_ : unused_).erase(entry);
}

/// The day is looked at once an hour: that is exact enough for weeks, and reading a clock costs as much as a look-up.
void McpSessionTable::noteUse_(Entry_* entry, long long nowNs) {
    if (entry->isUsed && nowNs / kDayCheckNs == entry->lastUsedNs / kDayCheckNs)
        return;
    const long long day = today();
    if (entry->isUsed && entry->keptDay == day)
        return;
    entry->keptDay = day;
    keeper_->keep(*entry->session, true, day);
}
