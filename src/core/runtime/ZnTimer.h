#pragma once

#include "core/object/ZnObject.h"

#include <functional>

/// Emits `timeout` periodically, or once.
///
/// Thread: the owning thread; start and stop from another thread are posted there.
/// A single-shot timer stays active after it has fired: call stop() before it is started again.
class ZnTimer : public ZnObject {
public:
    ZN_OBJECT(ZnTimer, ZnObject)

    explicit ZnTimer(ZnObject* parent = nullptr); // an interval of one second
    ZnTimer(int ms, ZnObject* parent);
    ~ZnTimer() override;

    /// Starts with the present interval. An active timer keeps its phase.
    void start();
    /// Sets the interval in milliseconds and starts; below 1 means one microsecond. An active timer keeps its old
    /// interval. The longest period is 2147.483647 seconds.
    void start(int ms);
    /// As start(ms), in microseconds.
    void startUs(long long intervalUs);
    void stop();
    /// Takes effect at the next start.
    void setSingleShot(bool singleShot) noexcept { singleShot_ = singleShot; }
    bool isActive() const noexcept { return active_; }

    /// Calls `fn` once on the calling thread's loop, after `ms` milliseconds.
    static void singleShot(int ms, std::function<void()> fn);
    /// As singleShot, in microseconds, clamped to the longest period.
    static void singleShotUs(long long intervalUs, std::function<void()> fn);

    void timeout(); // signal

private:
    bool forwardToOwner_(std::function<void(ZnTimer*)> call);
    void setIntervalUs_(long long intervalUs);

    long long intervalUs_ = 1000000;
    bool active_ = false;
    int timerId_ = -1; // -1: no record in the application's table
    bool singleShot_ = false;
    long long lastTimeoutNs_ = 0;
};
