#include "agent/McpModernEra.h"

#include "agent/McpJson.h"
#include "agent/McpTools.h"

#include <optional>
#include <string_view>
#include <utility>

namespace {

constexpr int kParseError = -32700;
constexpr int kInvalidRequest = -32600;
constexpr int kMethodNotFound = -32601;
constexpr int kInvalidParams = -32602;
constexpr int kHeaderMismatch = -32020;
constexpr int kUnsupportedVersion = -32022;

constexpr int kOk = 200; // of HTTP
constexpr int kAccepted = 202;
constexpr int kBadRequest = 400;
constexpr int kNotFound = 404;
constexpr int kUnsupportedMediaType = 415;

constexpr std::string_view kVersionKey = "io.modelcontextprotocol/protocolVersion";
constexpr std::string_view kCapabilitiesKey = "io.modelcontextprotocol/clientCapabilities";
constexpr std::string_view kClientKey = "io.modelcontextprotocol/clientInfo";
constexpr const char* kServerKey = "io.modelcontextprotocol/serverInfo";

/// Clients ask anew each time: what is offered may change with the next start, and nobody tells them of it.
constexpr std::string_view kUncached = R"("cacheScope": "private","ttlMs": 0)";

struct Problem {
    int code;
    const char* text;
    int status = kBadRequest;
    ZnJsonValue data = {};
};
using Finding = std::optional<Problem>; // nothing: all is well

McpReply refuse(McpMessage* message, const ZnJsonValue& id, const Problem& problem) {
    if (message->record)
        message->record->answer.rpcCode = problem.code;
    return McpReply::jsonRpc(problem.status, mcp::jsonRpcError_(id, problem.code, problem.text, problem.data));
}

const ZnJsonObject* metaOf(const ZnJsonObject& object) {
    const ZnJsonObject* params = object.value("params").object();
    return params == nullptr ? nullptr : params->value("_meta").object();
}

bool isRpcMessage(const ZnJsonObject& object) {
    const bool hasParams = object.contains("params");
    const bool hasId = object.contains("id");
    return object.value("jsonrpc").string() == "2.0" && object.value("method").isString() &&
           (!hasParams || object.value("params").isObject()) && (!hasId || mcp::isUsableId(object.value("id")));
}

// --- the headers

Finding mismatch(const char* text) {
    return Problem{kHeaderMismatch, text};
}

Finding checkVersionHeader(const McpMessage& message, std::string_view version) {
    if (!message.mirror)
        return std::nullopt;
    if (message.mirror->isDoubled)
        return mismatch("A header that repeats a part of the message came more than once");
    if (message.protocolVersion.empty())
        return mismatch("Header MCP-Protocol-Version is missing");
    return message.protocolVersion == version ? std::nullopt
                                              : mismatch("Header MCP-Protocol-Version differs from the message");
}

/// The member of the params that the header Mcp-Name repeats; empty when there is none.
std::string_view namedMember(std::string_view method) {
    if (method == "tools/call" || method == "prompts/get")
        return "name";
    return method == "resources/read" ? "uri" : "";
}

Finding checkNameHeader(const McpMirror& mirror, std::string_view method, const ZnJsonObject& params) {
    const std::string_view member = namedMember(method);
    const ZnJsonValue& name = params.value(member);
    if (member.empty() || !name.isString())
        return std::nullopt; // what no text is, is refused as what it is
    if (!mirror.name)
        return mismatch("Header Mcp-Name is missing");
    const std::optional<ZnString> repeated = mcp::decodeMirrored(mirror.name->view());
    if (!repeated)
        return mismatch("Header Mcp-Name is malformed");
    return repeated->view() == name.string() ? std::nullopt : mismatch("Header Mcp-Name differs from the message");
}

Finding checkMirror(const McpMessage& message) {
    if (!message.mirror)
        return std::nullopt;
    const std::string_view method = message.object().value("method").string();
    if (message.mirror->method.isEmpty())
        return mismatch("Header Mcp-Method is missing");
    if (message.mirror->method.view() != method)
        return mismatch("Header Mcp-Method differs from the message");
    return checkNameHeader(*message.mirror, method, *message.object().value("params").object());
}

// --- what the message says of itself

Finding unsupported(std::string_view version) {
    ZnJsonArray supported;
    supported.append(McpModernEra::kVersion);
    return Problem{kUnsupportedVersion, "Unsupported protocol version", kBadRequest,
                   ZnJsonObject{{"requested", ZnJsonValue(version)}, {"supported", std::move(supported)}}};
}

Finding checkEnvelope(const McpMessage& message) {
    const ZnJsonObject* meta = metaOf(message.object());
    const bool hasVersion = meta != nullptr && meta->contains(kVersionKey);
    if (!hasVersion && message.object().value("method").string() == "initialize")
        return mismatch("initialize is of another version than header MCP-Protocol-Version");
    if (!hasVersion || !meta->value(kVersionKey).isString())
        return Problem{kInvalidParams, "_meta needs the text io.modelcontextprotocol/protocolVersion"};
    const std::string_view version = meta->value(kVersionKey).string();
    if (Finding finding = checkVersionHeader(message, version))
        return finding;
    if (!meta->value(kCapabilitiesKey).isObject())
        return Problem{kInvalidParams, "_meta needs the object io.modelcontextprotocol/clientCapabilities"};
    if (meta->contains(kClientKey) && !meta->value(kClientKey).isObject())
        return Problem{kInvalidParams, "io.modelcontextprotocol/clientInfo of _meta is no object"};
    return version == McpModernEra::kVersion ? std::nullopt : unsupported(version);
}

/// A notification may lack what a request needs, but not say two things.
Finding checkNotification(const McpMessage& message) {
    const ZnJsonObject* meta = metaOf(message.object());
    const std::string_view version = meta == nullptr ? "" : meta->value(kVersionKey).string();
    if (!message.protocolVersion.empty() && !version.empty())
        if (Finding finding = checkVersionHeader(message, version))
            return finding;
    const std::string_view method = message.object().value("method").string();
    const bool differs = message.mirror && !message.mirror->method.isEmpty() && message.mirror->method.view() != method;
    return differs ? mismatch("Header Mcp-Method differs from the message") : std::nullopt;
}

// --- results

McpReply resultReply(const ZnJsonValue& id, std::string_view resultText, std::string_view moreMembers) {
    ZnByteArray text(mcp::jsonRpcResult_(id, resultText));
    mcp::addToResult(&text, moreMembers);
    McpModernEra::complete(McpToolCatalogue::Tool::ListServices, &text);
    return McpReply::json(std::move(text));
}

/// Of results of the agent's own.
const ZnString& resultForm() {
    static const ZnString kForm = [] {
        const ZnJsonObject form{{"_meta", ZnJsonObject{{kServerKey, mcp::serverInfo()}}}, {"resultType", "complete"}};
        const ZnString text = ZnJsonValue(form).toJson();
        return ZnString(text.view().substr(1, text.size() - 2));
    }();
    return kForm;
}

} // namespace

bool McpModernEra::speaks(const McpMessage& message) {
    const ZnJsonObject* meta = metaOf(message.object());
    return isAnnounced(message) || (meta != nullptr && meta->contains(kVersionKey));
}

McpReply McpModernEra::refuseUnreadable(McpMessage* message) {
    const bool isBatch = trimmedView(message->body.view()).starts_with('[');
    return refuse(message, ZnJsonValue(),
                  {isBatch ? kInvalidRequest : kParseError, "Expected a single JSON-RPC object"});
}

McpReply McpModernEra::answer(McpMessage* message) const {
    message->isModern = true;
    message->sessionId = {};
    const ZnJsonObject& object = message->object();
    const ZnJsonValue& id = object.value("id");
    const std::string_view method = object.value("method").string();
    if (message->record)
        message->record->method = ZnString(method.substr(0, McpRequestRecord::kMaxNameBytes));
    if (message->mirror && !message->mirror->isJson)
        return McpReply::error(kUnsupportedMediaType, "Content-Type must be application/json");
    if (!isRpcMessage(object))
        return refuse(message, mcp::isUsableId(id) ? id : ZnJsonValue(), {kInvalidRequest, "Invalid Request"});
    if (!object.contains("id")) {
        if (const Finding finding = checkNotification(*message))
            return refuse(message, id, *finding);
        if (method == "notifications/cancelled" && !message->owner.empty()) // over HTTP, clients close the stream
            message->cancelledIdText = mcp::cancelledId(object);
        return McpReply::ofStatus(kAccepted);
    }
    Finding finding = checkEnvelope(*message);
    if (!finding)
        finding = checkMirror(*message);
    return finding ? refuse(message, id, *finding) : dispatch_(message);
}

McpReply McpModernEra::dispatch_(McpMessage* message) const {
    const ZnJsonValue& id = message->object().value("id");
    const std::string_view method = message->object().value("method").string();
    if (method == "tools/call")
        return callTool_(message);
    if (method == "tools/list")
        return resultReply(id, tools_.catalogue().listText().view(), kUncached);
    if (method != "server/discover")
        return refuse(message, id, {kMethodNotFound, "Method not found", kNotFound});
    ZnJsonArray versions;
    versions.append(kVersion);
    const ZnJsonObject result{{"capabilities", mcp::serverCapabilities()},
                              {"instructions", tools_.catalogue().instructions()},
                              {"supportedVersions", std::move(versions)}};
    return resultReply(id, ZnJsonValue(result).toJson().view(), kUncached);
}

McpReply McpModernEra::callTool_(McpMessage* message) const {
    const ZnJsonObject& object = message->object();
    const ZnString name = mcp::textMember_(*object.value("params").object(), "name");
    if (message->record)
        message->record->tool = ZnString(name.view().substr(0, McpRequestRecord::kMaxNameBytes));
    if (!name.isEmpty() && !tools_.catalogue().find(name.view()))
        return refuse(message, object.value("id"), {kInvalidParams, "Unknown tool", kOk});
    McpReply reply = McpReply::json(tools_.answer(message));
    complete(McpToolCatalogue::Tool::ListServices, &reply.text);
    return reply;
}

void McpModernEra::complete(McpToolCatalogue::Tool tool, ZnByteArray* response) {
    if (tool != McpToolCatalogue::Tool::CallTool)
        mcp::addToResult(response, resultForm().view());
    else if (!mcp::hasMember(mcp::resultOf(response->view()), "resultType"))
        mcp::addToResult(response, R"("resultType": "complete")");
}
