#include "core/platform/ZnResolver.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

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

TEST(ZnResolver, NamesThatNobodyWaitsForMakeRoomAndLocalOnesNeedNone) {
    std::promise<void> release;
    auto deadLookups = std::make_shared<std::atomic<int>>(0);
    ZnResolver::setLookupForTests([released = release.get_future().share(), deadLookups](const ZnString& host) {
        if (host.startsWith("dead")) {
            deadLookups->fetch_add(1);
            released.wait();
        }
        return ZnResolver::Result{ZnSocketAddress::fromNumeric("127.0.0.1", 0)};
    });
    const auto isAnswered = [](const std::shared_ptr<std::promise<void>>& answer) {
        return answer->get_future().wait_for(10s) == std::future_status::ready;
    };
    const auto ask = [](const ZnString& host) {
        auto answer = std::make_shared<std::promise<void>>();
        ZnResolver::resolve(host, [answer](const auto&) { answer->set_value(); });
        return answer;
    };
    const auto deadAnswers = std::make_shared<std::atomic<int>>(0);
    std::vector<unsigned long long> deadIds;
    for (int i = 0; i < 500; ++i) {
        const ZnString host = "dead" + ZnString::number(i);
        deadIds.push_back(ZnResolver::resolve(host, [deadAnswers](const auto&) { ++*deadAnswers; }));
    }
    const auto live = ask("live.test");
    EXPECT_TRUE(isAnswered(ask("LocalHost")));
    for (int i = 0; i < 1000 && deadLookups->load() < static_cast<int>(ZnResolver::kMaxThreads); ++i)
        std::this_thread::sleep_for(10ms);
    std::for_each(deadIds.rbegin(), deadIds.rend(), &ZnResolver::withdraw); // first those that are queued
    EXPECT_TRUE(isAnswered(live));
    EXPECT_TRUE(isAnswered(ask("live2.test")));
    EXPECT_EQ(deadLookups->load(), static_cast<int>(ZnResolver::kMaxThreads));
    release.set_value();
    for (std::size_t i = 0; i < ZnResolver::kMaxThreads; ++i) // the same lookups or others: those have ended then
        EXPECT_TRUE(isAnswered(ask("dead" + ZnString::number(static_cast<int>(i)))));
    EXPECT_EQ(deadAnswers->load(), 0);
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
