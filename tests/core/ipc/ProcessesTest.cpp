// Several processes with a signal between them. This one has no threads, so that it may fork; those that need a loop
// make it after the fork.

#include "core/ipc/Channel.h"
#include "core/ipc/IpcFixture.h"
#include "core/ipc/SignalBlock.h"
#include "core/ipc/SubscribersRegistryTable.h"
#include "core/ipc/Subscription.h"
#include "core/platform/ZnProcess.h"
#include "core/runtime/ZnCoreApplication.h"
#include "support/TestProgram.h"

#include <cstddef>
#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <memory>
#include <sys/prctl.h>
#include <sys/syscall.h>

namespace {

using namespace zn::ipc;
using namespace zn::ipc::detail;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr int kDeadlineMs = 30000;

class IpcProcesses : public ::testing::Test {
protected:
    /// Children that are killed, or leave without ceremony, leave objects behind.
    ~IpcProcesses() override {
        for (const std::string& name : sharedObjects(domain_))
            ::shm_unlink(("/" + name).c_str());
        ZnSharedMemory::removeUnused(dispatchTablePrefix(), nameSuffix());
    }

    std::vector<std::uint32_t> pids() {
        std::vector<std::uint32_t> pids;
        listSubscriberPids(domain_, "o", "s", pids);
        return pids;
    }
    std::shared_ptr<SignalBlock> openBlock() { return SignalBlock::open(domain_, "o", "s", &error_); }
    std::unique_ptr<Channel> openChannel() { return Channel::open(domain_, "o", "s", &error_); }
    std::unique_ptr<Subscription> subscribe(Subscription::Callback callback) {
        return Subscription::subscribe(domain_, "o", "s", "", std::move(callback), &error_);
    }
    /// A body that listens until it has seen the publication of this number: 0 then, and when all it saw was in order.
    Child::Body listenerUntil(std::uint64_t last) {
        return [this, last](const std::function<void()>& tell) {
            ZnCoreApplication application;
            std::uint64_t seen = 0;
            bool isInOrder = true;
            const auto subscription = subscribe([&](const SignalValue& value) {
                isInOrder = isInOrder && value.sequence > seen && value.second == ~value.first;
                seen = value.sequence;
            });
            tell();
            return application.processUntil([&] { return seen == last; }, kDeadlineMs) && isInOrder ? 0 : 1;
        };
    }
    /// Children that stand still, or die, with a mutex in hand.
    Child::Body registryHolder(int signalNumber) {
        return [this, signalNumber](const auto&) {
            RegistryTable::open(domain_)->withTable(1000, [&](RegistryTable&) { ::kill(::getpid(), signalNumber); });
            return 0;
        };
    }
    Child::Body channelHolder(
        int signalNumber, std::function<void()> writeFirst = [] {}) {
        return [this, signalNumber, writeFirst](const auto&) {
            openBlock()->publish(1000, [&] {
                writeFirst();
                ::kill(::getpid(), signalNumber);
                return std::optional<SignalValue>();
            });
            return 0;
        };
    }

    const ZnString domain_ = testDomain();
    ZnString error_;
};

TEST_F(IpcProcesses, ManyPublishersAndListenersLoseNothing) {
    constexpr int kProcesses = 4;
    constexpr std::uint64_t kEach = 500;
    std::vector<std::unique_ptr<Child>> children;
    for (int index = 0; index < kProcesses; ++index) {
        children.push_back(std::make_unique<Child>(listenerUntil(kProcesses * kEach)));
        ASSERT_TRUE(children.back()->awaitTold());
    }
    for (int index = 0; index < kProcesses; ++index)
        children.push_back(std::make_unique<Child>([&](const auto&) {
            ZnCoreApplication application;
            const auto channel = openChannel();
            for (std::uint64_t number = 0; number < kEach; ++number) {
                // One that waits its turn for longer than the bound says it later, and only the latest: here each
                // counts.
                channel->publish(number, ~number);
                if (!application.processUntil([&] { return !channel->hasUnsaid(); }, kDeadlineMs))
                    return 1;
            }
            return 0;
        }));
    for (const auto& child : children)
        EXPECT_EQ(child->end(), 0);
}

TEST_F(IpcProcesses, OneThatDiesWithAMutexStopsNobody) {
    Child listener(listenerUntil(2));
    ASSERT_TRUE(listener.awaitTold());
    Child([&](const auto&) { return openChannel()->publish(1, ~1ULL), 0; }).end();
    EXPECT_EQ(Child(registryHolder(SIGKILL)).end(), -SIGKILL);
    EXPECT_EQ(Child(channelHolder(SIGKILL)).end(), -SIGKILL);
    openChannel()->publish(2, ~2ULL);
    EXPECT_EQ(listener.end(), 0);
}

TEST_F(IpcProcesses, WhoComesNextFinishesAPublicationThatWasBegun) {
    const auto block = openBlock();
    RawObject raw(signalBlockName(domain_, "o", "s"));
    const auto diesHalfWay = [&](std::uint64_t draftSequence) {
        const auto writeDraft = [&raw, draftSequence] {
            raw.set<std::uint64_t>(44, 5); // the values once more, behind the pair
            raw.set<std::uint64_t>(52, 6);
            raw.set<std::uint64_t>(60, draftSequence); // and their number
            raw.set<std::uint64_t>(28, draftSequence == 1 ? 5 : 0);
        };
        return Child(channelHolder(SIGKILL, writeDraft)).end();
    };
    SignalValue value;
    EXPECT_EQ(diesHalfWay(0), -SIGKILL); // before the draft was whole: nothing has happened
    EXPECT_TRUE(block->read(1000, &value) && value.sequence == 0 && value.second == 0);
    EXPECT_EQ(diesHalfWay(1), -SIGKILL);
    EXPECT_TRUE(block->read(1000, &value) && value.sequence == 1 && value.first == 5 && value.second == 6);
}

/// With another process standing still in the middle, a loop goes on, and what it could not do is done when the other
/// one goes on.
class IpcStandstill : public IpcProcesses {
protected:
    void expectPublicationAfter(const Child::Body& holderBody, std::uint64_t lastSequence) {
        Child listener(listenerUntil(lastSequence));
        ASSERT_TRUE(listener.awaitTold());
        Child stopped(holderBody);
        stopped.awaitStop();
        Child publisher([&](const auto& tell) {
            ZnCoreApplication application;
            const auto channel = openChannel();
            channel->publish(1, ~1ULL);
            channel->publish(2, ~2ULL);
            if (!channel->hasUnsaid())
                return 1;
            int rounds = 0; // the loop turns, and the retries do not get through
            application.addTimer([&] { ++rounds; }, 30000, false, 2);
            application.processUntil([&] { return rounds == 3; }, kDeadlineMs);
            if (rounds < 3 || !channel->hasUnsaid())
                return 2;
            tell();
            return application.processUntil([&] { return !channel->hasUnsaid(); }, kDeadlineMs) ? 0 : 3;
        });
        EXPECT_TRUE(publisher.awaitTold());
        stopped.signal(SIGCONT);
        EXPECT_EQ(publisher.end(), 0);
        EXPECT_EQ(stopped.end(), 0);
        EXPECT_EQ(listener.end(), 0);
    }
};

TEST_F(IpcStandstill, WithTheChannelsMutex) {
    expectPublicationAfter(channelHolder(SIGSTOP), 1); // the latest of two, once
}

TEST_F(IpcStandstill, WithTheRegistrysMutex) {
    expectPublicationAfter(registryHolder(SIGSTOP), 2);
}

TEST_F(IpcStandstill, ASubscriberIsRegisteredLater) {
    Child inRegistry(registryHolder(SIGSTOP));
    inRegistry.awaitStop();
    Child listener([&](const auto& tell) {
        ZnCoreApplication application;
        std::uint64_t seen = 0;
        const auto subscription = subscribe([&](const SignalValue& value) { seen = value.first; });
        if (!subscription || subscription->isRegistered())
            return 1;
        tell();
        if (!application.processUntil([&] { return subscription->isRegistered(); }, kDeadlineMs))
            return 2;
        tell();
        return application.processUntil([&] { return seen == 7; }, kDeadlineMs) ? 0 : 3;
    });
    EXPECT_TRUE(listener.awaitTold());
    inRegistry.signal(SIGCONT);
    EXPECT_TRUE(listener.awaitTold());
    EXPECT_THAT(pids(), ElementsAre(listener.pid()));
    openChannel()->publish(7, 0);
    EXPECT_EQ(listener.end(), 0);
}

TEST_F(IpcProcesses, APublicationWithoutListenersCostsNoSystemCall) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "a sanitizer has system calls of its own";
#endif
    sock_filter onlyTheEnd[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
    };
    const sock_fprog filter = {static_cast<unsigned short>(std::size(onlyTheEnd)), onlyTheEnd};
    const auto publishThenCall = [&](bool callsAtTheEnd) {
        return Child([&](const auto&) {
                   const auto channel = openChannel();
                   channel->publish(0, 0); // opens the registry
                   if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
                       ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
                       return 1;
                   for (std::uint64_t number = 0; number < 1000; ++number)
                       channel->publish(number, number);
                   if (callsAtTheEnd)
                       ::getppid();
                   ::_exit(0); // the channel's end would be the next call
                   return 1;
               })
            .end();
    };
    EXPECT_EQ(publishThenCall(false), 0);
    EXPECT_EQ(publishThenCall(true), -SIGSYS); // any call ends it
    EXPECT_EQ(openBlock()->sequence(), 2002U);
}

TEST_F(IpcProcesses, NothingIsLeftBehindInOrderAndWhatACrashLeavesIsTakenOver) {
    const std::vector<std::string> address = {domain_.str(), "o", "s"};
    const auto program = [&](std::vector<std::string> arguments, const char* command) {
        arguments.insert(arguments.begin(), command);
        return std::make_unique<TestProgram>(IPC_SIGNAL_PROGRAM, arguments);
    };
    const auto publish = [&] { return program({domain_.str(), "o", "s", "4", "2"}, "publish")->exitCode(); };
    const auto killed = program(address, "listen");
    EXPECT_THAT(killed->readLine(), ::testing::StartsWith("listening as process "));
    EXPECT_EQ(publish(), 0);
    EXPECT_EQ(killed->readLine(), "signal 1: 4 2");
    killed->exitCode(SIGKILL);
    EXPECT_THAT(sharedObjects(domain_), SizeIs(4)); // registry, signal block, and a mutex for each

    const auto listener = program(address, "listen");
    const ZnString pid = ZnString(listener->readLine()).mid(static_cast<int>(std::strlen("listening as process ")));
    EXPECT_EQ(publish(), 0);
    EXPECT_EQ(listener->readLine(), "signal 2: 4 2");
    const auto lister = program({domain_.str()}, "list");
    EXPECT_THAT(lister->readLine(),
                ::testing::MatchesRegex("pid " + pid.str() + ", last seen [0-9]+ ms ago, 1 of o s"));
    EXPECT_EQ(lister->restOfOutput(), "");
    EXPECT_EQ(lister->exitCode(), 0);
    EXPECT_EQ(listener->exitCode(SIGTERM), 0);
    EXPECT_THAT(sharedObjects(domain_), IsEmpty());
    EXPECT_THAT(sharedObjects(dispatchTablePrefix().mid(1) + pid + "_"), IsEmpty());
    EXPECT_EQ(program({domain_.str(), "o"}, "listen")->exitCode(), 2);
}

} // namespace
