#include "agent/BreltMcpBridgeAgent.h"

#include "agent/McpEventStream.h"
#include "agent/McpHeaders.h"
#include "agent/McpJson.h"
#include "agent/McpText.h"
#include "core/io/http/ZnHttpAbandonGuard.h"
#include "core/platform/ZnFileIdentity.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/platform/ZnSocketError.h"
#include "core/platform/ZnWriteAccess.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/types/ZnVersion.h"

#include <algorithm>
#include <iostream>
#include <limits>
#include <utility>

namespace {

constexpr int kCallsEndMs = 1000;
constexpr int kDeletionMs = 200;

/// The application whose loop the caller may run, or null.
ZnCoreApplication* idleApplication() {
    ZnCoreApplication* application = ZnCoreApplication::instance();
    return application == nullptr || application->fiberPool().isOnFiber() ? nullptr : application;
}

/// Runs the loop until the objects that wait for their deletion are destroyed, in their order: a marker after them
/// shows that it is over. The second round is for what the first one has left.
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
    case ZnSocketError::kAddressInUse: return "port " + ZnString::number(port) + " is in use";
    case ZnSocketError::kAccessDenied: return "port " + ZnString::number(port) + " may not be used by this user";
    case ZnSocketError::kAddressNotAvailable:
    case ZnSocketError::kHostNotFound: return address + " is no address of this machine";
    default: return "cannot listen, error " + ZnString::number(error);
    }
}

/// Whether the client reads event streams, in chunks.
bool acceptsStream(const ZnHttpContext& context) {
    const ZnString accept = ZnString(mcp::headerText(context, "accept")).toLower();
    return accept.view().find("text/event-stream") != std::string_view::npos &&
           context.request().httpVersion != "HTTP/1.0";
}

void send(McpReply&& reply, ZnHttpContext& context) {
    for (McpReply::Header& header : reply.headers)
        context.setHeader(header.name, std::move(header.value));
    context.request().keptUntilSent = std::move(reply.keptUntilSent);
    if (reply.text.isEmpty())
        context.sendStatus(reply.status);
    else
        context.send(std::move(reply.text), ZnString(zn::http::kJsonText), reply.status);
}

/// The connection leaves the server with the answer's head: events go out as they come, until it is closed.
void sendStream(McpReply reply, ZnHttpContext& context, const std::shared_ptr<int>& count) {
    context.send(ZnByteArray(), "text/event-stream", reply.status);
    ZnHttpResponse& response = context.response();
    response.chunked = true;
    ZnString head = response.head(true);
    response.switchProtocols = response.switchWithoutHead = true;
    response.onSwitch = [count, head = std::move(head), later = std::move(reply.later)](ZnAbstractSocket* socket) {
        ++*count;
        const ZnPointer<ZnAbstractSocket> place(socket);
        const std::shared_ptr<void> held(nullptr, [count, place](void*) {
            --*count;
            if (place)
                place->deleteLater(); // the stream has never run
        });
        // On a fiber of its own: this one serves an event of the socket, and no other event comes before it ends.
        ZnTask stream([held, head, later, place] {
            if (place)
                McpEventStream(place.get(), head).run(later);
        });
        ZnCoreApplication::instance()->post(stream, {.whenFull = ZnPostOptions::WhenFull::Wait});
    };
}

} // namespace

const char* const BreltMcpBridgeAgent::kVersion = zn::kVersion;

BreltMcpBridgeAgent::BreltMcpBridgeAgent() = default;

BreltMcpBridgeAgent::~BreltMcpBridgeAgent() {
    stop();
}

void BreltMcpBridgeAgent::setServicesFile(const ZnString& path) {
    servicesFile_ = path.trimmed();
}

void BreltMcpBridgeAgent::setMcpPath(const ZnString& path) {
    mcpPath_ = normalizedPath(path);
    if (mcpPath_.isEmpty())
        mcpPath_ = "/mcp";
}

ZnString BreltMcpBridgeAgent::normalizedPath(const ZnString& path) {
    std::string_view text = trimmedView(path.view());
    while (text.size() > 1 && text.ends_with('/'))
        text.remove_suffix(1);
    return text.empty() || text.front() == '/' ? ZnString(text) : "/" + ZnString(text);
}

void BreltMcpBridgeAgent::setMcpToken(const ZnString& token) {
    gate_.settings().token = token.trimmed();
}

void BreltMcpBridgeAgent::setAllowedOrigin(const ZnString& origin) {
    gate_.settings().allowedOrigin = origin.trimmed();
}

void BreltMcpBridgeAgent::setInterop(bool isOn) {
    isInterop_ = isOn;
    gate_.settings().exposesSession = isOn;
    dispatcher_->setExact(isOn);
}

// --- starting and stopping

bool BreltMcpBridgeAgent::loadServices_() {
    return services_->load(servicesFile_, isInterop_);
}

/// Whether the agent may start, with what is to be said about the allowlist on standard error.
bool BreltMcpBridgeAgent::prepare_() {
    if (!loadServices_())
        return false;
    for (const ZnString& remark : remarks())
        std::cerr << "[McpBridge] Warning: services file, " << remark << std::endl;
    if ((isStrict_ && !remarks().empty()) || !monitor_.start())
        return false;
    for (std::shared_ptr<McpObserver>& observer : monitor_.observers())
        addObserver_(std::move(observer));
    if (!openState_() && isStrict_)
        return false;
    if (reloads_ && !servicesFile_.isEmpty()) {
        watch_ = std::make_shared<McpServiceWatch>(services_, dispatcher_->workers(), servicesFile_,
                                                   McpServiceList::Reading{isInterop_, isStrict_});
        watch_->start();
    }
    return true;
}

void BreltMcpBridgeAgent::addObserver_(std::shared_ptr<McpObserver> observer) {
    if (!observers_)
        dispatcher_->setObserver(observers_ = std::make_shared<McpObservers>());
    observers_->add(std::move(observer));
}

/// False, with the reason on standard error, when the agent has to do without.
bool BreltMcpBridgeAgent::openState_() {
    if (stateDirectory_.isEmpty())
        return true;
    ZnString problem;
    state_ = McpStateDir::open(stateDirectory_, stateSettings_, &problem);
    if (!state_) {
        std::cerr << "[McpBridge] Warning: state directory: " << problem << "; sessions and calls are not kept"
                  << std::endl;
        return false;
    }
    dispatcher_->keepSessions(state_, state_->takeSessions());
    if (observers_)
        observers_->add(state_);
    else
        dispatcher_->setCallObserver(state_); // no records of messages are made for it alone
    return true;
}

bool BreltMcpBridgeAgent::start(const ZnString& bindAddress, std::uint16_t port, const ZnString& tlsCertPath,
                                const ZnString& tlsKeyPath) {
    if (!prepare_())
        return false;
    auto server = std::make_unique<ZnHttpApp>();
    ZnHttpLimits limits = server->limits();
    limits.maxBodyBytes = kMaxBodyBytes;
    limits.strictGrammar = isInterop_;
    server->setLimits(limits);
    server->setTimeouts(timeouts_(server->timeouts()));
    registerRoutes_(*server);
    server->setBusyHandler([this](const ZnHttpRequest& request) { tell_(request, 503, 0); });
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

bool BreltMcpBridgeAgent::startStdio(std::function<void()> onEnd) {
    if (!server_ && !prepare_())
        return false;
    stdio_ = std::make_shared<McpStdioFront>(dispatcher_, kMaxBodyBytes);
    if (stdio_->start(std::move(onEnd)))
        return true;
    std::cerr << "[McpBridge] there is no standard input or output" << std::endl;
    return false;
}

/// A call has its own limit of time, in which its result must still get out; a client that has left ends it.
ZnHttpTimeouts BreltMcpBridgeAgent::timeouts_(ZnHttpTimeouts timeouts) const {
    constexpr int kMarginMs = 5000;
    constexpr int kPeerLookMs = 1000;
    constexpr int kAnyMs = 24 * 3600 * 1000; // another list may have other limits
    const int listedMs = reloads_ ? kAnyMs : services_->longestTimeoutMs();
    const int longestMs = std::min(listedMs, std::numeric_limits<int>::max() - kMarginMs);
    timeouts.handlerTimeoutMs = std::max(timeouts.bodyTimeoutMs, longestMs == 0 ? 0 : longestMs + kMarginMs);
    timeouts.peerLookMs = kPeerLookMs;
    return timeouts;
}

bool BreltMcpBridgeAgent::check(const ZnString& tlsCertPath, const ZnString& tlsKeyPath) {
    const ZnString logProblem = monitor_.logProblem();
    if (!logProblem.isEmpty())
        std::cerr << "[McpBridge] " << logProblem << std::endl;
    const bool isUsable = loadServices_() && logProblem.isEmpty();
    if (tlsCertPath.isEmpty() || tlsKeyPath.isEmpty())
        return isUsable;
    ZnSslServer server;
    return loadCertificate(server, tlsCertPath, tlsKeyPath) && isUsable;
}

ZnString BreltMcpBridgeAgent::stateProblem() const {
    const ZnString problem = stateDirectory_.isEmpty() ? ZnString() : ZnWriteAccess::directoryProblem(stateDirectory_);
    return problem.isEmpty() ? problem : "state directory: " + stateDirectory_ + ": " + problem;
}

void BreltMcpBridgeAgent::stop() {
    if (!server_ && !stdio_)
        return;
    ZnCoreApplication* application = idleApplication();
    if (stdio_)
        stdio_->stopReading();
    dispatcher_->stop();
    if (application != nullptr)
        application->processUntil([this] { return isIdle_(); }, kCallsEndMs);
    stdio_.reset();
    watch_.reset();
    if (server_)
        server_->stop();
    server_.reset();
    if (application != nullptr)
        runDeferredDeletions(*application);
    monitor_.stop();
    if (state_)
        state_->stop();
}

std::uint16_t BreltMcpBridgeAgent::localPort() const {
    if (!server_)
        return 0;
    return server_->sslServer().isListening() ? server_->sslServer().localPort() : server_->tcpServer().localPort();
}

// --- the routes

void BreltMcpBridgeAgent::registerRoutes_(ZnHttpApp& app) {
    if (gate_.checksHosts())
        app.addContextMiddleware([this](ZnHttpContext& context, const std::function<void()>& next) {
            if (std::optional<McpReply> refusal = gate_.refuseHost(context))
                answer_(std::move(*refusal), context);
            else
                next();
        });
    app.options(mcpPath_, [this](ZnHttpContext& context) { handleOptions_(context); });
    app.get(mcpPath_, [this](ZnHttpContext& context) { handleGet_(context); });
    app.post(mcpPath_, [this](ZnHttpContext& context) { handlePost_(context); });
    app.del(mcpPath_, [this](ZnHttpContext& context) { handleDelete_(context); });
    const auto show = [this, &app](const char* path, void (BreltMcpBridgeAgent::*handler)(ZnHttpContext&) const) {
        app.get(path, [this, handler](ZnHttpContext& context) {
            (this->*handler)(context);
            tellAnswer_(context);
        });
    };
    show("/help", &BreltMcpBridgeAgent::handleHelp_);
    show("/services", &BreltMcpBridgeAgent::handleServices_);
    show("/services/:serviceId", &BreltMcpBridgeAgent::handleService_);
    monitor_.addRoutes(app, [this] {
        const ZnCoreApplication* application = ZnCoreApplication::instance();
        const double load = application == nullptr ? 0 : application->load();
        return McpMetrics::Gauges{dispatcher_->callsInFlight(), dispatcher_->sessionCount(), load};
    });
}

/// Tells of a request that the dispatcher does not see.
void BreltMcpBridgeAgent::tell_(const ZnHttpRequest& request, int status, std::size_t bytesOut) {
    if (!observers_)
        return;
    McpRequestRecord record;
    record.beganNs = record.endedNs = monotonicNowNs();
    record.status = status;
    record.bytesIn = request.body.size();
    record.bytesOut = bytesOut;
    observers_->onRequest(record);
}

void BreltMcpBridgeAgent::tellAnswer_(const ZnHttpContext& context) {
    tell_(context.request(), context.response().status, context.response().bodyBytes());
}

void BreltMcpBridgeAgent::answer_(McpReply reply, ZnHttpContext& context) {
    tell_(context.request(), reply.status, reply.text.size());
    send(std::move(reply), context);
}

/// Whether a request on the MCP path may pass; else it has been answered.
bool BreltMcpBridgeAgent::lets_(ZnHttpContext& context) {
    gate_.setHeaders(context);
    std::optional<McpReply> refusal = gate_.refuse(context);
    if (refusal)
        answer_(std::move(*refusal), context);
    return !refusal;
}

/// Parks; the agent may have been destroyed when it goes on.
void BreltMcpBridgeAgent::handlePost_(ZnHttpContext& context) {
    if (!lets_(context))
        return;
    McpCaller caller;
    const ZnHttpAbandonGuard guard(context.request(), [&caller] { caller.leave(); });
    McpMessage message(std::move(context.request().body), caller);
    message.sessionId = mcp::headerText(context, "mcp-session-id");
    message.protocolVersion = mcp::headerText(context, "mcp-protocol-version");
    caller.canOpenStream = usesProgress_ && acceptsStream(context);
    const std::shared_ptr<McpDispatcher> dispatcher = dispatcher_;
    const std::shared_ptr<int> streamCount = usesProgress_ ? streamCount_ : nullptr;
    McpReply reply = dispatcher->answer(std::move(message));
    if (reply.later)
        sendStream(std::move(reply), context, streamCount);
    else
        send(std::move(reply), context);
}

void BreltMcpBridgeAgent::handleDelete_(ZnHttpContext& context) {
    if (lets_(context))
        answer_(dispatcher_->endSession(mcp::headerText(context, "mcp-session-id")), context);
}

void BreltMcpBridgeAgent::handleGet_(ZnHttpContext& context) {
    if (!lets_(context))
        return;
    context.setHeader("allow", "POST, DELETE, OPTIONS");
    context.json(mcp::errorBody_("SSE stream is not implemented on this endpoint"), 405);
    tellAnswer_(context);
}

void BreltMcpBridgeAgent::handleOptions_(ZnHttpContext& context) {
    gate_.setHeaders(context);
    if (std::optional<McpReply> refusal = gate_.refusePreflight(context))
        return answer_(std::move(*refusal), context);
    context.setHeader("allow", "POST, GET, DELETE, OPTIONS");
    context.setHeader("access-control-allow-methods", "POST, GET, DELETE, OPTIONS");
    context.setHeader("access-control-allow-headers",
                      "authorization, content-type, accept, mcp-protocol-version, mcp-session-id");
    context.sendStatus(204);
    tellAnswer_(context);
}

void BreltMcpBridgeAgent::handleHelp_(ZnHttpContext& context) const {
    ZnString text = "BreltMcpBridgeAgent API\n"
                    "=======================\n"
                    "Local allowlisted bridge to private MCP services reachable from this BRELT client.\n"
                    "\n"
                    "  GET    /services             List configured services\n"
                    "  GET    /services/:serviceId  Read one configured service without token material\n";
    text += "  POST   " + mcpPath_ + "                 Streamable HTTP MCP endpoint\n";
    text += "  GET    " + mcpPath_ + "                 Returns 405 (SSE not implemented)\n";
    text += "  DELETE " + mcpPath_ + "                 Ends an MCP session\n";
    context.text(text, 200);
}

void BreltMcpBridgeAgent::handleServices_(ZnHttpContext& context) const {
    context.json(services_->publicViews(), 200);
}

void BreltMcpBridgeAgent::handleService_(ZnHttpContext& context) const {
    const McpServiceList::Ref record = services_->find(context.pathParam("serviceId"));
    if (record)
        context.json(McpServiceList::publicView(*record), 200);
    else
        context.json(mcp::errorBody_("Service not found"), 404);
}
