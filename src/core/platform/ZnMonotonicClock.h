#pragma once

#include <chrono>

/// Nanoseconds of the monotonic high-resolution counter.
inline long long monotonicNowNs() noexcept {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
