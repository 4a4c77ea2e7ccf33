// Entry point: options to an agent, one line on standard output, the event loop, an exit code. Or a help text.

#include "agent/BreltMcpBridgeAgent.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnTimer.h"
#include "core/types/ZnAssert.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <string>

namespace {

constexpr int kExitStartFailed = 2;
constexpr std::uint16_t kDefaultPort = 9010;

struct Option {
    const char* name;
    const char* defaultValue;
    const char* meaning;
};
constexpr Option kOptions[] = {
    {"bind", "127.0.0.1", "address to listen on"},
    {"port", "9010", "port, 1 to 65535"},
    {"mcp_path", "/mcp", "path of the MCP endpoint"},
    {"mcp_token", "", "bearer token that clients must show"},
    {"mcp_allowed_origin", "", "the one browser origin that may call"},
    {"mcp_interop", "false", "work with today's MCP clients and servers: true or false, alone it means true"},
    {"services_file", "mcp-bridge-services.json", "the allowlist"},
    {"tls_cert_path", "", "certificate file (PEM) for TLS, with tls_key_path"},
    {"tls_key_path", "", "private key file (PEM)"},
    {"duration_ms", "0", "milliseconds to run; 0: until stopped"},
};

/// The value of one of kOptions.
ZnString optionValue(const ZnCoreApplication& application, std::string_view name) {
    const Option* option =
        std::find_if(std::begin(kOptions), std::end(kOptions), [name](const Option& o) { return o.name == name; });
    ZN_ASSERT(option != std::end(kOptions));
    return application.getArgument(option->name, option->defaultValue);
}

/// An option without a value is on.
bool isOn(const ZnString& value) {
    bool isOn = false;
    return value.trimmed().isEmpty() || (parseBool(value, isOn) && isOn);
}

void printVersion() {
    std::cout << "brelt-mcp-bridge-agent " << BreltMcpBridgeAgent::kVersion << std::endl;
}

void printHelp() {
    constexpr int kNameColumn = 43;
    std::cout << "Usage: brelt-mcp-bridge-agent [--option=value]...\n"
                 "\n"
                 "A local bridge that lets MCP clients call the private MCP services of an allowlist.\n"
                 "\n";
    for (const Option& option : kOptions) {
        const std::string name = std::string("  --") + option.name + "=" + option.defaultValue;
        std::cout << std::left << std::setw(kNameColumn) << name << "  " << option.meaning
                  << (*option.defaultValue == '\0' ? "; default: none" : "") << "\n";
    }
    std::cout << std::left << std::setw(kNameColumn) << "  --help" << "  prints this text\n"
              << std::setw(kNameColumn) << "  --version" << "  prints the version" << std::endl;
}

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
    if (application.hasArgument("help") || application.hasArgument("version")) {
        application.hasArgument("help") ? printHelp() : printVersion();
        return 0;
    }
    const auto option = [&](std::string_view name) { return optionValue(application, name); };
    const ZnString bindAddress = option("bind");
    const std::uint16_t port = parsePort(option("port"));
    const ZnString mcpPath = option("mcp_path");
    const int durationMs = option("duration_ms").toInt();

    BreltMcpBridgeAgent agent;
    agent.setServicesFile(option("services_file"));
    agent.setMcpPath(mcpPath);
    agent.setMcpToken(option("mcp_token"));
    agent.setAllowedOrigin(option("mcp_allowed_origin"));
    agent.setInterop(isOn(option("mcp_interop")));
    if (!agent.start(bindAddress, port, option("tls_cert_path"), option("tls_key_path"))) {
        std::cerr << "[McpBridge] Unable to start on " << bindAddress << ":" << port << std::endl;
        return kExitStartFailed;
    }
    std::cout << "[McpBridge] listening on " << bindAddress << ":" << port << " path " << mcpPath << std::endl;
    const RunLimit runLimit(application, durationMs);
    return application.exec(0);
}
