#include "agent/McpDispatcher.h"

#include "agent/McpJson.h"
#include "agent/McpModernEra.h"
#include "agent/McpText.h"
#include "agent/McpTime.h"
#include "core/types/ZnCrypto.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <utility>

namespace {

constexpr int kInvalidRequest = -32600;
constexpr int kMethodNotFound = -32601;
constexpr int kInvalidParams = -32602;
constexpr int kServerBusy = -32000;
constexpr int kStopping = 503; // of HTTP
constexpr std::size_t kSessionIdBytes = 24;
/// Kept of a client's name and version: sessions are many, and what a client sends may be large.
constexpr std::size_t kClientTextBytes = 256;

bool isJsonRpc20(const ZnJsonObject& object) {
    const ZnJsonValue& version = object.value("jsonrpc");
    if (version.type() == JsonType::Integer || version.type() == JsonType::Double)
        return std::fabs(version.toDouble(0.0) - 2.0) < 0.0001; // the usual case: the dialect reads "2.0" as a number
    return mcp::textMember_(object, "jsonrpc") == "2.0";
}

bool isSupportedProtocol(std::string_view text) {
    return text == McpDispatcher::kProtocolVersion;
}

std::string_view methodOf(const ZnJsonObject& message) {
    const std::string_view text = message.value("method").string();
    return text.substr(0, text.find('\0'));
}

/// Empty when there is no entropy.
ZnString generateToken(std::size_t byteCount) {
    ZnCrypto::Bytes bytes;
    return ZnCrypto::randomBytes(byteCount, &bytes) ? mcp::hexText(bytes) : ZnString();
}

ZnString fallbackId(const char* prefix) {
    static std::atomic<unsigned long long> counter{0};
    const long long nowMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    const unsigned long long serial = counter.fetch_add(1, std::memory_order_relaxed) + 1;
    return ZnString(prefix) + "-" + ZnString::number(nowMs) + "-" + ZnString::number(serial);
}

/// Of one call without a session: no header can carry it, so that no session has it for its id.
ZnString ownerOfOneCall() {
    static std::atomic<unsigned long long> counter{0};
    return "\n" + ZnString::number(counter.fetch_add(1, std::memory_order_relaxed) + 1);
}

ZnString clientText(const ZnJsonObject& params, std::string_view name) {
    const ZnJsonObject* info = params.value("clientInfo").object();
    if (info == nullptr)
        return ZnString();
    const ZnString text = mcp::textMember_(*info, name);
    return ZnString(text.view().substr(0, kClientTextBytes));
}

McpReply noSession(const McpMessage& message) {
    return message.sessionId.empty() ? McpReply::error(400, "Missing Mcp-Session-Id header") : McpReply::ofStatus(404);
}

/// An error of JSON-RPC, which observers are told of.
McpReply fail(McpMessage* message, const ZnJsonValue& id, int code, const char* text, ZnJsonValue data = {}) {
    if (message->record)
        message->record->answer.rpcCode = code;
    return McpReply::json(mcp::jsonRpcError_(id, code, text, std::move(data)));
}

ZnJsonObject unsupportedVersionData(const ZnString& requested) {
    ZnJsonArray supported;
    supported.append(McpDispatcher::kProtocolVersion);
    return {{"requested", requested}, {"supported", std::move(supported)}};
}

/// A message that is answered on another thread or later: the frame that brought it may have ended by then.
struct OwnedMessage {
    explicit OwnedMessage(McpMessage from)
        : sessionId(from.sessionId), protocolVersion(from.protocolVersion), message(std::move(from)) {
        message.sessionId = sessionId.view();
        message.protocolVersion = protocolVersion.view();
    }
    const ZnString sessionId;
    const ZnString protocolVersion;
    McpMessage message;
    McpReply reply;
};

} // namespace

McpDispatcher::McpDispatcher(std::shared_ptr<McpServiceList> services) : tools_(std::move(services), workers_) {}

void McpDispatcher::setExact(bool isExact) {
    isExact_ = isExact;
    tools_.setExact(isExact);
}

void McpDispatcher::keepSessions(std::shared_ptr<McpSessionKeeper> keeper, std::vector<McpKeptSession> sessions) {
    ZnMutexLocker locker(sessionsLock_);
    sessions_.restore(std::move(keeper), std::move(sessions), clock_());
}

McpReply McpDispatcher::answer(McpMessage&& message) {
    if (!observer_)
        return answer_(message);
    const McpCaller& caller = *message.caller;
    const auto record = std::make_shared<McpRequestRecord>();
    record->beganNs = monotonicNowNs();
    record->bytesIn = message.body.size();
    message.record = record;
    McpReply reply = answer_(message);
    if (!reply.later)
        tellObserver_(*record, reply, caller.toldBytes());
    return reply;
}

void McpDispatcher::tellObserver_(McpRequestRecord& record, const McpReply& reply, std::size_t toldBytes) const {
    McpRequestRecord stopped; // in place of one that a worker may still fill in, since nobody waits for it any more
    stopped.beganNs = record.beganNs;
    stopped.bytesIn = record.bytesIn;
    McpRequestRecord& told = reply.status == kStopping ? stopped : record;
    told.endedNs = monotonicNowNs();
    told.status = reply.status;
    told.bytesOut = toldBytes + reply.text.size();
    observer_->onRequest(told);
}

McpReply McpDispatcher::answer_(McpMessage& message) {
    if (!message.isLarge()) {
        McpReply reply = process_(&message);
        finish_(message, &reply);
        return reply;
    }
    const auto large = std::make_shared<OwnedMessage>(std::move(message));
    const bool hasRun = workers_->await([self = shared_from_this(), large] {
        large->reply = self->process_(&large->message);
        if (!large->message.service)
            large->message.document = ZnJsonDocument(); // here: it may be a million values
    });
    if (!hasRun)
        return McpReply::ofStatus(kStopping);
    workers_->giveMemoryBackSoon();
    finish_(large->message, &large->reply);
    return std::move(large->reply);
}

/// What belongs to the loop.
void McpDispatcher::finish_(McpMessage& message, McpReply* reply) {
    if (!message.cancelledIdText.isEmpty())
        cancel_(message);
    if (!message.evictedSession.isEmpty())
        tools_.endClient(message.evictedSession);
    if (!message.service)
        return;
    const bool wantsStream = message.progressToken && message.caller->canOpenStream;
    *reply = wantsStream ? forwardLater_(message) : forward_(message);
}

/// The ids of one client's requests differ, whatever they are of: the client need not say of which era a call was.
void McpDispatcher::cancel_(McpMessage& message) {
    tools_.cancel(message);
    if (message.owner.empty())
        return;
    message.sessionId = message.owner;
    tools_.cancel(message);
}

McpReply McpDispatcher::forward_(McpMessage& message) {
    if (!message.isModern)
        return tools_.forward(message);
    McpReply reply = forwardAlone_(message);
    if (reply.text.size() < McpMessage::kLargeBytes) {
        McpModernEra::complete(message.tool, &reply.text);
        return reply;
    }
    const auto text = std::make_shared<ZnByteArray>(std::move(reply.text));
    if (!workers_->await([text, tool = message.tool] { McpModernEra::complete(tool, text.get()); }))
        return McpReply::ofStatus(kStopping);
    reply.text = std::move(*text);
    return reply;
}

/// What a call without a session needs of a service's sessions lasts as long as the call, unless it has an owner: other
/// clients are not to share them, for their requests may have the same ids.
McpReply McpDispatcher::forwardAlone_(McpMessage& message) {
    message.sessionId = message.owner;
    if (!message.owner.empty())
        return tools_.forward(message);
    const ZnString owner = ownerOfOneCall();
    message.sessionId = owner.view();
    McpReply reply = tools_.forward(message);
    message.sessionId = {};
    tools_.endClient(owner);
    return reply;
}

McpReply McpDispatcher::forwardLater_(McpMessage& message) {
    const auto owned = std::make_shared<OwnedMessage>(std::move(message));
    McpReply reply;
    // The end of `record` tells of a stream that never began, since the client had left.
    const std::shared_ptr<McpRequestRecord> record(owned->message.record.get(),
                                                   [self = shared_from_this(), owned](McpRequestRecord* untold) {
                                                       if (untold != nullptr && untold->endedNs == 0)
                                                           self->tellObserver_(*untold, McpReply::ofStatus(0), 0);
                                                   });
    reply.later = [self = shared_from_this(), owned, record](McpCaller& caller) {
        owned->message.caller = &caller;
        McpReply answer = self->forward_(owned->message);
        if (record)
            self->tellObserver_(*record, answer, caller.toldBytes());
        return answer;
    };
    return reply;
}

McpReply McpDispatcher::endSession(std::string_view id) {
    if (id.empty())
        return McpReply::error(400, "Missing Mcp-Session-Id header");
    const ZnString ended(id);
    {
        ZnMutexLocker locker(sessionsLock_);
        if (!sessions_.remove(id))
            return McpReply::ofStatus(404);
    }
    tools_.endClient(ended);
    return McpReply::ofStatus(204);
}

/// Gives the answer, unless the message is a call that a service is to get.
McpReply McpDispatcher::process_(McpMessage* message) {
    if (!mcp::readObject(message->body.view(), isExact_ ? JsonReading::Exact : JsonReading::QuietDialect,
                         &message->document)) {
        if (isModern_ && McpModernEra::isAnnounced(*message))
            return McpModernEra::refuseUnreadable(message);
        McpReply reply = McpReply::error(400, "Expected a single JSON-RPC object");
        reply.idText = "null";
        return reply;
    }
    McpReply reply =
        isModern_ && McpModernEra::speaks(*message) ? McpModernEra(tools_).answer(message) : processObject_(message);
    const ZnJsonObject& object = message->object();
    if (reply.status >= 400 && object.contains("id"))
        reply.idText = mcp::isUsableId(object.value("id")) ? object.value("id").toJson() : ZnString("null");
    return reply;
}

McpReply McpDispatcher::processObject_(McpMessage* message) {
    const ZnJsonObject& object = message->object();
    const ZnJsonValue& id = object.value("id");
    const bool hasId = !id.isNull() || object.contains("id");
    if (!isJsonRpc20(object))
        return mcp::isUsableId(id) ? fail(message, id, kInvalidRequest, "Invalid Request")
                                   : McpReply::error(400, "Invalid JSON-RPC version");
    if (!object.value("method").isString())
        return McpReply::ofStatus(202); // a client's response ends here
    if (!takesVersion_(*message))
        return McpReply::error(400, "Unsupported MCP protocol version");
    const std::string_view method = methodOf(object);
    if (message->record)
        message->record->method = ZnString(method.substr(0, McpRequestRecord::kMaxNameBytes));
    if (!hasId)
        return notify_(message, method);
    if (!mcp::isUsableId(id))
        return fail(message, ZnJsonValue(), kInvalidRequest, "Invalid Request");
    return method == "initialize" ? initialize_(message) : dispatch_(message, method);
}

/// Whether the header may name that version.
bool McpDispatcher::takesVersion_(const McpMessage& message) {
    const std::string_view version = message.protocolVersion;
    if (version.empty() || isSupportedProtocol(version))
        return true;
    if (!isModern_ || version != kNewerVersion)
        return false;
    const ZnJsonObject* params = message.object().value("params").object();
    if (methodOf(message.object()) == "initialize")
        return params != nullptr && mcp::textMember_(*params, "protocolVersion") == kNewerVersion;
    const SessionRef_ session = findSession_(message);
    return session && session->protocolVersion == kNewerVersion;
}

McpReply McpDispatcher::notify_(McpMessage* message, std::string_view method) {
    if (method == "notifications/initialized") {
        const SessionRef_ session = findSession_(*message);
        if (!session)
            return noSession(*message);
        ZnMutexLocker locker(sessionsLock_);
        session->initialized = true;
    }
    if (method == "notifications/cancelled" && (message->mayCancel || usesProgress_))
        message->cancelledIdText = mcp::cancelledId(message->object());
    return McpReply::ofStatus(202);
}

McpReply McpDispatcher::dispatch_(McpMessage* message, std::string_view method) {
    message->session = findSession_(*message);
    if (!message->session)
        return noSession(*message);
    if (message->record)
        message->record->session = message->session;
    const std::string_view agreed = message->session->protocolVersion.view();
    if (!message->protocolVersion.empty() ? message->protocolVersion != agreed : versionFor_(agreed) != agreed)
        return McpReply::error(400, "MCP protocol version mismatch");
    const ZnJsonValue& id = message->object().value("id");
    if (method == "ping")
        return McpReply::json(mcp::jsonRpcResult_(id, "{}"));
    if (method == "tools/list")
        return McpReply::json(mcp::jsonRpcResult_(id, tools_.catalogue().listText().view()));
    if (method == "tools/call")
        return McpReply::json(tools_.answer(message));
    return fail(message, id, kMethodNotFound, "Method not found");
}

McpDispatcher::SessionRef_ McpDispatcher::findSession_(const McpMessage& message) {
    if (message.sessionId.empty())
        return nullptr;
    ZnMutexLocker locker(sessionsLock_);
    return sessions_.find(message.sessionId, clock_());
}

McpReply McpDispatcher::initialize_(McpMessage* message) {
    static const ZnJsonObject kNoParams;
    const ZnJsonObject& request = message->object();
    const ZnJsonValue& id = request.value("id");
    const ZnJsonObject* params = request.value("params").object();
    if (params == nullptr)
        params = &kNoParams;
    const ZnString requested = mcp::textMember_(*params, "protocolVersion");
    if (requested.isEmpty())
        return fail(message, id, kInvalidParams, "Missing params.protocolVersion");
    // With interoperability any is taken: a client that cannot speak this one ends the connection itself.
    if (!isExact_ && !isSupportedProtocol(requested.view()))
        return fail(message, id, kInvalidParams, "Unsupported protocol version", unsupportedVersionData(requested));
    const SessionRef_ session = createSession_(*params, versionFor_(requested.view()), &message->evictedSession);
    if (!session)
        return fail(message, id, kServerBusy, "Too many sessions");
    if (message->record)
        message->record->session = session;
    McpReply reply = McpReply::json(mcp::jsonRpcResult_(id, ZnJsonValue(initializeResult_(*session)).toJson().view()));
    reply.headers.push_back({"mcp-session-id", session->id});
    return reply;
}

ZnJsonObject McpDispatcher::initializeResult_(const McpBridgeSession& session) const {
    return {{"protocolVersion", session.protocolVersion},
            {"capabilities", mcp::serverCapabilities()},
            {"serverInfo", mcp::serverInfo()},
            {"instructions", tools_.catalogue().instructions()}};
}

/// The version that is agreed on where a client asks for that one.
const char* McpDispatcher::versionFor_(std::string_view requested) const {
    return isModern_ && requested == kNewerVersion ? kNewerVersion : kProtocolVersion;
}

/// Null when there are too many sessions.
McpDispatcher::SessionRef_ McpDispatcher::createSession_(const ZnJsonObject& params, const char* version,
                                                         ZnString* evicted) {
    auto session = std::make_shared<McpBridgeSession>();
    session->id = generateToken(kSessionIdBytes);
    if (session->id.isEmpty())
        session->id = fallbackId("mcp");
    if (observer_)
        session->tag = mcp::sessionTag(session->id);
    session->protocolVersion = version;
    session->clientName = clientText(params, "name");
    session->clientVersion = clientText(params, "version");
    session->createdUs = mcp::wallNowUs();
    ZnMutexLocker locker(sessionsLock_);
    return sessions_.add(session, clock_(), evicted) ? session : nullptr;
}
