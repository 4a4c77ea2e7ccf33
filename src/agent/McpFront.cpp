// The HTTP front: routes, what protects the MCP routes, and the small handlers.

#include "agent/BreltMcpBridgeAgent.h"
#include "agent/McpHeaders.h"
#include "agent/McpJson.h"

#include <utility>

namespace {

/// What follows "Bearer " in an "authorization" header, trimmed; empty for any other scheme.
ZnString bearerToken_(std::string_view value) {
    constexpr std::string_view kScheme = "Bearer ";
    value = trimmedView(value);
    if (value.size() < kScheme.size() || !ZnString(value.substr(0, kScheme.size())).equalsIgnoreCase(kScheme))
        return ZnString();
    return ZnString(trimmedView(value.substr(kScheme.size())));
}

} // namespace

void BreltMcpBridgeAgent::registerRoutes_(ZnHttpApp& app) {
    const ZnString path = normalizeMcpPath_(mcpPath_);
    if (!allowedHosts_.isAny())
        keepForeignHostsOut_(app);
    app.options(path, [this](ZnHttpContext& context) { handleOptions_(context); });
    app.get(path, [this](ZnHttpContext& context) { handleGet_(context); });
    app.post(path, [this](ZnHttpContext& context) {
        if (authorizeRequest_(context))
            handlePost_(context);
    });
    app.del(path, [this](ZnHttpContext& context) { handleDelete_(context); });
    app.get("/help", [this](ZnHttpContext& context) { handleHelp_(context); });
    app.get("/services", [this](ZnHttpContext& context) { handleServiceList_(context); });
    app.get("/services/:serviceId", [this](ZnHttpContext& context) { handleServiceGet_(context); });
}

// --- the gate

/// A page that has its own name resolve to this machine is same-origin with the agent in the browser's eyes; only the name
/// that it has to use gives it away.
void BreltMcpBridgeAgent::keepForeignHostsOut_(ZnHttpApp& app) {
    app.addContextMiddleware([this](ZnHttpContext& context, const std::function<void()>& next) {
        if (allowedHosts_.allows(mcp::headerText(context, "host")))
            return next();
        context.setHeader("cache-control", "no-store");
        context.json(mcp::errorBody_("Host not allowed"), 403);
    });
}

/// For every real connection this is the peer's address, which no header can change.
std::string_view BreltMcpBridgeAgent::clientKey_(const ZnHttpContext& context) {
    const std::string_view peer = trimmedView(context.request().peerAddress.view());
    if (!peer.empty())
        return peer;
    const std::string_view forwarded = mcp::headerText(context, "x-forwarded-for");
    return trimmedView(forwarded.substr(0, forwarded.find(',')));
}

void BreltMcpBridgeAgent::applySecurityHeaders_(ZnHttpContext& context) const {
    context.setHeader("cache-control", "no-store");
    const std::string_view origin = mcp::headerText(context, "origin");
    if (origin.empty() || origin != allowedOrigin_.view())
        return;
    context.setHeader("access-control-allow-origin", allowedOrigin_);
    context.setHeader("access-control-allow-credentials", "true");
    context.setHeader("vary", "origin");
    if (interop_)
        context.setHeader("access-control-expose-headers", "mcp-session-id");
}

ZnString BreltMcpBridgeAgent::failureKey_(const ZnHttpContext& context, bool isOfOrigin) const {
    const std::string_view key = clientKey_(context);
    const bool isApart = isOfOrigin && throttle_ == Throttle::ByFailure && !key.empty();
    return isApart ? "origin " + ZnString(key) : ZnString(key);
}

bool BreltMcpBridgeAgent::rejectIfThrottled_(ZnHttpContext& context, const ZnString& key) {
    if (key.isEmpty())
        return false;
    long long waitSeconds = 0;
    {
        ZnMutexLocker locker(failuresMutex_);
        waitSeconds = failures_.waitSeconds(key.view(), clock_());
    }
    if (waitSeconds < 1)
        return false;
    context.setHeader("retry-after", ZnString::number(waitSeconds));
    ZnJsonObject body = mcp::errorBody_("Too many failed MCP bridge attempts");
    body["retryAfterSeconds"] = waitSeconds;
    context.json(std::move(body), 429);
    return true;
}

bool BreltMcpBridgeAgent::rejectIfBlocked_(ZnHttpContext& context) {
    return throttle_ == Throttle::ByAddress && rejectIfThrottled_(context, failureKey_(context, false));
}

/// For a request that fails. Returns whether it has been answered: the client is blocked. Else the failure counts.
bool BreltMcpBridgeAgent::rejectFailure_(ZnHttpContext& context, bool isOfOrigin) {
    const ZnString key = failureKey_(context, isOfOrigin);
    if (throttle_ == Throttle::ByFailure && rejectIfThrottled_(context, key))
        return true;
    if (!key.isEmpty()) {
        ZnMutexLocker locker(failuresMutex_);
        failures_.recordFailure(key.view(), clock_());
    }
    return false;
}

bool BreltMcpBridgeAgent::rejectIfForeignOrigin_(ZnHttpContext& context) {
    const std::string_view origin = mcp::headerText(context, "origin");
    if (origin.empty() || origin == allowedOrigin_.view())
        return false;
    if (!rejectFailure_(context, true))
        context.json(mcp::errorBody_("Origin not allowed"), 403);
    return true;
}

bool BreltMcpBridgeAgent::rejectIfUnauthenticated_(ZnHttpContext& context) {
    if (mcpToken_.isEmpty() ||
        constantTimeEquals(bearerToken_(mcp::headerText(context, "authorization")), mcpToken_))
        return false;
    if (rejectFailure_(context, false))
        return true;
    context.setHeader("www-authenticate", "Bearer realm=\"brelt-mcp-bridge\"");
    context.json(mcp::errorBody_("Authentication required"), 401);
    return true;
}

bool BreltMcpBridgeAgent::authorizeRequest_(ZnHttpContext& context) {
    applySecurityHeaders_(context);
    if (rejectIfBlocked_(context) || rejectIfForeignOrigin_(context) || rejectIfUnauthenticated_(context))
        return false;
    ZnMutexLocker locker(failuresMutex_);
    failures_.clear(clientKey_(context));
    return true;
}

// --- the handlers

void BreltMcpBridgeAgent::handleOptions_(ZnHttpContext& context) {
    applySecurityHeaders_(context);
    if (rejectIfBlocked_(context) || rejectIfForeignOrigin_(context))
        return;
    context.setHeader("allow", "POST, GET, DELETE, OPTIONS");
    context.setHeader("access-control-allow-methods", "POST, GET, DELETE, OPTIONS");
    context.setHeader("access-control-allow-headers",
                      "authorization, content-type, accept, mcp-protocol-version, mcp-session-id");
    context.sendStatus(204);
}

void BreltMcpBridgeAgent::handleGet_(ZnHttpContext& context) {
    if (!authorizeRequest_(context))
        return;
    context.setHeader("allow", "POST, DELETE, OPTIONS");
    context.json(mcp::errorBody_("SSE stream is not implemented on this endpoint"), 405);
}

void BreltMcpBridgeAgent::handleDelete_(ZnHttpContext& context) {
    if (!authorizeRequest_(context))
        return;
    const std::string_view id = mcp::headerText(context, "mcp-session-id");
    if (id.empty())
        context.json(mcp::errorBody_("Missing Mcp-Session-Id header"), 400);
    else
        context.sendStatus(removeSession_(id) ? 204 : 404);
}

void BreltMcpBridgeAgent::handleHelp_(ZnHttpContext& context) const {
    ZnString text = "BreltMcpBridgeAgent API\n"
                    "=======================\n"
                    "Local allowlisted bridge to private MCP services reachable from this BRELT client.\n"
                    "\n"
                    "  GET    /services             List configured services\n"
                    "  GET    /services/:serviceId  Read one configured service without token material\n";
    text += "  POST   " + mcpPath_ + "                 Streamable HTTP MCP endpoint\n";
    text += "  GET    " + mcpPath_ + "                 Returns 405 (SSE not implemented)\n";
    text += "  DELETE " + mcpPath_ + "                 Ends an MCP session\n";
    context.text(text, 200);
}

void BreltMcpBridgeAgent::handleServiceList_(ZnHttpContext& context) {
    context.json(publicServiceViews_(), 200);
}

void BreltMcpBridgeAgent::handleServiceGet_(ZnHttpContext& context) {
    const ServiceRef_ record = findService_(context.pathParam("serviceId"));
    if (record)
        context.json(publicServiceView_(*record), 200);
    else
        context.json(mcp::errorBody_("Service not found"), 404);
}
