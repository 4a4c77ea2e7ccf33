#include "agent/McpJson.h"

#include "core/types/ZnVersion.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <string>
#include <utility>

namespace {

/// In a response with a result, after the id: no text of JSON can hold it, for its quotes would be escaped there.
constexpr std::string_view kBeforeResult = ",\"jsonrpc\": \"2.0\",\"result\": ";

} // namespace

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

bool isUsableId(const ZnJsonValue& id) {
    if (id.type() == JsonType::Double) {
        double whole = 0.0;
        return std::modf(id.toDouble(0.0), &whole) == 0.0;
    }
    return id.isString() || id.type() == JsonType::Integer;
}

ZnString cancelledId(const ZnJsonObject& notification) {
    const ZnJsonObject* params = notification.value("params").object();
    if (params == nullptr || !isUsableId(params->value("requestId")))
        return ZnString();
    return params->value("requestId").toJson();
}

ZnJsonObject serverInfo() {
    return {{"name", "brelt-mcp-bridge-agent"}, {"title", "Brelt MCP Bridge Agent"}, {"version", zn::kVersion}};
}

ZnJsonObject serverCapabilities() {
    return {{"tools", ZnJsonObject{{"listChanged", false}}}};
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
    text.append("{\"id\": ").append(idText).append(kBeforeResult);
    return std::move(text.append(resultText).append("}"));
}

std::string_view resultOf(std::string_view response) {
    const std::size_t at = response.find(kBeforeResult);
    if (at == std::string_view::npos || !response.starts_with("{\"id\": "))
        return {};
    response.remove_prefix(at + kBeforeResult.size());
    return response.substr(0, response.size() - 1);
}

void addToResult(ZnByteArray* response, std::string_view members) {
    const std::string_view result = resultOf(response->view());
    if (result.empty())
        return;
    ZnString added(members);
    if (result != "{}")
        added.append(",");
    const auto place = static_cast<std::size_t>(result.data() - response->data()) + 1;
    response->insert(place, added.data(), added.size());
}

bool hasMember(std::string_view objectText, std::string_view name) {
    int depth = 0;
    for (std::size_t at = 0; at < objectText.size(); ++at) {
        const char c = objectText[at];
        depth += c == '{' || c == '[' ? 1 : c == '}' || c == ']' ? -1 : 0;
        if (c != '"')
            continue;
        const std::size_t begin = ++at;
        while (at < objectText.size() && objectText[at] != '"')
            at += objectText[at] == '\\' ? 2 : 1;
        const std::string_view rest = objectText.substr(begin);
        if (depth == 1 && rest.starts_with(name) && rest.substr(name.size()).starts_with("\":"))
            return true;
    }
    return false;
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
