#pragma once

#include "agent/McpAccessLog.h"
#include "agent/McpObserver.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <memory>
#include <vector>

/// What operators can see of the agent from outside, as far as they ask for it.
///
/// Thread: that of the loop. Owner: the agent.
class McpMonitor {
public:
    struct Options {
        ZnString accessLogPath; // "-": standard output; empty: no log
        std::uint64_t accessLogBytes = McpAccessLog::kDefaultFileBytes;
    };
    /// Before start().
    void setOptions(Options options) { options_ = std::move(options); }

    /// False, with the reason on standard error, when the agent must not start.
    bool start();
    /// Who wants to be told of requests and calls, after start(); mostly nobody.
    std::vector<std::shared_ptr<McpObserver>> observers() const;
    /// Lets the log be written, for a second at most.
    void stop();

private:
    Options options_;
    std::shared_ptr<McpAccessLog> accessLog_; // null without one
};
