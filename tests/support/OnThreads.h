#pragma once

#include <chrono>
#include <functional>
#include <latch>
#include <thread>
#include <vector>

/// Runs `work`, with the numbers from 0, on so many threads that begin together, and returns when all have ended.
inline void onThreads(int count, const std::function<void(int)>& work) {
    std::latch start(count);
    std::vector<std::thread> threads;
    for (int index = 0; index < count; ++index)
        threads.emplace_back([&start, &work, index] {
            start.arrive_and_wait();
            work(index);
        });
    for (std::thread& thread : threads)
        thread.join();
}

/// For a condition that comes true on another thread; false when that takes longer than twenty seconds.
inline bool waitUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return condition();
}
