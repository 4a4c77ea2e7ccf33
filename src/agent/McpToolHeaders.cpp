#include "agent/McpToolHeaders.h"

#include "agent/McpModernRequest.h"
#include "core/io/http/ZnHttpText.h"

#include <algorithm>
#include <utility>

namespace {

constexpr std::size_t kMaxDepth = 8;
constexpr std::size_t kMaxToolNameBytes = 256; // these two bound what a service makes the agent keep
constexpr std::size_t kMaxBytes = 4096;        // of the names of one tool

const ZnJsonValue& valueAt(const ZnJsonObject& arguments, const std::vector<ZnString>& path) {
    static const ZnJsonValue kNone;
    const ZnJsonObject* object = &arguments;
    for (std::size_t i = 0; i + 1 < path.size() && object != nullptr; ++i)
        object = object->value(path[i].view()).object();
    return object == nullptr ? kNone : object->value(path.back().view());
}

} // namespace

McpToolHeaders::ByTool McpToolHeaders::of(const ZnJsonArray& tools) {
    ByTool byTool;
    std::size_t usefulCount = 0;
    for (const ZnJsonValue& value : tools) {
        const ZnJsonObject* tool = value.object();
        const ZnJsonObject* schema = tool == nullptr ? nullptr : tool->value("inputSchema").object();
        if (schema == nullptr || tool->value("name").string().size() > kMaxToolNameBytes)
            continue;
        auto headers = std::make_shared<McpToolHeaders>();
        Path_ path;
        const bool isUseful = headers->take_(*schema, &path) && !headers->entries_.empty();
        if (isUseful && ++usefulCount > kMaxTools)
            break;
        byTool.insert(ZnString(tool->value("name").string()), isUseful ? std::move(headers) : nullptr);
    }
    return byTool;
}

/// Only what is reached by "properties" alone may be mirrored. False when the schema breaks the rules.
bool McpToolHeaders::take_(const ZnJsonObject& schema, Path_* path) {
    const ZnJsonObject* properties = schema.value("properties").object();
    if (properties == nullptr || path->size() >= kMaxDepth)
        return true;
    for (const auto& [name, value] : *properties) {
        const ZnJsonObject* property = value.object();
        if (property == nullptr)
            continue;
        path->emplace_back(name);
        const bool isUsable = !property->contains("x-mcp-header") || add_(*property, *path);
        if (!isUsable || !take_(*property, path))
            return false;
        path->pop_back();
    }
    return true;
}

bool McpToolHeaders::add_(const ZnJsonObject& property, const Path_& path) {
    const std::string_view name = property.value("x-mcp-header").string();
    const std::string_view type = property.value("type").string();
    const bool isScalar = type == "string" || type == "integer" || type == "boolean";
    const ZnString header = "Mcp-Param-" + ZnString(name.substr(0, kMaxBytes));
    const bool isTaken = std::any_of(entries_.begin(), entries_.end(), [&header](const Entry_& entry) {
        return entry.header.equalsIgnoreCase(header.view());
    });
    if (!isScalar || isTaken || !zn::http::isToken(name) || entries_.size() >= mcp::kMaxParams)
        return false;
    byteCount_ += name.size();
    for (const ZnString& part : path)
        byteCount_ += part.size();
    entries_.push_back({header, path});
    return byteCount_ <= kMaxBytes;
}

std::optional<McpHeaderList> McpToolHeaders::headersFor(const ZnJsonObject& arguments,
                                                        const McpHeaderList& given) const {
    McpHeaderList headers;
    for (const Entry_& entry : entries_) {
        std::optional<ZnString> text;
        if (!mcp::hasHeader(given, entry.header))
            text = mcp::mirrorText(valueAt(arguments, entry.path));
        if (!text)
            continue;
        if (text->size() > mcp::kMaxMirrorBytes)
            return std::nullopt;
        headers.emplace_back(entry.header, *text);
    }
    return headers;
}
