#include "core/ipc/Channel.h"
#include "core/ipc/DispatchTable.h"
#include "core/ipc/Dispatcher.h"
#include "core/ipc/IpcFixture.h"
#include "core/ipc/SignalBlock.h"
#include "core/ipc/SubscribersRegistryTable.h"
#include "core/ipc/Subscription.h"
#include "core/platform/ZnNotifySocket.h"
#include "core/platform/ZnProcess.h"
#include "core/runtime/ZnEventLoop.h"
#include "core/runtime/ZnThread.h"
#include "support/LogCapture.h"
#include "support/LoopFixture.h"
#include "support/OnThreads.h"

#include <atomic>
#include <gmock/gmock.h>
#include <thread>

namespace {

using namespace zn::ipc;
using namespace zn::ipc::detail;
using ::testing::ElementsAre;

class IpcSignal : public LoopFixture {
protected:
    /// Sooner than a heartbeat, which finds in the end what got lost on the way.
    static constexpr int kSoonMs = 4000;

    std::unique_ptr<Channel> openChannel() {
        auto channel = Channel::open(domain_, "o", "s", &error_);
        EXPECT_TRUE(channel) << error_.str();
        return channel;
    }
    std::unique_ptr<Subscription> subscribe(Subscription::Callback callback, const ZnString& name = "") {
        auto subscription = Subscription::subscribe(domain_, "o", "s", name, std::move(callback), &error_);
        EXPECT_TRUE(subscription) << error_.str();
        return subscription;
    }
    std::unique_ptr<Subscription> listen(const ZnString& name = "") {
        return subscribe([this](const SignalValue& value) { values_.push_back(value.first * 10 + value.second); },
                         name);
    }

    const ZnString domain_ = testDomain();
    ZnString error_;
    std::vector<std::uint64_t> values_;
};

TEST_F(IpcSignal, WhoListensLearnsTheLatestAndNothingFromBefore) {
    const auto channel = openChannel();
    channel->publish(1, 1);
    const auto first = listen();
    auto second = listen(); // the same id
    auto third = listen("third");
    channel->publish(1, 2);
    channel->publish(1, 3);
    ASSERT_TRUE(runUntil([&] { return values_.size() == 3; }, kSoonMs));
    settle();
    EXPECT_THAT(values_, ElementsAre(13, 13, 13));
    third.reset();
    second.reset();
    channel->publish(2, 0);
    ASSERT_TRUE(runUntil([&] { return values_.size() == 4; }));
    settle();
    EXPECT_THAT(values_, ElementsAre(13, 13, 13, 20));
}

TEST_F(IpcSignal, ACallbackThatParksIsNotCalledAgainMeanwhileAndHoldsUpNobody) {
    const auto channel = openChannel();
    ZnEventLoop gate;
    const auto parking = subscribe(
        [&](const SignalValue& value) {
            values_.push_back(value.first);
            if (values_.size() == 1)
                gate.exec();
        },
        "parking");
    std::uint64_t seenByOther = 0;
    const auto other = subscribe([&](const SignalValue& value) { seenByOther = value.first; }, "other");
    for (std::uint64_t number = 1; number <= 3; ++number) {
        channel->publish(number, 0);
        ASSERT_TRUE(runUntil([&] { return seenByOther == number && !values_.empty(); }));
    }
    EXPECT_THAT(values_, ElementsAre(1));
    gate.quit();
    EXPECT_TRUE(runUntil([&] { return values_.size() == 2; }));
    EXPECT_THAT(values_, ElementsAre(1, 3));
}

TEST_F(IpcSignal, ACallbackMayEndItsSubscriptionAndWhatIsOnItsWayIsDropped) {
    const auto channel = openChannel();
    std::unique_ptr<Subscription> subscription;
    subscription = subscribe([&](const SignalValue&) {
        ++values_.emplace_back();
        channel->publish(2, 0);
        subscription.reset();
    });
    channel->publish(1, 0);
    ASSERT_TRUE(runUntil([&] { return subscription == nullptr; }));
    settle();
    EXPECT_EQ(values_.size(), 1U);
    listen().reset();
    LogCapture log;
    const auto next = listen();
    EXPECT_EQ(log.countOf("is taken"), 0); // the name of the event is free again at once
    channel->publish(3, 0);
    EXPECT_TRUE(runUntil([&] { return values_.size() == 2; }));
}

TEST_F(IpcSignal, TextsThatFitNoRowAreRefused) {
    const ZnString longest(std::string(160, 's'));
    EXPECT_TRUE(Subscription::subscribe(
        domain_, "o", longest, "", [](const SignalValue&) {}, &error_));
    EXPECT_FALSE(Subscription::subscribe(
        domain_, "o", longest + "s", "", [](const SignalValue&) {}, &error_));
    EXPECT_FALSE(Channel::open(domain_, ZnString("a\0b", 3), "s", &error_));
    EXPECT_TRUE(error_.contains("object")) << error_.str();
}

TEST_F(IpcSignal, StrangersSetTheEventOnlyWhenTheyMayHaveKeptASignalOut) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can send as another user";
    const auto event = ZnNotifySocket::open();
    ASSERT_TRUE(event);
    const auto sendAs = [](uid_t user, int count) {
        const std::uint32_t target = ZnProcess::currentId();
        Child([&](const auto&) {
            // The name of the event is this user's; only the sender is another one.
            const int failed = ::setresuid(user, static_cast<uid_t>(-1), static_cast<uid_t>(-1));
            for (int index = 0; index < count; ++index)
                signalProcess(target);
            return failed;
        }).end();
    };
    bool hasMore = false;
    sendAs(65534, 1);
    EXPECT_FALSE(event->take(&hasMore));
    sendAs(65534, 10000);
    EXPECT_TRUE(event->take(&hasMore));
    sendAs(0, 1);
    EXPECT_TRUE(event->take(&hasMore));
    EXPECT_FALSE(event->take(&hasMore) || hasMore);
}

TEST_F(IpcSignal, WhatCannotBeReadNowIsReadLater) {
    const auto subscription = listen();
    RawObject raw(signalBlockName(domain_, "o", "s"));
    Child stopped([&](const auto&) {
        SignalBlock::open(domain_, "o", "s", &error_)->publish(1000, [&] {
            raw.set<std::uint64_t>(28, 7);
            raw.set<std::uint32_t>(24, 16);
            raw.set<std::uint64_t>(16, 1);
            ::kill(::getpid(), SIGSTOP);
            return std::optional<SignalValue>();
        });
        return 0;
    });
    stopped.awaitStop();
    signalProcess(ZnProcess::currentId());
    int rounds = 0;
    application_.addTimer([&] { ++rounds; }, 30000, false, ZnFiberPool::kDefaultLane);
    EXPECT_TRUE(runUntil([&] { return rounds == 3; }));
    EXPECT_TRUE(values_.empty());
    stopped.signal(SIGCONT);
    EXPECT_TRUE(runUntil([&] { return values_.size() == 1; }, kSoonMs));
    EXPECT_THAT(values_, ElementsAre(70));
}

TEST_F(IpcSignal, AHeartbeatBringsBackALostRowAndFindsWhatNobodyTold) {
    const auto subscription = listen();
    RawObject rows(registryName(domain_));
    rows.set<std::uint32_t>(8, 0);
    RawObject block(signalBlockName(domain_, "o", "s"));
    block.set<std::uint32_t>(24, 16);
    block.set<std::uint64_t>(28, 5);
    block.set<std::uint64_t>(16, 1); // by a publisher that has died before it told anyone
    EXPECT_TRUE(runUntil([&] { return !values_.empty(); }));
    EXPECT_THAT(values_, ElementsAre(50));
    EXPECT_EQ(rows.at<std::uint32_t>(8), 1U);
    EXPECT_EQ(rows.at<std::uint64_t>(16), subscription->id());
}

TEST_F(IpcSignal, WithoutTheEventAThreadWaits) {
    const auto squatter = ZnNotifySocket::open();
    const auto channel = openChannel();
    auto subscription = listen();
    for (std::uint64_t number = 1; number <= 100; ++number) {
        channel->publish(number, 0);
        ASSERT_TRUE(pollUntil([&] { return !values_.empty() && values_.back() == number * 10; }));
    }
    subscription.reset();
    EXPECT_EQ(RawObject(signalBlockName(domain_, "o", "s")).at<std::int32_t>(4124), 0); // nobody is said to sleep
}

TEST_F(IpcSignal, SubscriptionsOfSeveralThreadsOutliveEachOther) {
    const auto channel = openChannel();
    std::atomic<std::uint64_t> seenByThread{0};
    std::unique_ptr<Subscription> onThread;
    auto thread = std::make_unique<zn::atomic::Thread>("listener");
    ASSERT_TRUE(thread->start());
    const auto run = [&](std::function<void()> task) {
        std::atomic<bool> isDone{false};
        ASSERT_TRUE(postToThread(thread.get(), [&] { task(), isDone = true; }));
        ASSERT_TRUE(pollUntil([&] { return isDone.load(); }));
    };
    // The wait for notifications is on the thread first, and moves here with the end of its subscription.
    run([&] { onThread = subscribe([&](const SignalValue& value) { seenByThread = value.first; }, "thread"); });
    const auto here = listen("here");
    channel->publish(1, 0);
    EXPECT_TRUE(pollUntil([&] { return seenByThread == 1 && values_.size() == 1; }));
    run([&] { onThread.reset(); });
    thread.reset();
    channel->publish(2, 0);
    EXPECT_TRUE(runUntil([&] { return values_.size() == 2; }, kSoonMs));
    EXPECT_EQ(seenByThread, 1U);
}

TEST_F(IpcSignal, PublishersOnManyThreadsAreHeardToTheLast) {
    const auto channel = openChannel();
    const auto subscription = subscribe([&](const SignalValue& value) {
        EXPECT_EQ(value.first, value.second ^ 0x5555);
        values_.push_back(value.first);
    });
    std::atomic<bool> isDone{false};
    std::thread publishers([&] {
        onThreads(4, [&](int thread) {
            ZnString error;
            const auto own = Channel::open(domain_, "o", "s", &error);
            for (std::uint64_t number = 1; number <= 500; ++number)
                (thread % 2 == 0 ? *channel : *own).publish(number, number ^ 0x5555);
        });
        channel->publish(1000, 1000 ^ 0x5555);
        isDone = true;
    });
    EXPECT_TRUE(pollUntil([&] { return isDone && !values_.empty() && values_.back() == 1000; }));
    publishers.join();
}

} // namespace
