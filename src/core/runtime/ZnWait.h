#pragma once

#include "core/runtime/ZnEventLoop.h"

#include <utility>

/// One wait of a fiber for the first of several signals, or for a deadline.
///
/// Thread: the calling fiber's; the loop serves others meanwhile. Called off a fiber, run() does not wait.
/// Owner: the stack of the function that waits.
class ZnSignalWait {
public:
    /// The wait is fulfilled when `sender` emits `signal` and `isDone()` gives true in a slot of it.
    template <typename Sender, typename... Args, typename Predicate>
    void expect(ZnObject& sender, void (Sender::*signal)(Args...), Predicate isDone) {
        sender.connect(signal, &loop_, [this, isDone = std::move(isDone)] {
            if (!hasEnded_ && isDone())
                end_(true);
        });
    }
    /// The wait ends, and is not fulfilled, when `sender` emits `signal`.
    template <typename Sender, typename... Args>
    void endOn(ZnObject& sender, void (Sender::*signal)(Args...)) {
        sender.connect(signal, &loop_, [this] { end_(false); });
    }

    /// Parks until one of the signals, for at most `maxMs` milliseconds; below 0 without limit. Returns whether the
    /// wait was fulfilled. False at once when the application is ending its waits.
    bool run(int maxMs);
    /// Whether it was the deadline that has ended run().
    bool hasTimedOut() const noexcept { return hasTimedOut_; }

private:
    void end_(bool isFulfilled);

    ZnEventLoop loop_;
    bool hasEnded_ = false;
    bool isFulfilled_ = false;
    bool hasTimedOut_ = false;
};

/// Parks the calling fiber for `ms` milliseconds; 0 lets what is due now have its turn. Returns whether they have
/// passed: false off a fiber, and when the application ends its waits.
bool sleepFor(int ms);

/// Parks the calling fiber until `sender` emits `signal`, for at most `maxMs` milliseconds; below 0 without limit.
/// Returns whether the signal came: false also when the sender is destroyed first, and as for sleepFor().
template <typename Sender, typename... Args>
bool waitFor(ZnObject* sender, void (Sender::*signal)(Args...), int maxMs) {
    ZnSignalWait wait;
    wait.expect(*sender, signal, [] { return true; });
    wait.endOn(*sender, &ZnObject::destroyed);
    return wait.run(maxMs);
}
