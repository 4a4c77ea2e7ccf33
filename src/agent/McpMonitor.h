#pragma once

#include "agent/McpAccessLog.h"
#include "agent/McpMetrics.h"
#include "agent/McpObserver.h"
#include "core/io/http/ZnHttpApp.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <functional>
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
        ZnString healthPath; // normalized; empty: there is none
        ZnString metricsPath;
    };
    /// Why these paths cannot be served beside the agent's own; empty when they can.
    static ZnString pathProblem(const Options& options, const ZnString& mcpPath);

    /// Before start().
    void setOptions(Options options) { options_ = std::move(options); }

    /// What start() would say against the access log, without making it; empty when nothing.
    ZnString logProblem() const;
    /// False, with the reason on standard error, when the agent must not start.
    bool start();
    /// Who wants to be told of requests and calls, after start(); mostly nobody.
    std::vector<std::shared_ptr<McpObserver>> observers() const;
    /// After start(). `gauges`: called for each request for the metrics; it fills in what the monitor does not know.
    void addRoutes(ZnHttpApp& app, std::function<McpMetrics::Gauges()> gauges) const;
    /// Lets the log be written, for a second at most.
    void stop();

private:
    Options options_;
    std::shared_ptr<McpAccessLog> accessLog_; // null without one
    std::shared_ptr<McpMetrics> metrics_;     // likewise
};
