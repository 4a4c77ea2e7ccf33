#include "agent/McpFailureTable.h"

namespace {
constexpr long long kNsPerMs = 1000000;
constexpr std::int32_t kMaxCount = 2;
} // namespace

long long McpFailureTable::waitSeconds(std::string_view key, long long nowNs) const {
    const auto at = byKey_.find(key);
    if (at == byKey_.end() || nowNs >= at->second.blockedUntil)
        return 0;
    return ((at->second.blockedUntil - nowNs) / kNsPerMs + 999) / 1000;
}

void McpFailureTable::recordFailure(std::string_view key, long long nowNs) {
    if (!byKey_.contains(key)) {
        if (byKey_.size() >= kMaxRecords)
            clear(byExpiry_.begin()->second);
        byKey_.insert(ZnString(key), FailureRecord());
    }
    const auto at = byKey_.find(key);
    const std::string_view storedKey = at->first.view();
    FailureRecord& record = at->second;
    byExpiry_.erase({record.blockedUntil, storedKey});
    if (record.count < kMaxCount)
        ++record.count;
    record.blockedUntil = nowNs + (record.count < kMaxCount ? kFirstBlockNs : kLaterBlockNs);
    byExpiry_.insert({record.blockedUntil, storedKey});
}

void McpFailureTable::clear(std::string_view key) {
    const auto at = byKey_.find(key);
    if (at == byKey_.end())
        return;
    byExpiry_.erase({at->second.blockedUntil, at->first.view()});
    byKey_.erase(at);
}
