#include "core/runtime/ZnIoDispatcher.h"

#include "core/runtime/ZnEventLoop.h"
#include "support/LogCapture.h"
#include "support/LoopFixture.h"
#include "support/TestEvent.h"

#include <stdexcept>
#include <thread>

namespace {

class ZnIoDispatcherTest : public LoopFixture {
protected:
    ZnIoDispatcher& dispatcher_ = application_.ioDispatcher();
    const std::shared_ptr<TestEvent> handle_ = std::make_shared<TestEvent>();
    int calls_ = 0;
};

TEST_F(ZnIoDispatcherTest, SignalsMergeAndOneDuringAParkedCallbackLeadsToOneMoreRound) {
    ZnEventLoop gate;
    dispatcher_.watchHandle(handle_, [&](unsigned mask) {
        EXPECT_EQ(mask, 1U);
        if (++calls_ == 1)
            gate.exec();
    });
    handle_->set();
    handle_->set();
    ASSERT_TRUE(runUntil([&] { return parkedCount() == 1; }));
    handle_->set();
    settle();
    EXPECT_EQ(calls_, 1);
    gate.quit();
    EXPECT_TRUE(runUntil([&] { return calls_ == 2; }));
    settle();
    EXPECT_EQ(calls_, 2);
}

TEST_F(ZnIoDispatcherTest, NoSignalFromAnotherThreadIsLost) {
    constexpr int kSignals = 200000;
    std::atomic<int> announced{0};
    std::atomic<int> seen{0};
    const unsigned long long id = dispatcher_.watchHandle(handle_, [&](unsigned) { seen = announced.load(); });
    std::thread signaller([&] {
        for (int i = 1; i <= kSignals; ++i) {
            announced = i;
            dispatcher_.signal(id);
            while (i % 64 == 0 && seen != i && announced >= 0)
                std::this_thread::yield();
        }
    });
    EXPECT_TRUE(runUntil([&] { return seen == kSignals; }, 60000));
    announced = -1; // ends a signaller that waits in vain
    signaller.join();
}

TEST_F(ZnIoDispatcherTest, AThrowingCallbackIsCalledAgain) {
    LogCapture log;
    dispatcher_.watchHandle(handle_, [&](unsigned) {
        if (++calls_ == 1)
            throw std::runtime_error("slot");
    });
    for (int round = 1; round <= 2; ++round) {
        handle_->set();
        EXPECT_TRUE(runUntil([&] { return calls_ == round; }));
    }
}

TEST_F(ZnIoDispatcherTest, UnwatchKeepsAQueuedCallbackFromRunning) {
    const unsigned long long id = dispatcher_.watchHandle(handle_, [&](unsigned) { ++calls_; });
    dispatcher_.signal(id);
    dispatcher_.unwatch(id);
    settle();
    EXPECT_EQ(calls_, 0);
}

TEST_F(ZnIoDispatcherTest, ARefusedPostIsMadeAgainWhenThereIsRoom) {
    const unsigned long long id = dispatcher_.watchHandle(handle_, [&](unsigned) { ++calls_; });
    LogCapture log;
    while (application_.postEvent([] {})) {
    }
    dispatcher_.signal(id); // no room for it now
    EXPECT_TRUE(runUntil([&] { return calls_ == 1; }));
}

} // namespace
