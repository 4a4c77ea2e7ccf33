#include "agent/McpHostRule.h"

#include "core/platform/ZnSocketHandle.h"
#include "core/types/ZnList.h"

#include <algorithm>

ZnString normalizedHost(std::string_view hostHeader) {
    std::string_view host = trimmedView(hostHeader);
    if (host.starts_with('[')) {
        host = host.substr(1, host.find(']') - 1);
    } else if (std::count(host.begin(), host.end(), ':') == 1) { // more of them: an address without brackets
        host = host.substr(0, host.find(':'));
    }
    if (host.ends_with('.'))
        host.remove_suffix(1);
    return ZnString(host).toLower();
}

bool isLoopbackHost(std::string_view host) {
    if (host == "localhost" || host.ends_with(".localhost"))
        return true;
    const ZnSocketAddress address = ZnSocketAddress::fromNumeric(ZnString(host), 0);
    if (address.family() == ZnSocketAddress::Family::None)
        return false;
    const ZnString text = address.text();
    return text == "::1" || text.startsWith("127.");
}

McpHostRule::McpHostRule(const ZnString& text, const ZnString& bindAddress) {
    const ZnString rule = text.trimmed().toLower();
    isAny_ = rule == "any" || rule.isEmpty();
    isLocal_ = rule == "local";
    if (isLocal_) {
        names_.push_back(normalizedHost(bindAddress.view()));
    } else if (!isAny_) {
        for (const ZnString& name : rule.split(','))
            names_.push_back(normalizedHost(name.view()));
    }
}

bool McpHostRule::allows(std::string_view hostHeader) const {
    if (isAny_ || trimmedView(hostHeader).empty())
        return true;
    const ZnString host = normalizedHost(hostHeader);
    return (isLocal_ && isLoopbackHost(host.view())) || std::find(names_.begin(), names_.end(), host) != names_.end();
}
