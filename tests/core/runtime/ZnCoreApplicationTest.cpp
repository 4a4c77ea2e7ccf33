#include "core/runtime/ZnCoreApplication.h"

#include "core/object/ZnObject.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/runtime/ZnTimer.h"
#include "core/runtime/ZnWait.h"
#include "support/LogCapture.h"
#include "support/LoopFixture.h"
#include "support/TestEvent.h"

#include <stdexcept>
#include <thread>
#include <vector>

namespace {

class ZnCoreApplicationTest : public LoopFixture {};

TEST(ZnCoreApplicationOptions, FormsOfTheCommandLine) {
    std::vector<std::string> arguments = {"program", "stray", "--a=1",  "--b", "2",       "more",     "words",
                                          "-n",      "v",     "--flag", "-x",  "--a=x=y", "--empty=", "--last"};
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    const ZnCoreApplication application(static_cast<int>(argv.size()), argv.data());
    constexpr const char* kRows[][2] = {{"a", "x=y"}, {"b", "2 more words"}, {"n", "v"},   {"flag", ""},
                                        {"x", ""},    {"empty", ""},         {"last", ""}, {"stray", "default"}};
    for (const auto& [name, value] : kRows)
        EXPECT_EQ(application.getArgument(name, "default"), value) << name;
}

TEST_F(ZnCoreApplicationTest, QuitFromAnotherThreadEndsASleepingLoop) {
    std::thread other([&] { application_.quit(); });
    EXPECT_EQ(application_.exec(), 0);
    other.join();
    EXPECT_EQ(application_.exec(), 0); // at once: it cannot be taken back
}

TEST_F(ZnCoreApplicationTest, ACancelledTimerWhoseClosureIsQueuedDoesNotFire) {
    bool fired = false;
    int victim = 0;
    application_.addTimer([&] { application_.removeTimer(victim); }, 1, true, 1);
    victim = application_.addTimer([&] { fired = true; }, 1, true, 3);
    std::this_thread::sleep_for(std::chrono::milliseconds(1)); // both are due in the same pass
    settle();
    EXPECT_FALSE(fired);
}

TEST_F(ZnCoreApplicationTest, ABurstOfTimersBeyondThePoolFiresCompletelyAndQuietly) {
    LogCapture log;
    constexpr int kTimers = 10000;
    std::vector<int> order;
    for (int i = 0; i < kTimers; ++i)
        application_.addTimer([&order, i] { order.push_back(i); }, 1, true, 2);
    ASSERT_TRUE(runUntil([&] { return order.size() == kTimers; }, 60000));
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_EQ(log.countOf(""), 0);
}

TEST_F(ZnCoreApplicationTest, WakeUpsComeHoweverManyFibersAreParked) {
    constexpr int kWaiters = 1200;
    int wokenCount = 0;
    std::function<void()> postMore = [&, posted = 0]() mutable {
        while (posted < kWaiters && application_.postEvent([&] {
            sleepFor(200);
            ++wokenCount;
        }))
            ++posted;
    };
    ASSERT_TRUE(runUntil([&] {
        postMore();
        return parkedCount() == kWaiters || wokenCount > 0;
    }));
    settle(100);
    EXPECT_LT(application_.load(), 0.9); // no spinning
    ASSERT_TRUE(runUntil([&] { return wokenCount == kWaiters; }));
}

TEST_F(ZnCoreApplicationTest, ReadinessIsSeenEveryMillisecondOfWork) {
    const auto event = std::make_shared<TestEvent>();
    bool isReady = false;
    bool wasSeen = false;
    int roundsUntilSeen = 0;
    application_.ioDispatcher().watchHandle(event, [&](unsigned) { wasSeen = true; });
    std::function<void()> busy = [&] {
        const long long untilNs = monotonicNowNs() + 500000;
        while (monotonicNowNs() < untilNs) {
        }
        if (!std::exchange(isReady, true))
            event->set();
        if (!wasSeen && ++roundsUntilSeen < 1000)
            application_.postEvent(busy);
    };
    application_.postEvent(busy);
    application_.postEvent(busy); // the queue is never empty
    ASSERT_TRUE(runUntil([&] { return wasSeen; }));
    EXPECT_LT(roundsUntilSeen, 20);
}

TEST_F(ZnCoreApplicationTest, ASingleShotWhoseFunctionThrowsLetsGoOfIt) {
    LogCapture log;
    const auto token = std::make_shared<int>(1);
    ZnTimer::singleShot(0, [token] { throw std::runtime_error("boom"); });
    EXPECT_TRUE(runUntil([&] { return token.use_count() == 1; }));
}

TEST_F(ZnCoreApplicationTest, NestedWaitsAndTheirEdges) {
    auto* doomed = new ZnEventLoop;
    runOnFiber([&] {
        ZnEventLoop loop;
        loop.quit(); // before exec: no effect
        EXPECT_EQ(loop.exec(1), 0);
        ZnTimer::singleShot(0, [&] {
            EXPECT_EQ(loop.exec(), -1); // already running
            loop.quit();
        });
        EXPECT_EQ(loop.exec(), 0);
        ZnTimer::singleShot(0, [&] { delete doomed; });
        doomed->exec(); // its end resumes the waiter
    });
}

TEST_F(ZnCoreApplicationTest, AWaitForASignalEndsWithItOrWithItsHopes) {
    struct Row {
        const char* name;
        int maxMs;
        std::function<void(ZnTimer*&)> act;
        bool hasCome;
    };
    const Row rows[] = {
        {"signal", -1, [](ZnTimer*& sender) { sender->timeout(); }, true},
        {"deadline", 0, [](ZnTimer*&) {}, false},
        {"end of the sender", -1, [](ZnTimer*& sender) { delete std::exchange(sender, nullptr); }, false},
        {"end of all waits", -1, [this](ZnTimer*&) { EXPECT_TRUE(application_.endWaits(5000)); }, false}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        auto* sender = new ZnTimer;
        int endedCount = 0;
        application_.postEvent([&] {
            EXPECT_EQ(waitFor(sender, &ZnTimer::timeout, row.maxMs), row.hasCome);
            ++endedCount;
        });
        ASSERT_TRUE(runUntil([&] { return parkedCount() == 1; }));
        row.act(sender);
        EXPECT_TRUE(runUntil([&] { return endedCount == 1; }));
        delete sender;
    }
    EXPECT_FALSE(sleepFor(1)); // no fiber
    const long long startNs = monotonicNowNs();
    runOnFiber([] { EXPECT_TRUE(sleepFor(20)); });
    EXPECT_GE(monotonicNowNs() - startNs, 20000000);
}

TEST_F(ZnCoreApplicationTest, AnOrderlyEndUnwindsWhatIsParked) {
    auto token = std::make_shared<int>(1);
    for (int i = 0; i < 20; ++i)
        application_.postEvent([token] {
            ZnEventLoop().exec();
            EXPECT_EQ(ZnEventLoop().exec(), -1); // no new wait begins
        });
    ASSERT_TRUE(runUntil([&] { return parkedCount() == 20; }));
    EXPECT_TRUE(application_.endWaits(5000));
    EXPECT_EQ(token.use_count(), 1);
}

TEST_F(ZnCoreApplicationTest, TimersKeepTheirPhaseAndDoNotStackUp) {
    ZnTimer timer(1, nullptr);
    int fired = 0;
    ZnEventLoop gate;
    timer.connect(&ZnTimer::timeout, [&] {
        if (++fired == 1)
            gate.exec(); // a long callback: one more firing at most waits
    });
    timer.start();
    timer.start(100000); // active: keeps its interval
    ASSERT_TRUE(runUntil([&] { return fired >= 3; }));
    EXPECT_TRUE(timer.isActive());
    timer.stop();
    gate.quit();
    const int atStop = fired;
    settle();
    EXPECT_EQ(fired, atStop);
}

TEST_F(ZnCoreApplicationTest, ATimerMayBeDeletedByItsOwnSlot) {
    const ZnPointer<ZnTimer> timer(new ZnTimer(1, nullptr));
    timer->connect(&ZnTimer::timeout, [&] { delete timer.get(); });
    timer->start();
    EXPECT_TRUE(runUntil([&] { return !timer; }));
}

TEST_F(ZnCoreApplicationTest, APostEndsAsItsOptionsSay) {
    using WhenFull = ZnPostOptions::WhenFull;
    enum Target { Full, NotRunning, Null };
    struct Row {
        Target target;
        ZnPostOptions options;
        ZnPostResult result;
        const char* runs = "";
        int toldCount = 0;
    };
    const Row rows[] = {
        {Full, {}, ZnPostResult::Full, "", 1},
        {Full, {.whenFull = WhenFull::RefuseInSilence}, ZnPostResult::Full},
        {Full, {.whenFull = WhenFull::Wait}, ZnPostResult::Queued, "here"},
        {NotRunning, {}, ZnPostResult::Kept, "late"},
        {NotRunning, {.whenNotRunning = ZnPostOptions::WhenNotRunning::Refuse}, ZnPostResult::NotRunning},
        {Null, {.whenGone = ZnPostOptions::WhenGone::UseFallback}, ZnPostResult::Queued, "here"}};
    zn::atomic::Thread* const here = zn::atomic::Thread::currentThread();
    for (const Row& row : rows) {
        SCOPED_TRACE(&row - rows);
        LogCapture log;
        ZnString order;
        zn::atomic::Thread late("late");
        zn::atomic::Thread* const targets[] = {here, &late, nullptr};
        while (row.target == Full && application_.fiberPool().canAccept(2))
            application_.postEvent([] {});
        ZnTask task([&] { order += zn::atomic::Thread::currentThread() == here ? "here" : "late"; });
        EXPECT_EQ(postTask(targets[row.target], task, row.options), row.result);
        EXPECT_EQ(static_cast<bool>(task), row.result >= ZnPostResult::Full);
        settle();
        EXPECT_FALSE(postToThread(&late, [&] {
            order += "!"; // after what was kept before
            ZnCoreApplication::instance()->quit();
        }));
        EXPECT_TRUE(late.start());
        late.join();
        EXPECT_EQ(order, ZnString(row.runs) + "!");
        EXPECT_EQ(log.countOf("saturated"), row.toldCount);
    }
}

} // namespace
