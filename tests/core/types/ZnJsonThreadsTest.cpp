#include "core/types/ZnJsonDocument.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

// Parts of one tree lie in the same slabs: whichever thread is the last with one gives it back.
TEST(ZnJson, PartsOfATreeMayEndOnDifferentThreads) {
    constexpr std::size_t kThreads = 4;
    std::string text = "[0";
    for (int index = 0; index < 4000; ++index)
        text += R"(,{"a text of some length":["another such text"]})";
    ZnJsonDocument document = ZnJsonDocument::fromJson(text + "]", nullptr);
    std::vector<ZnJsonArray> parts(kThreads);
    std::size_t next = 0;
    for (ZnJsonValue& value : *document.root().array())
        parts[next++ % kThreads].append(std::move(value));
    document = ZnJsonDocument();
    std::atomic<bool> mayBegin{false};
    std::vector<std::thread> threads;
    for (ZnJsonArray& part : parts)
        threads.emplace_back([&mayBegin, mine = std::move(part)]() mutable {
            while (!mayBegin.load(std::memory_order_acquire))
                std::this_thread::yield();
            for (ZnJsonValue& value : mine)
                value = ZnJsonValue(value.toJson()); // reads, and gives the part back
        });
    mayBegin.store(true, std::memory_order_release);
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace
