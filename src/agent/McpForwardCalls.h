#pragma once

#include "agent/McpForwardCall.h"

#include <list>

/// The upstream calls in flight, bounded so that parked calls never use up the fibers that would wake them.
///
/// Thread: that of the agent.
/// Owner: shared by the agent and every call in flight, which may outlive the agent.
class McpForwardCalls {
public:
    static constexpr std::size_t kMaxCalls = 400;

    /// Holds the entry of one call for a scope.
    class Entry {
    public:
        Entry(McpForwardCalls& calls, McpForwardCall& call)
            : calls_(calls), at_(calls.inFlight_.insert(calls.inFlight_.end(), &call)) {}
        ~Entry() { calls_.inFlight_.erase(at_); }
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;

    private:
        McpForwardCalls& calls_;
        std::list<McpForwardCall*>::iterator at_;
    };

    bool isFull() const noexcept { return inFlight_.size() >= kMaxCalls; }
    bool isEmpty() const noexcept { return inFlight_.empty(); }
    bool isStopping() const noexcept { return isStopping_; }
    /// Ends every call in flight; from now on no call is to begin.
    void stop() {
        isStopping_ = true;
        for (McpForwardCall* call : inFlight_)
            call->end(McpForwardCall::kStopped); // the list stays: the fibers resume from the loop
    }

private:
    std::list<McpForwardCall*> inFlight_;
    bool isStopping_ = false;
};
