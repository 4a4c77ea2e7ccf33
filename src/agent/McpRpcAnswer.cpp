#include "agent/McpRpcAnswer.h"

#include "agent/McpFailureText.h"
#include "agent/McpJson.h"
#include "agent/McpText.h"
#include "core/io/ZnHttpClient.h"

#include <algorithm>
#include <utility>

namespace {

/// Of an answer's bound: what the payload may have, and the whole text.
constexpr std::size_t kPayloadFactor = 2;
constexpr std::size_t kTextFactor = 3;

void appendTextMember(ZnString* out, const char* name, std::string_view text) {
    out->append(",\"").append(name).append("\": \"");
    appendEscapedJson(out, text);
    out->append("\"");
}

/// How many bytes appendEscapedJson() will append.
std::size_t escapedBytes(std::string_view text) {
    std::size_t count = text.size();
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const bool isShort = c == '"' || c == '\\' || c == '\b' || c == '\t' || c == '\n' || c == '\f' || c == '\r';
        count += isShort ? 1U : byte < 0x20 ? 5U : 0U;
    }
    return count;
}

} // namespace

void McpRpcAnswer::build() {
    if (isExact_)
        repairTexts_();
    readBody_();
    if (tellsOutcome_)
        outcome_ = mcp::outcomeOf(result_.body);
    if (learnsTools_)
        learnTools_();
    if (filter_)
        filter_->rules.filterAnswer(&result_.body);
    ZnString payload = payload_();
    if (payload.size() > kPayloadFactor * maxBytes_ ||
        escapedBytes(payload.view()) + payload.size() > kTextFactor * maxBytes_) {
        fail_();
        payload = payload_();
    }
    writeText_(payload);
}

void McpRpcAnswer::learnTools_() {
    const ZnJsonObject* message = result_.body.object();
    const ZnJsonObject* result = message == nullptr ? nullptr : message->value("result").object();
    if (const ZnJsonArray* tools = result == nullptr ? nullptr : result->value("tools").array())
        toolHeaders_ = McpToolHeaders::of(*tools);
}

void McpRpcAnswer::repairTexts_() {
    result_.reason = mcp::wellFormed(std::move(result_.reason));
    result_.mcpSessionId = mcp::wellFormed(std::move(result_.mcpSessionId));
    result_.rawBody = mcp::wellFormed(std::move(result_.rawBody));
}

void McpRpcAnswer::readBody_() {
    if (!result_.transportOk || result_.isDecoded || trimmedView(result_.rawBody.view()).empty())
        return;
    const JsonReading reading = isExact_ ? JsonReading::Exact : JsonReading::QuietDialect;
    ZnString error; // a body that is no JSON is handed on as it is
    ZnJsonDocument document = ZnJsonDocument::fromJson(result_.rawBody.view(), &error, reading, mcp::kMaxJsonValues);
    if (error.isEmpty())
        result_.body = std::move(document.root());
}

/// The members in the order of their names. Gives up each part as soon as it is written.
ZnString McpRpcAnswer::payload_() {
    ZnString text;
    text.reserve(result_.rawBody.size() + result_.rawBody.size() / 4 + 256);
    text.append("{");
    const bool hasBody = !result_.body.isNull();
    if (hasBody) {
        result_.rawBody.release();
        text.append("\"body\": ");
        std::exchange(result_.body, ZnJsonValue()).appendJson(&text);
        text.append(",");
    }
    text.append("\"errorCode\": ").append(ZnString::number(result_.errorCode).view());
    appendTextMember(&text, "mcpSessionId", result_.mcpSessionId.view());
    if (isExact_ && !result_.message.isEmpty())
        appendTextMember(&text, "message", result_.message.view());
    if (!result_.notifications.isEmpty()) {
        text.append(",\"notifications\": ");
        ZnJsonValue(std::move(result_.notifications)).appendJson(&text);
    }
    const bool isTooLarge = !hasBody && escapedBytes(result_.rawBody.view()) > kPayloadFactor * maxBytes_;
    if (!hasBody && !isTooLarge)
        appendTextMember(&text, "rawBody", result_.rawBody.view());
    result_.rawBody.release();
    appendTextMember(&text, "reason", result_.reason.view());
    text.append(",\"statusCode\": ").append(ZnString::number(result_.statusCode).view());
    text.append(",\"transportOk\": ").append(result_.transportOk ? "true}" : "false}");
    if (!isTooLarge)
        return text;
    fail_();
    return payload_();
}

void McpRpcAnswer::fail_() {
    result_ = McpForwardResult::failure(ZnHttpClient::kResponseTooLarge);
    result_.message = mcp::failureText(result_.errorCode, endpoint_, 0, ZnString());
}

void McpRpcAnswer::writeText_(const ZnString& payload) {
    text_.reserve(idText_.size() + escapedBytes(payload.view()) + payload.size() + 160);
    text_.append("{\"id\": ");
    text_.append(idText_.view());
    text_.append(",\"jsonrpc\": \"2.0\",\"result\": {\"content\": [{\"text\": \"");
    constexpr std::size_t kPieceBytes = 65536;
    for (std::string_view rest = payload.view(); !rest.empty(); rest.remove_prefix(std::min(kPieceBytes, rest.size())))
        text_.append(escapeJsonString(rest.substr(0, kPieceBytes)).view());
    text_.append("\",\"type\": \"text\"}],");
    if (!result_.isSuccess())
        text_.append("\"isError\": true,");
    text_.append("\"structuredContent\": ");
    text_.append(payload.view());
    text_.append("}}");
}
