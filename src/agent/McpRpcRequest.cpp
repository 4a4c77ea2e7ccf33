#include "agent/McpRpcRequest.h"

#include "agent/McpHeaders.h"
#include "agent/McpJson.h"
#include "agent/McpModernRequest.h"
#include "agent/McpObserver.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace {

constexpr int kBadRequest = 400; // of HTTP
constexpr int kForbidden = 403;
constexpr const char* kUnusableNumber = "Field 'request' holds a number that this service cannot take";

ZnJsonObject* memberOf(ZnJsonObject* object, std::string_view name) {
    return object == nullptr || !object->contains(name) ? nullptr : (*object)[name].object();
}

/// The arguments of a "tools/call" that has been read before; null when it cannot be read in that way.
ZnJsonObject* argumentsOf(ZnJsonDocument& message) {
    return memberOf(memberOf(message.root().object(), "params"), "arguments");
}

ZnString cutName(std::string_view name) {
    return ZnString(name.substr(0, McpRequestRecord::kMaxNameBytes));
}

/// The trimmed text of a member that is a string; any other type counts as absent.
ZnString stringMember(const ZnJsonObject& object, std::string_view name) {
    return ZnString(trimmedView(object.value(name).string()));
}

} // namespace

void McpRpcRequest::read() {
    ZnJsonObject* asRead = argumentsOf(message_);
    arguments_ = asRead;
    if (isOther_) {
        const bool isRead = mcp::readObject(text_.view(), reading_, &other_);
        arguments_ = isRead ? argumentsOf(other_) : nullptr;
    }
    text_.release();
    if (arguments_ == nullptr)
        refuse_(kUnusableNumber, kBadRequest);
    else if (form_ == Form::ToolCall)
        judgeToolCall_();
    else // texts that the exact reading has kept stay usable for a service of the dialect
        judgeRequest_(reading_ == JsonReading::Exact ? *arguments_ : *asRead);
}

void McpRpcRequest::judgeRequest_(const ZnJsonObject& texts) {
    const ZnJsonObject* request = arguments_->value("request").object();
    if (request == nullptr)
        return refuse_(kUnusableNumber, kBadRequest);
    if (!service_->rules.allows(*request))
        return refuse_(McpServiceRules::kRefusal, kForbidden);
    request_.protocolVersion = stringMember(texts, "protocolVersion");
    request_.sessionId = stringMember(texts, "sessionId");
    if (!mcp::isHeaderValue(request_.protocolVersion.view()))
        refuse_("Field 'protocolVersion' is not a valid header value", kBadRequest);
    else if (!mcp::isHeaderValue(request_.sessionId.view()))
        refuse_("Field 'sessionId' is not a valid header value", kBadRequest);
    if (tellsNames_)
        noteNames_(*request);
    if (const ZnJsonObject* params = request->value("params").object()) {
        request_.progressToken = mcp::progressToken(*params);
        if (request->value("method").string() == "tools/call")
            toolName_ = ZnString(params->value("name").string());
    }
}

void McpRpcRequest::judgeToolCall_() {
    const ZnJsonValue& name = arguments_->value("name");
    if (!name.isString())
        return refuse_("Field 'name' must be a string", kBadRequest);
    if (!service_->rules.allowsMethod("tools/call") || !service_->rules.allowsTool(name.string()))
        return refuse_(McpServiceRules::kRefusal, kForbidden);
    toolName_ = ZnString(name.string());
    request_.method = "tools/call";
    request_.tool = cutName(name.string());
}

void McpRpcRequest::write() {
    if (refusal_ == nullptr && form_ == Form::ToolCall)
        writeToolCall_();
    else if (refusal_ == nullptr)
        writeRequest_(*(*arguments_)["request"].object());
    arguments_ = nullptr;
    message_ = ZnJsonDocument(); // here: it may be a million values
    other_ = ZnJsonDocument();
}

void McpRpcRequest::writeRequest_(ZnJsonObject& request) {
    request_.listsTools = McpServiceRules::listsTools(request);
    request_.opensSession = request.value("method").string() == "initialize";
    if (isModern_ && !mcp::isOfHandshake(request))
        makeModern_(request);
    if (request.contains("id"))
        request_.id = request.value("id");
    request_.body = ZnByteArray((*arguments_)["request"].toJson());
}

void McpRpcRequest::writeToolCall_() {
    const ZnJsonValue& values = arguments_->value("arguments");
    ZnJsonObject params{{"name", arguments_->value("name")}};
    if (!values.isNull())
        params["arguments"] = values;
    if (isModern_)
        takeInput_(&params);
    request_ = mcp::newRequest("tools/call", std::move(params), {wantsProgress_, isModern_});
    request_.tool = cutName(toolName_.view());
    if (isModern_)
        addHeaders_(values.object());
}

// --- revision 2026-07-28

/// Headers say what the body says: an argument that differs would make the service refuse the request.
void McpRpcRequest::makeModern_(ZnJsonObject& request) {
    const ZnString version = request_.protocolVersion;
    mcp::makeModern(&request);
    mcp::mirror(request, &request_);
    if (!version.isEmpty() && version != request_.protocolVersion)
        return refuse_("Field 'protocolVersion' differs from the version of the request", kBadRequest);
    if (!mcp::isHeaderValue(request_.protocolVersion.view()))
        return refuse_("The version of the request is not a valid header value", kBadRequest);
    const ZnJsonObject* params = request.value("params").object();
    addHeaders_(params == nullptr ? nullptr : params->value("arguments").object());
}

/// What continues a call whose result has asked for input.
void McpRpcRequest::takeInput_(ZnJsonObject* params) {
    const ZnJsonValue& responses = arguments_->value("inputResponses");
    const ZnJsonValue& state = arguments_->value("requestState");
    if (!responses.isNull() && !responses.isObject())
        refuse_("Field 'inputResponses' must be a JSON object", kBadRequest);
    else if (!responses.isNull())
        (*params)["inputResponses"] = responses;
    if (!state.isNull() && !state.isString())
        refuse_("Field 'requestState' must be a string", kBadRequest);
    else if (!state.isNull())
        (*params)["requestState"] = state;
}

/// `toolArguments`: null without any.
void McpRpcRequest::addHeaders_(const ZnJsonObject* toolArguments) {
    request_.mirrorsTool = !toolName_.isEmpty();
    if (const char* unusable = mcp::addHeaderParams(arguments_->value("headerParams"), &request_.headers))
        return refuse_(unusable, kBadRequest);
    std::optional<McpHeaderList> mirrored = McpHeaderList();
    if (toolHeaders_ && toolArguments != nullptr)
        mirrored = toolHeaders_->headersFor(*toolArguments, request_.headers);
    const auto isTooLong = [](const auto& header) { return header.second.size() > mcp::kMaxMirrorBytes; };
    if (!mirrored || request_.protocolVersion.size() > mcp::kMaxMirrorBytes ||
        std::any_of(request_.headers.begin(), request_.headers.end(), isTooLong))
        return refuse_("The request is not sent: what it has to say in a header is too long", kBadRequest);
    request_.argumentHeaders = std::move(*mirrored);
}

void McpRpcRequest::noteNames_(const ZnJsonObject& request) {
    const ZnJsonObject* params = request.value("params").object();
    request_.method = cutName(request.value("method").string());
    if (request_.method == "tools/call" && params != nullptr)
        request_.tool = cutName(params->value("name").string());
}

void McpRpcRequest::refuse_(const char* text, int status) {
    refusal_ = text;
    refusalStatus_ = status;
}

namespace mcp {

McpForwardRequest newRequest(const char* method, ZnJsonObject params, NewRequestForm form) {
    static std::atomic<long long> lastId{0};
    McpForwardRequest request;
    request.isExact = true;
    request.method = method;
    request.id = ZnJsonValue(lastId.fetch_add(1, std::memory_order_relaxed) + 1);
    if (form.wantsProgress) {
        request.progressToken = request.id;
        params["_meta"] = ZnJsonObject{{"progressToken", *request.id}};
    }
    ZnJsonObject message{{"jsonrpc", "2.0"}, {"id", *request.id}, {"method", method}};
    if (!params.isEmpty())
        message["params"] = std::move(params);
    if (form.isModern) {
        makeModern(&message);
        mirror(message, &request);
    }
    request.body = ZnByteArray(ZnJsonValue(std::move(message)).toJson());
    return request;
}

} // namespace mcp
