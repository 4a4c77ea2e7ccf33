#pragma once

#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnJsonValue.h"
#include "core/types/ZnString.h"

#include <optional>
#include <string_view>
#include <vector>

/// Which methods and tools of a service may be used.
///
/// A pattern is a name in which "*" stands for any characters. Services read names in different ways, so what one of
/// them might take for a forbidden name is refused, too.
/// Thread: a value, never changed once it is part of a service.
struct McpServiceRules {
    using Patterns = std::vector<ZnString>;

    std::optional<Patterns> allowMethods; // nothing: all methods
    std::optional<Patterns> allowTools;   // nothing: all tools
    Patterns denyTools;                   // wins over allowTools

    static constexpr const char* kRefusal = "Not allowed by the allowlist";

    /// Whether a service may get this request, which is sent as it is.
    bool allows(const ZnJsonObject& request) const;
    bool allowsMethod(std::string_view name) const;
    bool allowsTool(std::string_view name) const;
    bool hasToolRules() const noexcept { return allowTools || !denyTools.empty(); }

    /// Whether the request asks for a list of tools.
    static bool listsTools(const ZnJsonObject& request);
    /// Takes the tools that may not be used out of the answer to such a request.
    void filterAnswer(ZnJsonValue* answer) const;
    void filterTools(ZnJsonArray* tools) const;

    bool operator==(const McpServiceRules& other) const = default;

private:
    bool allowsToolCall_(const ZnJsonObject& request) const;
};
