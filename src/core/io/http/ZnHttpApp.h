#pragma once

#include "core/io/http/ZnHttpContext.h"
#include "core/io/http/ZnHttpRouteOptions.h"
#include "core/io/http/ZnHttpServer.h"

#include <functional>
#include <memory>
#include <vector>

/// A server whose routes are written against ZnHttpContext.
///
/// A handler may park; it may be called for many requests at the same time, each on its own fiber. An exception
/// that leaves it becomes a 500 and closes the connection; a handler that does not answer is a 500, too.
/// A route keeps the prefix, the context middleware and the error handler that were set when it was added.
/// Thread: the owning thread; handlers and context middleware run where ZnHttpServer runs routes.
class ZnHttpApp : public ZnHttpServer {
public:
    ZN_OBJECT(ZnHttpApp, ZnHttpServer)

    using ContextHandler = std::function<void(ZnHttpContext&)>;
    /// Calls `next` for the rest of the line, on the same fiber and before it returns; without that call the line
    /// ends here.
    using ContextMiddleware = std::function<void(ZnHttpContext&, const std::function<void()>& next)>;
    /// Gets the text of the exception, which is for the log and not for the peer.
    using ErrorHandler = std::function<void(ZnHttpContext&, const ZnString& errorText)>;

    explicit ZnHttpApp(ZnObject* parent = nullptr) : ZnHttpServer(parent) {}

    /// Each returns false, with nothing added, for an empty handler or a pattern that does not compile.
    bool get(const ZnString& pattern, ContextHandler handler, const ZnHttpRouteOptions& options = {});
    bool post(const ZnString& pattern, ContextHandler handler, const ZnHttpRouteOptions& options = {});
    bool del(const ZnString& pattern, ContextHandler handler, const ZnHttpRouteOptions& options = {});
    bool options(const ZnString& pattern, ContextHandler handler, const ZnHttpRouteOptions& options = {});

    // For the routes that are added from here on.
    void setRoutePrefix(const ZnString& prefix) { routePrefix_ = ZnHttpRouter::normalizePattern(prefix); }
    void addContextMiddleware(ContextMiddleware middleware);
    /// Answers for a handler that threw; without one that is a plain 500 that closes the connection.
    void setErrorHandler(ErrorHandler handler) { errorHandler_ = std::move(handler); }

private:
    struct ContextRoute_;
    class ContextChain_;

    bool addContextRoute_(const char* method, const ZnString& pattern, ContextHandler handler,
                          const ZnHttpRouteOptions& options);
    ZnString prefixed_(const ZnString& pattern) const;

    std::vector<ContextMiddleware> contextMiddleware_;
    ZnString routePrefix_ = "/"; // normalized
    ErrorHandler errorHandler_;
};
