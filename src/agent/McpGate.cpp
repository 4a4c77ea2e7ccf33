#include "agent/McpGate.h"

#include "agent/McpHeaders.h"
#include "core/types/ZnCrypto.h"

#include <utility>

namespace {

/// What follows "Bearer " in an "authorization" header, trimmed; empty for any other scheme.
ZnString bearerToken(std::string_view value) {
    constexpr std::string_view kScheme = "Bearer ";
    value = trimmedView(value);
    if (value.size() < kScheme.size() || !ZnString(value.substr(0, kScheme.size())).equalsIgnoreCase(kScheme))
        return ZnString();
    return ZnString(trimmedView(value.substr(kScheme.size())));
}

} // namespace

/// A page that has its own name resolve to this machine is same-origin with the agent in the browser's eyes; only the
/// name that it has to use gives it away.
std::optional<McpReply> McpGate::refuseHost(const ZnHttpContext& context) const {
    if (settings_.allowedHosts.allows(mcp::headerText(context, "host")))
        return std::nullopt;
    McpReply reply = McpReply::error(403, "Host not allowed");
    reply.headers.push_back({"cache-control", "no-store"});
    return reply;
}

std::optional<McpReply> McpGate::refuse(const ZnHttpContext& context) {
    std::optional<McpReply> refusal = refusePreflight(context);
    if (!refusal)
        refusal = refuseToken_(context);
    if (!refusal) {
        ZnMutexLocker locker(failuresLock_);
        failures_.clear(clientKey_(context));
    }
    return refusal;
}

std::optional<McpReply> McpGate::refusePreflight(const ZnHttpContext& context) {
    if (settings_.throttle == Throttle::ByAddress)
        if (std::optional<McpReply> refusal = refuseThrottled_(clientKey_(context)))
            return refusal;
    const std::string_view origin = mcp::headerText(context, "origin");
    if (origin.empty() || origin == settings_.allowedOrigin.view())
        return std::nullopt;
    std::optional<McpReply> refusal = refuseFailure_(context, true);
    return refusal ? std::move(refusal) : McpReply::error(403, "Origin not allowed");
}

void McpGate::setHeaders(ZnHttpContext& context) const {
    context.setHeader("cache-control", "no-store");
    const std::string_view origin = mcp::headerText(context, "origin");
    if (origin.empty() || origin != settings_.allowedOrigin.view())
        return;
    context.setHeader("access-control-allow-origin", settings_.allowedOrigin);
    context.setHeader("access-control-allow-credentials", "true");
    context.setHeader("vary", "origin");
    if (settings_.exposesSession)
        context.setHeader("access-control-expose-headers", "mcp-session-id");
}

std::optional<McpReply> McpGate::refuseToken_(const ZnHttpContext& context) {
    if (settings_.token.isEmpty() ||
        constantTimeEquals(bearerToken(mcp::headerText(context, "authorization")), settings_.token))
        return std::nullopt;
    if (std::optional<McpReply> refusal = refuseFailure_(context, false))
        return refusal;
    McpReply reply = McpReply::error(401, "Authentication required");
    reply.headers.push_back({"www-authenticate", "Bearer realm=\"brelt-mcp-bridge\""});
    return reply;
}

/// For every real connection this is the peer's address, which no header can change.
std::string_view McpGate::clientKey_(const ZnHttpContext& context) {
    const std::string_view peer = trimmedView(context.request().peerAddress.view());
    if (!peer.empty())
        return peer;
    const std::string_view forwarded = mcp::headerText(context, "x-forwarded-for");
    return trimmedView(forwarded.substr(0, forwarded.find(',')));
}

/// What a failure of that kind counts for: the client, or by failure a name of the client's that no address has.
ZnString McpGate::failureKey_(const ZnHttpContext& context, bool isOfOrigin) const {
    const std::string_view key = clientKey_(context);
    const bool isApart = isOfOrigin && settings_.throttle == Throttle::ByFailure && !key.empty();
    return isApart ? "origin " + ZnString(key) : ZnString(key);
}

std::optional<McpReply> McpGate::refuseThrottled_(std::string_view key) {
    if (key.empty())
        return std::nullopt;
    long long waitSeconds = 0;
    {
        ZnMutexLocker locker(failuresLock_);
        waitSeconds = failures_.waitSeconds(key, settings_.clock());
    }
    if (waitSeconds < 1)
        return std::nullopt;
    ZnJsonObject body = mcp::errorBody_("Too many failed MCP bridge attempts");
    body["retryAfterSeconds"] = waitSeconds;
    McpReply reply = McpReply::error(429, std::move(body));
    reply.headers.push_back({"retry-after", ZnString::number(waitSeconds)});
    return reply;
}

/// For a request that fails. An answer when the client is blocked; else the failure counts.
std::optional<McpReply> McpGate::refuseFailure_(const ZnHttpContext& context, bool isOfOrigin) {
    const ZnString key = failureKey_(context, isOfOrigin);
    if (settings_.throttle == Throttle::ByFailure)
        if (std::optional<McpReply> refusal = refuseThrottled_(key.view()))
            return refusal;
    if (!key.isEmpty()) {
        ZnMutexLocker locker(failuresLock_);
        failures_.recordFailure(key.view(), settings_.clock());
    }
    return std::nullopt;
}
