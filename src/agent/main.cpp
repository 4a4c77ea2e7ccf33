// Entry point: options to an agent, one line on standard output, the event loop, an exit code. Or a help text, a check,
// or the trail of calls.

#include "agent/AgentOptions.h"
#include "agent/BreltMcpBridgeAgent.h"
#include "agent/McpTrailCommand.h"
#include "core/platform/ZnThreadControl.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnTimer.h"

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <string_view>

namespace {

constexpr int kExitCheckFailed = 1;
constexpr int kExitStartFailed = 2;

void warn(const std::vector<ZnString>& remarks, const char* about) {
    for (const ZnString& remark : remarks)
        std::cerr << "[McpBridge] Warning: " << about << remark << std::endl;
}

/// Ends the event loop after a run time, in steps that a timer can hold.
class RunLimit {
public:
    RunLimit(ZnCoreApplication& application, int durationMs) : application_(application), leftMs_(durationMs) {
        timer_.setSingleShot(true);
        timer_.connect(&ZnTimer::timeout, &timer_, [this] { takeStep_(); });
        if (durationMs > 0)
            takeStep_();
    }

private:
    static constexpr int kLongestStepMs = 2000000;

    void takeStep_() {
        if (leftMs_ == 0)
            return application_.quit();
        const int stepMs = std::min(leftMs_, kLongestStepMs);
        leftMs_ -= stepMs;
        timer_.stop();
        timer_.start(stepMs);
    }

    ZnCoreApplication& application_;
    ZnTimer timer_;
    int leftMs_;
};

/// Says what start() would find.
int runCheck(const AgentOptions& options, BreltMcpBridgeAgent& agent) {
    const bool isUsable = agent.check(options.text("tls_cert_path"), options.text("tls_key_path"));
    warn(options.remarks(), "");
    warn(agent.remarks(), "services file, ");
    std::size_t remarkCount = options.remarks().size() + agent.remarks().size();
    if (const ZnString problem = agent.stateProblem(); !problem.isEmpty()) {
        warn({problem}, "");
        ++remarkCount;
    }
    const bool isFine = isUsable && remarkCount == 0;
    std::cout << "[McpBridge] check: " << agent.serviceCount() << " services, "
              << (options.hasTls() ? "TLS" : "plain HTTP") << ", " << remarkCount << " warnings: "
              << (isFine     ? "fine"
                  : isUsable ? "starts, unless --strict"
                             : "does not start")
              << std::endl;
    return isFine ? 0 : kExitCheckFailed;
}

bool isRefused(const AgentOptions& options) {
    return options.isOn("strict") && !options.remarks().empty();
}

/// False, with the reason on standard error, when the agent does not listen.
bool listen(const AgentOptions& options, std::uint16_t port, BreltMcpBridgeAgent& agent) {
    if (!isRefused(options) &&
        agent.start(options.text("bind"), port, options.text("tls_cert_path"), options.text("tls_key_path")))
        return true;
    std::cerr << "[McpBridge] Unable to start on " << options.text("bind") << ":" << port << std::endl;
    return false;
}

/// False, with the reason on standard error, when the agent does not serve.
bool start(const AgentOptions& options, BreltMcpBridgeAgent& agent, ZnCoreApplication& application) {
    warn(options.remarks(), "");
    const bool usesStdio = options.isOn("stdio");
    const bool usesPort = !usesStdio || options.has("port");
    const std::uint16_t port = usesPort ? options.port() : 0; // once: what is no number is logged
    if (usesPort && !listen(options, port, agent))
        return false;
    if (usesStdio && (isRefused(options) || !agent.startStdio([&application] { application.quit(); })))
        return false;
    if (usesPort) // with messages on standard output it goes to standard error
        std::cout << "[McpBridge] listening on " << options.text("bind") << ":" << port << " path "
                  << options.text("mcp_path") << std::endl;
    return true;
}

} // namespace

int main(int argc, char** argv) {
    ZnThreadControl::keepLittleMemory();
    if (argc > 1 && std::string_view(argv[1]) == "trail")
        return runTrailCommand({argv + 2, argv + argc});
    ZnCoreApplication application(argc, argv);
    const AgentOptions options(application);
    if (options.has("help") || options.has("h")) {
        std::cout << AgentOptions::helpText() << std::flush;
        return 0;
    }
    if (options.has("version")) {
        std::cout << "brelt-mcp-bridge-agent " << BreltMcpBridgeAgent::kVersion << std::endl;
        return 0;
    }
    BreltMcpBridgeAgent agent;
    ZnString errorText;
    if (!options.configure(agent, &errorText)) {
        std::cerr << "[McpBridge] " << errorText << std::endl;
        return options.has("check") ? kExitCheckFailed : kExitStartFailed;
    }
    if (options.has("check") && options.isOn("check"))
        return runCheck(options, agent);
    if (!start(options, agent, application))
        return kExitStartFailed;
    const RunLimit runLimit(application, options.durationMs());
    return application.exec(0);
}
