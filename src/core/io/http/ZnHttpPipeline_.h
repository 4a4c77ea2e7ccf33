#pragma once

#include "core/io/http/ZnHttpServer.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace zn::atomic {
class Thread;
}
class ZnHttpInFlight_;

/// One request on its way through the middleware, each of which may keep it for a while.
///
/// Thread: the server's; a `next` that is called elsewhere goes on there. Owner: the `next` callables.
class ZnHttpPipeline_ : public std::enable_shared_from_this<ZnHttpPipeline_> {
public:
    using MiddlewareList = std::vector<ZnHttpServer::Middleware>;

    /// `runRoute` takes the request that no middleware has answered; the server may have ended by then.
    ZnHttpPipeline_(std::shared_ptr<const MiddlewareList> middleware, std::shared_ptr<ZnHttpRequest> request,
                    std::shared_ptr<ZnHttpInFlight_> inFlight, std::function<void()> runRoute);

    /// Shows the request to the next in line.
    void step();

private:
    void next_(std::size_t index, bool isHandled, const ZnHttpResponse& response);
    void leave_(std::size_t index);

    zn::atomic::Thread* const thread_;
    const std::shared_ptr<const MiddlewareList> middleware_;
    const std::shared_ptr<ZnHttpRequest> request_;
    const std::shared_ptr<ZnHttpInFlight_> inFlight_;
    const std::function<void()> runRoute_;
    std::size_t stepIndex_ = 0;
};
