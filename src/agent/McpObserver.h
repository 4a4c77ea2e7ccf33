#pragma once

#include "agent/McpBridgeSession.h"
#include "core/types/ZnJsonValue.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <memory>
#include <optional>

/// What came of a call to a service, beyond its HTTP status.
struct McpCallOutcome {
    std::optional<int> rpcCode;      // of a JSON-RPC error
    std::optional<bool> isToolError; // of the result of a tool
};

namespace mcp {

/// What the answer of a service says.
McpCallOutcome outcomeOf(const ZnJsonValue& answer);
/// Eight hexadecimal digits that tell a session from others and do not give its id away.
ZnString sessionTag(const ZnString& sessionId);

} // namespace mcp

/// One message of a client, or an HTTP request that the agent has refused.
///
/// Nothing in a record is a secret: no arguments, no tokens, no header values.
struct McpRequestRecord {
    static constexpr std::size_t kMaxNameBytes = 128; // longer names are cut

    long long beganNs = 0; // monotonic
    long long endedNs = 0;
    std::shared_ptr<const McpBridgeSession> session; // null without one
    ZnString method;                                 // of JSON-RPC; empty when the message has none
    ZnString tool;                                   // of the agent, when the method calls one
    int status = 0;                                  // of HTTP, also where the front has none
    McpCallOutcome answer;                           // where it is the agent's own, not that of a service
    std::size_t bytesIn = 0;
    std::size_t bytesOut = 0;
};

/// One call of a tool that a service was to answer.
struct McpCallRecord {
    enum class Outcome { Ok, ToolError, RpcError, HttpError, TransportError, Cancelled, Refused };
    static const char* nameOf(Outcome outcome);
    Outcome outcome() const;

    long long beganNs = 0; // monotonic
    long long endedNs = 0;
    std::shared_ptr<const McpBridgeSession> session;
    ZnString service;       // its id
    ZnString method;        // sent to the service; empty when nothing was sent
    ZnString tool;          // of the service, when the method calls one
    int status = 0;         // of the service's HTTP answer; 0 without one
    int transportCode = 0;  // 0: there was an answer; else see McpForwardResult
    bool isRefused = false; // by the agent
    McpCallOutcome answer;
    std::size_t bytesIn = 0;  // that the service has sent
    std::size_t bytesOut = 0; // that it got
};

/// Is told what happens. It must not park or throw.
///
/// Thread: that of the loop.
class McpObserver {
public:
    virtual ~McpObserver() = default;
    virtual void onRequest(const McpRequestRecord& record) = 0;
    virtual void onCall(const McpCallRecord& record) = 0;
};
