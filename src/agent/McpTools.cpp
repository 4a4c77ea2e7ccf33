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
    if (name == "bridge.rpc") {
        ZnString refusal;
        message.service = serviceToCall_(arguments, &refusal);
        message.idText = id.toJson();
        return message.service ? ZnByteArray()
                               : ZnByteArray(mcp::jsonRpcResultTo_(message.idText.view(), refusal.view()));
    }
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

/// The answer to a message that has a service to go to. Parks; the agent may be gone behind it.
ZnByteArray BreltMcpBridgeAgent::callRpcTool_(ZnHttpContext& context, McpMessage& message) {
    const ServiceRef_ service = message.service;
    const std::weak_ptr<const bool> alive = aliveToken_;
    const JsonReading reading = service->interop ? JsonReading::Exact : JsonReading::QuietDialect;
    ZnByteArray& body = message.context.request().body;
    const bool isLarge = body.size() >= McpRpcAnswer::kLargeBytes;
    const auto request = std::make_shared<McpRpcRequest>(std::move(message.document), std::move(body), reading,
                                                         service->interop != interop_);
    const auto refuse = [&message](const char* text, int status) {
        return ZnByteArray(mcp::jsonRpcResultTo_(message.idText.view(), mcp::toolError_(text, status).view()));
    };
    if (!isLarge)
        request->build();
    else if (!mcp::awaitWork(workers_, [request] { request->build(); }) || alive.expired())
        return refuse(McpForwardCalls::kStopping, 503);
    if (const char* unusable = request->refusal())
        return refuse(unusable, 400);
    if (!mcp::isHeaderValue(service->bearerToken.view()))
        return refuse("The bearer token of this service is not a valid header value", 500);
    McpForwardRequest toSend = request->take();
    if (const char* refusal = calls_->refusal(service->id, toSend.body.size(), serviceCount() > 1))
        return refuse(refusal, 503);
    return forward_(context, std::move(message.idText), *service, std::move(toSend));
}

/// Parks; the agent may be gone behind it.
ZnByteArray BreltMcpBridgeAgent::forward_(ZnHttpContext& context, ZnString idText, const McpBridgeServiceRecord& record,
                                          McpForwardRequest request) {
    const std::size_t requestBytes = request.body.size();
    const std::weak_ptr<const bool> alive = aliveToken_;
    const std::shared_ptr<McpForwardCalls> calls = calls_;
    const std::size_t maxBytes = static_cast<std::size_t>(maxAnswerBytes_);
    McpForwardCall call(record, std::move(request), maxAnswerBytes_, workers_);
    McpForwardCalls::Entry entry(*calls, call, record.id);
    entry.hold(requestBytes);
    bool wasLarge = false; // also an answer that is not taken
    call.setGrowth([&](std::size_t answerBytes) {
        wasLarge = wasLarge || answerBytes >= McpRpcAnswer::kLargeBytes;
        return entry.hold(requestBytes + answerBytes);
    });
    const ZnHttpAbandonGuard guard(context.request(), [&] { call.end(McpForwardCall::kClientGone); });
    McpForwardResult result = call.run();
    const auto refuse = [](std::string_view id, const char* text) {
        return ZnByteArray(mcp::jsonRpcResultTo_(id, mcp::toolError_(text, 503).view()));
    };
    if (result.errorCode == McpForwardCall::kTooManyBytes)
        return refuse(idText.view(), McpForwardCalls::kTooManyBytes);
    const auto answer = std::make_shared<McpRpcAnswer>(std::move(idText), std::move(result), record, maxBytes);
    if (!answer->isLarge() || alive.expired())
        answer->build();
    else if (!mcp::awaitWork(workers_, [answer] { answer->build(); }))
        return refuse("null", McpForwardCalls::kStopping);
    calls->report(record.id, answer->result());
    if (wasLarge && !alive.expired())
        giveMemoryBackSoon_();
    ZnByteArray text = answer->takeText();
    if (text.size() < McpRpcAnswer::kLargeBytes)
        return text;
    context.request().keptUntilSent = McpForwardCalls::holdUnsent(calls, text.size());
    return context.request().keptUntilSent ? std::move(text)
                                           : refuse(answer->idText().view(), McpForwardCalls::kTooManyBytes);
}
