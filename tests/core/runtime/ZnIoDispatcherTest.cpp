#include "core/runtime/ZnIoDispatcher.h"

#include "core/runtime/ZnEventLoop.h"
#include "support/LogCapture.h"
#include "support/LoopFixture.h"

#include <stdexcept>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

namespace {

/// An event that any thread may signal.
class EventHandle : public ZnWaitHandle {
public:
    EventHandle() : ZnWaitHandle(ZnFileDescriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))) {}
    void set() {
        const std::uint64_t one = 1;
        ASSERT_EQ(::write(descriptor(), &one, sizeof(one)), static_cast<ssize_t>(sizeof(one)));
    }
    bool noteReady(std::uint32_t readiness) override { return (readiness & ZnReadiness::kInput) != 0; }
};

class ZnIoDispatcherTest : public LoopFixture {
protected:
    ZnIoDispatcher& dispatcher_ = application_.ioDispatcher();
    const std::shared_ptr<EventHandle> handle_ = std::make_shared<EventHandle>();
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
