#include "agent/McpToolCatalogue.h"

#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonValue.h"

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <string>
#include <utility>

namespace {

using Tool = McpToolCatalogue::Tool;

constexpr const char* kServiceId = "Configured service id.";

struct Name {
    Tool tool;
    std::string_view dotted;
    std::string_view safe;
    bool isSafeAlways; // tools that came later have no dots in any case
};
/// In the order of Tool.
constexpr Name kNames[] = {{Tool::ListServices, "bridge.list_services", "bridge_list_services", false},
                           {Tool::GetService, "bridge.get_service", "bridge_get_service", false},
                           {Tool::Rpc, "bridge.rpc", "bridge_rpc", false},
                           {Tool::ListTools, "bridge.list_tools", "bridge_list_tools", true},
                           {Tool::CallTool, "bridge.call_tool", "bridge_call_tool", true}};

ZnJsonObject stringProperty(const char* description) {
    return {{"type", "string"}, {"description", description}};
}

ZnJsonObject objectProperty(const char* description) {
    return {{"type", "object"}, {"description", description}, {"additionalProperties", true}};
}

ZnJsonObject toolObject(ZnString name, const char* title, const char* description, ZnJsonObject properties,
                        std::initializer_list<const char*> requiredNames) {
    ZnJsonObject schema{{"type", "object"}, {"properties", std::move(properties)}};
    if (requiredNames.size() > 0) {
        ZnJsonArray required;
        for (const char* requiredName : requiredNames)
            required.append(requiredName);
        schema["required"] = std::move(required);
    }
    return {
        {"name", std::move(name)}, {"title", title}, {"description", description}, {"inputSchema", std::move(schema)}};
}

} // namespace

McpToolCatalogue::McpToolCatalogue(const Options& options) : options_(options) {
    ZnJsonArray tools;
    for (const Name& name : kNames) {
        if (!name.isSafeAlways || options_.callTools)
            tools.append(tool_(name.tool));
    }
    listText_ = ZnJsonValue(ZnJsonObject{{"tools", std::move(tools)}}).toJson();
    instructions_ = "Bridge to explicitly configured private MCP services reachable from this BRELT client. Use " +
                    nameOf_(Tool::ListServices) + " first. " + nameOf_(Tool::Rpc) +
                    " only calls services listed in the local allowlist.";
    if (options_.callTools)
        instructions_ += " " + nameOf_(Tool::ListTools) + " shows the tools of a service and " +
                         nameOf_(Tool::CallTool) + " calls one of them; " + nameOf_(Tool::Rpc) +
                         " is for everything else.";
}

std::optional<McpToolCatalogue::Tool> McpToolCatalogue::find(std::string_view name) const {
    const auto* const found = std::find_if(std::begin(kNames), std::end(kNames), [&](const Name& entry) {
        if (entry.isSafeAlways && !options_.callTools)
            return false;
        const bool listsSafe = entry.isSafeAlways || options_.safeNames;
        return name == (listsSafe ? entry.safe : entry.dotted) || (options_.safeNames && name == entry.dotted);
    });
    return found == std::end(kNames) ? std::nullopt : std::optional(found->tool);
}

ZnString McpToolCatalogue::nameOf_(Tool tool) const {
    const Name& name = kNames[static_cast<std::size_t>(tool)];
    return ZnString(name.isSafeAlways || options_.safeNames ? name.safe : name.dotted);
}

ZnJsonObject McpToolCatalogue::tool_(Tool tool) const {
    switch (tool) {
    case Tool::ListServices:
        return toolObject(nameOf_(tool), "List private MCP services",
                          "List MCP services explicitly configured in this local bridge allowlist.", {}, {});
    case Tool::GetService:
        return toolObject(nameOf_(tool), "Get private MCP service",
                          "Return one configured MCP service without leaking its bearer token.",
                          {{"serviceId", stringProperty(kServiceId)}}, {"serviceId"});
    case Tool::Rpc:
        return toolObject(
            nameOf_(tool), "Call private MCP service",
            "Forward one JSON-RPC request to a configured private Streamable HTTP MCP service.",
            withModern_(tool, {{"serviceId", stringProperty(kServiceId)},
                               {"request", objectProperty("Single JSON-RPC MCP request to forward.")},
                               {"protocolVersion", stringProperty("Optional MCP protocol version header.")},
                               {"sessionId", stringProperty("Optional upstream MCP session id.")}}),
            {"serviceId", "request"});
    case Tool::ListTools:
        return toolObject(nameOf_(tool), "List tools of a private MCP service",
                          "List the tools that a configured private MCP service offers, with their input schemas.",
                          {{"serviceId", stringProperty(kServiceId)}}, {"serviceId"});
    case Tool::CallTool: break;
    }
    return toolObject(
        nameOf_(tool), "Call a tool of a private MCP service",
        "Call one tool of a configured private MCP service and return its result unchanged.",
        withModern_(tool, {{"serviceId", stringProperty(kServiceId)},
                           {"name", stringProperty("Name of the tool, as the service lists it.")},
                           {"arguments", objectProperty("Arguments of the tool, as its input schema wants them.")}}),
        {"serviceId", "name"});
}

ZnJsonObject McpToolCatalogue::withModern_(Tool tool, ZnJsonObject properties) const {
    if (!options_.modern)
        return properties;
    properties["headerParams"] =
        objectProperty("Values for Mcp-Param- headers, by the rest of the header's name; seldom "
                       "needed, since the bridge mirrors what a tool's schema asks for.");
    if (tool == Tool::Rpc)
        return properties;
    properties["inputResponses"] = objectProperty("Answers to inputRequests of an earlier result, by their keys.");
    properties["requestState"] = stringProperty("requestState of that result, unchanged.");
    return properties;
}
