#include "core/runtime/ZnThread.h"

#include "core/runtime/ZnCoreApplication.h"
#include "support/LogCapture.h"
#include "support/OnThreads.h"

#include <atomic>
#include <gtest/gtest.h>
#include <semaphore>
#include <thread>

namespace {

constexpr auto kLong = std::chrono::seconds(30);

class RunningThread final : public ZnThread {
public:
    using ZnThread::ZnThread;
    void run() override {
        EXPECT_TRUE(ZnCoreApplication::instance()->fiberPool().isOnFiber());
        ran.release();
    }
    std::counting_semaphore<> ran{0};
};

TEST(ZnThread, SignalsSurroundItsRunAndItMayBeStartedAgain) {
    LogCapture log;
    RunningThread thread("runner");
    std::vector<int> order;
    const auto hasLoop = [] { return ZnCoreApplication::instance() != nullptr; };
    thread.connect(&ZnThread::started, [&] { order.push_back(hasLoop() ? 1 : -1); });
    thread.connect(&ZnThread::finished, [&] { order.push_back(hasLoop() ? -3 : 3); });
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(thread.start());
        ASSERT_TRUE(thread.ran.try_acquire_for(kLong));
        EXPECT_FALSE(thread.start());
        std::binary_semaphore told{0};
        postToThread(&thread.handle(), [&] { EXPECT_TRUE(told.try_acquire_for(kLong)); });
        postToThread(
            &thread.handle(), [&] { order.push_back(2); }, ZnFiberPool::kFirstLane); // also when it is to end
        thread.quit();
        told.release();
        thread.wait();
    }
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 1, 2, 3}));
    EXPECT_EQ(log.countOf("start() called on already-running ZnThread 'runner'"), 2);
}

// The record goes while others post to it; the sanitizers are the judges.
TEST(ZnThread, APostReachesAThreadOrFindsItGone) {
    LogCapture log; // of the refusals of a full queue
    for (int round = 0; round < 30; ++round) {
        auto* record = new zn::atomic::Thread("thread");
        ASSERT_TRUE(record->start());
        std::atomic<int> postCount{0};
        onThreads(3, [&](int index) {
            while (index == 0 && postCount < 2)
                std::this_thread::yield();
            if (index == 0)
                delete record;
            for (bool isThere = index != 0; isThere; ++postCount) {
                ZnTask task([] {});
                const ZnPostResult result = postTask(record, task);
                isThere = result != ZnPostResult::Gone;
                EXPECT_EQ(static_cast<bool>(task), result >= ZnPostResult::Full);
            }
        });
    }
}

TEST(ZnThread, UnwindsItsParkedFibersWhenItEnds) {
    const auto unwound = std::make_shared<int>(0);
    std::counting_semaphore<> parked{0};
    auto* sender = new ZnObject;
    ZnThread thread("thread");
    ASSERT_TRUE(thread.start());
    for (const bool isStubborn : {false, true})
        postToThread(&thread.handle(), [&parked, unwound, sender, isStubborn] {
            const auto token = isStubborn ? nullptr : unwound;
            ZnObject receiver;               // its connection must not outlive the stack
            static ZnPointer<ZnObject> kept; // what the dropped one has allocated is no leak
            kept = &receiver;
            sender->connect(
                &ZnObject::destroyed, &receiver, [&receiver] { receiver.setObjectName("told"); },
                ZnConnectionType::DirectConnection);
            parked.release();
            do
                ZnCoreApplication::instance()->fiberPool().yieldCurrent(nextFiberWaitId());
            while (isStubborn);
        });
    for (int i = 0; i < 2; ++i)
        ASSERT_TRUE(parked.try_acquire_for(kLong));
    thread.quit();
    thread.wait();
    EXPECT_EQ(unwound.use_count(), 1);
    delete sender; // the receiver of the dropped stack is not told
}

TEST(ZnThread, IsEndedByItsDestructorAlsoWhenSaturated) {
    std::counting_semaphore<> prepared{0};
    const auto token = std::make_shared<int>(0);
    auto* thread = new ZnThread("thread");
    ASSERT_TRUE(thread->start());
    postToThread(&thread->handle(), [&prepared, token] {
        ZnCoreApplication& application = *ZnCoreApplication::instance();
        ZnTask parked;
        do {
            parked = ZnTask([&application, token] { application.fiberPool().yieldCurrent(nextFiberWaitId()); });
        } while (application.post(parked, {.lane = 0, .whenFull = ZnPostOptions::WhenFull::RefuseInSilence}));
        parked.reset(); // what lies on a dropped fiber's stack is not destroyed
        prepared.release();
        application.fiberPool().yieldCurrent(nextFiberWaitId()); // leaves no room for the request to stop
    });
    ASSERT_TRUE(prepared.try_acquire_for(kLong));
    delete thread;
    EXPECT_EQ(token.use_count(), 1);
}

} // namespace
