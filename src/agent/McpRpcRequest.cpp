#include "agent/McpRpcRequest.h"

#include "agent/McpHeaders.h"
#include "agent/McpJson.h"
#include "agent/McpObserver.h"

#include <atomic>
#include <utility>

namespace {

constexpr int kBadRequest = 400; // of HTTP
constexpr int kForbidden = 403;
constexpr const char* kUnusableNumber = "Field 'request' holds a number that this service cannot take";

/// The arguments of a "tools/call" that has been read before; null when it cannot be read in that way.
const ZnJsonObject* argumentsOf(const ZnJsonDocument& message) {
    const ZnJsonObject* root = message.root().object();
    const ZnJsonObject* params = root == nullptr ? nullptr : root->value("params").object();
    return params == nullptr ? nullptr : params->value("arguments").object();
}

ZnString cutName(std::string_view name) {
    return ZnString(name.substr(0, McpRequestRecord::kMaxNameBytes));
}

/// The trimmed text of a member that is a string; any other type counts as absent.
ZnString stringMember(const ZnJsonObject& object, std::string_view name) {
    return ZnString(trimmedView(object.value(name).string()));
}

} // namespace

void McpRpcRequest::build() {
    ZnJsonDocument message = std::move(message_);
    const ZnJsonObject* asRead = argumentsOf(message);
    ZnJsonDocument other;
    const ZnJsonObject* arguments = asRead;
    if (isOther_) {
        const bool isRead = mcp::readObject(text_.view(), reading_, &other);
        arguments = isRead ? argumentsOf(other) : nullptr;
    }
    text_.release();
    if (arguments == nullptr)
        refuse_(kUnusableNumber, kBadRequest);
    else if (form_ == Form::ToolCall)
        makeToolCall_(*arguments);
    else // texts that the exact reading has kept stay usable for a service of the dialect
        takeRequest_(*arguments, reading_ == JsonReading::Exact ? *arguments : *asRead);
}

void McpRpcRequest::takeRequest_(const ZnJsonObject& arguments, const ZnJsonObject& texts) {
    const ZnJsonValue& request = arguments.value("request");
    if (!request.isObject())
        return refuse_(kUnusableNumber, kBadRequest);
    if (!service_->rules.allows(*request.object()))
        return refuse_(McpServiceRules::kRefusal, kForbidden);
    request_.protocolVersion = stringMember(texts, "protocolVersion");
    request_.sessionId = stringMember(texts, "sessionId");
    if (!mcp::isHeaderValue(request_.protocolVersion.view()))
        refuse_("Field 'protocolVersion' is not a valid header value", kBadRequest);
    else if (!mcp::isHeaderValue(request_.sessionId.view()))
        refuse_("Field 'sessionId' is not a valid header value", kBadRequest);
    if (tellsNames_)
        noteNames_(*request.object());
    if (const ZnJsonObject* params = request.object()->value("params").object())
        request_.progressToken = mcp::progressToken(*params);
    request_.listsTools = McpServiceRules::listsTools(*request.object());
    request_.opensSession = request.object()->value("method").string() == "initialize";
    if (request.object()->contains("id"))
        request_.id = request.object()->value("id");
    request_.body = ZnByteArray(request.toJson());
}

void McpRpcRequest::makeToolCall_(const ZnJsonObject& arguments) {
    const ZnJsonValue& name = arguments.value("name");
    if (!name.isString())
        return refuse_("Field 'name' must be a string", kBadRequest);
    if (!service_->rules.allowsMethod("tools/call") || !service_->rules.allowsTool(name.string()))
        return refuse_(McpServiceRules::kRefusal, kForbidden);
    ZnJsonObject params{{"name", name}};
    if (const ZnJsonValue& values = arguments.value("arguments"); !values.isNull())
        params["arguments"] = values;
    request_ = mcp::newRequest("tools/call", std::move(params), wantsProgress_);
    request_.tool = cutName(arguments.value("name").string());
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

McpForwardRequest newRequest(const char* method, ZnJsonObject params, bool wantsProgress) {
    static std::atomic<long long> lastId{0};
    McpForwardRequest request;
    request.isExact = true;
    request.method = method;
    request.id = ZnJsonValue(lastId.fetch_add(1, std::memory_order_relaxed) + 1);
    if (wantsProgress) {
        request.progressToken = request.id;
        params["_meta"] = ZnJsonObject{{"progressToken", *request.id}};
    }
    ZnJsonObject message{{"jsonrpc", "2.0"}, {"id", *request.id}, {"method", method}};
    if (!params.isEmpty())
        message["params"] = std::move(params);
    request.body = ZnByteArray(ZnJsonValue(std::move(message)).toJson());
    return request;
}

} // namespace mcp
