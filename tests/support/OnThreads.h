#pragma once

#include <functional>
#include <thread>
#include <vector>

/// Runs `work`, with the numbers from 0, on so many threads at once, and returns when all have ended.
inline void onThreads(int count, const std::function<void(int)>& work) {
    std::vector<std::thread> threads;
    for (int index = 0; index < count; ++index)
        threads.emplace_back(work, index);
    for (std::thread& thread : threads)
        thread.join();
}
