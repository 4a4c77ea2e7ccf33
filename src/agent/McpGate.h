#pragma once

#include "agent/McpFailureTable.h"
#include "agent/McpHostRule.h"
#include "agent/McpReply.h"
#include "core/io/http/ZnHttpContext.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/types/ZnMutex.h"
#include "core/types/ZnString.h"

#include <functional>
#include <optional>
#include <string_view>

/// What protects the MCP path: the name it is called by, the browser's origin, the client's token, and a throttle for
/// clients that fail.
///
/// Thread: any, once it is set up. Owner: the agent.
class McpGate {
public:
    /// What failed attempts block. ByAddress: every request of the client's address. ByFailure: a request that would
    /// fail once more; the right token with no or the allowed origin always passes, and refused origins count by
    /// themselves.
    enum class Throttle { ByAddress, ByFailure };

    /// Set before the first request, and not changed any more.
    struct Settings {
        ZnString token;         // that clients must show; empty: none
        ZnString allowedOrigin; // that a browser may call from; empty: none
        McpHostRule allowedHosts;
        Throttle throttle = Throttle::ByAddress;
        bool exposesSession = false; // browsers may read the session's header
        std::function<long long()> clock = monotonicNowNs;
    };
    Settings& settings() noexcept { return settings_; }

    bool checksHosts() const noexcept { return !settings_.allowedHosts.isAny(); }
    /// The answer to a request by a name that the agent may not be called by; nothing when it may.
    std::optional<McpReply> refuseHost(const ZnHttpContext& context) const;
    /// The answer to a request that may not pass, which has been counted; nothing when it may.
    std::optional<McpReply> refuse(const ZnHttpContext& context);
    /// The same for a preflight, which shows no token.
    std::optional<McpReply> refusePreflight(const ZnHttpContext& context);
    /// Sets the headers that every answer on the MCP path has.
    void setHeaders(ZnHttpContext& context) const;

private:
    static std::string_view clientKey_(const ZnHttpContext& context);
    ZnString failureKey_(const ZnHttpContext& context, bool isOfOrigin) const;
    std::optional<McpReply> refuseThrottled_(std::string_view key);
    std::optional<McpReply> refuseFailure_(const ZnHttpContext& context, bool isOfOrigin);
    std::optional<McpReply> refuseToken_(const ZnHttpContext& context);

    Settings settings_;
    ZnMutex failuresLock_; // leaf
    McpFailureTable failures_ ZN_GUARDED_BY(failuresLock_);
};
