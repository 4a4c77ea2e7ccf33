#pragma once

#include "core/platform/ZnFileDescriptor.h"
#include "core/platform/ZnWaitHandle.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

/// One event loop's wait: a set of descriptors, a wake event and a sleep with a nanosecond limit.
///
/// Thread: wait() belongs to the loop's thread; wake(), add() and remove() may be called from any thread, wake()
/// also from a signal handler.
/// Invariant: a wake that comes while the loop is awake makes the next sleep end at once and costs no system call.
class ZnPoller {
public:
    static constexpr std::size_t kMaxEvents = 256;

    struct Ready {
        void* context;           // as given to add
        std::uint32_t readiness; // ZnReadiness bits
    };

    /// Null when the system has no descriptors to give.
    static std::unique_ptr<ZnPoller> open();
    ZnPoller(const ZnPoller&) = delete;
    ZnPoller& operator=(const ZnPoller&) = delete;

    /// Watches `descriptor` for input, output, close and error, edge-triggered. False on failure.
    bool add(int descriptor, void* context);
    void remove(int descriptor);

    /// Fills `events` with up to `maxEvents` (at most kMaxEvents) ready descriptors; what is not taken stays ready.
    /// Sleeps until one is there, wake() was called, or `timeoutNs` has passed; 0 does not sleep, below 0 has no limit.
    std::size_t wait(long long timeoutNs, Ready* events, std::size_t maxEvents);
    /// Ends the sleep that runs or the next one.
    void wake() noexcept;

private:
    ZnPoller() = default;

    enum State_ : int { Awake_, Sleeping_, Woken_ };

    bool watchSilently_(int descriptor);
    int sleepInSystem_(long long timeoutNs, std::size_t maxEvents);

    ZnFileDescriptor epoll_; // this one and the next: there from open() on
    ZnFileDescriptor wakeEvent_;
    ZnFileDescriptor timer_; // made only where the kernel has no nanosecond wait
    std::atomic<int> state_{Awake_};
};
