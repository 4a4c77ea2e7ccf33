#include "agent/AgentOptions.h"

#include "agent/McpText.h"
#include "core/io/ZnFile.h"
#include "core/types/ZnAssert.h"

#include <algorithm>
#include <iomanip>
#include <iterator>
#include <sstream>

namespace {

constexpr std::uint16_t kDefaultPort = 9010;

enum class Kind { Text, Switch };

struct Option {
    const char* name;
    const char* defaultValue;
    const char* meaning;
    const char* group = nullptr; // of the first option of a group
    Kind kind = Kind::Text;
};
constexpr Option kOptions[] = {
    {"bind", "127.0.0.1", "address to listen on", "Listening"},
    {"port", "9010", "port, 1 to 65535"},
    {"mcp_path", "/mcp", "path of the MCP endpoint"},
    {"tls_cert_path", "", "certificate file (PEM) for TLS, with tls_key_path"},
    {"tls_key_path", "", "private key file (PEM)"},
    {"stdio", "false", "serve standard input and output; a port only if --port is given too", nullptr, Kind::Switch},
    {"mcp_token", "", "bearer token that clients must show", "Who may call"},
    {"mcp_token_file", "", "file that holds the token, which keeps it out of the process list"},
    {"mcp_allowed_origin", "", "the one browser origin that may call"},
    {"mcp_allowed_hosts", "any", "names in the Host header: any, local, or a list with commas"},
    {"mcp_throttle", "address", "what failed attempts block: address, or failures alone"},
    {"mcp_interop", "false", "work with today's MCP clients and servers: true or false, alone it means true",
     "The protocol", Kind::Switch},
    {"mcp_tool_names", "dotted", "names of the tools: dotted, or safe (bridge_rpc), with which both are understood"},
    {"mcp_call_tools", "false", "the tools of the services can be listed and called as such", nullptr, Kind::Switch},
    {"mcp_progress", "false", "calls tell of their progress, and can be cancelled", nullptr, Kind::Switch},
    {"services_file", "mcp-bridge-services.json", "the allowlist", "Services"},
    {"mcp_keep_alive", "false", "keep connections to services that do not say otherwise", nullptr, Kind::Switch},
    {"mcp_keep_alive_connections", "32", "connections of a service that wait for a call at most, 1 to 1024"},
    {"services_reload", "off", "off, or watch: take a changed allowlist and changed secrets over"},
    {"max_answer_bytes", "16777216", "largest answer taken from a service, 1024 to 1073741824"},
    {"access_log", "", "file that gets a JSON line for each request and each call of a service; - is standard output",
     "What operators see"},
    {"access_log_max_bytes", "67108864", "size at which the log becomes PATH.1, 1024 to 1073741824"},
    {"health_path", "", "path that answers as long as the agent does, such as /healthz; needs no token"},
    {"metrics_path", "", "path of the metrics for Prometheus, such as /metrics; needs no token"},
    {"state_dir", "", "directory that keeps sessions and a trail of calls", "What is kept"},
    {"trail_max_days", "30", "calls older than so many days are removed, 1 to 3650"},
    {"trail_max_bytes", "268435456", "room for the directory on the disk, 1048576 to 1099511627776"},
    {"duration_ms", "0", "milliseconds to run; 0: until stopped", "Running"},
    {"strict", "false", "do not start when there is something to warn about", nullptr, Kind::Switch},
    {"check", "false", "read options, certificate and allowlist, say what was found, and end", nullptr, Kind::Switch},
};

using Range = AgentOptions::Range;
constexpr Range kAnswerBytes = {"max_answer_bytes", 1024, 1073741824};
constexpr Range kTrailDays = {"trail_max_days", 1, 3650};
constexpr Range kTrailBytes = {"trail_max_bytes", 1048576, 1099511627776};
constexpr Range kLogBytes = {"access_log_max_bytes", 1024, 1073741824};
constexpr Range kKeptConnections = {"mcp_keep_alive_connections", 1, 1024};
constexpr Range kRanges[] = {kAnswerBytes, kKeptConnections, kLogBytes, kTrailDays, kTrailBytes};

const Option& optionNamed(std::string_view name) {
    const Option* option =
        std::find_if(std::begin(kOptions), std::end(kOptions), [name](const Option& o) { return o.name == name; });
    ZN_ASSERT(option != std::end(kOptions));
    return *option;
}

std::vector<std::string_view> optionNames() {
    std::vector<std::string_view> names = {"help", "h", "version"};
    for (const Option& option : kOptions)
        names.push_back(option.name);
    return names;
}

} // namespace

AgentOptions::AgentOptions(const ZnCoreApplication& application) : application_(application) {
    checkNames_();
    checkValues_();
}

ZnString AgentOptions::text(std::string_view name) const {
    const Option& option = optionNamed(name);
    return application_.getArgument(option.name, option.defaultValue);
}

bool AgentOptions::isOn(std::string_view name) const {
    const ZnString value = text(name);
    bool isOn = false;
    return value.trimmed().isEmpty() || (parseBool(value, isOn) && isOn);
}

std::uint16_t AgentOptions::port() const {
    const ZnString trimmed = text("port").trimmed();
    const int port = trimmed.isEmpty() ? 0 : trimmed.toInt();
    return port < 1 || port > 65535 ? kDefaultPort : static_cast<std::uint16_t>(port);
}

// --- remarks

void AgentOptions::checkNames_() {
    const std::vector<std::string_view> known = optionNames();
    for (const auto& [name, value] : application_.arguments()) {
        if (std::find(known.begin(), known.end(), name.view()) != known.end())
            continue;
        const std::string_view nearest = mcp::nearestName(name.view(), known);
        const ZnString hint = nearest.empty() ? ZnString() : "; did you mean --" + ZnString(nearest) + "?";
        remarks_.push_back("unknown option --" + mcp::printable(name.view(), 40) + hint);
    }
}

void AgentOptions::checkValues_() {
    for (const Option& option : kOptions) {
        const ZnString value = text(option.name).trimmed();
        bool unused = false;
        if (option.kind == Kind::Switch && !value.isEmpty() && !parseBool(value, unused))
            remarks_.push_back(ZnString("--") + option.name + " is neither on nor off; it counts as off");
    }
    const ZnString throttle = text("mcp_throttle").trimmed();
    if (throttle != "address" && throttle != "failures")
        remarks_.push_back("--mcp_throttle is neither address nor failures; it counts as address");
    const ZnString toolNames = text("mcp_tool_names").trimmed();
    if (toolNames != "dotted" && toolNames != "safe")
        remarks_.push_back("--mcp_tool_names is neither dotted nor safe; it counts as dotted");
    const ZnString reload = text("services_reload").trimmed();
    if (reload != "off" && reload != "watch")
        remarks_.push_back("--services_reload is neither off nor watch; it counts as off");
    for (const Range& range : kRanges)
        if (numberIn_(range) == 0)
            remarks_.push_back(ZnString("--") + range.option + " is no number from " + ZnString::number(range.least) +
                               " to " + ZnString::number(range.most) + "; the default counts");
    const bool hasPaths = !text("health_path").isEmpty() || !text("metrics_path").isEmpty();
    if (hasPaths && isOn("stdio") && !has("port"))
        remarks_.push_back("--health_path and --metrics_path need --port with --stdio");
    const bool hasToken = !text("mcp_token").trimmed().isEmpty();
    const bool hasTokenFile = has("mcp_token_file");
    if (has("mcp_token") && !hasToken && !hasTokenFile)
        remarks_.push_back("--mcp_token is empty: clients need no token");
    if (hasToken && hasTokenFile)
        remarks_.push_back("--mcp_token and --mcp_token_file are both given; the file counts");
    const ZnString bind = normalizedHost(text("bind").view());
    if (!bind.isEmpty() && !isLoopbackHost(bind.view()) && !hasToken && !hasTokenFile)
        remarks_.push_back("--bind reaches beyond this machine, and clients need no token");
    if (text("tls_cert_path").isEmpty() != text("tls_key_path").isEmpty())
        remarks_.push_back("TLS needs both --tls_cert_path and --tls_key_path; this is plain HTTP");
}

// --- configuration

/// 0 for what is no usable number.
std::int64_t AgentOptions::numberIn_(const Range& range) const {
    bool isNumber = false;
    const long long number = text(range.option).toLongLong(&isNumber);
    return isNumber && number >= range.least && number <= range.most ? number : 0;
}

McpStateDir::Settings AgentOptions::stateSettings_() const {
    McpStateDir::Settings settings;
    if (const std::int64_t days = numberIn_(kTrailDays); days != 0)
        settings.maxDays = static_cast<int>(days);
    if (const std::int64_t bytes = numberIn_(kTrailBytes); bytes != 0)
        settings.maxBytes = bytes;
    return settings;
}

bool AgentOptions::readToken_(ZnString* token, ZnString* errorText) const {
    *token = text("mcp_token");
    if (!has("mcp_token_file"))
        return true;
    const ZnString path = text("mcp_token_file").trimmed();
    ZnFile file(path);
    const bool isOpen = file.open(ZnFile::OpenMode::Read);
    *token = isOpen ? file.readAll().trimmed() : ZnString();
    if (token->isEmpty())
        *errorText = "token file " + (isOpen ? path + ": holds no token" : mcp::fileProblem(path));
    return !token->isEmpty();
}

bool AgentOptions::configure(BreltMcpBridgeAgent& agent, ZnString* errorText) const {
    ZnString token;
    if (!readToken_(&token, errorText))
        return false;
    agent.setMcpPath(text("mcp_path"));
    McpMonitor::Options monitor = monitorOptions_();
    *errorText = McpMonitor::pathProblem(monitor, agent.mcpPath());
    if (!errorText->isEmpty())
        return false;
    agent.setServicesFile(text("services_file"));
    agent.setMcpToken(token);
    agent.setAllowedOrigin(text("mcp_allowed_origin"));
    agent.setAllowedHosts(McpHostRule(text("mcp_allowed_hosts"), text("bind")));
    agent.setThrottle(text("mcp_throttle").trimmed() == "failures" ? BreltMcpBridgeAgent::Throttle::ByFailure
                                                                   : BreltMcpBridgeAgent::Throttle::ByAddress);
    if (const std::int64_t bytes = numberIn_(kAnswerBytes); bytes != 0)
        agent.setMaxAnswerBytes(bytes);
    agent.setInterop(isOn("mcp_interop"));
    agent.setProgress(isOn("mcp_progress"));
    const std::int64_t keptCount = numberIn_(kKeptConnections);
    agent.setKeepAlive(isOn("mcp_keep_alive"), keptCount != 0 ? static_cast<std::size_t>(keptCount)
                                                              : ZnHttpConnectionPool::kDefaultMaxIdlePerKey);
    agent.setReload(text("services_reload").trimmed() == "watch");
    agent.setTools({text("mcp_tool_names").trimmed() == "safe", isOn("mcp_call_tools")});
    agent.setState(text("state_dir").trimmed(), stateSettings_());
    agent.setStrict(isOn("strict"));
    agent.setMonitor(std::move(monitor));
    return true;
}

McpMonitor::Options AgentOptions::monitorOptions_() const {
    McpMonitor::Options options;
    options.accessLogPath = text("access_log").trimmed();
    if (const std::int64_t bytes = numberIn_(kLogBytes); bytes != 0)
        options.accessLogBytes = static_cast<std::uint64_t>(bytes);
    options.healthPath = BreltMcpBridgeAgent::normalizedPath(text("health_path"));
    options.metricsPath = BreltMcpBridgeAgent::normalizedPath(text("metrics_path"));
    return options;
}

ZnString AgentOptions::helpText() {
    constexpr int kNameColumn = 43;
    std::ostringstream out;
    out << "Usage: brelt-mcp-bridge-agent [--option=value]...\n"
           "       brelt-mcp-bridge-agent trail DIR [option]...   (see trail --help)\n"
           "\n"
           "A local bridge that lets MCP clients call the private MCP services of an allowlist.\n";
    for (const Option& option : kOptions) {
        if (option.group != nullptr)
            out << "\n" << option.group << ":\n";
        const std::string name = std::string("  --") + option.name + "=" + option.defaultValue;
        out << std::left << std::setw(kNameColumn) << name << "  " << option.meaning
            << (*option.defaultValue == '\0' ? "; default: none" : "") << "\n";
    }
    out << "\n"
        << std::left << std::setw(kNameColumn) << "  --help, -h"
        << "  prints this text\n"
        << std::setw(kNameColumn) << "  --version"
        << "  prints the version\n";
    return ZnString(out.str());
}
