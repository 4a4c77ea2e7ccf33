#include "core/io/http/ZnHttpApp.h"

#include "core/types/ZnLogger.h"

#include <exception>
#include <utility>

namespace {

constexpr const char* kCategory = "zn.core.io.znhttpapp";

/// What the peer gets is the same for every error; the reason is for the log.
void onHandlerError(ZnHttpContext& context, const ZnString& routeName, const char* errorText) {
    ZN_LOG_ERROR(kCategory, "ZnHttpApp::runContextRoute_") << "[ZnHttpApp] " << routeName << ": " << errorText;
    if (context.responded())
        return;
    context.text("Internal Server Error", 500);
    context.response().closeConnection = true;
}

/// Runs on the fiber that read the request and may park in the handler. `handler` and `routeName` belong to the
/// route, which the router's frame holds, `request` to the session's frame; nothing of the app is used.
ZnHttpResponse runContextRoute_(const ZnHttpApp::ContextHandler& handler, const ZnString& routeName,
                                const ZnHttpRequest& request) {
    ZnHttpContext context(request);
    try {
        handler(context);
    } catch (const std::exception& error) {
        onHandlerError(context, routeName, error.what());
    } catch (...) {
        onHandlerError(context, routeName, "Unhandled non-std exception");
    }
    const bool isClosing = context.response().closeConnection || !request.keepAlive;
    ZnHttpResponse response = context.responded() ? std::move(context.response())
                                                  : ZnHttpResponse::text(500, "Route handler produced no response");
    response.closeConnection = isClosing;
    return response;
}

} // namespace

bool ZnHttpApp::addContextRoute_(const char* method, const ZnString& pattern, ContextHandler handler) {
    if (!handler)
        return false;
    auto run = [handler = std::move(handler),
                routeName = ZnString(method) + " " + pattern](const ZnHttpRequest& request) {
        return runContextRoute_(handler, routeName, request);
    };
    return router().addRoute(method, pattern, std::move(run));
}

bool ZnHttpApp::get(const ZnString& pattern, ContextHandler handler) {
    return addContextRoute_("GET", pattern, std::move(handler));
}

bool ZnHttpApp::post(const ZnString& pattern, ContextHandler handler) {
    return addContextRoute_("POST", pattern, std::move(handler));
}

bool ZnHttpApp::del(const ZnString& pattern, ContextHandler handler) {
    return addContextRoute_("DELETE", pattern, std::move(handler));
}

bool ZnHttpApp::options(const ZnString& pattern, ContextHandler handler) {
    return addContextRoute_("OPTIONS", pattern, std::move(handler));
}
