#include "agent/McpObserver.h"

#include "agent/McpForwardCall.h"
#include "core/types/ZnCrypto.h"
#include "core/types/ZnJsonObject.h"

#include <cstdio>

const char* McpCallRecord::nameOf(Outcome outcome) {
    switch (outcome) {
    case Outcome::Ok: return "ok";
    case Outcome::ToolError: return "tool_error";
    case Outcome::RpcError: return "rpc_error";
    case Outcome::HttpError: return "http_error";
    case Outcome::TransportError: return "transport_error";
    case Outcome::Cancelled: return "cancelled";
    case Outcome::Refused: break;
    }
    return "refused";
}

McpCallRecord::Outcome McpCallRecord::outcome() const {
    if (isRefused)
        return Outcome::Refused;
    if (transportCode == McpForwardCall::kCancelled || transportCode == McpForwardCall::kClientGone)
        return Outcome::Cancelled;
    if (transportCode != 0)
        return Outcome::TransportError;
    if (answer.rpcCode)
        return Outcome::RpcError;
    if (status < 200 || status > 299)
        return Outcome::HttpError;
    return answer.isToolError.value_or(false) ? Outcome::ToolError : Outcome::Ok;
}

ZnString mcp::sessionTag(const ZnString& sessionId) {
    const ZnCrypto::Bytes digest = ZnCrypto::hash(sessionId, HashAlgorithm::Sha256);
    char text[9];
    std::snprintf(text, sizeof(text), "%02x%02x%02x%02x", digest[0], digest[1], digest[2], digest[3]);
    return text;
}

McpCallOutcome mcp::outcomeOf(const ZnJsonValue& answer) {
    McpCallOutcome outcome;
    const ZnJsonObject* message = answer.object();
    if (message == nullptr)
        return outcome;
    if (const ZnJsonObject* error = message->value("error").object())
        outcome.rpcCode = error->value("code").toInt(0);
    if (const ZnJsonObject* result = message->value("result").object();
        result != nullptr && result->contains("isError"))
        outcome.isToolError = result->value("isError").toBool(false);
    return outcome;
}
