#pragma once

#include "core/io/http/ZnHttpRequest.h"

#include <functional>
#include <utility>

/// Tells a handler, for a scope, that the answer to its request is no longer wanted: the connection has ended, or a
/// time-out has answered. So it can give up what it waits for.
///
/// Thread: that of the session, for handlers that run inline. Owner: the handler's frame. One at a time for a request.
class ZnHttpAbandonGuard {
public:
    /// `onAbandoned` is called at most once, from the session. It must not park.
    ZnHttpAbandonGuard(const ZnHttpRequest& request, std::function<void()> onAbandoned)
        : request_(request), onAbandoned_(std::move(onAbandoned)) {
        request_.abandonGuard = this;
    }
    ~ZnHttpAbandonGuard() { request_.abandonGuard = nullptr; }
    ZnHttpAbandonGuard(const ZnHttpAbandonGuard&) = delete;
    ZnHttpAbandonGuard& operator=(const ZnHttpAbandonGuard&) = delete;

    /// The session's part.
    static void tell(const ZnHttpRequest& request) {
        if (ZnHttpAbandonGuard* guard = std::exchange(request.abandonGuard, nullptr))
            guard->onAbandoned_();
    }

private:
    const ZnHttpRequest& request_; // lives as long as the handler's frame
    const std::function<void()> onAbandoned_;
};
