// Entry point: options to an agent, one line on standard output, the event loop, an exit code.

#include "agent/BreltMcpBridgeAgent.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnTimer.h"

#include <algorithm>
#include <iostream>

namespace {

constexpr int kExitStartFailed = 2;
constexpr std::uint16_t kDefaultPort = 9010;

std::uint16_t parsePort(const ZnString& text) {
    const ZnString trimmed = text.trimmed();
    const int port = trimmed.isEmpty() ? 0 : trimmed.toInt();
    return port < 1 || port > 65535 ? kDefaultPort : static_cast<std::uint16_t>(port);
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

} // namespace

int main(int argc, char** argv) {
    ZnCoreApplication application(argc, argv);
    const ZnString bindAddress = application.getArgument("bind", "127.0.0.1");
    const std::uint16_t port = parsePort(application.getArgument("port", "9010"));
    const ZnString mcpPath = application.getArgument("mcp_path", "/mcp");
    const int durationMs = application.getArgument("duration_ms", "0").toInt();

    BreltMcpBridgeAgent agent;
    agent.setServicesFile(application.getArgument("services_file", "mcp-bridge-services.json"));
    agent.setMcpPath(mcpPath);
    agent.setMcpToken(application.getArgument("mcp_token"));
    agent.setAllowedOrigin(application.getArgument("mcp_allowed_origin"));
    if (!agent.start(bindAddress, port, application.getArgument("tls_cert_path"),
                     application.getArgument("tls_key_path"))) {
        std::cerr << "[McpBridge] Unable to start on " << bindAddress << ":" << port << std::endl;
        return kExitStartFailed;
    }
    std::cout << "[McpBridge] listening on " << bindAddress << ":" << port << " path " << mcpPath << std::endl;
    const RunLimit runLimit(application, durationMs);
    return application.exec(0);
}
