// The three tools and the call of one.

#include "agent/BreltMcpBridgeAgent.h"
#include "agent/McpHeaders.h"
#include "agent/McpJson.h"
#include "agent/McpRpcAnswer.h"
#include "agent/McpRpcRequest.h"
#include "agent/McpWork.h"
#include "core/io/http/ZnHttpAbandonGuard.h"
#include "core/types/ZnJsonDocument.h"

#include <utility>

namespace {

constexpr int kInvalidParams = -32602;

} // namespace

ZnByteArray BreltMcpBridgeAgent::handleToolsCall_(McpMessage& message) {
    static const ZnJsonObject kNoArguments;
    const ZnJsonObject& request = message.object();
    const ZnJsonValue& id = request.value("id");
    const ZnJsonObject* params = request.value("params").object();
    if (params == nullptr)
        return mcp::jsonRpcError_(id, kInvalidParams, "tools/call requires an object params payload");
    const ZnString name = mcp::textMember_(*params, "name");
    if (name.isEmpty())
        return mcp::jsonRpcError_(id, kInvalidParams, "tools/call requires params.name");
    const ZnJsonValue& value = params->value("arguments");
    if (!value.isNull() && !value.isObject())
        return mcp::jsonRpcError_(id, kInvalidParams, "tools/call params.arguments must be an object");
    const ZnJsonObject& arguments = value.isNull() ? kNoArguments : *value.object();
    if (name == "bridge.rpc")
        return callRpcTool_(message, arguments);
    return mcp::jsonRpcResult_(id, callTool_(name, arguments).view());
}

ZnString BreltMcpBridgeAgent::callTool_(const ZnString& name, const ZnJsonObject& arguments) {
    if (name == "bridge.list_services")
        return mcp::toolResult_(ZnJsonObject{{"services", publicServiceViews_()}}, false);
    if (name == "bridge.get_service")
        return getServiceTool_(arguments);
    return mcp::toolError_("Unknown tool: " + name, 404);
}

ZnString BreltMcpBridgeAgent::getServiceTool_(const ZnJsonObject& arguments) {
    const ZnString serviceId = mcp::textMember_(arguments, "serviceId");
    if (serviceId.isEmpty())
        return mcp::toolError_("Field 'serviceId' is required", 400);
    const ServiceRef_ record = findService_(serviceId);
    if (!record)
        return mcp::toolError_("Service not found", 404);
    return mcp::toolResult_(publicServiceView_(*record), false);
}

/// The checks that need no more than the allowlist; null, with the tool's error, when the service is not to be called.
BreltMcpBridgeAgent::ServiceRef_ BreltMcpBridgeAgent::serviceToCall_(const ZnJsonObject& arguments, ZnString* refusal) {
    const auto refuse = [refusal](const char* text, int status) {
        *refusal = mcp::toolError_(text, status);
        return nullptr;
    };
    const ZnString serviceId = mcp::textMember_(arguments, "serviceId");
    if (serviceId.isEmpty())
        return refuse("Field 'serviceId' is required", 400);
    if (!arguments.value("request").isObject())
        return refuse("Field 'request' must be a JSON-RPC object", 400);
    ServiceRef_ record = findService_(serviceId);
    if (!record)
        return refuse("Service not found", 404);
    if (!record->enabled)
        return refuse("Service is disabled", 403);
    if (record->transport.toLower() != "streamable-http")
        return refuse("Only streamable-http MCP services are supported by this bridge", 400);
    return record;
}

ZnByteArray BreltMcpBridgeAgent::callRpcTool_(McpMessage& message, const ZnJsonObject& arguments) {
    ZnJsonValue id = message.object().value("id");
    ZnString refusal;
    const ServiceRef_ service = serviceToCall_(arguments, &refusal);
    if (!service)
        return mcp::jsonRpcResult_(id, refusal.view());
    const std::weak_ptr<const bool> alive = aliveToken_;
    const JsonReading reading = service->interop ? JsonReading::Exact : JsonReading::Dialect;
    const bool isLarge = message.context.request().body.size() >= McpRpcAnswer::kLargeBytes;
    const auto request = std::make_shared<McpRpcRequest>(std::move(message.document),
                                                         std::move(message.context.request().body), reading,
                                                         service->interop != interop_);
    if (!isLarge)
        request->build();
    else if (!mcp::awaitWork(workers_, [request] { request->build(); }) || alive.expired())
        return mcp::jsonRpcResult_(id, mcp::toolError_(McpForwardCalls::kStopping, 503).view());
    const char* unusable = request->refusal();
    if (unusable != nullptr)
        return mcp::jsonRpcResult_(id, mcp::toolError_(unusable, 400).view());
    if (!mcp::isHeaderValue(service->bearerToken.view()))
        return mcp::jsonRpcResult_(
            id, mcp::toolError_("The bearer token of this service is not a valid header value", 500).view());
    return forward_(message.context, std::move(id), *service, request->take());
}

/// Parks; the agent may be gone behind it.
ZnByteArray BreltMcpBridgeAgent::forward_(ZnHttpContext& context, ZnJsonValue id, const McpBridgeServiceRecord& record,
                                          McpForwardRequest request) {
    const std::size_t requestBytes = request.body.size();
    if (const char* refusal = calls_->refusal(record.id, requestBytes, serviceCount() > 1))
        return mcp::jsonRpcResult_(id, mcp::toolError_(refusal, 503).view());
    const std::weak_ptr<const bool> alive = aliveToken_;
    const std::shared_ptr<McpForwardCalls> calls = calls_;
    const std::size_t maxBytes = static_cast<std::size_t>(maxAnswerBytes_);
    McpForwardCall call(record, std::move(request), maxAnswerBytes_, workers_);
    McpForwardCalls::Entry entry(*calls, call, record.id);
    entry.hold(requestBytes);
    call.setGrowth([&](std::size_t answerBytes) { return entry.hold(requestBytes + answerBytes); });
    const ZnHttpAbandonGuard guard(context.request(), [&] { call.end(McpForwardCall::kClientGone); });
    McpForwardResult result = call.run();
    if (result.errorCode == McpForwardCall::kTooManyBytes)
        return mcp::jsonRpcResult_(id, mcp::toolError_(McpForwardCalls::kTooManyBytes, 503).view());
    const bool isOurDoing = result.errorCode == McpForwardCall::kStopped || result.errorCode == McpForwardCall::kClientGone;
    if (!result.message.isEmpty() && !isOurDoing)
        calls->report(record.id, result);
    if (!record.interop)
        result.message.clear();
    const JsonReading reading = record.interop ? JsonReading::Exact : JsonReading::Dialect;
    const auto answer = std::make_shared<McpRpcAnswer>(std::move(id), std::move(result), reading, maxBytes);
    if (!answer->isLarge() || alive.expired())
        answer->build();
    else if (!mcp::awaitWork(workers_, [answer] { answer->build(); }))
        return mcp::jsonRpcResult_(ZnJsonValue(), mcp::toolError_(McpForwardCalls::kStopping, 503).view());
    return answer->takeText();
}
