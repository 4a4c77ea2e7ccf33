// The three tools and the call of one.

#include "agent/BreltMcpBridgeAgent.h"
#include "agent/McpHeaders.h"
#include "agent/McpJson.h"
#include "core/types/ZnJsonDocument.h"

#include <utility>

namespace {

constexpr int kInvalidParams = -32602;

/// The trimmed text of a member that is a string; any other type counts as absent.
ZnString stringMember(const ZnJsonObject& object, std::string_view name) {
    return ZnString(trimmedView(object.value(name).string()));
}

/// The arguments of a "tools/call" that has been read before; null when it cannot be read in that way.
const ZnJsonObject* argumentsOf(const ZnJsonDocument& message) {
    const ZnJsonObject* root = message.root().object();
    const ZnJsonObject* params = root == nullptr ? nullptr : root->value("params").object();
    return params == nullptr ? nullptr : params->value("arguments").object();
}

bool isSuccess(const McpForwardResult& result) {
    return result.transportOk && result.statusCode >= 200 && result.statusCode <= 299;
}

} // namespace

ZnString BreltMcpBridgeAgent::handleToolsCall_(const ZnHttpContext& context, const ZnJsonObject& request) {
    static const ZnJsonObject kNoArguments;
    const ZnJsonValue& id = request.value("id");
    const ZnJsonObject* params = request.value("params").object();
    if (params == nullptr)
        return mcp::jsonRpcError_(id, kInvalidParams, "tools/call requires an object params payload");
    const ZnString name = mcp::textMember_(*params, "name");
    if (name.isEmpty())
        return mcp::jsonRpcError_(id, kInvalidParams, "tools/call requires params.name");
    const ZnJsonValue& arguments = params->value("arguments");
    if (!arguments.isNull() && !arguments.isObject())
        return mcp::jsonRpcError_(id, kInvalidParams, "tools/call params.arguments must be an object");
    const ZnString result = callTool_(context, name, arguments.isNull() ? kNoArguments : *arguments.object());
    return mcp::jsonRpcResult_(id, result.view());
}

ZnString BreltMcpBridgeAgent::callTool_(const ZnHttpContext& context, const ZnString& name,
                                        const ZnJsonObject& arguments) {
    if (name == "bridge.list_services")
        return mcp::toolResult_(ZnJsonObject{{"services", publicServiceViews_()}}, false);
    if (name == "bridge.get_service")
        return getServiceTool_(arguments);
    if (name == "bridge.rpc")
        return callRpcTool_(context, arguments);
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

ZnString BreltMcpBridgeAgent::callRpcTool_(const ZnHttpContext& context, const ZnJsonObject& arguments) {
    const ZnString serviceId = mcp::textMember_(arguments, "serviceId");
    if (serviceId.isEmpty())
        return mcp::toolError_("Field 'serviceId' is required", 400);
    if (!arguments.value("request").isObject())
        return mcp::toolError_("Field 'request' must be a JSON-RPC object", 400);
    const ServiceRef_ record = findService_(serviceId);
    if (!record)
        return mcp::toolError_("Service not found", 404);
    if (!record->enabled)
        return mcp::toolError_("Service is disabled", 403);
    if (record->transport.toLower() != "streamable-http")
        return mcp::toolError_("Only streamable-http MCP services are supported by this bridge", 400);
    if (record->interop == interop_)
        return forwardTool_(*record, arguments.value("request"), arguments);
    // The service wants the request in the other reading. Texts that the exact one has kept stay usable.
    ZnJsonDocument message;
    ZnString error;
    const JsonReading reading = record->interop ? JsonReading::Exact : JsonReading::Dialect;
    const ZnJsonObject* reread =
        context.parseJsonBody(&message, &error, reading, mcp::kMaxJsonValues) ? argumentsOf(message) : nullptr;
    if (reread == nullptr)
        return mcp::toolError_("Field 'request' holds a number that this service cannot take", 400);
    return forwardTool_(*record, reread->value("request"), record->interop ? *reread : arguments);
}

ZnString BreltMcpBridgeAgent::forwardTool_(const McpBridgeServiceRecord& record, const ZnJsonValue& request,
                                           const ZnJsonObject& arguments) {
    const ZnString protocolVersion = stringMember(arguments, "protocolVersion");
    const ZnString sessionId = stringMember(arguments, "sessionId");
    if (!mcp::isHeaderValue(protocolVersion.view()))
        return mcp::toolError_("Field 'protocolVersion' is not a valid header value", 400);
    if (!mcp::isHeaderValue(sessionId.view()))
        return mcp::toolError_("Field 'sessionId' is not a valid header value", 400);
    if (!mcp::isHeaderValue(record.bearerToken.view()))
        return mcp::toolError_("The bearer token of this service is not a valid header value", 500);
    if (calls_->isStopping())
        return mcp::toolError_("Agent is stopping", 503);
    if (calls_->isFull())
        return mcp::toolError_("Too many bridge calls in flight", 503);
    McpForwardResult result = forwardToService_(record, request, protocolVersion, sessionId);
    const bool isError = !isSuccess(result);
    return mcp::toolResult_(forwardResultToJson_(std::move(result)), isError);
}

McpForwardResult BreltMcpBridgeAgent::forwardToService_(const McpBridgeServiceRecord& record,
                                                        const ZnJsonValue& request, const ZnString& protocolVersion,
                                                        const ZnString& sessionId) {
    const std::shared_ptr<McpForwardCalls> calls = calls_;
    McpForwardCall call(record, request, protocolVersion, sessionId);
    const McpForwardCalls::Entry entry(*calls, call);
    return call.run();
}
