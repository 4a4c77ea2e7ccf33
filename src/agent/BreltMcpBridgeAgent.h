#pragma once

#include "agent/McpDispatcher.h"
#include "agent/McpGate.h"
#include "agent/McpMonitor.h"
#include "agent/McpObservers.h"
#include "agent/McpReply.h"
#include "agent/McpServiceList.h"
#include "agent/McpServiceWatch.h"
#include "agent/McpStateDir.h"
#include "agent/McpStdioFront.h"
#include "core/io/http/ZnHttpApp.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

/// The bridge agent: an HTTP server that speaks MCP to its clients and forwards single calls to the services of an
/// allowlist.
///
/// States: constructed, listening, stopped. Configuration is set before start and never changes afterwards.
/// Thread: one, that of its ZnCoreApplication; handlers run on fibers and interleave where one waits for a service.
/// Owner: the entry function.
class BreltMcpBridgeAgent {
public:
    static constexpr std::uint64_t kMaxBodyBytes = 16777216; // of one request
    static const char* const kVersion;                       // of the agent, which is that of the framework

    BreltMcpBridgeAgent();
    /// Stops.
    ~BreltMcpBridgeAgent();
    BreltMcpBridgeAgent(const BreltMcpBridgeAgent&) = delete;
    BreltMcpBridgeAgent& operator=(const BreltMcpBridgeAgent&) = delete;

    /// The allowlist; with an empty path it is empty.
    void setServicesFile(const ZnString& path);
    void setMcpPath(const ZnString& path);
    /// The bearer token that clients must show; empty: none.
    void setMcpToken(const ZnString& token);
    /// The browser origin that may call the MCP routes; empty: none.
    void setAllowedOrigin(const ZnString& origin);
    using Throttle = McpGate::Throttle;
    void setThrottle(Throttle throttle) { gate_.settings().throttle = throttle; }
    /// The names under which the agent may be called; others are refused with 403 on every path.
    void setAllowedHosts(McpHostRule rule) { gate_.settings().allowedHosts = std::move(rule); }
    /// The largest answer that is taken from a service, 1 KiB to 1 GiB; the client gets three times as much at most.
    void setMaxAnswerBytes(std::int64_t maxBytes) { dispatcher_->setMaxAnswerBytes(maxBytes); }
    /// start() fails where it would only warn.
    void setStrict(bool isStrict) { isStrict_ = isStrict; }
    /// Interoperability with clients and services that expect more of the protocol than the agent speaks without it:
    /// exact JSON values, any version in `initialize`, a session header that browsers may read. For services it is the
    /// default, which the allowlist may change.
    void setInterop(bool isOn);

    /// Calls with a progress token are answered by a stream of events; calls that nobody waits for any more are
    /// cancelled at the service.
    void setProgress(bool isOn) {
        usesProgress_ = isOn;
        dispatcher_->setProgress(isOn);
    }
    /// Whether connections to a service that does not say are kept, and how many of each service may wait at most.
    void setKeepAlive(bool isOn, std::size_t maxIdle) {
        dispatcher_->connections().setDefault(isOn);
        dispatcher_->connections().setMaxIdle(maxIdle);
    }
    /// Takes changes of the allowlist, and of the files with its secrets, over while it runs.
    void setReload(bool isOn) { reloads_ = isOn; }
    const ZnString& mcpPath() const noexcept { return mcpPath_; }
    /// Without white space around it, with one "/" in front and none at the end; empty stays empty.
    static ZnString normalizedPath(const ZnString& path);
    void setMonitor(McpMonitor::Options options) { monitor_.setOptions(std::move(options)); }
    void setTools(const McpToolCatalogue::Options& options) { dispatcher_->setCatalogue(options); }

    /// Keeps sessions and a trail of calls in the directory; empty: nowhere. When it cannot be used the agent serves
    /// without, with a warning on standard error.
    void setState(const ZnString& directory, const McpStateDir::Settings& settings) {
        stateDirectory_ = directory;
        stateSettings_ = settings;
    }

    /// Reads the allowlist and the certificate as start() would, looks whether log and state can be written, and makes
    /// nothing. False, with the reason on standard error or in the log, when start() would fail because of them.
    bool check(const ZnString& tlsCertPath, const ZnString& tlsKeyPath);
    /// After start() or check(): what is in the allowlist that is most likely meant otherwise, one line each.
    const std::vector<ZnString>& remarks() const noexcept { return services_->remarks(); }
    /// Why nothing can be kept in the state directory, as far as can be told without using it; empty: nothing is known.
    ZnString stateProblem() const;
    std::size_t serviceCount() const { return services_->size(); }

    /// Loads the allowlist and listens; port 0 lets the system choose. Returns false, with the reason on standard error
    /// or in the log, when it does not listen.
    bool start(const ZnString& bindAddress, std::uint16_t port, const ZnString& tlsCertPath,
               const ZnString& tlsKeyPath);
    /// Serves standard input and output, beside a port if start() has run. `onEnd` is called when the input has ended
    /// and every answer is out. Returns false, with the reason on standard error, when it cannot.
    bool startStdio(std::function<void()> onEnd);
    /// Ends the calls in flight, lets their answers go out, and closes the server. On the loop's own context; runs the
    /// loop, which need not be running, for a second at most. Nothing when it does not serve.
    void stop();
    /// The port it listens on, 0 when it does not.
    std::uint16_t localPort() const;

private:
    friend struct BreltMcpBridgeAgentTestPeer; // handlers as values, a fake clock

    bool loadServices_();
    bool prepare_();
    void addObserver_(std::shared_ptr<McpObserver> observer);
    void tell_(const ZnHttpRequest& request, int status, std::size_t bytesOut);
    void tellAnswer_(const ZnHttpContext& context);
    void answer_(McpReply reply, ZnHttpContext& context);
    bool openState_();
    bool isIdle_() const { return dispatcher_->isIdle() && *streamCount_ == 0 && (!stdio_ || stdio_->isIdle()); }
    ZnHttpTimeouts timeouts_(ZnHttpTimeouts timeouts) const;
    void registerRoutes_(ZnHttpApp& app);
    void handlePost_(ZnHttpContext& context);
    void handleDelete_(ZnHttpContext& context);
    void handleGet_(ZnHttpContext& context);
    void handleOptions_(ZnHttpContext& context);
    void handleHelp_(ZnHttpContext& context) const;
    void handleServices_(ZnHttpContext& context) const;
    void handleService_(ZnHttpContext& context) const;
    bool lets_(ZnHttpContext& context);

    std::unique_ptr<ZnHttpApp> server_; // null unless listening
    ZnString servicesFile_;
    ZnString mcpPath_ = "/mcp";
    bool isStrict_ = false;
    bool reloads_ = false;
    bool usesProgress_ = false;
    const std::shared_ptr<int> streamCount_ = std::make_shared<int>(0); // answers that are streams; they may outlive it
    bool isInterop_ = false;
    const std::shared_ptr<McpServiceList> services_ = std::make_shared<McpServiceList>();
    McpGate gate_;
    const std::shared_ptr<McpDispatcher> dispatcher_ = std::make_shared<McpDispatcher>(services_);
    std::shared_ptr<McpStdioFront> stdio_;   // null without it
    std::shared_ptr<McpServiceWatch> watch_; // likewise
    McpMonitor monitor_;
    std::shared_ptr<McpObservers> observers_; // null when nobody wants to be told
    ZnString stateDirectory_;
    McpStateDir::Settings stateSettings_;
    std::shared_ptr<McpStateDir> state_; // null without one
};
