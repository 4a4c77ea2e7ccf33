#pragma once

#include "core/types/ZnJsonObject.h"
#include "core/types/ZnString.h"

#include <optional>
#include <string_view>

/// The tools that clients see, and the names under which they may be called.
///
/// Thread: a value, never changed after it was made.
class McpToolCatalogue {
public:
    enum class Tool { ListServices, GetService, Rpc, ListTools, CallTool };
    struct Options {
        bool safeNames = false; // listed without dots, which several clients and models refuse; dots are understood
        bool callTools = false; // the tools of the services can be listed and called
        bool modern = false;    // a service may speak revision 2026-07-28 of the protocol, which takes more arguments
    };

    explicit McpToolCatalogue(const Options& options);

    /// Nothing for a name that no tool has.
    std::optional<Tool> find(std::string_view name) const;
    /// The result of "tools/list", as JSON.
    const ZnString& listText() const noexcept { return listText_; }
    /// What `initialize` tells the client about the tools.
    const ZnString& instructions() const noexcept { return instructions_; }

private:
    ZnString nameOf_(Tool tool) const;
    ZnJsonObject tool_(Tool tool) const;
    ZnJsonObject withModern_(Tool tool, ZnJsonObject properties) const;

    Options options_;
    ZnString listText_;
    ZnString instructions_;
};
