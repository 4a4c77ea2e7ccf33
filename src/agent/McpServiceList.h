#pragma once

#include "agent/McpBridgeServiceRecord.h"
#include "agent/McpServiceFile.h"
#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnMutex.h"
#include "core/types/ZnString.h"

#include <memory>
#include <vector>

/// The allowlist: the services that may be called, and the one form in which they leave the agent.
///
/// Thread: any; reading a file, and the remarks, one that starts the agent. Owner: shared by the agent and its tools.
class McpServiceList {
public:
    using Ref = std::shared_ptr<const McpBridgeServiceRecord>;

    /// Reads the file; with an empty path there are no services. False, with the reason on standard error and the
    /// services as they were, when it cannot be read. `isExact`: see McpServiceFile.
    bool load(const ZnString& path, bool isExact);
    /// The same for its text. `path` tells whether others may read it.
    bool read(const ZnString& text, const ZnString& path, bool isExact, ZnString* errorOut);
    /// What is most likely meant otherwise, one line each.
    const std::vector<ZnString>& remarks() const noexcept { return remarks_; }

    /// Null for an unknown id; blanks around it do not count.
    Ref find(const ZnString& id);
    std::size_t size();
    /// The longest time limit of a call; 0 without services.
    int longestTimeoutMs();
    ZnJsonArray publicViews();
    /// Without token material.
    static ZnJsonObject publicView(const McpBridgeServiceRecord& record);

private:
    void set_(McpServiceFile::ServiceMap services);

    std::vector<ZnString> remarks_;
    ZnMutex lock_; // leaf
    McpServiceFile::ServiceMap services_ ZN_GUARDED_BY(lock_);
};
