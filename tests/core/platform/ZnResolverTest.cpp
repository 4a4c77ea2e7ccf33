#include "core/platform/ZnResolver.h"

#include <atomic>
#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <memory>

namespace {

using namespace std::chrono_literals;

class ZnResolverTest : public ::testing::Test {
protected:
    void TearDown() override { ZnResolver::setLookupForTests(nullptr); }
};

TEST_F(ZnResolverTest, ADeadNameServerHoldsUpItsOwnNamesOnly) {
    auto release = std::make_shared<std::promise<void>>();
    const std::shared_future<void> released = release->get_future().share();
    auto deadLookups = std::make_shared<std::atomic<int>>(0);
    ZnResolver::setLookupForTests([released, deadLookups](const ZnString& host) -> ZnResolver::Result {
        if (!host.startsWith("dead"))
            return {ZnSocketAddress::fromNumeric("127.0.0.1", 0)};
        deadLookups->fetch_add(1);
        released.wait();
        return {};
    });
    std::promise<std::size_t> live;
    auto deadAnswers = std::make_shared<std::atomic<int>>(0);
    for (int i = 0; i < 100; ++i)
        ZnResolver::resolve("dead.test", [deadAnswers](const ZnResolver::Result&) { deadAnswers->fetch_add(1); });
    ZnResolver::resolve("dead2.test", [deadAnswers](const ZnResolver::Result&) { deadAnswers->fetch_add(1); });
    ZnResolver::resolve("live.test", [&live](const ZnResolver::Result& addresses) { live.set_value(addresses.size()); });
    auto liveAnswer = live.get_future();
    ASSERT_EQ(liveAnswer.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(liveAnswer.get(), 1U);
    EXPECT_LE(deadLookups->load(), 2); // equal names share one lookup
    EXPECT_EQ(deadAnswers->load(), 0);
    release->set_value();
    for (int i = 0; i < 1000 && deadAnswers->load() < 101; ++i)
        std::this_thread::sleep_for(10ms);
    EXPECT_EQ(deadAnswers->load(), 101);
}

TEST(ZnSocketAddress, NumericTexts) {
    struct Row {
        const char* text;
        ZnSocketAddress::Family family;
        const char* written;
    };
    constexpr Row kRows[] = {
        {"127.0.0.1", ZnSocketAddress::Family::IPv4, "127.0.0.1"},
        {"::1", ZnSocketAddress::Family::IPv6, "::1"},
        {"::ffff:10.1.2.3", ZnSocketAddress::Family::IPv6, "10.1.2.3"},
        {"localhost", ZnSocketAddress::Family::None, ""},
        {"127.1", ZnSocketAddress::Family::None, ""},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.text);
        const ZnSocketAddress address = ZnSocketAddress::fromNumeric(row.text, 8080);
        EXPECT_EQ(address.family(), row.family);
        EXPECT_EQ(address.text(), row.written);
        if (row.family != ZnSocketAddress::Family::None) {
            EXPECT_EQ(address.port(), 8080);
            EXPECT_EQ(address.withPort(9).port(), 9);
        }
    }
}

} // namespace
