#include "core/io/http/ZnHttpApp.h"

#include "core/platform/ZnMonotonicClock.h"
#include "core/types/ZnLogger.h"

#include <exception>
#include <utility>

namespace {

constexpr const char* kCategory = "zn.core.io.znhttpapp";

/// What the peer gets is the same for every error; the reason is for the log.
void onHandlerError(ZnHttpContext& context, const ZnString& routeName, const ZnString& errorText) {
    ZN_LOG_ERROR(kCategory, "ZnHttpApp::runContextRoute_") << "[ZnHttpApp] " << routeName << ": " << errorText;
    if (context.responded())
        return;
    context.text("Internal Server Error", 500);
    context.response().closeConnection = true;
}

/// Calls `function`; returns whether it came back without an exception, whose text is else in `*errorText`.
template <typename Function>
bool survives(Function function, ZnString* errorText) {
    try {
        function();
        return true;
    } catch (const std::exception& error) {
        *errorText = error.what();
    } catch (...) {
        *errorText = "Unhandled non-std exception";
    }
    return false;
}

/// The handler was not interrupted: this judges it afterwards.
void judgeTime(const ZnHttpRouteOptions& options, long long elapsedMs, ZnHttpResponse* response) {
    if (options.timeoutMs < 1 || elapsedMs <= options.timeoutMs)
        return;
    if (options.enforceTimeout)
        *response = ZnHttpResponse::text(504, "Route timeout");
    response->headers.insert("x-route-timeout-ms", ZnString::number(elapsedMs));
}

} // namespace

/// A route with all that it needs. Thread: not changed after it was made. Owner: the route's handler.
struct ZnHttpApp::ContextRoute_ {
    ZnString name; // for the log
    ContextHandler handler;
    std::vector<ContextMiddleware> middleware;
    ErrorHandler errorHandler;
    ZnHttpRouteOptions options;

    ZnHttpResponse run(const ZnHttpRequest& request) const;
    void runHandlers(ZnHttpContext& context) const;
};

/// One request on its way through the context middleware. Owner: the frame that runs the route, and the `next`
/// callables, which do nothing any more once that frame has ended.
class ZnHttpApp::ContextChain_ : public std::enable_shared_from_this<ContextChain_> {
public:
    ContextChain_(const ContextRoute_& route, ZnHttpContext& context) : route_(route), context_(&context) {}

    void step(std::size_t index) {
        ZnHttpContext& context = *context_;
        if (index == route_.middleware.size()) {
            route_.handler(context);
            return;
        }
        route_.middleware[index](context, [self = shared_from_this(), index] {
            const std::shared_ptr<ContextChain_> kept = self; // this callable may be dropped while it runs
            if (kept->context_ != nullptr && kept->stepIndex_ == index)
                kept->step(++kept->stepIndex_);
        });
    }
    void end() noexcept { context_ = nullptr; }

private:
    const ContextRoute_& route_;
    ZnHttpContext* context_; // null when the route has ended
    std::size_t stepIndex_ = 0;
};

void ZnHttpApp::ContextRoute_::runHandlers(ZnHttpContext& context) const {
    if (middleware.empty()) {
        handler(context);
        return;
    }
    struct End {
        const std::shared_ptr<ContextChain_> chain;
        ~End() { chain->end(); }
    };
    const End end{std::make_shared<ContextChain_>(*this, context)};
    end.chain->step(0);
}

/// Runs on a fiber of the loop or of a pool's thread and may park in the handler. The route belongs to the router's
/// target, `request` to the session's frame; nothing of the app is used.
ZnHttpResponse ZnHttpApp::ContextRoute_::run(const ZnHttpRequest& request) const {
    ZnHttpContext context(request);
    ZnString errorText;
    const long long startedNs = options.timeoutMs < 1 ? 0 : monotonicNowNs();
    if (!survives([&] { runHandlers(context); }, &errorText) &&
        (!errorHandler || !survives([&] { errorHandler(context, errorText); }, &errorText)))
        onHandlerError(context, name, errorText);
    const long long elapsedMs = options.timeoutMs < 1 ? 0 : (monotonicNowNs() - startedNs) / 1'000'000;
    const bool isClosing = context.response().closeConnection || !request.keepAlive;
    ZnHttpResponse response = context.responded() ? std::move(context.response())
                                                  : ZnHttpResponse::text(500, "Route handler produced no response");
    judgeTime(options, elapsedMs, &response);
    response.closeConnection = isClosing;
    return response;
}

bool ZnHttpApp::addContextRoute_(const char* method, const ZnString& pattern, ContextHandler handler,
                                 const ZnHttpRouteOptions& options) {
    if (!handler)
        return false;
    const ZnString fullPattern = prefixed_(pattern);
    const auto route = std::make_shared<const ContextRoute_>(ContextRoute_{
        ZnString(method) + " " + fullPattern, std::move(handler), contextMiddleware_, errorHandler_, options});
    return router().addRoute(
        method, fullPattern, [route](const ZnHttpRequest& request) { return route->run(request); },
        options.name.trimmed());
}

ZnString ZnHttpApp::prefixed_(const ZnString& pattern) const {
    const ZnString normal = ZnHttpRouter::normalizePattern(pattern);
    if (routePrefix_ == "/")
        return normal;
    return normal == "/" ? routePrefix_ : routePrefix_ + normal;
}

void ZnHttpApp::addContextMiddleware(ContextMiddleware middleware) {
    if (middleware)
        contextMiddleware_.push_back(std::move(middleware));
}

bool ZnHttpApp::get(const ZnString& pattern, ContextHandler handler, const ZnHttpRouteOptions& options) {
    return addContextRoute_("GET", pattern, std::move(handler), options);
}

bool ZnHttpApp::post(const ZnString& pattern, ContextHandler handler, const ZnHttpRouteOptions& options) {
    return addContextRoute_("POST", pattern, std::move(handler), options);
}

bool ZnHttpApp::del(const ZnString& pattern, ContextHandler handler, const ZnHttpRouteOptions& options) {
    return addContextRoute_("DELETE", pattern, std::move(handler), options);
}

bool ZnHttpApp::options(const ZnString& pattern, ContextHandler handler, const ZnHttpRouteOptions& options) {
    return addContextRoute_("OPTIONS", pattern, std::move(handler), options);
}
