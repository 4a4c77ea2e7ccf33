#include "core/io/http/ZnHttpPipeline_.h"

#include "core/io/http/ZnHttpHandoff_.h"
#include "core/io/http/ZnHttpInFlight_.h"

#include <utility>

ZnHttpPipeline_::ZnHttpPipeline_(std::shared_ptr<const MiddlewareList> middleware,
                                 std::shared_ptr<ZnHttpRequest> request, std::shared_ptr<ZnHttpInFlight_> inFlight,
                                 std::function<void()> runRoute)
    : thread_(zn::atomic::Thread::currentThread()),
      middleware_(std::move(middleware)),
      request_(std::move(request)),
      inFlight_(std::move(inFlight)),
      runRoute_(std::move(runRoute)) {}

void ZnHttpPipeline_::step() {
    const std::size_t index = stepIndex_;
    if (index >= middleware_->size()) {
        runRoute_();
        return;
    }
    (*middleware_)[index](*request_,
                          [self = shared_from_this(), index](bool isHandled, const ZnHttpResponse& response) {
                              const std::shared_ptr<ZnHttpPipeline_> kept = self; // this may be dropped while it runs
                              kept->next_(index, isHandled, response);
                          });
}

void ZnHttpPipeline_::next_(std::size_t index, bool isHandled, const ZnHttpResponse& response) {
    if (isHandled) {
        inFlight_->finishRequest_(ZnHttpResponse(response));
        return;
    }
    if (thread_ == zn::atomic::Thread::currentThread())
        leave_(index);
    else
        zn::http::handOver(thread_, [self = shared_from_this(), index] { self->leave_(index); });
}

/// Goes on after the middleware at `index`, unless that has been done or the request was answered.
void ZnHttpPipeline_::leave_(std::size_t index) {
    if (index != stepIndex_ || inFlight_->isFinished())
        return;
    ++stepIndex_;
    inFlight_->run([this] { step(); });
}
