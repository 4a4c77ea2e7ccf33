#include "agent/McpServiceRules.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>

namespace {

char lowerOf(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// As a careless reader may see it: without case, blanks and control characters.
std::string folded(std::string_view name) {
    std::string text;
    for (const char c : name) {
        if (static_cast<unsigned char>(c) > ' ' && c != 0x7F)
            text += lowerOf(c);
    }
    return text;
}

bool matches(std::string_view pattern, std::string_view name) noexcept {
    std::size_t at = 0;
    std::size_t in = 0;
    std::size_t star = std::string_view::npos; // the last one that was passed, and where it began to match
    std::size_t starIn = 0;
    while (in < name.size()) {
        if (at < pattern.size() && pattern[at] == '*') {
            star = at++;
            starIn = in;
        } else if (at < pattern.size() && pattern[at] == name[in]) {
            ++at;
            ++in;
        } else if (star != std::string_view::npos) {
            at = star + 1;
            in = ++starIn;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', at) == std::string_view::npos;
}

bool anyMatches(const McpServiceRules::Patterns& patterns, std::string_view name) noexcept {
    return std::any_of(patterns.begin(), patterns.end(),
                       [name](const ZnString& pattern) { return matches(pattern.view(), name); });
}

/// Some services take "Method" for "method": a request has no other members than those that were judged.
bool hasOnlyKnownMembers(const ZnJsonObject& request) {
    constexpr std::string_view kMembers[] = {"jsonrpc", "id", "method", "params", "result", "error"};
    return std::all_of(request.begin(), request.end(), [&](const auto& member) {
        return std::find(std::begin(kMembers), std::end(kMembers), member.name) != std::end(kMembers);
    });
}

} // namespace

bool McpServiceRules::allows(const ZnJsonObject& request) const {
    if (!allowMethods && !hasToolRules())
        return true;
    const ZnJsonValue& method = request.value("method");
    if (!hasOnlyKnownMembers(request) || (request.contains("method") && !method.isString()))
        return false;
    return allowsMethod(method.string()) && (!hasToolRules() || allowsToolCall_(request));
}

bool McpServiceRules::allowsMethod(std::string_view name) const {
    return !allowMethods || anyMatches(*allowMethods, name);
}

bool McpServiceRules::allowsToolCall_(const ZnJsonObject& request) const {
    const std::string_view method = request.value("method").string();
    if (folded(method) != "tools/call")
        return true;
    const ZnJsonObject* params = request.value("params").object();
    if (method != "tools/call" || params == nullptr || !params->value("name").isString())
        return false;
    const bool hasTwoNames = std::any_of(params->begin(), params->end(), [](const auto& member) {
        return member.name != "name" && folded(member.name) == "name";
    });
    return !hasTwoNames && allowsTool(params->value("name").string());
}

bool McpServiceRules::allowsTool(std::string_view name) const {
    const std::string careless = folded(name);
    const bool isDenied = std::any_of(denyTools.begin(), denyTools.end(), [&](const ZnString& pattern) {
        return matches(pattern.view(), name) || matches(folded(pattern.view()), careless);
    });
    return !isDenied && (!allowTools || anyMatches(*allowTools, name));
}

// --- answers

bool McpServiceRules::listsTools(const ZnJsonObject& request) {
    return folded(request.value("method").string()) == "tools/list";
}

void McpServiceRules::filterAnswer(ZnJsonValue* answer) const {
    if (ZnJsonArray* answers = answer->array()) {
        for (ZnJsonValue& entry : *answers)
            filterAnswer(&entry);
        return;
    }
    ZnJsonObject* message = answer->object();
    ZnJsonObject* result = message == nullptr || !message->contains("result") ? nullptr : (*message)["result"].object();
    ZnJsonArray* tools = result == nullptr || !result->contains("tools") ? nullptr : (*result)["tools"].array();
    if (tools != nullptr)
        filterTools(tools);
}

void McpServiceRules::filterTools(ZnJsonArray* tools) const {
    ZnJsonArray kept;
    for (ZnJsonValue& tool : *tools) {
        const ZnJsonObject* object = tool.object();
        if (object != nullptr && allowsTool(object->value("name").string()))
            kept.append(std::move(tool));
    }
    *tools = std::move(kept);
}
