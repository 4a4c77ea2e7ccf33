#pragma once

#include "core/io/http/ZnHttpInFlight_.h"
#include "core/io/http/ZnHttpRequest.h"
#include "core/io/http/ZnHttpServerCounters_.h"

#include <cstdint>
#include <memory>
#include <utility>

/// One request's place among those that run on the loop, while a frame does. Frames inside it share it.
///
/// Thread: the server's. Owner: the frame; the server may end meanwhile.
class ZnHttpLoopPlace_ {
public:
    ZnHttpLoopPlace_(std::shared_ptr<ZnHttpInFlight_> inFlight, std::uint64_t maxRunning)
        : inFlight_(std::move(inFlight)) {
        isOwner_ = !inFlight_->hasPlace && inFlight_->counters().enterLoop(maxRunning);
        inFlight_->hasPlace |= isOwner_;
        isGranted_ = inFlight_->hasPlace;
    }
    ZnHttpLoopPlace_(const ZnHttpLoopPlace_&) = delete;
    ZnHttpLoopPlace_& operator=(const ZnHttpLoopPlace_&) = delete;
    ~ZnHttpLoopPlace_() {
        if (!isOwner_)
            return;
        inFlight_->hasPlace = false;
        inFlight_->counters().leaveLoop();
    }

    bool isGranted() const noexcept { return isGranted_; }
    /// Answers when there is none.
    bool isGrantedFor(const ZnHttpRequest& request) const {
        if (!isGranted_)
            inFlight_->finishRequest_(ZnHttpResponse::plain(503, "Server busy", request.keepAlive));
        return isGranted_;
    }

private:
    const std::shared_ptr<ZnHttpInFlight_> inFlight_;
    bool isOwner_ = false;
    bool isGranted_ = false;
};
