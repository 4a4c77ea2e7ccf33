#include "agent/McpModernRequest.h"

#include "agent/McpJson.h"
#include "core/io/http/ZnHttpText.h"
#include "core/types/ZnCrypto.h"
#include "core/types/ZnVersion.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <utility>

namespace mcp {
namespace {

constexpr std::string_view kVersionKey = "io.modelcontextprotocol/protocolVersion";
constexpr std::string_view kMark = "=?base64?";
constexpr std::string_view kMarkEnd = "?=";
constexpr std::string_view kParamPrefix = "Mcp-Param-";
constexpr long long kMaxExact = 9007199254740991; // a double holds it and its neighbours

bool isBlank(char c) noexcept {
    return c == ' ' || c == '\t';
}

/// Whether a header brings the text over as it is, and nobody takes it for one that is encoded.
bool isPlain(std::string_view text) {
    const bool isPrintable =
        std::all_of(text.begin(), text.end(), [](char c) { return c == '\t' || (c >= 0x20 && c <= 0x7E); });
    const bool isMarked = text.starts_with(kMark) && text.ends_with(kMarkEnd);
    return isPrintable && !text.empty() && !isBlank(text.front()) && !isBlank(text.back()) && !isMarked;
}

const ZnJsonObject* metaOf(const ZnJsonObject& message) {
    const ZnJsonObject* params = message.value("params").object();
    return params == nullptr ? nullptr : params->value("_meta").object();
}

/// The member of params that names what a method is about; empty when there is none.
std::string_view nameMember(std::string_view method) {
    constexpr std::pair<std::string_view, std::string_view> kMembers[] = {
        {"tools/call", "name"},  {"prompts/get", "name"},    {"resources/read", "uri"},
        {"tasks/get", "taskId"}, {"tasks/update", "taskId"}, {"tasks/cancel", "taskId"}};
    const auto* const found = std::find_if(std::begin(kMembers), std::end(kMembers),
                                           [method](const auto& entry) { return entry.first == method; });
    return found == std::end(kMembers) ? std::string_view() : found->second;
}

} // namespace

ZnString mirrorText(std::string_view text) {
    if (isPlain(text))
        return ZnString(text);
    return ZnString(kMark) + ZnCrypto::base64Encode({text.begin(), text.end()}) + ZnString(kMarkEnd);
}

std::optional<ZnString> mirrorText(const ZnJsonValue& value) {
    switch (value.type()) {
    case JsonType::String: return mirrorText(value.string());
    case JsonType::Boolean: return ZnString(value.toBool(false) ? "true" : "false");
    case JsonType::Integer:
    case JsonType::Double: break;
    default: return std::nullopt;
    }
    const double number = value.toDouble(0.0);
    if (!(std::fabs(number) <= static_cast<double>(kMaxExact)) || std::trunc(number) != number)
        return std::nullopt;
    return ZnString::number(static_cast<long long>(number)); // also for 1.0 and 1e3
}

std::optional<std::string_view> modernVersion(const ZnJsonObject& message) {
    const ZnJsonObject* meta = metaOf(message);
    if (meta == nullptr || !meta->value(kVersionKey).isString())
        return std::nullopt;
    return meta->value(kVersionKey).string();
}

void addModernMeta(ZnJsonObject* meta) {
    constexpr std::string_view kClientKey = "io.modelcontextprotocol/clientInfo";
    constexpr std::string_view kCapabilitiesKey = "io.modelcontextprotocol/clientCapabilities";
    const auto add = [meta](std::string_view name, ZnJsonValue value) {
        if (!meta->contains(name))
            (*meta)[name] = std::move(value);
    };
    add(kVersionKey, kModernVersion);
    add(kClientKey, ZnJsonObject{{"name", "brelt-mcp-bridge-agent"}, {"version", zn::kVersion}});
    add(kCapabilitiesKey, ZnJsonObject());
}

void makeModern(ZnJsonObject* message) {
    const ZnJsonObject* given = metaOf(*message);
    if (!message->contains("method") || (given != nullptr && given->contains(kVersionKey)))
        return;
    if (!message->contains("params"))
        (*message)["params"] = ZnJsonObject();
    ZnJsonObject* params = (*message)["params"].object();
    if (params == nullptr)
        return;
    if (!params->contains("_meta"))
        (*params)["_meta"] = ZnJsonObject();
    if (ZnJsonObject* meta = (*params)["_meta"].object())
        addModernMeta(meta);
}

bool isOfHandshake(const ZnJsonObject& message) {
    constexpr std::string_view kMethods[] = {"initialize", "notifications/initialized", "ping"};
    const std::string_view method = message.value("method").string();
    return !modernVersion(message) && std::find(std::begin(kMethods), std::end(kMethods), method) != std::end(kMethods);
}

void mirror(const ZnJsonObject& message, McpForwardRequest* request) {
    const std::string_view method = message.value("method").string();
    request->isModern = true;
    request->sessionId = ZnString();
    request->protocolVersion = ZnString(modernVersion(message).value_or(kModernVersion));
    if (!message.value("method").isString())
        return; // a response, of which nothing is mirrored
    request->headers.emplace_back("Mcp-Method", mirrorText(method));
    const ZnJsonObject* params = message.value("params").object();
    const std::string_view member = nameMember(method);
    if (params != nullptr && !member.empty() && params->value(member).isString())
        request->headers.emplace_back("Mcp-Name", mirrorText(params->value(member).string()));
}

bool hasHeader(const McpHeaderList& headers, const ZnString& name) {
    return std::any_of(headers.begin(), headers.end(),
                       [&name](const auto& header) { return name.equalsIgnoreCase(header.first.view()); });
}

const char* addHeaderParams(const ZnJsonValue& params, McpHeaderList* headers) {
    if (params.isNull())
        return nullptr;
    if (params.object() == nullptr)
        return "Field 'headerParams' must be a JSON object";
    if (params.object()->size() > kMaxParams)
        return "Field 'headerParams' has too many members";
    for (const auto& [name, value] : *params.object()) {
        const std::optional<ZnString> text = mirrorText(value);
        if (!zn::http::isToken(name) || name.size() > kMaxParamBytes)
            return "Field 'headerParams' has a name that cannot stand in a header";
        if (!text)
            return "Field 'headerParams' must hold texts, whole numbers and booleans";
        if (value.string().size() > kMaxParamBytes)
            return "Field 'headerParams' has a value that is too long";
        const ZnString header = ZnString(kParamPrefix) + ZnString(name);
        if (hasHeader(*headers, header))
            return "Field 'headerParams' names a header twice";
        headers->emplace_back(header, *text);
    }
    return nullptr;
}

bool refusesHeaders(const McpForwardResult& result) {
    constexpr int kBadRequest = 400;              // of HTTP
    constexpr std::size_t kRefusalBytes = 65536;  // a longer answer is none
    constexpr long long kHeaderMismatch = -32020; // of JSON-RPC
    if (result.statusCode != kBadRequest || result.rawBody.size() > kRefusalBytes)
        return false;
    ZnJsonDocument document;
    const bool isRead = !result.isDecoded && readObject(result.rawBody.view(), JsonReading::Exact, &document);
    const ZnJsonObject* message = isRead ? document.root().object() : result.body.object();
    const ZnJsonObject* error = message == nullptr ? nullptr : message->value("error").object();
    return error != nullptr && error->value("code").type() == JsonType::Integer &&
           error->value("code").toLongLong() == kHeaderMismatch;
}

} // namespace mcp
