#include "core/runtime/ZnFiberPool.h"

#include <array>
#include <cerrno>
#include <gtest/gtest.h>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

class ZnFiberPoolTest : public ::testing::Test {
protected:
    ZnFiberPoolTest() { pool_.setMainFiber(&main_); }

    bool submit(int lane, ZnTask task) { return pool_.submit(task, lane); }
    void runAll() {
        while (pool_.runNextWorkItem()) {
        }
    }

    ZnFiberContext main_;
    ZnFiberPool pool_;
};

TEST_F(ZnFiberPoolTest, LanesShareByCreditsAndLaneZeroGoesFirst) {
    std::vector<int> order;
    for (int lane = 1; lane <= 3; ++lane) {
        for (int i = 0; i < 20; ++i)
            submit(lane, [&order, lane] { order.push_back(lane); });
    }
    submit(0, [&] { order.push_back(0); });
    for (int i = 0; i < 28; ++i)
        pool_.runNextWorkItem();
    EXPECT_EQ(order,
              (std::vector<int>{0, 1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 3, 1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 3, 1}));
}

TEST_F(ZnFiberPoolTest, ParkedFiberResumesBeforeNewWork) {
    std::vector<int> order;
    submit(2, [&] {
        pool_.yieldCurrent(-1);
        order.push_back(1);
    });
    runAll();
    submit(2, [&] { order.push_back(2); });
    EXPECT_TRUE(pool_.unblock(-1, 2));
    EXPECT_FALSE(pool_.unblock(-1, 2)); // no longer parked
    runAll();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    pool_.yieldCurrent(-2); // off a fiber: returns at once
}

TEST_F(ZnFiberPoolTest, AWakeUpFromAnotherThreadIsNeverLost) {
    for (int round = 0; round < 200; ++round) {
        std::atomic<bool> woken{false};
        bool ended = false;
        std::thread waker([&] {
            woken.store(true, std::memory_order_release);
            pool_.unblock(-5, 0);
        });
        if (round % 2 == 0)
            waker.join(); // the wake-up comes first
        submit(2, [&] {
            pool_.yieldCurrent(-5, &woken);
            ended = true;
        });
        while (!ended)
            pool_.runNextWorkItem();
        if (waker.joinable())
            waker.join();
    }
    EXPECT_EQ(pool_.stats().blockedCount, 0);
}

TEST_F(ZnFiberPoolTest, QueuedWorkTakesRoomAndParkedFibersOnlyThatOfNewWork) {
    constexpr auto kWakeUp = ZnFiberPool::Purpose::WakeUp;
    pool_.configure({.warmMinimum = 2, .warmMaximum = 2, .spilloverLimit = 1, .parkedLimit = 300});
    EXPECT_TRUE(submit(2, [] {}) && submit(3, [] {}));
    EXPECT_FALSE(pool_.canAccept(2, kWakeUp));
    EXPECT_TRUE(submit(1, [] {})); // spillover
    EXPECT_FALSE(pool_.canAccept(0, kWakeUp));
    runAll();
    for (int waitId = -1; waitId >= -300; --waitId) {
        EXPECT_TRUE(submit(2, [this, waitId] { pool_.yieldCurrent(waitId); }));
        runAll();
    }
    EXPECT_FALSE(pool_.canAccept(0));
    EXPECT_EQ(pool_.roomFor(2, kWakeUp), 2);
    ZnTask wakeAll([this] {
        for (int waitId = -1; waitId >= -300; --waitId)
            pool_.unblock(waitId, 0);
    });
    EXPECT_TRUE(pool_.submit(wakeAll, 2, kWakeUp));
    runAll();
    EXPECT_EQ(pool_.stats().blockedCount, 0);
    EXPECT_LE(pool_.stats().spilloverSlotCount, 128); // the stacks of the crowd are gone
    EXPECT_EQ(pool_.roomFor(2), 2);
}

TEST_F(ZnFiberPoolTest, ExceptionsAndErrnoBelongToTheFiberThatHandlesThem) {
    std::vector<std::string> caught(3);
    for (int i = 0; i < 3; ++i)
        submit(2, [this, &caught, i] {
            try {
                try {
                    throw std::runtime_error("from " + std::to_string(i));
                } catch (...) {
                    errno = ENOENT + i;
                    pool_.yieldCurrent(-1 - i); // the others throw, catch and rethrow meanwhile
                    EXPECT_EQ(errno, ENOENT + i);
                    try {
                        throw std::logic_error("inner");
                    } catch (const std::logic_error&) {
                        pool_.yieldCurrent(-1 - i);
                    }
                    throw;
                }
            } catch (const std::runtime_error& error) {
                caught[static_cast<std::size_t>(i)] = error.what();
            }
        });
    runAll();
    for (const int i : {2, 0, 1, 1, 0, 2}) {
        errno = EPERM;
        EXPECT_TRUE(pool_.unblock(-1 - i, 2));
        runAll();
        EXPECT_EQ(errno, EPERM);
    }
    EXPECT_EQ(caught, (std::vector<std::string>{"from 0", "from 1", "from 2"}));
}

/// Each frame has a kilobyte, which the barriers keep the compiler from leaving out.
__attribute__((noinline)) void burnStack(std::size_t frames) {
    char block[1024];
    asm volatile("" : : "r"(block) : "memory");
    if (frames > 0)
        burnStack(frames - 1);
    asm volatile("" : : "r"(block) : "memory");
}

/// One frame that is larger than a guard page, and touches its far end alone.
__attribute__((noinline)) void jumpFarDown() {
    char block[2 << 20];
    block[0] = 1;
    asm volatile("" : : "r"(block) : "memory");
}

using ZnFiberPoolDeathTest = ZnFiberPoolTest;

TEST_F(ZnFiberPoolDeathTest, OverflowHitsTheGuardPageAndNotTheNeighbour) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    for (int i = 0; i < 20; ++i) // neighbours: enough room below for all that is burnt
        submit(2, [this, i] {
            burnStack(90); // deep but legal
            pool_.yieldCurrent(-1 - i);
        });
    runAll();
    EXPECT_EQ(pool_.stats().blockedCount, 20);
    EXPECT_DEATH((submit(2, [] { burnStack(800); }), runAll()), "");
    EXPECT_DEATH((submit(2, &jumpFarDown), runAll()), "");
}

TEST_F(ZnFiberPoolTest, ShutdownDestroysWhatNeverRan) {
    auto token = std::make_shared<int>(1);
    const std::array<char, 100> bulk{}; // more than a task holds inside
    submit(2, [this, token, bulk] { pool_.yieldCurrent(-1 - bulk[0]); });
    runAll();
    ZnTask neverRun([token] {});
    neverRun = ZnTask([token, bulk] { ADD_FAILURE() << bulk.size(); }); // lets go of what it held
    submit(2, std::move(neverRun));
    pool_.shutdown();
    EXPECT_EQ(token.use_count(), 1);
}

} // namespace
