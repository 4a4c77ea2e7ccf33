#pragma once

#include "core/io/http/ZnHttpRoute.h"

#include <memory>
#include <string_view>
#include <vector>

/// Finds the route of a request and runs it.
///
/// Patterns: "/a/:id", "/a/:id(int)" (int, alpha, alnum, hex, slug, uuid), "/files/*rest". The most specific route
/// of those that match the path and the method answers; a GET route also answers HEAD.
/// Thread: the loop of its server. A handler may park, and meanwhile the router may go: a dispatch holds what it
/// runs and touches the router only before it runs it.
class ZnHttpRouter {
public:
    using Handler = ZnHttpRoute::Handler;
    using AsyncHandler = ZnHttpRoute::AsyncHandler;

    /// Adds a route; an empty method means any. Returns false, with nothing added, without a handler and for a
    /// pattern that does not compile.
    bool addRoute(const ZnString& method, const ZnString& pattern, Handler handler);
    /// Adds a route that answers through a callback; it is served by dispatchAsync only.
    bool addAsyncRoute(const ZnString& method, const ZnString& pattern, AsyncHandler handler);
    /// Answers the requests that no route's path matches.
    void setFallback(Handler fallback);

    /// Fills the request's pathParams and runs the handler. Returns whether `*response` holds an answer.
    bool dispatch(ZnHttpRequest& request, ZnHttpResponse* response) const;
    /// The same for routes of both kinds. Returns false, with the callback not called, when nothing answers.
    bool dispatchAsync(const std::shared_ptr<ZnHttpRequest>& request, const ZnHttpResponseCallback& callback) const;

private:
    using RouteRef_ = std::shared_ptr<const ZnHttpRoute>;
    struct Lookup_ {
        RouteRef_ route;                     // null: 405 when the path matched, else the fallback
        bool pathMatched = false;
        std::vector<std::string_view> allow; // methods of the routes that match the path, when none passed
    };

    bool add_(ZnHttpRoute route);
    Lookup_ find_(const ZnHttpRequest& request) const;
    bool answerWithoutRoute_(const ZnHttpRequest& request, const Lookup_& lookup, ZnHttpResponse* response) const;

    std::vector<RouteRef_> routes_;                  // by descending score, then in the order of registration
    std::shared_ptr<const Handler> fallback_;        // shared for the same reason as the routes
};
