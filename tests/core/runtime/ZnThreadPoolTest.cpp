#include "core/runtime/ZnThreadPool.h"

#include "core/platform/ZnMonotonicClock.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnEventLoop.h"
#include "core/runtime/ZnTimer.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>
#include <semaphore>
#include <stdexcept>
#include <sys/resource.h>
#include <thread>

namespace {

constexpr auto kLong = std::chrono::seconds(30);

template <typename F>
ZnRunnable* task(F body) {
    return new ZnCallableRunnable<F>(std::move(body));
}

template <typename Condition>
bool eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + kLong;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// Keeps a worker busy from its construction, when the task runs already, to open().
class Gate {
public:
    explicit Gate(ZnThreadPool& pool) {
        pool.start(task([ways = ways_] {
            ways->entered.release();
            ways->left.acquire();
        }));
        EXPECT_TRUE(ways_->entered.try_acquire_for(kLong));
    }
    ~Gate() { open(); }
    void open() { ways_->left.release(); }

private:
    struct Ways_ {
        std::counting_semaphore<> entered{0};
        std::counting_semaphore<> left{0};
    };
    const std::shared_ptr<Ways_> ways_ = std::make_shared<Ways_>();
};

/// Counts its deletions and runs.
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

ZnThreadPool::Deadline soon() {
    return ZnThreadPool::Deadline::inMs(30000);
}

TEST(ZnThreadPool, PrioritiesThenArrivalOrderAWorkersQueue) {
    ZnThreadPool pool;
    pool.setMaxThreadCount(1);
    std::vector<int> order;
    {
        const Gate gate(pool);
        int number = 0;
        for (const int priority : {1, 5, 1, -3, 5, 0, 9})
            pool.start(task([&order, id = priority * 10 + number] { order.push_back(id); }), priority), ++number;
        EXPECT_EQ(pool.queuedTaskCount(), 7);
        EXPECT_EQ(pool.activeCount(), 1);
    }
    EXPECT_TRUE(pool.waitForDone(soon()));
    EXPECT_EQ(order, (std::vector<int>{96, 51, 54, 10, 12, 5, -27}));
}

TEST(ZnThreadPool, TheLeastLoadedThenLongestIdleWorkerTakesTheTask) {
    ZnThreadPool pool;
    pool.setMaxThreadCount(2);
    const auto runOne = [&pool] {
        std::thread::id id;
        pool.start(task([&id] { id = std::this_thread::get_id(); }));
        EXPECT_TRUE(pool.waitForDone(soon()));
        return id;
    };
    const std::thread::id first = runOne();
    EXPECT_EQ(runOne(), first); // an idle worker is better than a new one
    std::thread::id second;
    {
        const Gate gate(pool);
        pool.start(task([&second] { second = std::this_thread::get_id(); }));
        EXPECT_TRUE(eventually([&] { return pool.activeCount() == 1 && pool.queuedTaskCount() == 0; }));
    }
    EXPECT_TRUE(pool.waitForDone(soon()));
    EXPECT_NE(second, first);
    EXPECT_EQ(pool.threadCount(), 2);
    EXPECT_EQ(runOne(), second); // the gate's worker was busy last
    EXPECT_EQ(runOne(), first);
}

TEST(ZnThreadPool, AFullQueueRefusesUnlessAWorkerIsIdle) {
    struct Row {
        const char* name;
        int threads, reserved, limit;
        int workers, accepted; // accepted behind busy workers; -1: all
    };
    constexpr Row kRows[] = {{"automatic", 4, 0, 0, 4, 128},    {"automatic, reserved", 4, 3, 0, 1, 128},
                             {"all reserved", 2, 9, 3, 1, 3},   {"no threads", 0, 0, 0, 1, 32},
                             {"unlimited", 1, 0, -1, 1, -1},    {"one", 1, 0, 1, 1, 1}};
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        LogCapture log;
        ZnThreadPool pool;
        pool.setMaxThreadCount(row.threads);
        pool.setReservedThreadCount(row.reserved);
        pool.setMaxQueuedTaskCount(row.limit);
        std::vector<std::unique_ptr<Gate>> gates;
        for (int i = 0; i < row.workers; ++i)
            gates.push_back(std::make_unique<Gate>(pool));
        Counts counts;
        constexpr int kTries = 200;
        for (int i = 0; i < kTries; ++i)
            pool.start(new Counted(counts), 0);
        const int accepted = row.accepted < 0 ? kTries : row.accepted;
        EXPECT_EQ(pool.queuedTaskCount(), accepted);
        EXPECT_EQ(pool.threadCount(), row.workers);
        EXPECT_EQ(counts.deleted, kTries - accepted);
        EXPECT_EQ(pool.rejectedCount(), kTries - accepted);
        const ZnString number = ZnString::number(accepted);
        EXPECT_EQ(log.countOf(("ZnThreadPool saturated; rejecting task because queuedTaskCount=" + number +
                               " reached maxQueuedTaskCount=" + number).view()),
                  kTries - accepted);
        if (accepted < kTries) {
            bool saturated = false;
            Counted kept(counts);
            EXPECT_FALSE(pool.tryStart(&kept, 0, &saturated));
            EXPECT_TRUE(saturated);
            EXPECT_EQ(log.countOf("saturated"), kTries - accepted); // tryStart does not log
        }
        // A worker that becomes idle takes a task however many wait elsewhere.
        gates.clear();
        EXPECT_TRUE(pool.waitForDone(soon()));
        EXPECT_EQ(counts.ran, accepted);
    }
}

TEST(ZnThreadPool, AnIdleWorkerTakesATaskWhileQueuesElsewhereAreFull) {
    ZnThreadPool pool;
    pool.setMaxThreadCount(1);
    pool.setMaxQueuedTaskCount(2);
    Counts counts;
    const Gate gate(pool);
    for (int i = 0; i < 2; ++i)
        pool.start(new Counted(counts));
    EXPECT_FALSE(pool.tryStart(nullptr));
    pool.setMaxThreadCount(2);
    EXPECT_TRUE(pool.tryStart(new Counted(counts))); // on a new worker
    EXPECT_TRUE(eventually([&] { return counts.ran == 1 && pool.activeCount() == 1; }));
    EXPECT_TRUE(pool.tryStart(new Counted(counts))); // on an idle one
    EXPECT_TRUE(eventually([&] { return counts.ran == 2; }));
}

TEST(ZnThreadPool, WaitForDoneInAllItsCases) {
    LogCapture log;
    ZnThreadPool pool;
    EXPECT_TRUE(pool.waitForDone({false, 0})); // nothing to wait for: also with a past deadline
    Counts counts;
    std::binary_semaphore answered{0};
    bool answer = true;
    pool.start(task([&] {
        answer = pool.waitForDone();
        answered.release();
    }));
    ASSERT_TRUE(answered.try_acquire_for(kLong));
    EXPECT_FALSE(answer);
    EXPECT_EQ(log.countOf("waitForDone() called from a ZnThreadPool worker; refusing to self-block"), 1);

    Gate gate(pool);
    EXPECT_FALSE(pool.waitForDone({false, 0}));
    const long long startNs = monotonicNowNs();
    EXPECT_FALSE(pool.waitForDone(ZnThreadPool::Deadline::inMs(30)));
    EXPECT_GE(monotonicNowNs() - startNs, 29000000);
    EXPECT_TRUE(pool.tryStart(new Counted(counts))); // no longer waiting
    EXPECT_TRUE(eventually([&] { return counts.ran == 1; }));

    bool done = false;
    std::thread waiter([&] { done = pool.waitForDone(); });
    Counted kept(counts);
    bool saturated = true;
    kept.autoDelete = false;
    EXPECT_TRUE(eventually([&] { return !pool.tryStart(&kept, 0, &saturated); }));
    EXPECT_FALSE(saturated);
    const int deletedBefore = counts.deleted;
    pool.start(new Counted(counts));
    EXPECT_EQ(counts.deleted, deletedBefore + 1); // refused without a line
    EXPECT_FALSE(pool.waitForDone()); // somebody waits already
    gate.open();
    waiter.join();
    EXPECT_TRUE(done);
    EXPECT_EQ(pool.rejectedCount(), 0);
    EXPECT_EQ(log.countOf(""), 1);
}

TEST(ZnThreadPool, ATaskThatThrowsLeavesItsWorkerAndTheCountsRight) {
    LogCapture log;
    ZnThreadPool pool;
    pool.setMaxThreadCount(1);
    Counts counts;
    pool.start(task([] { throw std::runtime_error("boom"); }));
    pool.start(task([] { throw 5; }));
    pool.start(new Counted(counts));
    EXPECT_TRUE(pool.waitForDone(soon()));
    EXPECT_EQ(pool.activeCount(), 0);
    EXPECT_EQ(counts.ran, 1);
    EXPECT_EQ(log.countOf("ZnRunnable::run() threw exception on worker 1: boom — continuing execution"), 1);
    EXPECT_EQ(log.countOf("ZnRunnable::run() threw unknown exception on worker 1 — continuing execution"), 1);
}

TEST(ZnThreadPool, AParkedTaskKeepsItsWorkerAndOtherClosuresRun) {
    ZnThreadPool pool;
    pool.setMaxThreadCount(1);
    std::vector<int> order;
    pool.start(task([&] {
        ZnEventLoop loop;
        ZnCoreApplication::instance()->postEvent([&] { order.push_back(2); }); // between the tasks' turns
        ZnTimer::singleShot(30, [&] {
            order.push_back(3);
            loop.quit();
        });
        order.push_back(1);
        loop.exec();
        order.push_back(4);
        ZnCoreApplication::instance()->postEventOnLane([&] { order.push_back(5); }, 1);
    }));
    pool.start(task([&] { order.push_back(6); }));
    EXPECT_TRUE(pool.waitForDone(soon()));
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4, 5, 6}));
}

TEST(ZnThreadPool, IdleWorkersLeaveAfterTheirTimeAndWorkKeepsThem) {
    ZnThreadPool pool;
    pool.setMaxThreadCount(1);
    pool.setExpiryTimeoutMs(150);
    Counts counts;
    const long long startNs = monotonicNowNs();
    std::thread::id first;
    pool.start(task([&] { first = std::this_thread::get_id(); }));
    long long lastStartNs = 0;
    while ((lastStartNs = monotonicNowNs()) - startNs < 400000000) { // tasks well within each other's expiry
        pool.start(new Counted(counts));
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(pool.threadCount(), 1);
    bool isSame = false;
    pool.start(task([&] { isSame = std::this_thread::get_id() == first; }));
    EXPECT_TRUE(pool.waitForDone(soon()));
    EXPECT_TRUE(isSame);
    EXPECT_TRUE(eventually([&] { return pool.threadCount() == 0; }));
    EXPECT_GE(monotonicNowNs() - lastStartNs, 150000000);

    pool.setExpiryTimeoutMs(0);
    ZnString name;
    pool.start(task([&] { name = static_cast<ZnString>(zn::atomic::Thread::currentThread()->name()); }));
    EXPECT_TRUE(pool.waitForDone(soon()));
    EXPECT_EQ(name, "ZnThreadPoolWorker_2");
    EXPECT_TRUE(eventually([&] { return pool.threadCount() == 0; }));
    pool.setExpiryTimeoutMs(-1);
    pool.start(new Counted(counts));
    EXPECT_TRUE(pool.waitForDone(soon()));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(pool.threadCount(), 1);
}

TEST(ZnThreadPool, WorkersHaveThePriorityAndTheStackThatWasAskedFor) {
    struct Row {
        int priority, hint, nice; // only what needs no permission
    };
    constexpr Row kRows[] = {{0, 0, 15}, {1, 0, 2}, {2, 0, 1}, {3, 0, 0}, {7, 0, 0}, {7, 2, 1}, {8, 2, 0}, {-1, 1, 0}};
    LogCapture log;
    for (const Row& row : kRows) {
        ZnThreadPool pool;
        pool.setPriority(row.priority);
        pool.setPriorityHint(row.hint);
        pool.setStackSize(1 << 20);
        int nice = 99;
        pool.start(task([&nice] {
            char large[800000]; // more than the usual stack
            volatile char* lowest = large;
            *lowest = 1;
            nice = getpriority(PRIO_PROCESS, 0);
        }));
        EXPECT_TRUE(pool.waitForDone(soon()));
        EXPECT_EQ(nice, row.nice) << row.priority;
    }
    EXPECT_EQ(log.countOf(""), 0);
}

TEST(ZnThreadPool, ItsEndDropsWhatIsQueuedAndWaitsForWhatRuns) {
    Counts counts;
    bool parkedEnded = false;
    bool refusedInTask = false;
    Counted kept(counts);
    kept.autoDelete = false;
    auto* pool = new ZnThreadPool;
    pool->setMaxThreadCount(2);
    std::binary_semaphore parked{0};
    pool->start(task([&] {
        ZnEventLoop loop;
        ZnTimer::singleShot(100, [&] { loop.quit(); });
        parked.release();
        loop.exec();
        refusedInTask = !pool->tryStart(&kept);
        parkedEnded = true;
    }));
    ASSERT_TRUE(parked.try_acquire_for(kLong));
    auto gate = std::make_unique<Gate>(*pool);
    for (int i = 0; i < 10; ++i)
        pool->start(new Counted(counts));
    EXPECT_TRUE(pool->tryStart(&kept));
    std::thread opener([&] {
        EXPECT_TRUE(eventually([&] { return counts.deleted == 10; })); // the end has begun
        gate->open();
    });
    delete pool;
    EXPECT_TRUE(parkedEnded);
    EXPECT_TRUE(refusedInTask);
    EXPECT_EQ(counts.ran, 0);
    EXPECT_EQ(counts.deleted, 10);
    opener.join();
}

TEST(ZnThreadPool, ATaskMayDeleteItsPool) {
    for (const bool withApplication : {false, true}) {
        const auto application = withApplication ? std::make_unique<ZnCoreApplication>() : nullptr;
        const auto ended = std::make_shared<std::binary_semaphore>(0);
        std::shared_ptr<void> endOfTask(nullptr, [ended](void*) { ended->release(); });
        auto* pool = new ZnThreadPool;
        pool->setMaxThreadCount(2);
        auto gate = std::make_shared<Gate>(*pool);
        pool->start(task([pool, gate, endOfTask = std::move(endOfTask)] {
            gate->open(); // else the pool's end would wait for ever
            delete pool;
        }));
        EXPECT_TRUE(ended->try_acquire_for(kLong));
    }
}

TEST(ZnThreadPool, FinishingTasksAndThePoolsEndMeet) {
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> ran{0};
        const auto application = round % 2 == 0 ? std::make_unique<ZnCoreApplication>() : nullptr;
        ZnThreadPool pool;
        pool.setMaxThreadCount(2);
        pool.setExpiryTimeoutMs(0);
        for (int i = 0; i < 1 + round % 5; ++i)
            pool.start(task([&ran] { ++ran; }));
        while (round % 3 == 0 && ran.load() == 0) {
        }
    }
}

TEST(ZnThreadPool, TasksOfAWorkerWhoseLoopWasEndedMoveToAnother) {
    ZnThreadPool pool;
    pool.setMaxThreadCount(1);
    Counts counts;
    {
        const Gate gate(pool);
        pool.start(task([] {
            ZnCoreApplication::instance()->quit();
            ZnEventLoop().exec(); // never goes on
        }));
        for (int i = 0; i < 10; ++i)
            pool.start(new Counted(counts));
    }
    EXPECT_TRUE(eventually([&] { return counts.ran == 10; }));
    EXPECT_TRUE(pool.waitForDone(soon()));
    EXPECT_EQ(pool.threadCount(), 1);
}

TEST(ZnThreadPool, ManyShortTasksFromManyThreads) {
    constexpr int kThreads = 4;
    constexpr int kTasks = 3000;
    std::atomic<int> ran{0};
    ZnThreadPool pool;
    pool.setMaxThreadCount(3);
    pool.setMaxQueuedTaskCount(64);
    pool.setExpiryTimeoutMs(1);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < kTasks; ++n) {
                ZnRunnable* next = task([&ran] { ++ran; });
                while (!pool.tryStart(next, n % 3))
                    std::this_thread::yield();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(pool.waitForDone(soon()));
    EXPECT_EQ(ran, kThreads * kTasks);
    EXPECT_EQ(pool.activeCount(), 0);
    EXPECT_EQ(pool.queuedTaskCount(), 0);
}

} // namespace
