#include "core/platform/ZnConsoleStop.h"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

class CountingTarget : public ZnConsoleStopTarget {
public:
    CountingTarget() { ZnConsoleStop::add(this); }
    ~CountingTarget() override { ZnConsoleStop::remove(this); }
    bool requestStop() noexcept override {
        stopCount.fetch_add(1, std::memory_order_relaxed);
        return true;
    }

    std::atomic<int> stopCount{0};
};

TEST(ZnConsoleStop, EveryTargetIsToldOnceAndStopsCountAnewWhenAllHaveGone) {
    for (int round = 0; round < 2; ++round) {
        CountingTarget first;
        { CountingTarget gone; }
        CountingTarget second;
        ASSERT_EQ(::raise(SIGTERM), 0); // a second signal to the same targets would end the process
        EXPECT_EQ(first.stopCount, 1);
        EXPECT_EQ(second.stopCount, 1);
    }
}

TEST(ZnConsoleStopDeathTest, TheSecondSignalEndsTheProcessAtOnce) {
    EXPECT_EXIT(
        {
            CountingTarget target;
            ::raise(SIGINT);
            ::raise(SIGTERM);
            ::_exit(0);
        },
        ::testing::ExitedWithCode(128 + SIGTERM), "");
}

} // namespace
