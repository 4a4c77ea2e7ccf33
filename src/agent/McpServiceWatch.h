#pragma once

#include "agent/McpServiceList.h"
#include "agent/McpWork.h"
#include "core/platform/ZnFileIdentity.h"
#include "core/runtime/ZnTimer.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"

#include <memory>

/// Takes a changed allowlist over while the agent runs, also when only a file with a secret has changed.
///
/// The files are looked at, on another thread, twice a second; a change counts when two looks in a row have seen the
/// same, so that no half-written file is read.
/// Thread: that of the loop. Owner: shared by the agent and a look that is under way.
class McpServiceWatch : public std::enable_shared_from_this<McpServiceWatch> {
public:
    /// `how`: as the list in force was read.
    McpServiceWatch(std::shared_ptr<McpServiceList> services, std::shared_ptr<McpWorkers> workers, ZnString path,
                    McpServiceList::Reading how, int lookMs = 500)
        : services_(std::move(services)),
          workers_(std::move(workers)),
          path_(std::move(path)),
          how_(how),
          lookMs_(lookMs) {}

    /// Begins with the files as they are now.
    void start();

private:
    using Files_ = ZnMap<ZnString, ZnFileIdentity>;

    Files_ filesNow_() const;
    void look_();

    const std::shared_ptr<McpServiceList> services_;
    const std::shared_ptr<McpWorkers> workers_;
    const ZnString path_;
    const McpServiceList::Reading how_;
    const int lookMs_;
    ZnTimer timer_;
    bool isLooking_ = false;
    Files_ known_; // as they were when the list was last read
    Files_ seen_;  // in the last look
};
