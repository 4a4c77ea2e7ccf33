#include "agent/McpTools.h"

#include "agent/McpJson.h"

#include <utility>

namespace {

constexpr int kInvalidParams = -32602;

} // namespace

ZnByteArray McpTools::answer(McpMessage* message) const {
    static const ZnJsonObject kNoArguments;
    const ZnJsonObject& request = message->object();
    const ZnJsonValue& id = request.value("id");
    McpCallOutcome unused;
    McpCallOutcome& outcome = message->record ? message->record->answer : unused;
    const auto invalid = [&](const char* text) {
        outcome.rpcCode = kInvalidParams;
        return ZnByteArray(mcp::jsonRpcError_(id, kInvalidParams, text));
    };
    const ZnJsonObject* params = request.value("params").object();
    if (params == nullptr)
        return invalid("tools/call requires an object params payload");
    const ZnString name = mcp::textMember_(*params, "name");
    if (name.isEmpty())
        return invalid("tools/call requires params.name");
    const ZnJsonValue& value = params->value("arguments");
    if (!value.isNull() && !value.isObject())
        return invalid("tools/call params.arguments must be an object");
    const ZnJsonObject& arguments = value.isNull() ? kNoArguments : *value.object();
    if (message->record)
        message->record->tool = ZnString(name.view().substr(0, McpRequestRecord::kMaxNameBytes));
    const std::optional<McpToolCatalogue::Tool> tool = catalogue_.find(name.view());
    outcome.isToolError = !tool;
    if (!tool)
        return mcp::jsonRpcResult_(id, mcp::toolError_("Unknown tool: " + name, 404).view());
    if (tool == McpToolCatalogue::Tool::ListServices)
        return mcp::jsonRpcResult_(
            id, mcp::toolResult_(ZnJsonObject{{"services", context_.services->publicViews()}}, false).view());
    if (tool == McpToolCatalogue::Tool::GetService)
        return mcp::jsonRpcResult_(id, getService_(arguments, &outcome).view());
    ZnString refusal;
    message->tool = *tool;
    message->service = serviceToCall_(*tool, arguments, &refusal);
    message->idText = id.toJson();
    outcome.isToolError = message->service ? std::nullopt : std::optional(true); // else the service has the say
    if (context_.usesProgress)
        message->progressToken = mcp::progressToken(*params);
    return message->service ? ZnByteArray()
                            : ZnByteArray(mcp::jsonRpcResultTo_(message->idText.view(), refusal.view()));
}

ZnString McpTools::getService_(const ZnJsonObject& arguments, McpCallOutcome* outcome) const {
    const ZnString serviceId = mcp::textMember_(arguments, "serviceId");
    outcome->isToolError = true;
    if (serviceId.isEmpty())
        return mcp::toolError_("Field 'serviceId' is required", 400);
    const McpServiceList::Ref record = context_.services->find(serviceId);
    outcome->isToolError = !record;
    if (!record)
        return mcp::toolError_("Service not found", 404);
    return mcp::toolResult_(McpServiceList::publicView(*record), false);
}

/// The checks that need no more than the allowlist; null, with the tool's error, when the service is not to be called.
McpServiceList::Ref McpTools::serviceToCall_(McpToolCatalogue::Tool tool, const ZnJsonObject& arguments,
                                             ZnString* refusal) const {
    const auto refuse = [refusal](const ZnString& text, int status) {
        *refusal = mcp::toolError_(text, status);
        return nullptr;
    };
    const ZnString serviceId = mcp::textMember_(arguments, "serviceId");
    if (serviceId.isEmpty())
        return refuse("Field 'serviceId' is required", 400);
    if (tool == McpToolCatalogue::Tool::CallTool) {
        if (mcp::textMember_(arguments, "name").isEmpty())
            return refuse("Field 'name' is required", 400);
        const ZnJsonValue& values = arguments.value("arguments");
        if (!values.isNull() && !values.isObject())
            return refuse("Field 'arguments' must be a JSON object", 400);
    }
    if (tool == McpToolCatalogue::Tool::Rpc && !arguments.value("request").isObject())
        return refuse("Field 'request' must be a JSON-RPC object", 400);
    McpServiceList::Ref record = context_.services->find(serviceId);
    if (!record)
        return refuse("Service not found", 404);
    if (!record->enabled)
        return refuse("Service is disabled", 403);
    if (!record->problem.isEmpty())
        return refuse(record->problem, 500);
    if (record->transport.toLower() != "streamable-http")
        return refuse("Only streamable-http MCP services are supported by this bridge", 400);
    return record;
}

void McpTools::cancel(const McpMessage& message) {
    context_.inFlight->cancel(mcp::callKey(message.sessionId, message.cancelledIdText));
}
