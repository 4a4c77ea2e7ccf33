#include "core/runtime/ZnThreadPool.h"

#include "core/platform/ZnMonotonicClock.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnTimer.h"
#include "core/runtime/ZnWait.h"
#include "support/LogCapture.h"
#include "support/OnThreads.h"

#include <csignal>
#include <gtest/gtest.h>
#include <semaphore>
#include <stdexcept>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace {

template <typename F>
ZnRunnable* task(F body) {
    return new ZnCallableRunnable<F>(std::move(body));
}

bool eventually(const std::function<bool()>& condition) {
    for (int i = 0; i < 30000 && !condition(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return condition();
}

bool ends(ZnThreadPool& pool) {
    return pool.waitForDone(ZnThreadPool::Deadline::inMs(30000));
}

/// Occupies a worker from its construction to open().
class Gate {
public:
    explicit Gate(ZnThreadPool& pool) {
        const auto entered = std::make_shared<std::binary_semaphore>(0);
        pool.start(task([entered, left = left_] {
            entered->release();
            left->acquire();
        }));
        EXPECT_TRUE(entered->try_acquire_for(std::chrono::seconds(30)));
    }
    ~Gate() { open(); }
    void open() { left_->release(); }

private:
    const std::shared_ptr<std::counting_semaphore<>> left_ = std::make_shared<std::counting_semaphore<>>(0);
};

struct Counts {
    std::atomic<int> ran{0};
    std::atomic<int> deleted{0};
};
class Counted final : public ZnRunnable {
public:
    explicit Counted(Counts& counts) : counts_(counts) {}
    ~Counted() override { ++counts_.deleted; }
    void run() override { ++counts_.ran; }

private:
    Counts& counts_;
};

/// A pool of one thread.
class ZnThreadPoolTest : public ::testing::Test {
protected:
    ZnThreadPoolTest() { pool_.setMaxThreadCount(1); }

    LogCapture log_;
    Counts counts_;
    Counted kept_{counts_};
    ZnThreadPool pool_;
};

TEST_F(ZnThreadPoolTest, AWorkersQueueIsOrderedByPriorityThenArrivalAndSurvivesExceptions) {
    std::vector<int> order;
    auto gate = std::make_unique<Gate>(pool_);
    pool_.start(task([] { throw std::runtime_error("boom"); }), 100);
    pool_.start(task([] { throw 5; }), 100);
    for (const int id : {10, 50, 11, -30, 51, 0, 90})
        pool_.start(task([&order, id] { order.push_back(id); }), id / 10);
    gate.reset();
    EXPECT_TRUE(ends(pool_));
    EXPECT_EQ(order, (std::vector<int>{90, 50, 51, 10, 11, 0, -30}));
    EXPECT_EQ(log_.countOf("ZnRunnable::run() threw exception on worker 1: boom — continuing execution"), 1);
    EXPECT_EQ(log_.countOf("ZnRunnable::run() threw unknown exception on worker 1 — continuing execution"), 1);
}

TEST(ZnThreadPool, AFullQueueRefusesUnlessAWorkerIsIdle) {
    constexpr int kTries = 200;
    constexpr int kRows[][5] = {// threads, reserved ones and limit; workers, and what is accepted behind busy ones
                                {4, 3, 0, 1, 128},
                                {2, 9, 3, 1, 3},
                                {0, 0, 0, 1, 32},
                                {2, 0, -1, 2, kTries}};
    for (const auto& [threads, reserved, limit, workers, accepted] : kRows) {
        LogCapture log;
        ZnThreadPool pool;
        pool.setMaxThreadCount(threads);
        pool.setReservedThreadCount(reserved);
        pool.setMaxQueuedTaskCount(limit);
        std::vector<std::unique_ptr<Gate>> gates;
        for (int i = 0; i < workers; ++i)
            gates.push_back(std::make_unique<Gate>(pool));
        Counts counts;
        for (int i = 0; i < kTries; ++i)
            pool.start(new Counted(counts));
        EXPECT_EQ(pool.threadCount(), workers);
        EXPECT_EQ(counts.deleted, kTries - accepted);
        const std::string number = std::to_string(accepted);
        EXPECT_EQ(log.countOf("ZnThreadPool saturated; rejecting task because queuedTaskCount=" + number +
                              " reached maxQueuedTaskCount=" + number + "\n"),
                  kTries - accepted);
        pool.setMaxQueuedTaskCount(1);
        bool saturated = false;
        Counted kept(counts);
        EXPECT_FALSE(pool.tryStart(&kept, 0, &saturated));
        EXPECT_TRUE(saturated);
        EXPECT_EQ(pool.rejectedCount(), kTries - accepted + 1);
        pool.setMaxThreadCount(workers + reserved + 1);
        EXPECT_TRUE(pool.tryStart(new Counted(counts))); // a new worker is idle
        gates.clear();
        EXPECT_TRUE(ends(pool));
        EXPECT_EQ(counts.ran, accepted + 1);
    }
}

TEST_F(ZnThreadPoolTest, WaitForDoneEndsWithTheWorkOrAtItsDeadline) {
    EXPECT_TRUE(pool_.waitForDone({false, 0})); // nothing to wait for: also with a past deadline
    pool_.start(task([&] { EXPECT_FALSE(pool_.waitForDone()); }));
    EXPECT_TRUE(ends(pool_));
    EXPECT_EQ(log_.countOf("waitForDone() called from a ZnThreadPool worker; refusing to self-block"), 1);
    const Gate gate(pool_);
    EXPECT_FALSE(pool_.waitForDone({false, 0}));
    const long long startNs = monotonicNowNs();
    EXPECT_FALSE(pool_.waitForDone(ZnThreadPool::Deadline::inMs(30)));
    EXPECT_GE(monotonicNowNs() - startNs, 29000000);
    EXPECT_TRUE(pool_.tryStart(new Counted(counts_))); // the wait is over
}

TEST_F(ZnThreadPoolTest, NothingIsTakenWhileSomebodyWaits) {
    pool_.setMaxQueuedTaskCount(-1);
    Gate gate(pool_);
    kept_.autoDelete = false;
    bool done = false;
    std::thread waiter([&] { done = pool_.waitForDone(); });
    bool saturated = true;
    EXPECT_TRUE(eventually([&] { return !pool_.tryStart(&kept_, 0, &saturated); }));
    EXPECT_FALSE(saturated);
    pool_.start(new Counted(counts_));
    EXPECT_EQ(counts_.deleted, 1);     // refused without a line
    EXPECT_FALSE(pool_.waitForDone()); // somebody waits already
    gate.open();
    waiter.join();
    EXPECT_TRUE(done);
    EXPECT_EQ(log_.countOf(""), 0);
}

TEST_F(ZnThreadPoolTest, AParkedTaskKeepsItsWorkerAndOtherClosuresRun) {
    std::vector<int> order;
    pool_.start(task([&] {
        order.push_back(1);
        ZnTimer::singleShot(0, [&] { order.push_back(2); });
        sleepFor(30);
        order.push_back(3);
    }));
    pool_.start(task([&] { ZnCoreApplication::instance()->postEventOnLane([&] { order.push_back(4); }, 1); }));
    pool_.start(task([&] { order.push_back(5); }));
    EXPECT_TRUE(ends(pool_));
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4, 5}));
}

TEST_F(ZnThreadPoolTest, IdleWorkersLeaveAfterTheirTimeAndWorkKeepsThem) {
    pool_.setExpiryTimeoutMs(200);
    ZnString name;
    const long long startNs = monotonicNowNs();
    long long lastNs = startNs;
    while (lastNs - startNs < 400000000) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        lastNs = monotonicNowNs();
        pool_.start(task([&name] { name = zn::atomic::Thread::currentThread()->name(); }));
        EXPECT_TRUE(ends(pool_));
    }
    EXPECT_EQ(name, "ZnThreadPoolWorker_1");
    EXPECT_TRUE(eventually([&] { return pool_.threadCount() == 0; }));
    EXPECT_GE(monotonicNowNs() - lastNs, 200000000);
}

TEST(ZnThreadPool, ItsEndDropsWhatIsQueuedAndWaitsForWhatRunsOrIsParked) {
    for (const bool withApplication : {false, true}) {
        const auto application = withApplication ? std::make_unique<ZnCoreApplication>() : nullptr;
        Counts counts;
        Counted kept(counts);
        kept.autoDelete = false;
        bool refusedInTask = false;
        auto* pool = new ZnThreadPool;
        pool->setMaxThreadCount(2);
        Gate gate(*pool);
        pool->start(task([&] {
            sleepFor(50);
            refusedInTask = !pool->tryStart(&kept);
        }));
        for (int i = 0; i < 10; ++i)
            pool->start(new Counted(counts));
        EXPECT_TRUE(pool->tryStart(&kept));
        EXPECT_TRUE(eventually([&] { return pool->activeCount() == 2; }));
        std::thread opener([&] {
            EXPECT_TRUE(eventually([&] { return counts.deleted == 10; })); // the end has begun
            gate.open();
        });
        delete pool;
        EXPECT_TRUE(refusedInTask);
        EXPECT_EQ(counts.ran, 0);
        opener.join();
    }
}

// The sanitizers are judges, too: workers come and go all the time, and the pool's end meets what runs.
TEST(ZnThreadPool, ManyShortTasksFromManyThreadsAreRunOrDeleted) {
    for (int round = 0; round < 100; ++round) {
        constexpr int kThreads = 3;
        const int taskCount = round == 0 ? 3000 : round % 5;
        Counts counts;
        {
            const auto application = round % 2 == 0 ? std::make_unique<ZnCoreApplication>() : nullptr;
            ZnThreadPool pool;
            pool.setMaxThreadCount(2);
            pool.setMaxQueuedTaskCount(64);
            pool.setExpiryTimeoutMs(0);
            onThreads(kThreads, [&](int) {
                for (int n = 0; n < taskCount; ++n) {
                    ZnRunnable* next = new Counted(counts);
                    while (!pool.tryStart(next, n % 3))
                        std::this_thread::yield();
                }
            });
            EXPECT_TRUE(round % 3 != 0 || (ends(pool) && counts.ran == kThreads * taskCount));
        }
        EXPECT_EQ(counts.deleted, kThreads * taskCount);
    }
}

TEST(ZnThreadPool, ATaskMayDeleteItsPool) {
    auto ended = std::make_shared<std::binary_semaphore>(0);
    std::shared_ptr<void> endOfTask(nullptr, [ended](void*) { ended->release(); });
    auto* pool = new ZnThreadPool;
    pool->setMaxThreadCount(2);
    pool->start(task([] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }));
    pool->start(task([pool, endOfTask = std::move(endOfTask)] { delete pool; }));
    EXPECT_TRUE(ended->try_acquire_for(std::chrono::seconds(30)));
}

TEST_F(ZnThreadPoolTest, TasksOfAWorkerWhoseLoopWasEndedMoveToAnother) {
    auto gate = std::make_unique<Gate>(pool_);
    const auto token = std::make_shared<int>(0);
    pool_.start(task([token] {
        ZnCoreApplication::instance()->quit();
        ZnCoreApplication::instance()->fiberPool().yieldCurrent(nextFiberWaitId()); // never goes on
    }));
    for (int i = 0; i < 10; ++i)
        pool_.start(new Counted(counts_));
    gate.reset();
    EXPECT_TRUE(eventually([&] { return counts_.ran == 10 && token.use_count() == 1; }));
    EXPECT_TRUE(ends(pool_));
    EXPECT_EQ(pool_.threadCount(), 1);
}

TEST_F(ZnThreadPoolTest, WithoutDescriptorsThereAreNoWorkersForNow) {
    rlimit usual{};
    ::getrlimit(RLIMIT_NOFILE, &usual);
    const rlimit none{0, usual.rlim_max};
    bool saturated = true;
    ::setrlimit(RLIMIT_NOFILE, &none);
    const bool isAccepted = pool_.tryStart(&kept_, 0, &saturated);
    ::setrlimit(RLIMIT_NOFILE, &usual);
    EXPECT_FALSE(isAccepted || saturated);
    EXPECT_EQ(log_.countOf("Failed to start thread: no descriptors for its loop"), 1);
    pool_.start(new Counted(counts_));
    EXPECT_TRUE(ends(pool_));
    EXPECT_EQ(counts_.ran, 1);
}

// The parent's loops must not be found: each child begins anew.
TEST(ZnThreadPoolDeathTest, AProgramWithoutALoopOfItsOwnEndsByTheFirstStopSignal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ZnThreadPool pool; // a program's only loops: a worker's, and the fallback thread's
            Gate gate(pool);
            ::raise(SIGTERM);
            ::_exit(0);
        },
        ::testing::ExitedWithCode(128 + SIGTERM), "");
    EXPECT_EXIT(
        {
            ZnCoreApplication application;
            int code = -1;
            { // its worker is joined before the end
                ZnThreadPool pool;
                Gate(pool).open();
                ::raise(SIGTERM);
                code = application.exec();
            }
            ::_exit(code);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
