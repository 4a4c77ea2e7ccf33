#include "agent/McpTools.h"

#include "agent/McpHeaders.h"
#include "agent/McpJson.h"
#include "agent/McpRpcAnswer.h"
#include "agent/McpRpcRequest.h"

#include <utility>

namespace {

constexpr int kInvalidParams = -32602;

McpReply failure(std::string_view idText, const char* text) {
    return McpReply::json(mcp::jsonRpcResultTo_(idText, mcp::toolError_(text, 503).view()));
}

/// Sessions choose the ids of their requests for themselves.
ZnString callKey(std::string_view sessionId, const ZnString& idText) {
    return ZnString(sessionId) + "\n" + idText;
}

} // namespace

ZnByteArray McpTools::answer(McpMessage* message) const {
    static const ZnJsonObject kNoArguments;
    const ZnJsonObject& request = message->object();
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
    const std::optional<McpToolCatalogue::Tool> tool = catalogue_.find(name.view());
    if (!tool)
        return mcp::jsonRpcResult_(id, mcp::toolError_("Unknown tool: " + name, 404).view());
    if (tool == McpToolCatalogue::Tool::ListServices)
        return mcp::jsonRpcResult_(
            id, mcp::toolResult_(ZnJsonObject{{"services", services_->publicViews()}}, false).view());
    if (tool == McpToolCatalogue::Tool::GetService)
        return mcp::jsonRpcResult_(id, getService_(arguments).view());
    ZnString refusal;
    message->service = serviceToCall_(arguments, &refusal);
    message->idText = id.toJson();
    return message->service ? ZnByteArray()
                            : ZnByteArray(mcp::jsonRpcResultTo_(message->idText.view(), refusal.view()));
}

ZnString McpTools::getService_(const ZnJsonObject& arguments) const {
    const ZnString serviceId = mcp::textMember_(arguments, "serviceId");
    if (serviceId.isEmpty())
        return mcp::toolError_("Field 'serviceId' is required", 400);
    const McpServiceList::Ref record = services_->find(serviceId);
    if (!record)
        return mcp::toolError_("Service not found", 404);
    return mcp::toolResult_(McpServiceList::publicView(*record), false);
}

/// The checks that need no more than the allowlist; null, with the tool's error, when the service is not to be called.
McpServiceList::Ref McpTools::serviceToCall_(const ZnJsonObject& arguments, ZnString* refusal) const {
    const auto refuse = [refusal](const char* text, int status) {
        *refusal = mcp::toolError_(text, status);
        return nullptr;
    };
    const ZnString serviceId = mcp::textMember_(arguments, "serviceId");
    if (serviceId.isEmpty())
        return refuse("Field 'serviceId' is required", 400);
    if (!arguments.value("request").isObject())
        return refuse("Field 'request' must be a JSON-RPC object", 400);
    McpServiceList::Ref record = services_->find(serviceId);
    if (!record)
        return refuse("Service not found", 404);
    if (!record->enabled)
        return refuse("Service is disabled", 403);
    if (record->transport.toLower() != "streamable-http")
        return refuse("Only streamable-http MCP services are supported by this bridge", 400);
    return record;
}

McpReply McpTools::forward(McpMessage& message) {
    McpForwardRequest request;
    ZnString refusal;
    if (!build_(message, &request, &refusal))
        return McpReply::json(mcp::jsonRpcResultTo_(message.idText.view(), refusal.view()));
    return send_(message, std::move(request));
}

bool McpTools::build_(McpMessage& message, McpForwardRequest* request, ZnString* refusal) {
    const McpBridgeServiceRecord& service = *message.service;
    const JsonReading reading = service.interop ? JsonReading::Exact : JsonReading::QuietDialect;
    const bool isLarge = message.isLarge();
    const auto refuse = [refusal](const char* text, int status) {
        *refusal = mcp::toolError_(text, status);
        return false;
    };
    const auto building = std::make_shared<McpRpcRequest>(std::move(message.document), std::move(message.body), reading,
                                                          service.interop != isExact_);
    if (!isLarge)
        building->build();
    else if (!workers_->await([building] { building->build(); }))
        return refuse(McpCallsInFlight::kStopping, 503);
    if (const char* unusable = building->refusal())
        return refuse(unusable, 400);
    if (!mcp::isHeaderValue(service.bearerToken.view()))
        return refuse("The bearer token of this service is not a valid header value", 500);
    *request = building->take();
    if (const char* noRoom = calls_->refusal(service.id, request->body.size(), services_->size() > 1))
        return refuse(noRoom, 503);
    return true;
}

McpReply McpTools::send_(McpMessage& message, McpForwardRequest request) {
    const McpBridgeServiceRecord& service = *message.service;
    const std::size_t requestBytes = request.body.size();
    McpForwardCall call(service, std::move(request), maxAnswerBytes_, *workers_);
    McpCallsInFlight::Entry entry(*calls_, call, service.id,
                                  message.mayCancel ? callKey(message.sessionId, message.idText) : ZnString());
    entry.hold(requestBytes);
    bool wasLarge = false; // also an answer that is not taken
    call.setGrowth([&](std::size_t answerBytes) {
        wasLarge = wasLarge || answerBytes >= McpRpcAnswer::kLargeBytes;
        return entry.hold(requestBytes + answerBytes);
    });
    message.caller->whenGone([&] { call.end(McpForwardCall::kClientGone); });
    McpForwardResult result = call.run();
    message.caller->whenGone(nullptr);
    if (result.errorCode == McpForwardCall::kCancelled)
        return McpReply::ofStatus(202);
    if (result.errorCode == McpForwardCall::kTooManyBytes)
        return failure(message.idText.view(), McpCallsInFlight::kTooManyBytes);
    const auto answer = std::make_shared<McpRpcAnswer>(std::move(message.idText), std::move(result), service,
                                                       static_cast<std::size_t>(maxAnswerBytes_));
    if (!answer->isLarge())
        answer->build();
    else if (!workers_->await([answer] { answer->build(); }))
        return failure("null", McpCallsInFlight::kStopping);
    calls_->report(service.id, answer->result());
    if (wasLarge)
        workers_->giveMemoryBackSoon();
    McpReply reply = McpReply::json(answer->takeText());
    if (reply.text.size() < McpRpcAnswer::kLargeBytes)
        return reply;
    reply.keptUntilSent = McpCallsInFlight::holdUnsent(calls_, reply.text.size());
    return reply.keptUntilSent ? std::move(reply) : failure(answer->idText().view(), McpCallsInFlight::kTooManyBytes);
}

void McpTools::cancel(const McpMessage& message) {
    calls_->cancel(callKey(message.sessionId, message.cancelledIdText));
}
