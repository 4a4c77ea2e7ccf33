#pragma once

#include "agent/McpBridgeServiceRecord.h"
#include "agent/McpBridgeSession.h"
#include "agent/McpFailureTable.h"
#include "agent/McpForwardCalls.h"
#include "agent/McpMessage.h"
#include "agent/McpHostRule.h"
#include "agent/McpServiceFile.h"
#include "agent/McpSessionTable.h"
#include "core/io/http/ZnHttpApp.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnMutex.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

/// The bridge agent: an HTTP server that speaks MCP to its clients and forwards single calls to the services of an
/// allowlist.
///
/// States: constructed, listening, stopped. Configuration is set before start and never changes afterwards.
/// Thread: one, that of its ZnCoreApplication, but for messages above 256 KiB, which are read and answered on a pool.
/// Handlers run on fibers and interleave where one waits for a service; no lock is held across that wait, and no two at
/// once.
/// Owner: the entry function.
class BreltMcpBridgeAgent {
public:
    static constexpr std::uint64_t kMaxBodyBytes = 16777216; // of one request
    static constexpr std::int64_t kDefaultAnswerBytes = 16777216; // of a service
    static constexpr const char* kProtocolVersion = "2025-06-18";
    static const char* const kVersion; // of the agent, which is that of the framework

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

    /// What failed attempts block. ByAddress: every request of the client's address. ByFailure: a request that would fail
    /// once more; the right token with no or the allowed origin always passes, and refused origins count by themselves.
    enum class Throttle { ByAddress, ByFailure };
    void setThrottle(Throttle throttle) { throttle_ = throttle; }
    /// The names under which the agent may be called; others are refused with 403 on every path.
    void setAllowedHosts(McpHostRule rule) { allowedHosts_ = std::move(rule); }
    /// The largest answer that is taken from a service, 1 KiB to 1 GiB; the client gets three times as much at most.
    void setMaxAnswerBytes(std::int64_t maxBytes) { maxAnswerBytes_ = maxBytes; }
    /// start() fails where it would only warn.
    void setStrict(bool isStrict) { isStrict_ = isStrict; }

    /// Interoperability with clients and services that expect more of the protocol than the agent speaks without it:
    /// exact JSON values, any version in `initialize`, a session header that browsers may read. For services it is the
    /// default, which the allowlist may change.
    void setInterop(bool isOn) { interop_ = isOn; }

    /// Reads the allowlist and the certificate as start() would, and nothing else. False, with the reason on standard error
    /// or in the log, when start() would fail because of them.
    bool check(const ZnString& tlsCertPath, const ZnString& tlsKeyPath);
    /// After start() or check(): what is in the allowlist that is most likely meant otherwise, one line each.
    const std::vector<ZnString>& remarks() const noexcept { return remarks_; }
    std::size_t serviceCount() {
        ZnMutexLocker locker(servicesMutex_);
        return services_.size();
    }

    /// Loads the allowlist and listens; port 0 lets the system choose. Returns false, with the reason on standard error
    /// or in the log, when it does not listen.
    bool start(const ZnString& bindAddress, std::uint16_t port, const ZnString& tlsCertPath,
               const ZnString& tlsKeyPath);
    /// Ends the calls in flight, lets their answers go out, and closes the server. On the loop's own context; runs the
    /// loop, which need not be running, for a second at most. Nothing when it does not listen.
    void stop();
    /// The port it listens on, 0 when it does not.
    std::uint16_t localPort() const;

private:
    friend struct BreltMcpBridgeAgentTestPeer; // handlers as values, a fake clock

    using ServiceRef_ = std::shared_ptr<const McpBridgeServiceRecord>;
    using ServiceMap_ = McpServiceFile::ServiceMap;
    using SessionRef_ = std::shared_ptr<McpBridgeSession>;

    static ZnString normalizeMcpPath_(const ZnString& path);
    ZnHttpTimeouts timeouts_(ZnHttpTimeouts timeouts);

    // Allowlist: McpServices.cpp.
    bool loadServices_();
    void warnAboutServices_() const;
    bool parseServices_(const ZnString& text, ZnString* errorOut);
    void setServices_(ServiceMap_ services);
    ServiceRef_ findService_(const ZnString& id);
    ZnJsonArray publicServiceViews_();
    static ZnJsonObject publicServiceView_(const McpBridgeServiceRecord& record);

    // Routes and their gate: McpFront.cpp.
    void registerRoutes_(ZnHttpApp& app);
    void keepForeignHostsOut_(ZnHttpApp& app);
    static std::string_view clientKey_(const ZnHttpContext& context);
    /// What a failure of that kind counts for: the client, or by failure a name of the client's that no address has.
    ZnString failureKey_(const ZnHttpContext& context, bool isOfOrigin) const;
    void applySecurityHeaders_(ZnHttpContext& context) const;
    bool rejectIfThrottled_(ZnHttpContext& context, const ZnString& key);
    bool rejectIfBlocked_(ZnHttpContext& context);
    bool rejectFailure_(ZnHttpContext& context, bool isOfOrigin);
    bool rejectIfForeignOrigin_(ZnHttpContext& context);
    bool rejectIfUnauthenticated_(ZnHttpContext& context);
    bool authorizeRequest_(ZnHttpContext& context);
    void handleOptions_(ZnHttpContext& context);
    void handleGet_(ZnHttpContext& context);
    void handleDelete_(ZnHttpContext& context);
    void handleHelp_(ZnHttpContext& context) const;
    void handleServiceList_(ZnHttpContext& context);
    void handleServiceGet_(ZnHttpContext& context);

    // Dispatcher and sessions: McpDispatcher.cpp.
    void handlePost_(ZnHttpContext& context);
    void handleMessage_(McpMessage& message);
    void handleNotification_(ZnHttpContext& context, std::string_view method);
    void handleSessionRequest_(McpMessage& message, std::string_view headerVersion);
    void answerInitialize_(ZnHttpContext& context, const ZnJsonObject& request);
    ZnString handleInitialize_(const ZnJsonObject& request, ZnString* sessionIdOut);
    ZnByteArray dispatchRequest_(McpMessage& message);
    SessionRef_ createSession_(const ZnString& protocolVersion, const ZnString& clientName,
                               const ZnString& clientVersion);
    SessionRef_ findSession_(std::string_view id);
    bool removeSession_(std::string_view id);
    /// Finds the session that the request names; null when it has answered that there is none.
    SessionRef_ requireSession_(ZnHttpContext& context);

    // Tools: McpTools.cpp. callTool_ gives the text of a tool result, the others those of whole responses; see McpJson.h.
    ZnByteArray handleToolsCall_(McpMessage& message);
    ZnString callTool_(const ZnString& name, const ZnJsonObject& arguments);
    ZnString getServiceTool_(const ZnJsonObject& arguments);
    ServiceRef_ serviceToCall_(const ZnJsonObject& arguments, ZnString* refusal);
    ZnByteArray callRpcTool_(ZnHttpContext& context, McpMessage& message);
    ZnByteArray forward_(ZnHttpContext& context, ZnString idText, const McpBridgeServiceRecord& record,
                         McpForwardRequest request);
    void giveMemoryBackSoon_();

    std::unique_ptr<ZnHttpApp> server_; // null unless listening
    ZnString servicesFile_;
    ZnString mcpPath_;
    ZnString mcpToken_;
    ZnString allowedOrigin_;
    Throttle throttle_ = Throttle::ByAddress;
    McpHostRule allowedHosts_;
    bool isStrict_ = false;
    bool interop_ = false;
    std::vector<ZnString> remarks_;
    ZnMutex servicesMutex_;
    ServiceMap_ services_ ZN_GUARDED_BY(servicesMutex_);
    ZnMutex sessionsMutex_;
    McpSessionTable sessions_ ZN_GUARDED_BY(sessionsMutex_);
    ZnMutex failuresMutex_;
    McpFailureTable failures_ ZN_GUARDED_BY(failuresMutex_);
    const std::shared_ptr<const bool> aliveToken_ = std::make_shared<bool>(true); // tells fibers that were parked
    const std::shared_ptr<McpForwardCalls> calls_;
    std::int64_t maxAnswerBytes_ = kDefaultAnswerBytes;
    std::function<long long()> clock_ = monotonicNowNs;
    bool isMemoryDue_ = false; // giveMemoryBackSoon_() has a timer
    ZnThreadPool workers_; // for messages that are too large for the loop; the last member: its tasks use the others
};
