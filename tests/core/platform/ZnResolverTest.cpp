#include "core/platform/ZnResolver.h"

#include "support/OnThreads.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

namespace {

using namespace std::chrono_literals;

/// Lookups of names that begin with "dead" end when the test says so; all others find loopback at once.
class ZnResolverTest : public testing::Test {
protected:
    ZnResolverTest() {
        ZnResolver::setLookupForTests([released = release_.get_future().share(), lookups = deadLookups_](auto& host) {
            if (host.startsWith("dead")) {
                lookups->fetch_add(1);
                released.wait();
            }
            return ZnResolver::Result{ZnSocketAddress::fromNumeric("127.0.0.1", 0)};
        });
    }
    ~ZnResolverTest() override { ZnResolver::setLookupForTests(nullptr); }
    /// The number by which it is withdrawn.
    unsigned long long askDead(const ZnString& host) {
        return ZnResolver::resolve(host, [answers = deadAnswers_](const auto&) { ++*answers; });
    }
    static bool isAnswered(const std::shared_ptr<std::promise<void>>& answer) {
        return answer->get_future().wait_for(10s) == std::future_status::ready;
    }
    static std::shared_ptr<std::promise<void>> ask(const ZnString& host) {
        auto answer = std::make_shared<std::promise<void>>();
        ZnResolver::resolve(host, [answer](const auto& addresses) {
            EXPECT_FALSE(addresses.empty());
            answer->set_value();
        });
        return answer;
    }

    std::promise<void> release_;
    const std::shared_ptr<std::atomic<int>> deadLookups_ = std::make_shared<std::atomic<int>>(0);
    const std::shared_ptr<std::atomic<int>> deadAnswers_ = std::make_shared<std::atomic<int>>(0);
};

TEST_F(ZnResolverTest, ADeadNameServerHoldsUpItsOwnNamesOnly) {
    for (int i = 0; i < 101; ++i)
        askDead(i == 0 ? "dead2.test" : "dead.test");
    EXPECT_TRUE(isAnswered(ask("live.test")));
    EXPECT_LE(deadLookups_->load(), 2); // equal names share one lookup
    EXPECT_EQ(deadAnswers_->load(), 0);
    release_.set_value();
    EXPECT_TRUE(waitUntil([&] { return deadAnswers_->load() == 101; }));
}

TEST_F(ZnResolverTest, NamesThatNobodyWaitsForMakeRoomAndLocalOnesNeedNone) {
    const int threadCount = static_cast<int>(ZnResolver::kMaxThreads);
    std::vector<unsigned long long> deadIds;
    for (int i = 0; i < 500; ++i)
        deadIds.push_back(askDead("dead" + ZnString::number(i)));
    const auto live = ask("live.test");
    EXPECT_TRUE(isAnswered(ask("LocalHost")));
    EXPECT_TRUE(waitUntil([&] { return deadLookups_->load() == threadCount; }));
    std::for_each(deadIds.rbegin(), deadIds.rend(), &ZnResolver::withdraw); // first those that are queued
    EXPECT_TRUE(isAnswered(live));
    EXPECT_TRUE(isAnswered(ask("live2.test")));
    EXPECT_EQ(deadLookups_->load(), threadCount);
    release_.set_value();
    for (int i = 0; i < threadCount; ++i) // the same lookups or others: those have ended then
        EXPECT_TRUE(isAnswered(ask("dead" + ZnString::number(i))));
    EXPECT_EQ(deadAnswers_->load(), 0);
}

TEST(ZnSocketAddress, NumericTexts) {
    constexpr const char* kRows[][2] = {
        {"127.0.0.1", "127.0.0.1"}, {"::1", "::1"}, {"::ffff:10.1.2.3", "10.1.2.3"}, {"127.1", ""}, {"localhost", ""}};
    for (const auto& [text, written] : kRows)
        EXPECT_EQ(ZnSocketAddress::fromNumeric(text, 8080).text(), written);
    EXPECT_EQ(ZnSocketAddress::fromNumeric("::1", 8080).withPort(9).port(), 9);
}

} // namespace
