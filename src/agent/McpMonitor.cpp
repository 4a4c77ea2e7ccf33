#include "agent/McpMonitor.h"

#include "core/io/http/ZnHttpRouter.h"
#include "core/platform/ZnWriteAccess.h"

#include <iostream>
#include <utility>

namespace {

/// Whether requests can name the path as it stands, and it is no pattern.
bool isPlainPath(const ZnString& path) {
    constexpr std::string_view kOther = "/-._~";
    for (const char c : path.view()) {
        const bool isAlphanumeric = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        if (!isAlphanumeric && kOther.find(c) == std::string_view::npos)
            return false;
    }
    return path == ZnHttpRouter::normalizePattern(path);
}

bool isTaken(const ZnString& path, const ZnString& mcpPath) {
    return path == ZnHttpRouter::normalizePattern(mcpPath) || path == "/help" || path == "/services" ||
           path.view().starts_with("/services/");
}

} // namespace

ZnString McpMonitor::pathProblem(const Options& options, const ZnString& mcpPath) {
    const std::pair<const char*, const ZnString&> paths[] = {{"--health_path", options.healthPath},
                                                             {"--metrics_path", options.metricsPath}};
    for (const auto& [name, path] : paths) {
        if (path.isEmpty())
            continue;
        if (!isPlainPath(path))
            return ZnString(name) + " may have letters, digits and -._~ between slashes";
        if (isTaken(path, mcpPath))
            return ZnString(name) + " is a path that the agent serves already: " + path;
    }
    const bool areSame = !options.healthPath.isEmpty() && options.healthPath == options.metricsPath;
    return areSame ? "--health_path and --metrics_path are the same: " + options.healthPath : ZnString();
}

ZnString McpMonitor::logProblem() const {
    const ZnString& path = options_.accessLogPath;
    const ZnString problem = path.isEmpty() || path == "-" ? ZnString() : ZnWriteAccess::fileProblem(path);
    return problem.isEmpty() ? problem : "access log " + path + ": " + problem;
}

bool McpMonitor::start() {
    if (!options_.metricsPath.isEmpty())
        metrics_ = std::make_shared<McpMetrics>();
    if (options_.accessLogPath.isEmpty())
        return true;
    accessLog_ = std::make_shared<McpAccessLog>(options_.accessLogPath, options_.accessLogBytes);
    ZnString problem;
    if (accessLog_->start(&problem))
        return true;
    std::cerr << "[McpBridge] access log " << options_.accessLogPath << ": " << problem << std::endl;
    return false;
}

std::vector<std::shared_ptr<McpObserver>> McpMonitor::observers() const {
    std::vector<std::shared_ptr<McpObserver>> observers;
    if (accessLog_)
        observers.push_back(accessLog_);
    if (metrics_)
        observers.push_back(metrics_);
    return observers;
}

void McpMonitor::addRoutes(ZnHttpApp& app, std::function<McpMetrics::Gauges()> gauges) const {
    if (!options_.healthPath.isEmpty())
        app.get(options_.healthPath, [](ZnHttpContext& context) {
            context.sendString("{\"status\": \"ok\"}", ZnString(zn::http::kJsonText), 200);
        });
    if (!metrics_)
        return;
    app.get(options_.metricsPath,
            [metrics = metrics_, log = accessLog_, gauges = std::move(gauges)](ZnHttpContext& context) {
                McpMetrics::Gauges now = gauges();
                now.droppedLines = log ? log->droppedCount() : 0;
                context.sendString(metrics->text(now), McpMetrics::kContentType, 200);
            });
}

void McpMonitor::stop() {
    if (accessLog_)
        accessLog_->stop();
}
