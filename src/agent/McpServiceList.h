#pragma once

#include "agent/McpBridgeServiceRecord.h"
#include "agent/McpServiceFile.h"
#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnMutex.h"
#include "core/types/ZnString.h"

#include <atomic>
#include <memory>
#include <vector>

/// The allowlist: the services that may be called, and the one form in which they leave the agent.
///
/// Thread: any; load(), read() and the remarks: one that starts the agent. Owner: shared by the agent and its tools.
class McpServiceList {
public:
    using Ref = std::shared_ptr<const McpBridgeServiceRecord>;

    /// Reads the file; with an empty path there are no services. False, with the reason on standard error and the
    /// services as they were, when it cannot be read. `isExact`: see McpServiceFile.
    bool load(const ZnString& path, bool isExact);
    struct Reading {
        bool isExact = false;  // see McpServiceFile
        bool isStrict = false; // a file that there is something to warn about is not taken
    };
    /// Reads a file that has changed, and says on standard error what came of it: with a bad one the services stay as
    /// they were. Any thread. Records that say the same as before stay the same objects.
    void reload(const ZnString& path, Reading how);
    /// The files in which services have secrets.
    std::vector<ZnString> secretFiles();
    /// The same for its text. `path` tells whether others may read it.
    bool read(const ZnString& text, const ZnString& path, bool isExact, ZnString* errorOut);
    /// What is most likely meant otherwise, one line each.
    const std::vector<ZnString>& remarks() const noexcept { return remarks_; }

    /// Null for an unknown id; blanks around it do not count.
    Ref find(const ZnString& id);
    std::size_t size();
    /// Whether a service of the list may speak another era of the protocol than Legacy.
    bool hasModern() const noexcept { return hasModern_.load(std::memory_order_relaxed); }
    /// Another one after each change. Any thread.
    unsigned serial() const noexcept { return serial_.load(std::memory_order_relaxed); }
    /// The longest time limit of a call; 0 without services.
    int longestTimeoutMs();
    ZnJsonArray publicViews();
    /// Without token material.
    static ZnJsonObject publicView(const McpBridgeServiceRecord& record);

private:
    static bool readFile_(const ZnString& path, bool isExact, McpServiceFile* file, ZnString* errorOut);
    static void addSecretRemark_(const ZnString& path, McpServiceFile* file);
    void set_(McpServiceFile file);

    std::vector<ZnString> remarks_;
    std::atomic<unsigned> serial_{0};    // orders nothing: who sees it late keeps connections of no use a little longer
    std::atomic<bool> hasModern_{false}; // likewise
    ZnMutex lock_;                       // leaf
    std::vector<ZnString> secretFiles_ ZN_GUARDED_BY(lock_);
    McpServiceFile::ServiceMap services_ ZN_GUARDED_BY(lock_);
};
