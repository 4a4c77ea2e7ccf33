#include "agent/McpToolAnswer.h"

#include "agent/McpForwardCall.h"
#include "agent/McpJson.h"
#include "agent/McpRpcAnswer.h"
#include "agent/McpText.h"

#include <utility>

namespace {

constexpr int kBadGateway = 502; // of HTTP, for people who know it
constexpr int kGatewayTimeout = 504;
constexpr const char* kInputWanted =
    "The tool has not finished: it asks for input, see inputRequests. To go on, call it again with the same name and "
    "arguments, an answer to each of them by its key in inputResponses, and requestState as it stands here, if it "
    "does.";

} // namespace

bool McpToolAnswer::isLarge() const noexcept {
    return result_.rawBody.size() >= McpRpcAnswer::kLargeBytes;
}

void McpToolAnswer::build() {
    ZnJsonValue message = readAnswer_();
    outcome_ = mcp::outcomeOf(message);
    const ZnJsonObject* object = message.object();
    const ZnJsonValue* result = object == nullptr ? nullptr : &object->value("result");
    if (result_.isSuccess() && result != nullptr && result->isObject()) {
        const bool wantsInput = isModern_ && result->object()->value("resultType").string() == "input_required";
        const ZnString text = wantsInput ? inputText_(*result) : result->toJson();
        text_ = ZnByteArray(mcp::jsonRpcResultTo_(idText_.view(), text.view()));
        return;
    }
    const ZnJsonObject* error = object == nullptr ? nullptr : object->value("error").object();
    const ZnJsonValue payload(failure_(error));
    text_ = ZnByteArray(mcp::jsonRpcResultTo_(idText_.view(), mcp::toolResult_(payload, true).view()));
}

/// Clients of today know no such result, and most show a model nothing but texts: it becomes an ordinary one, which
/// says everything once as a value and once as text, and then how to go on. It is no error: nothing has failed.
ZnString McpToolAnswer::inputText_(const ZnJsonValue& result) const {
    const auto text = [](const ZnString& words) { return ZnJsonObject{{"type", "text"}, {"text", words}}; };
    ZnJsonArray content;
    content.append(text(result.toJson()));
    content.append(text(kInputWanted));
    return ZnJsonValue(ZnJsonObject{{"content", std::move(content)}, {"structuredContent", result}}).toJson();
}

ZnJsonValue McpToolAnswer::readAnswer_() {
    if (result_.isDecoded)
        return std::move(result_.body);
    ZnString error;
    const ZnByteArray text = mcp::wellFormed(std::move(result_.rawBody));
    ZnJsonDocument document = ZnJsonDocument::fromJson(text.view(), &error, JsonReading::Exact, mcp::kMaxJsonValues);
    return error.isEmpty() ? std::move(document.root()) : ZnJsonValue();
}

/// An error of the service is told with its words; its code and data say more than the status.
ZnJsonObject McpToolAnswer::failure_(const ZnJsonObject* error) const {
    const bool isLate = result_.errorCode == McpForwardCall::kTimedOut;
    const bool hasStatus = result_.errorCode == 0 && result_.statusCode != 0;
    const int status = hasStatus ? result_.statusCode : isLate ? kGatewayTimeout : kBadGateway;
    const bool isEmpty = result_.message.isEmpty();
    ZnJsonObject payload{{"error", isEmpty ? ZnString("the service gave no result") : result_.message},
                         {"statusCode", status}};
    if (error == nullptr)
        return payload;
    payload["error"] = error->value("message");
    payload["code"] = error->value("code");
    if (const ZnJsonValue& data = error->value("data"); !data.isNull())
        payload["data"] = data;
    return payload;
}
