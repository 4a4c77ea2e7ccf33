#pragma once

#include "core/io/http/ZnHttpRoute.h"
#include "core/types/ZnMap.h"

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

/// Finds the route of a request and runs it.
///
/// Patterns: "/a/:id", "/a/:id(int)" (int, alpha, alnum, hex, slug, uuid), "/files/*rest". The most specific route
/// of those that match the path and the method answers; a GET route also answers HEAD.
/// Thread: the loop of its server; a Target runs anywhere. A handler may park, and meanwhile the router may be
/// destroyed: a dispatch holds what it runs and touches the router only before it runs it.
class ZnHttpRouter {
public:
    using Handler = ZnHttpRoute::Handler;
    using AsyncHandler = ZnHttpRoute::AsyncHandler;

    /// What becomes of a path that ends in "/", or of one that does not: a redirect to the other form. "/" stays.
    enum class TrailingSlash : std::int32_t { Leave = 0, Strip = 1, Add = 2 };

    /// What answers one request: a route, the fallback, or a refusal or redirect that is ready. Holds all that it
    /// needs, so it may outlive the router and run on another thread. Call answer or answerAsync once.
    class Target {
    public:
        /// False: nothing answers.
        explicit operator bool() const noexcept { return route_ || fallback_ || ready_; }
        bool isRoute() const noexcept { return route_ != nullptr; }
        /// Whether the route answers through a callback.
        bool isAsync() const noexcept { return route_ && route_->asyncHandler; }
        /// The answer; 500 from a route that is async, 404 when nothing answers.
        ZnHttpResponse answer(const ZnHttpRequest& request) const;
        /// For routes of both kinds.
        void answerAsync(const std::shared_ptr<const ZnHttpRequest>& request,
                         const ZnHttpResponseCallback& callback) const;

    private:
        friend class ZnHttpRouter;
        std::shared_ptr<const ZnHttpRoute> route_;
        std::shared_ptr<const Handler> fallback_;
        std::unique_ptr<ZnHttpResponse> ready_;
    };

    /// Adds a route; an empty method means any. Returns false, with nothing added, without a handler and for a
    /// pattern that does not compile. A later route takes a name over.
    bool addRoute(const ZnString& method, const ZnString& pattern, Handler handler, const ZnString& name = ZnString());
    /// Adds a route that answers through a callback; it is served by dispatchAsync only.
    bool addAsyncRoute(const ZnString& method, const ZnString& pattern, AsyncHandler handler,
                       const ZnString& name = ZnString());
    /// Answers the requests that no route's path matches.
    void setFallback(Handler fallback);
    void setTrailingSlash(TrailingSlash mode) noexcept { trailingSlash_ = mode; }

    /// The pattern of the route that was added under `name`; empty without one.
    ZnString namedPattern(const ZnString& name) const { return namedRoutes_.value(name); }
    /// One "/" in front, none behind, and none doubled.
    static ZnString normalizePattern(const ZnString& pattern);

    /// Finds what answers the request and fills its pathParams.
    Target find(ZnHttpRequest& request) const;
    /// Runs what find() gives. Returns whether `*response` holds an answer.
    bool dispatch(ZnHttpRequest& request, ZnHttpResponse* response) const;
    /// The same for routes of both kinds. Returns false, with the callback not called, when nothing answers.
    bool dispatchAsync(const std::shared_ptr<ZnHttpRequest>& request, const ZnHttpResponseCallback& callback) const;

private:
    using RouteRef_ = std::shared_ptr<const ZnHttpRoute>;

    bool add_(ZnHttpRoute route, const ZnString& name);
    std::unique_ptr<ZnHttpResponse> trailingSlashRedirect_(const ZnHttpRequest& request) const;
    std::unique_ptr<ZnHttpResponse> methodNotAllowed_(const ZnHttpRequest& request) const;

    std::vector<RouteRef_> routes_;           // by descending score, then in the order of registration
    std::shared_ptr<const Handler> fallback_; // shared for the same reason as the routes
    ZnMap<ZnString, ZnString> namedRoutes_;   // patterns
    TrailingSlash trailingSlash_ = TrailingSlash::Leave;
};
