#include "core/platform/ZnResolver.h"

#include <atomic>
#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <memory>

namespace {

using namespace std::chrono_literals;

TEST(ZnResolver, ADeadNameServerHoldsUpItsOwnNamesOnly) {
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    auto deadLookups = std::make_shared<std::atomic<int>>(0);
    ZnResolver::setLookupForTests([released, deadLookups](const ZnString& host) -> ZnResolver::Result {
        if (!host.startsWith("dead"))
            return {ZnSocketAddress::fromNumeric("127.0.0.1", 0)};
        deadLookups->fetch_add(1);
        released.wait();
        return {};
    });
    const auto deadAnswers = std::make_shared<std::atomic<int>>(0);
    for (int i = 0; i < 101; ++i)
        ZnResolver::resolve(i == 0 ? "dead2.test" : "dead.test", [deadAnswers](const auto&) { ++*deadAnswers; });
    std::promise<std::size_t> live;
    ZnResolver::resolve("live.test", [&live](const auto& addresses) { live.set_value(addresses.size()); });
    auto liveAnswer = live.get_future();
    ASSERT_EQ(liveAnswer.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(liveAnswer.get(), 1U);
    EXPECT_LE(deadLookups->load(), 2); // equal names share one lookup
    EXPECT_EQ(deadAnswers->load(), 0);
    release.set_value();
    for (int i = 0; i < 1000 && deadAnswers->load() < 101; ++i)
        std::this_thread::sleep_for(10ms);
    EXPECT_EQ(deadAnswers->load(), 101);
    ZnResolver::setLookupForTests(nullptr);
}

TEST(ZnSocketAddress, NumericTexts) {
    constexpr const char* kRows[][2] = {
        {"127.0.0.1", "127.0.0.1"}, {"::1", "::1"}, {"::ffff:10.1.2.3", "10.1.2.3"}, {"127.1", ""}, {"localhost", ""}};
    for (const auto& [text, written] : kRows)
        EXPECT_EQ(ZnSocketAddress::fromNumeric(text, 8080).text(), written);
    EXPECT_EQ(ZnSocketAddress::fromNumeric("::1", 8080).withPort(9).port(), 9);
}

} // namespace
