#pragma once

#include "agent/BreltMcpBridgeAgent.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <string_view>
#include <vector>

/// The command line as values: defaults, conversions, and remarks about what is most likely meant otherwise.
///
/// Thread: a value. Nothing here prints; a remark never shows a token.
class AgentOptions {
public:
    explicit AgentOptions(const ZnCoreApplication& application);

    ZnString text(std::string_view name) const; // as given, or the default
    bool isOn(std::string_view name) const;     // also when it stands alone
    bool has(std::string_view name) const { return application_.hasArgument(ZnString(name)); }
    std::uint16_t port() const; // 9010 for what is no port
    int durationMs() const { return text("duration_ms").toInt(); }
    bool hasTls() const { return !text("tls_cert_path").isEmpty() && !text("tls_key_path").isEmpty(); }

    /// Hands everything to the agent. False, with the reason, when the token's file gives none, or a path
    /// cannot be served: it must not start then.
    bool configure(BreltMcpBridgeAgent& agent, ZnString* errorText) const;
    const std::vector<ZnString>& remarks() const noexcept { return remarks_; }

    static ZnString helpText();

    /// Of an option whose value is a number.
    struct Range {
        const char* option;
        std::int64_t least;
        std::int64_t most;
    };

private:
    bool readToken_(ZnString* token, ZnString* errorText) const;
    std::int64_t numberIn_(const Range& range) const;
    McpStateDir::Settings stateSettings_() const;
    McpMonitor::Options monitorOptions_() const;
    void checkNames_();
    void checkValues_();

    const ZnCoreApplication& application_;
    std::vector<ZnString> remarks_;
};
