#pragma once

#include "agent/McpMessage.h"
#include "core/runtime/ZnEventLoop.h"

#include <algorithm>
#include <cstddef>
#include <list>
#include <utility>

/// Calls that wait for what another call is finding out.
///
/// Thread: that of the loop, on fibers. Owner: what they wait for, which each of them shares.
class McpWaiters {
public:
    /// Parks until wake(). False when that has not come in time, or the caller has left.
    bool wait(McpCaller& caller, int maxWaitMs) {
        ZnEventLoop loop;
        bool isGone = false;
        loops_.push_back(&loop);
        caller.whenGone([&] {
            isGone = true;
            loop.quit();
        });
        if (!isGone)
            loop.exec(std::max(maxWaitMs, 1));
        caller.whenGone(nullptr);
        const auto place = std::find(loops_.begin(), loops_.end(), &loop);
        const bool isStillWaiting = place != loops_.end();
        if (isStillWaiting)
            loops_.erase(place);
        return !isGone && !isStillWaiting;
    }
    std::size_t size() const noexcept { return loops_.size(); }
    void wake() {
        for (ZnEventLoop* loop : std::exchange(loops_, {}))
            loop->quit();
    }

private:
    std::list<ZnEventLoop*> loops_;
};
