#pragma once

#include "agent/McpObserver.h"
#include "core/types/ZnMutex.h"
#include "core/types/ZnString.h"

#include <condition_variable>
#include <cstdint>
#include <string>
#include <vector>

/// What is to be written to the state directory, between those who tell it and the thread that writes.
///
/// Thread: any may add, and never waits; one takes.
class McpStateQueue {
public:
    struct Call {
        McpCallRecord record;
        long long endedUs;
    };
    struct SessionChange {
        std::string key;
        ZnString value; // empty: the session is to be removed
    };
    struct Work {
        std::vector<Call> calls;
        std::vector<SessionChange> sessions;
        std::uint64_t lostCount = 0; // that found no room since the last work
        bool isEmpty() const noexcept { return calls.empty() && sessions.empty(); }
    };

    McpStateQueue(std::size_t maxCalls, std::size_t maxSessions) : maxCalls_(maxCalls), maxSessions_(maxSessions) {}

    void add(Call call);
    void add(SessionChange change);

    /// Waits until there is something, `waitMs` milliseconds at most (-1: any time), and a moment longer, so that what
    /// comes together is written together. Empty when that is over; stop() ends all waiting.
    Work take(int waitMs);
    void stop();
    /// Whether stop() was called and all has been taken.
    bool hasEnded() const;

private:
    bool isFirst_() const ZN_REQUIRES(lock_) { return work_.calls.size() + work_.sessions.size() == 1; }

    const std::size_t maxCalls_;
    const std::size_t maxSessions_;
    mutable ZnMutex lock_; // leaf
    std::condition_variable_any changed_;
    Work work_ ZN_GUARDED_BY(lock_);
    bool isStopping_ ZN_GUARDED_BY(lock_) = false;
};
