#pragma once

#include "agent/McpForwardCall.h"
#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

/// Which arguments of a tool are mirrored in headers: those whose schema has "x-mcp-header".
///
/// Thread: a value, never changed once it is shared.
class McpToolHeaders {
public:
    static constexpr std::size_t kMaxTools = 1000; // of a service; those that mirror nothing do not count
    using Ref = std::shared_ptr<const McpToolHeaders>;
    using ByTool = ZnMap<ZnString, Ref>;

    /// Of a list of tools, as far as they may be kept. Null for a tool that mirrors nothing, or whose schema breaks the
    /// rules for it.
    static ByTool of(const ZnJsonArray& tools);

    /// The headers for such arguments, without those that `given` has. Nothing when one would be too long.
    std::optional<McpHeaderList> headersFor(const ZnJsonObject& arguments, const McpHeaderList& given) const;

private:
    using Path_ = std::vector<ZnString>; // names of properties, outermost first
    struct Entry_ {
        ZnString header;
        Path_ path;
    };
    bool take_(const ZnJsonObject& schema, Path_* path);
    bool add_(const ZnJsonObject& property, const Path_& path);

    std::vector<Entry_> entries_;
    std::size_t byteCount_ = 0;
};
