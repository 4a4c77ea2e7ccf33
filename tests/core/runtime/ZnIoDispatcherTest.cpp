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

TEST_F(ZnIoDispatcherTest, RefusesWhatCannotBeWatched) {
    EXPECT_EQ(dispatcher().watchHandle(nullptr, [](unsigned) {}), 0U);
    EXPECT_EQ(dispatcher().watchHandle(std::make_shared<EventHandle>(), nullptr), 0U);
    dispatcher().unwatch(0);
    dispatcher().unwatch(4711);
}

TEST_F(ZnIoDispatcherTest, SignalsMergeAndOneDuringTheCallbackLeadsToAnotherRound) {
    const auto handle = std::make_shared<EventHandle>();
    int calls = 0;
    unsigned long long id = 0;
    id = dispatcher().watchHandle(handle, [&](unsigned mask) {
        EXPECT_EQ(mask, 1U);
        if (++calls == 1)
            handle->set();
    });
    ASSERT_NE(id, 0U);
    handle->set();
    handle->set();
    ASSERT_TRUE(runUntil([&] { return calls == 2; }));
    settle();
    EXPECT_EQ(calls, 2);
    dispatcher().unwatch(id);
}

TEST_F(ZnIoDispatcherTest, AParkedCallbackIsTheOnlyOneOfItsHandle) {
    const auto handle = std::make_shared<EventHandle>();
    ZnEventLoop gate;
    int running = 0;
    int calls = 0;
    const unsigned long long id = dispatcher().watchHandle(handle, [&](unsigned) {
        ++calls;
        EXPECT_EQ(++running, 1);
        if (calls == 1)
            gate.exec();
        --running;
    });
    handle->set();
    ASSERT_TRUE(runUntil([&] { return parkedCount() == 1; }));
    handle->set();
    settle();
    EXPECT_EQ(calls, 1);
    gate.quit();
    EXPECT_TRUE(runUntil([&] { return calls == 2; }));
    dispatcher().unwatch(id);
}

TEST_F(ZnIoDispatcherTest, AThrowingCallbackIsCalledAgain) {
    LogCapture log;
    const auto handle = std::make_shared<EventHandle>();
    int calls = 0;
    const unsigned long long id = dispatcher().watchHandle(handle, [&](unsigned) {
        if (++calls == 1)
            throw std::runtime_error("slot");
    });
    handle->set();
    ASSERT_TRUE(runUntil([&] { return calls == 1; }));
    handle->set();
    EXPECT_TRUE(runUntil([&] { return calls == 2; }));
    dispatcher().unwatch(id);
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
    std::vector<std::shared_ptr<EventHandle>> handles;
    std::vector<unsigned long long> ids;
    int calls = 0;
    for (int i = 0; i < kHandles; ++i) {
        handles.push_back(std::make_shared<EventHandle>());
        ids.push_back(dispatcher().watchHandle(handles.back(), [&](unsigned) { ++calls; }));
        handles.back()->set();
    }
    EXPECT_TRUE(runUntil([&] { return calls == kHandles; }, 60000));
    for (const unsigned long long id : ids)
        dispatcher().unwatch(id);
    EXPECT_EQ(log.countOf(""), 0);
}

TEST_F(ZnIoDispatcherTest, ARefusedPostIsMadeAgainWhenThereIsRoom) {
    const auto handle = std::make_shared<EventHandle>();
    int calls = 0;
    const unsigned long long id = dispatcher().watchHandle(handle, [&](unsigned) { ++calls; });
    int fillers = 0;
    ZnTask filler([] {});
    while (application_.tryPostOnLane(filler, 2)) {
        ++fillers;
        filler = ZnTask([] {});
    }
    EXPECT_EQ(fillers, 500);
    dispatcher().signal(id); // no room for it now
    EXPECT_TRUE(runUntil([&] { return calls == 1; }));
    dispatcher().unwatch(id);
}

} // namespace
