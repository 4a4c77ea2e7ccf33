#pragma once

#include "core/types/ZnString.h"

#include <string_view>
#include <vector>

/// Which names a request's Host header may carry: against web pages that reach the agent under a name of their own.
///
/// Thread: a value, immutable once made.
class McpHostRule {
public:
    /// Any name.
    McpHostRule() = default;
    /// `text` is "any", "local" (the loopback's names and addresses, and the address that is bound) or a list of names
    /// with commas between them.
    McpHostRule(const ZnString& text, const ZnString& bindAddress);

    bool isAny() const noexcept { return isAny_; }
    /// With or without a port. A request without a Host comes from no browser and is allowed.
    bool allows(std::string_view hostHeader) const;

private:
    bool isAny_ = true;
    bool isLocal_ = false;
    std::vector<ZnString> names_; // normalized
};

/// Whether a normalized host name or address means this machine alone.
bool isLoopbackHost(std::string_view host);
/// Lower case, without brackets, port and final dot.
ZnString normalizedHost(std::string_view hostHeader);
