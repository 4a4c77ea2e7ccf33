// What happens to the body of a POST on the MCP path: the JSON-RPC checks, the sessions and the methods.

#include "agent/BreltMcpBridgeAgent.h"
#include "agent/McpHeaders.h"
#include "agent/McpJson.h"
#include "agent/McpRpcAnswer.h"
#include "agent/McpWork.h"
#include "core/types/ZnCrypto.h"
#include "core/types/ZnJsonDocument.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <utility>

namespace {

constexpr int kInvalidRequest = -32600;
constexpr int kMethodNotFound = -32601;
constexpr int kInvalidParams = -32602;
constexpr int kServerBusy = -32000;
constexpr std::size_t kSessionIdBytes = 24;
/// Kept of a client's name and version: sessions are many, and what a client sends may be large.
constexpr std::size_t kClientTextBytes = 256;

void sendJsonText(ZnHttpContext& context, const ZnString& text) {
    context.sendString(text, ZnString(zn::http::kJsonText), 200);
}

void sendError(ZnHttpContext& context, int status, const char* message) {
    context.json(mcp::errorBody_(message), status);
}

bool isJsonRpc20_(const ZnJsonObject& object) {
    const ZnJsonValue& version = object.value("jsonrpc");
    if (version.type() == JsonType::Integer || version.type() == JsonType::Double)
        return std::fabs(version.toDouble(0.0) - 2.0) < 0.0001; // the usual case: the dialect reads "2.0" as a number
    return mcp::textMember_(object, "jsonrpc") == "2.0";
}

/// Null, booleans, containers and fractions cannot be told back to the client as its id.
bool isUsableId(const ZnJsonValue& id) {
    if (id.type() == JsonType::Double) {
        double whole = 0.0;
        return std::modf(id.toDouble(0.0), &whole) == 0.0;
    }
    return id.isString() || id.type() == JsonType::Integer;
}

bool isSupportedProtocol_(std::string_view text) {
    return text == BreltMcpBridgeAgent::kProtocolVersion;
}

std::string_view methodOf(const ZnJsonObject& message) {
    const std::string_view text = message.value("method").string();
    return text.substr(0, text.find('\0'));
}

ZnString hexText(const ZnCrypto::Bytes& bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    ZnString text;
    text.reserve(2 * bytes.size());
    for (const unsigned char byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

/// Empty when there is no entropy.
ZnString generateToken_(std::size_t byteCount) {
    ZnCrypto::Bytes bytes;
    return ZnCrypto::randomBytes(byteCount, &bytes) ? hexText(bytes) : ZnString();
}

ZnString fallbackId_(const char* prefix) {
    static std::atomic<unsigned long long> counter{0};
    const long long nowMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::system_clock::now().time_since_epoch())
                                .count();
    const unsigned long long serial = counter.fetch_add(1, std::memory_order_relaxed) + 1;
    return ZnString(prefix) + "-" + ZnString::number(nowMs) + "-" + ZnString::number(serial);
}

ZnString clientText(const ZnJsonObject& params, std::string_view name) {
    const ZnJsonObject* info = params.value("clientInfo").object();
    if (info == nullptr)
        return ZnString();
    const ZnString text = mcp::textMember_(*info, name);
    return ZnString(text.view().substr(0, kClientTextBytes));
}

ZnJsonObject unsupportedVersionData(ZnString requested) {
    ZnJsonArray supported;
    supported.append(BreltMcpBridgeAgent::kProtocolVersion);
    return {{"requested", std::move(requested)}, {"supported", std::move(supported)}};
}

ZnJsonObject initializeResult(const ZnString& protocolVersion) {
    return {{"protocolVersion", protocolVersion},
            {"capabilities", ZnJsonObject{{"tools", ZnJsonObject{{"listChanged", false}}}}},
            {"serverInfo", ZnJsonObject{{"name", "brelt-mcp-bridge-agent"},
                                        {"title", "Brelt MCP Bridge Agent"},
                                        {"version", BreltMcpBridgeAgent::kVersion}}},
            {"instructions",
             "Bridge to explicitly configured private MCP services reachable from this BRELT client. Use "
             "bridge.list_services first. bridge.rpc only calls services listed in the local allowlist."}};
}

/// False when the request's body is no single JSON object.
bool readMessage(JsonReading reading, McpMessage* message) {
    ZnString error;
    return message->context.parseJsonBody(&message->document, &error, reading, mcp::kMaxJsonValues) &&
           message->document.root().isObject();
}

/// A message that is handled on another thread: the frame that waits for it may go before that is done.
struct LargeMessage {
    explicit LargeMessage(const ZnHttpRequest& from) {
        request.headers = from.headers;
        request.body = std::move(from.body);
    }
    ZnHttpRequest request;
    ZnHttpContext context{request};
    McpMessage message{context};
};

void takeAnswer(ZnHttpResponse answer, ZnHttpContext* context) {
    for (const auto& [name, value] : answer.headers)
        context->setHeader(name, value);
    context->send(std::move(answer.body), ZnString(), answer.status);
}

} // namespace

void BreltMcpBridgeAgent::handlePost_(ZnHttpContext& context) {
    if (context.request().body.size() < McpRpcAnswer::kLargeBytes) {
        McpMessage message(context);
        handleMessage_(message);
        if (message.service)
            context.send(callRpcTool_(context, message), ZnString(zn::http::kJsonText));
        return;
    }
    const std::weak_ptr<const bool> alive = aliveToken_;
    const auto large = std::make_shared<LargeMessage>(context.request());
    const bool hasRun = mcp::awaitWork(workers_, [this, large] {
        handleMessage_(large->message);
        if (!large->message.service)
            large->message.document = ZnJsonDocument(); // here: it may be a million values
    });
    if (!hasRun || alive.expired())
        return context.sendStatus(503);
    giveMemoryBackSoon_();
    if (large->message.service)
        context.send(callRpcTool_(context, large->message), ZnString(zn::http::kJsonText));
    else
        takeAnswer(std::move(large->context.response()), &context);
}

/// Answers in the message's context, unless the message is a call to forward. Of a large message: not on the loop.
void BreltMcpBridgeAgent::handleMessage_(McpMessage& read) {
    ZnHttpContext& context = read.context;
    if (!readMessage(interop_ ? JsonReading::Exact : JsonReading::QuietDialect, &read))
        return sendError(context, 400, "Expected a single JSON-RPC object");
    const ZnJsonObject& message = read.object();
    const bool hasId = message.contains("id");
    const ZnJsonValue& id = message.value("id");
    if (!isJsonRpc20_(message)) {
        if (isUsableId(id))
            return sendJsonText(context, mcp::jsonRpcError_(id, kInvalidRequest, "Invalid Request"));
        return sendError(context, 400, "Invalid JSON-RPC version");
    }
    if (!message.value("method").isString())
        return context.sendStatus(202); // a client's response ends here
    const std::string_view headerVersion = mcp::headerText(context, "mcp-protocol-version");
    if (!headerVersion.empty() && !isSupportedProtocol_(headerVersion))
        return sendError(context, 400, "Unsupported MCP protocol version");
    const std::string_view method = methodOf(message);
    if (!hasId)
        return handleNotification_(context, method);
    if (!isUsableId(id))
        return sendJsonText(context, mcp::jsonRpcError_(ZnJsonValue(), kInvalidRequest, "Invalid Request"));
    if (method == "initialize")
        return answerInitialize_(context, message);
    handleSessionRequest_(read, headerVersion);
}

void BreltMcpBridgeAgent::handleNotification_(ZnHttpContext& context, std::string_view method) {
    if (method == "notifications/initialized") {
        const SessionRef_ session = requireSession_(context);
        if (!session)
            return;
        ZnMutexLocker locker(sessionsMutex_);
        session->initialized = true;
    }
    context.sendStatus(202);
}

void BreltMcpBridgeAgent::handleSessionRequest_(McpMessage& message, std::string_view headerVersion) {
    ZnHttpContext& context = message.context;
    const SessionRef_ session = requireSession_(context);
    if (!session)
        return;
    const std::string_view version = headerVersion.empty() ? session->protocolVersion.view() : headerVersion;
    if (!isSupportedProtocol_(version) || version != session->protocolVersion.view())
        return sendError(context, 400, "MCP protocol version mismatch");
    ZnByteArray answer = dispatchRequest_(message);
    if (!message.service)
        context.send(std::move(answer), ZnString(zn::http::kJsonText));
}

BreltMcpBridgeAgent::SessionRef_ BreltMcpBridgeAgent::requireSession_(ZnHttpContext& context) {
    const std::string_view id = mcp::headerText(context, "mcp-session-id");
    SessionRef_ session = id.empty() ? nullptr : findSession_(id);
    if (id.empty())
        sendError(context, 400, "Missing Mcp-Session-Id header");
    else if (!session)
        context.sendStatus(404);
    return session;
}

void BreltMcpBridgeAgent::answerInitialize_(ZnHttpContext& context, const ZnJsonObject& request) {
    ZnString sessionId;
    const ZnString response = handleInitialize_(request, &sessionId);
    if (!sessionId.isEmpty())
        context.setHeader("mcp-session-id", sessionId);
    sendJsonText(context, response);
}

ZnString BreltMcpBridgeAgent::handleInitialize_(const ZnJsonObject& request, ZnString* sessionIdOut) {
    static const ZnJsonObject kNoParams;
    const ZnJsonValue& id = request.value("id");
    const ZnJsonObject* params = request.value("params").object();
    if (params == nullptr)
        params = &kNoParams;
    ZnString requested = mcp::textMember_(*params, "protocolVersion");
    if (requested.isEmpty())
        return mcp::jsonRpcError_(id, kInvalidParams, "Missing params.protocolVersion");
    if (interop_)
        requested = kProtocolVersion; // a client that cannot speak it ends the connection itself
    if (!isSupportedProtocol_(requested.view()))
        return mcp::jsonRpcError_(id, kInvalidParams, "Unsupported protocol version",
                                  unsupportedVersionData(std::move(requested)));
    const SessionRef_ session =
        createSession_(requested, clientText(*params, "name"), clientText(*params, "version"));
    if (!session)
        return mcp::jsonRpcError_(id, kServerBusy, "Too many sessions");
    *sessionIdOut = session->id;
    return mcp::jsonRpcResult_(id, ZnJsonValue(initializeResult(requested)).toJson().view());
}

/// Empty for a call to forward.
ZnByteArray BreltMcpBridgeAgent::dispatchRequest_(McpMessage& message) {
    const ZnJsonObject& request = message.object();
    const std::string_view method = methodOf(request);
    const ZnJsonValue& id = request.value("id");
    if (method == "ping")
        return mcp::jsonRpcResult_(id, "{}");
    if (method == "tools/list")
        return mcp::jsonRpcResult_(id, mcp::toolCatalogue_().view());
    if (method == "tools/call")
        return handleToolsCall_(message);
    return mcp::jsonRpcError_(id, kMethodNotFound, "Method not found");
}

/// Null when there are too many sessions.
BreltMcpBridgeAgent::SessionRef_ BreltMcpBridgeAgent::createSession_(const ZnString& protocolVersion,
                                                                     const ZnString& clientName,
                                                                     const ZnString& clientVersion) {
    auto session = std::make_shared<McpBridgeSession>();
    session->id = generateToken_(kSessionIdBytes);
    if (session->id.isEmpty())
        session->id = fallbackId_("mcp");
    session->protocolVersion = protocolVersion;
    session->clientName = clientName;
    session->clientVersion = clientVersion;
    ZnMutexLocker locker(sessionsMutex_);
    return sessions_.add(session, clock_()) ? session : nullptr;
}

BreltMcpBridgeAgent::SessionRef_ BreltMcpBridgeAgent::findSession_(std::string_view id) {
    ZnMutexLocker locker(sessionsMutex_);
    return sessions_.find(id, clock_());
}

bool BreltMcpBridgeAgent::removeSession_(std::string_view id) {
    ZnMutexLocker locker(sessionsMutex_);
    return sessions_.remove(id);
}
