#include "agent/McpRpcRequest.h"

#include "agent/McpHeaders.h"
#include "agent/McpJson.h"

#include <utility>

namespace {

/// The arguments of a "tools/call" that has been read before; null when it cannot be read in that way.
const ZnJsonObject* argumentsOf(const ZnJsonDocument& message) {
    const ZnJsonObject* root = message.root().object();
    const ZnJsonObject* params = root == nullptr ? nullptr : root->value("params").object();
    return params == nullptr ? nullptr : params->value("arguments").object();
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
    if (arguments == nullptr || !arguments->value("request").isObject()) {
        refusal_ = "Field 'request' holds a number that this service cannot take";
        return;
    }
    // Texts that the exact reading has kept stay usable for a service of the dialect.
    const ZnJsonObject& texts = reading_ == JsonReading::Exact ? *arguments : *asRead;
    request_.protocolVersion = stringMember(texts, "protocolVersion");
    request_.sessionId = stringMember(texts, "sessionId");
    if (!mcp::isHeaderValue(request_.protocolVersion.view()))
        refusal_ = "Field 'protocolVersion' is not a valid header value";
    else if (!mcp::isHeaderValue(request_.sessionId.view()))
        refusal_ = "Field 'sessionId' is not a valid header value";
    const ZnJsonValue& request = arguments->value("request");
    if (request.object()->contains("id"))
        request_.id = request.object()->value("id");
    request_.body = ZnByteArray(request.toJson());
}
