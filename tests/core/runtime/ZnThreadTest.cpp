#include "core/runtime/ZnThread.h"

#include "core/runtime/ZnCoreApplication.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>
#include <semaphore>

namespace {

constexpr auto kLong = std::chrono::seconds(30);

class RunningThread final : public ZnThread {
public:
    RunningThread() : ZnThread("runner") {}
    ~RunningThread() override {
        quit();
        wait();
    }
    void run() override {
        onFiber = ZnCoreApplication::instance()->fiberPool().isOnFiber();
        ran.release();
    }

    bool onFiber = false;
    std::counting_semaphore<> ran{0};
};

TEST(ZnThread, SignalsSurroundItsRunAndItMayBeStartedAgain) {
    LogCapture log;
    RunningThread thread;
    std::vector<int> order;
    thread.connect(&ZnThread::started, [&] { order.push_back(ZnCoreApplication::instance() != nullptr ? 1 : -1); });
    thread.connect(&ZnThread::finished, [&] { order.push_back(ZnCoreApplication::instance() == nullptr ? 2 : -2); });
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(thread.start());
        ASSERT_TRUE(thread.ran.try_acquire_for(kLong));
        EXPECT_TRUE(thread.onFiber);
        EXPECT_FALSE(thread.start());
        bool ranBeforeQuit = false;
        std::counting_semaphore<> told{0};
        postToThread(&thread.handle(), [&] { EXPECT_TRUE(told.try_acquire_for(kLong)); });
        postToThread(&thread.handle(), [&] { ranBeforeQuit = true; }, ZnFiberPool::kFirstLane);
        thread.quit();
        told.release();
        thread.wait();
        EXPECT_TRUE(ranBeforeQuit);
        EXPECT_FALSE(thread.isRunning());
    }
    EXPECT_EQ(order, (std::vector<int>{1, 2, 1, 2}));
    EXPECT_EQ(log.countOf("start() called on already-running ZnThread 'runner'"), 2);
}

// The record goes while others post to it; the sanitizers are the judges.
TEST(ZnThread, APostReachesAThreadOrFindsItGone) {
    LogCapture log; // of the refusals of a full queue
    for (int round = 0; round < 30; ++round) {
        auto* record = new zn::atomic::Thread("thread");
        ASSERT_TRUE(record->start());
        std::atomic<int> postCount{0};
        std::vector<std::thread> posters;
        for (int i = 0; i < 2; ++i)
            posters.emplace_back([&] {
                for (bool isThere = true; isThere; ++postCount) {
                    ZnTask task([] {});
                    isThere = postToThreadIfLive(record, task, ZnFiberPool::kDefaultLane);
                    EXPECT_EQ(static_cast<bool>(task), !isThere);
                }
            });
        while (postCount < 2)
            std::this_thread::yield();
        delete record;
        for (std::thread& poster : posters)
            poster.join();
    }
}

TEST(ZnThread, IsEndedByItsDestructorAlsoOnItself) {
    struct Row {
        const char* name;
        bool onItself, saturated;
    };
    for (const Row& row : {Row{"plain", false, false}, Row{"saturated", false, true}, Row{"on itself", true, false}}) {
        SCOPED_TRACE(row.name);
        std::counting_semaphore<> ended{0};
        std::counting_semaphore<> prepared{0};
        auto* thread = new ZnThread("thread");
        ASSERT_TRUE(thread->start());
        postToThread(&thread->handle(), [&, row] {
            ZnCoreApplication& application = *ZnCoreApplication::instance();
            // Goes with the thread's application, in which it never fires.
            const std::shared_ptr<void> atEnd(nullptr, [&ended](void*) { ended.release(); });
            application.addTimer([atEnd] {}, 1000000000, true, 2);
            for (bool more = row.saturated; more;) {
                ZnTask parked([&application] { application.fiberPool().yieldCurrent(nextFiberWaitId()); });
                more = application.tryPostOnLane(parked, 0);
            }
            if (row.onItself)
                delete thread;
            prepared.release();
        });
        ASSERT_TRUE(prepared.try_acquire_for(kLong));
        if (!row.onItself)
            delete thread;
        EXPECT_TRUE(ended.try_acquire_for(kLong));
    }
}

} // namespace
