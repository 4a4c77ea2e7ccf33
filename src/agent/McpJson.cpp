#include "agent/McpJson.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>

namespace mcp {

bool readObject(std::string_view text, JsonReading reading, ZnJsonDocument* document) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    std::string cleaned;
    if (text.find('\0') != std::string_view::npos) { // hardly ever: else the text is read where it lies
        std::copy_if(text.begin(), text.end(), std::back_inserter(cleaned), [](char c) { return c != '\0'; });
        text = cleaned;
    }
    if (text.starts_with(kByteOrderMark))
        text.remove_prefix(kByteOrderMark.size());
    ZnString error;
    ZnJsonDocument read = ZnJsonDocument::fromJson(text, &error, reading, kMaxJsonValues);
    if (!error.isEmpty() || !read.root().isObject())
        return false;
    *document = std::move(read);
    return true;
}

void makeOneLine(ZnByteArray* text) {
    for (const char lineEnd : {'\r', '\n'}) {
        for (std::size_t at = text->view().find(lineEnd); at != std::string_view::npos;
             at = text->view().find(lineEnd, at))
            (*text)[at] = ' ';
    }
}

ZnString textMember_(const ZnJsonObject& object, std::string_view name) {
    const ZnJsonValue& value = object.value(name);
    if (value.isNull())
        return ZnString();
    const ZnString other = value.isString() ? ZnString() : value.toStringOr(ZnString());
    const std::string_view text = value.isString() ? value.string() : other.view();
    return ZnString(trimmedView(text.substr(0, text.find('\0'))));
}

std::optional<ZnJsonValue> progressToken(const ZnJsonObject& params) {
    const ZnJsonObject* meta = params.value("_meta").object();
    if (meta == nullptr)
        return std::nullopt;
    const ZnJsonValue& token = meta->value("progressToken");
    return token.isString() || token.type() == JsonType::Integer ? std::optional(token) : std::nullopt;
}

ZnJsonObject errorBody_(const char* message) {
    return {{"error", message}};
}

ZnString jsonRpcResult_(const ZnJsonValue& id, std::string_view resultText) {
    return jsonRpcResultTo_(id.toJson().view(), resultText);
}

ZnString jsonRpcResultTo_(std::string_view idText, std::string_view resultText) {
    ZnString text;
    text.reserve(idText.size() + resultText.size() + 48);
    text.append("{\"id\": ").append(idText).append(",\"jsonrpc\": \"2.0\",\"result\": ");
    return std::move(text.append(resultText).append("}"));
}

ZnString jsonRpcError_(const ZnJsonValue& id, int code, const char* message, ZnJsonValue data) {
    ZnJsonObject error{{"code", code}, {"message", message}};
    if (!data.isNull())
        error["data"] = std::move(data);
    return ZnJsonValue(ZnJsonObject{{"jsonrpc", "2.0"}, {"id", id}, {"error", std::move(error)}}).toJson();
}

ZnString toolResult_(const ZnJsonValue& payload, bool isError) {
    const ZnString payloadText = payload.toJson();
    const ZnString escapedText = escapeJsonString(payloadText.view());
    ZnString text;
    text.reserve(payloadText.size() + escapedText.size() + 96);
    text.append("{\"content\": [{\"text\": \"").append(escapedText.view()).append("\",\"type\": \"text\"}],");
    if (isError)
        text.append("\"isError\": true,");
    return std::move(text.append("\"structuredContent\": ").append(payloadText.view()).append("}"));
}

ZnString toolError_(const ZnString& message, int statusCode) {
    return toolResult_(ZnJsonObject{{"error", message}, {"statusCode", statusCode}}, true);
}

} // namespace mcp
