#include "agent/BreltMcpBridgeAgent.h"

#include "agent/McpText.h"
#include "core/platform/ZnFileIdentity.h"
#include "core/platform/ZnSocketError.h"
#include "core/platform/ZnThreadControl.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnTimer.h"
#include "core/types/ZnVersion.h"

#include <algorithm>
#include <iostream>
#include <limits>
#include <utility>

namespace {

constexpr int kCallsEndMs = 1000;
constexpr int kWorkerCount = 2;
constexpr int kDeletionMs = 200;

/// The application whose loop the caller may run, or null.
ZnCoreApplication* idleApplication() {
    ZnCoreApplication* application = ZnCoreApplication::instance();
    return application == nullptr || application->fiberPool().isOnFiber() ? nullptr : application;
}

/// Runs the loop until the objects that wait for their deletion are gone. They go in order, so a marker behind them
/// shows it; the second round is for what the first one left behind.
void runDeferredDeletions(ZnCoreApplication& application) {
    for (int round = 0; round < 2; ++round) {
        auto* marker = new ZnObject;
        const ZnPointer<ZnObject> guard(marker);
        marker->deleteLater();
        application.processUntil([&] { return !guard; }, kDeletionMs);
    }
}

/// False, with the reason on standard error.
bool loadCertificate(ZnSslServer& server, const ZnString& certPath, const ZnString& keyPath) {
    if (server.reloadLocalCredentials(ZnSslServer::makeLocalCredentials_(certPath, keyPath)))
        return true;
    for (const ZnString& path : {certPath.trimmed(), keyPath.trimmed()}) {
        if (ZnFileIdentity::of(path).kind != ZnFileIdentity::Kind::File) {
            std::cerr << "[McpBridge] " << mcp::fileProblem(path) << std::endl;
            return false;
        }
    }
    std::cerr << "[McpBridge] certificate and key cannot be used: " << certPath << ", " << keyPath << std::endl;
    return false;
}

ZnString listenProblem(int error, const ZnString& address, std::uint16_t port) {
    switch (error) {
    case ZnSocketError::kAddressInUse:
        return "port " + ZnString::number(port) + " is in use";
    case ZnSocketError::kAccessDenied:
        return "port " + ZnString::number(port) + " may not be used by this user";
    case ZnSocketError::kAddressNotAvailable:
    case ZnSocketError::kHostNotFound:
        return address + " is no address of this machine";
    default:
        return "cannot listen, error " + ZnString::number(error);
    }
}

} // namespace

const char* const BreltMcpBridgeAgent::kVersion = zn::kVersion;

BreltMcpBridgeAgent::BreltMcpBridgeAgent() : mcpPath_("/mcp"), calls_(std::make_shared<McpForwardCalls>()) {
    workers_.setMaxThreadCount(kWorkerCount);
    workers_.setMaxQueuedTaskCount(-1); // the calls in flight are bounded
}

BreltMcpBridgeAgent::~BreltMcpBridgeAgent() {
    stop();
}

void BreltMcpBridgeAgent::setServicesFile(const ZnString& path) {
    servicesFile_ = path.trimmed();
}

void BreltMcpBridgeAgent::setMcpPath(const ZnString& path) {
    mcpPath_ = normalizeMcpPath_(path);
}

void BreltMcpBridgeAgent::setMcpToken(const ZnString& token) {
    mcpToken_ = token.trimmed();
}

void BreltMcpBridgeAgent::setAllowedOrigin(const ZnString& origin) {
    allowedOrigin_ = origin.trimmed();
}

ZnString BreltMcpBridgeAgent::normalizeMcpPath_(const ZnString& path) {
    std::string_view text = trimmedView(path.view());
    while (text.size() > 1 && text.ends_with('/'))
        text.remove_suffix(1);
    if (text.empty())
        return "/mcp";
    return text.front() == '/' ? ZnString(text) : "/" + ZnString(text);
}

bool BreltMcpBridgeAgent::start(const ZnString& bindAddress, std::uint16_t port, const ZnString& tlsCertPath,
                                const ZnString& tlsKeyPath) {
    if (!loadServices_())
        return false;
    warnAboutServices_();
    if (isStrict_ && !remarks_.empty())
        return false;
    auto server = std::make_unique<ZnHttpApp>();
    ZnHttpLimits limits = server->limits();
    limits.maxBodyBytes = kMaxBodyBytes;
    limits.strictGrammar = interop_;
    server->setLimits(limits);
    server->setTimeouts(timeouts_(server->timeouts()));
    registerRoutes_(*server);
    const ZnString trimmed = bindAddress.trimmed();
    const ZnString address = trimmed.isEmpty() ? ZnString("127.0.0.1") : trimmed;
    const bool usesTls = !tlsCertPath.isEmpty() && !tlsKeyPath.isEmpty();
    if (usesTls && !loadCertificate(server->sslServer(), tlsCertPath, tlsKeyPath))
        return false;
    ZnTcpServer& listener = usesTls ? server->sslServer() : server->tcpServer();
    if (!listener.listen(address, port)) {
        std::cerr << "[McpBridge] " << listenProblem(listener.listenError(), address, port) << std::endl;
        return false;
    }
    server_ = std::move(server);
    return true;
}

/// A call has its own limit of time, in which its result must still get out; a client that has left ends it.
ZnHttpTimeouts BreltMcpBridgeAgent::timeouts_(ZnHttpTimeouts timeouts) {
    constexpr int kMarginMs = 5000;
    constexpr int kPeerLookMs = 1000;
    int longestMs = timeouts.bodyTimeoutMs;
    ZnMutexLocker locker(servicesMutex_);
    for (const auto& [id, record] : services_)
        longestMs = std::max(longestMs, std::min(record->timeoutMs, std::numeric_limits<int>::max() - kMarginMs) + kMarginMs);
    timeouts.handlerTimeoutMs = longestMs;
    timeouts.peerLookMs = kPeerLookMs;
    return timeouts;
}

bool BreltMcpBridgeAgent::check(const ZnString& tlsCertPath, const ZnString& tlsKeyPath) {
    const bool hasServices = loadServices_();
    if (tlsCertPath.isEmpty() || tlsKeyPath.isEmpty())
        return hasServices;
    ZnSslServer server;
    return loadCertificate(server, tlsCertPath, tlsKeyPath) && hasServices;
}

void BreltMcpBridgeAgent::stop() {
    if (!server_)
        return;
    ZnCoreApplication* application = idleApplication();
    calls_->stop();
    if (application != nullptr)
        application->processUntil([this] { return calls_->isEmpty(); }, kCallsEndMs);
    server_->stop();
    server_.reset();
    if (application != nullptr)
        runDeferredDeletions(*application);
}

/// What a large message has needed in small pieces stays with the allocator otherwise.
void BreltMcpBridgeAgent::giveMemoryBackSoon_() {
    constexpr int kDelayMs = 500; // for a burst once, and behind the end of most calls
    if (ZnCoreApplication::instance() == nullptr || std::exchange(isMemoryDue_, true))
        return;
    ZnTimer::singleShot(kDelayMs, [this, alive = std::weak_ptr<const bool>(aliveToken_)] {
        if (alive.expired())
            return;
        isMemoryDue_ = false;
        const auto giveBack = [] { ZnThreadControl::giveMemoryBack(); };
        workers_.start(new ZnCallableRunnable<decltype(giveBack)>(giveBack));
    });
}

std::uint16_t BreltMcpBridgeAgent::localPort() const {
    if (!server_)
        return 0;
    return server_->sslServer().isListening() ? server_->sslServer().localPort() : server_->tcpServer().localPort();
}
