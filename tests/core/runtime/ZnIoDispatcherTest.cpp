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
    ZnIoDispatcher& dispatcher() { return application_.ioDispatcher(); }
};

TEST_F(ZnIoDispatcherTest, SignalsMergeAndOneDuringAParkedCallbackLeadsToOneMoreRound) {
    const auto handle = std::make_shared<EventHandle>();
    ZnEventLoop gate;
    int calls = 0;
    dispatcher().watchHandle(handle, [&](unsigned mask) {
        EXPECT_EQ(mask, 1U);
        if (++calls == 1)
            gate.exec();
    });
    handle->set();
    handle->set();
    ASSERT_TRUE(runUntil([&] { return parkedCount() == 1; }));
    handle->set();
    settle();
    EXPECT_EQ(calls, 1);
    gate.quit();
    EXPECT_TRUE(runUntil([&] { return calls == 2; }));
    settle();
    EXPECT_EQ(calls, 2);
}

TEST_F(ZnIoDispatcherTest, AThrowingCallbackIsCalledAgain) {
    LogCapture log;
    const auto handle = std::make_shared<EventHandle>();
    int calls = 0;
    dispatcher().watchHandle(handle, [&](unsigned) {
        if (++calls == 1)
            throw std::runtime_error("slot");
    });
    handle->set();
    ASSERT_TRUE(runUntil([&] { return calls == 1; }));
    handle->set();
    EXPECT_TRUE(runUntil([&] { return calls == 2; }));
}

TEST_F(ZnIoDispatcherTest, UnwatchKeepsAQueuedCallbackFromRunning) {
    const auto handle = std::make_shared<EventHandle>();
    int calls = 0;
    const unsigned long long id = dispatcher().watchHandle(handle, [&](unsigned) { ++calls; });
    dispatcher().signal(id);
    dispatcher().unwatch(id);
    settle();
    EXPECT_EQ(calls, 0);
}

TEST_F(ZnIoDispatcherTest, ThousandsReadyAtOnceAreAllServedWithoutALine) {
    LogCapture log;
    constexpr int kHandles = 3000;
    int calls = 0;
    for (int i = 0; i < kHandles; ++i) {
        const auto handle = std::make_shared<EventHandle>();
        dispatcher().watchHandle(handle, [&](unsigned) { ++calls; });
        handle->set();
    }
    EXPECT_TRUE(runUntil([&] { return calls == kHandles; }, 60000));
    EXPECT_EQ(log.countOf(""), 0);
}

TEST_F(ZnIoDispatcherTest, ARefusedPostIsMadeAgainWhenThereIsRoom) {
    const auto handle = std::make_shared<EventHandle>();
    int calls = 0;
    const unsigned long long id = dispatcher().watchHandle(handle, [&](unsigned) { ++calls; });
    LogCapture log;
    while (application_.postEvent([] {})) {
    }
    dispatcher().signal(id); // no room for it now
    EXPECT_TRUE(runUntil([&] { return calls == 1; }));
}

} // namespace
