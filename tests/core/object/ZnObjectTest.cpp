#include "core/object/ZnObject.h"

#include "support/LogCapture.h"
#include "support/LoopFixture.h"
#include "support/OnThreads.h"

#include <future>
#include <memory>
#include <thread>

namespace {

class Sender : public ZnObject {
public:
    ZN_OBJECT(Sender, ZnObject)
    void changed(int value) { emitSignal(&Sender::changed, value); }
    void said(const ZnString& words) { emitSignal(&Sender::said, words); }
};

class Receiver : public ZnObject {
public:
    ZN_OBJECT(Receiver, ZnObject)
    using ZnObject::ZnObject;
    void take(int value) {
        values.push_back(value);
        lastSender = sender();
    }
    std::vector<int> values;
    ZnObject* lastSender = nullptr;
};

class ZnObjectTest : public LoopFixture {};

TEST_F(ZnObjectTest, ASlotMayDeleteSenderReceiverOrConnection) {
    auto* sender = new Sender;
    auto* doomed = new Receiver;
    Receiver dropped;
    Receiver last;
    int calls = 0;
    sender->connect(&Sender::changed, &last, [&] {
        delete doomed;
        sender->disconnectReceiver(&dropped);
        delete sender;
        ++calls;
    });
    sender->connect(&Sender::changed, doomed, &Receiver::take);
    sender->connect(&Sender::changed, &dropped, &Receiver::take);
    sender->connect(&Sender::changed, &last, [&] { ++calls; });
    sender->changed(1);
    EXPECT_EQ(calls, 2); // the emission went on without the sender
    EXPECT_TRUE(dropped.values.empty());
}

TEST_F(ZnObjectTest, QueuedDeliverySurvivesTheSenderAndDropsDeadReceivers) {
    auto sender = std::make_unique<Sender>();
    auto dead = std::make_unique<Receiver>();
    Receiver alive;
    alive.lastSender = &alive;
    sender->connect(&Sender::changed, dead.get(), &Receiver::take, ZnConnectionType::QueuedConnection);
    sender->connect(&Sender::changed, &alive, &Receiver::take, ZnConnectionType::QueuedConnection);
    sender->changed(5);
    EXPECT_TRUE(alive.values.empty());
    dead.reset();
    // A new object is likely to get the dead one's address; it must not get its calls.
    Receiver replacement;
    sender.reset();
    ASSERT_TRUE(runUntil([&] { return !alive.values.empty(); }));
    EXPECT_EQ(alive.lastSender, nullptr);
    EXPECT_TRUE(replacement.values.empty());
}

TEST_F(ZnObjectTest, DeleteLaterTwiceDeletesOnceAlsoUnderABusyLoop) {
    int deaths = 0;
    auto* object = new ZnObject;
    object->connect(&ZnObject::destroyed, [&] { ++deaths; });
    std::function<void()> again = [&] {
        if (deaths == 0)
            application_.postEvent([&] { again(); });
    };
    again();
    object->deleteLater();
    object->deleteLater();
    ASSERT_TRUE(runUntil([&] { return deaths == 1; }));
    const ZnObject another; // often at the same address
    settle();
    EXPECT_TRUE(ZnObject::isLive(&another));
    EXPECT_EQ(deaths, 1);
}

TEST_F(ZnObjectTest, ParentsOwnTheirChildrenOfWhichOneMayDeleteAnother) {
    std::vector<ZnString> events;
    auto* parent = new ZnObject;
    auto* child = new ZnObject(parent);
    auto* second = new ZnObject(parent);
    auto* moved = new ZnObject(parent);
    child->connect(&ZnObject::destroyed, [&] {
        events.push_back("child");
        EXPECT_EQ(child->parent(), nullptr);
        delete second;
    });
    second->connect(&ZnObject::destroyed, [&] { events.push_back("second"); });
    parent->connect(&ZnObject::destroyed, [&] { events.push_back("parent"); });
    moved->setParent(nullptr);
    delete parent;
    EXPECT_EQ(events, (std::vector<ZnString>{"child", "second", "parent"}));
    delete moved;
}

TEST_F(ZnObjectTest, AnObjectIsNeverItsOwnAncestor) {
    LogCapture log;
    ZnObject parent;
    auto* child = new ZnObject(&parent);
    child->setParent(child);
    parent.setParent(child);
    EXPECT_EQ(log.countOf("an object cannot be its own parent or ancestor"), 2);
    EXPECT_EQ(child->parent(), &parent);
}

TEST_F(ZnObjectTest, SlotsGetTheValuesOfTheEmissionWhateverTheOnesBeforeThemDo) {
    auto* sender = new Sender;
    const ZnString expected = "a text that is too long to lie inside the string itself";
    sender->setObjectName(expected);
    sender->connect(&Sender::said, [&] { sender->setObjectName("changed"); });
    sender->connect(&Sender::said, [&](const ZnString& text) {
        EXPECT_EQ(text, expected);
        delete sender;
    });
    ZnString last;
    sender->connect(&Sender::said, [&](const ZnString& text) { last = text; });
    sender->said(sender->objectName()); // a reference into the sender
    EXPECT_EQ(last, expected);
}

// The sanitizers are the judges of these two.
TEST_F(ZnObjectTest, ConnectedObjectsMayEndAtTheSameTimeOnTwoThreads) {
    for (int round = 0; round < 300; ++round) {
        auto* left = new Sender;
        auto* right = new Sender;
        left->connect(&Sender::changed, right, [] {});
        right->connect(&Sender::changed, left, [] {});
        onThreads(3, [&](int index) {
            if (index == 0)
                delete left;
            else if (index == 1)
                delete right;
            else
                delete new ZnObject; // changes the set of live objects
        });
    }
}

TEST_F(ZnObjectTest, DirectSlotsOnSeveralThreadsSeeTheirOwnSender) {
    Receiver receiver;
    std::atomic<int> wrongCount{0};
    onThreads(3, [&](int) {
        Sender sender;
        sender.connect(
            &Sender::changed, &receiver, [&] { wrongCount += receiver.sender() == &sender ? 0 : 1; },
            ZnConnectionType::DirectConnection);
        for (int i = 0; i < 1000; ++i)
            sender.changed(i);
    });
    EXPECT_EQ(wrongCount, 0);
    EXPECT_EQ(receiver.sender(), nullptr); // no slot runs
}

/// A thread with a receiver of its own, which tells where its events arrive.
class RemoteTest : public ZnObjectTest {
protected:
    class Object : public Receiver {
    public:
        bool event(ZnEvent* event) override {
            if (event->type == 100)
                deliveredOn = std::this_thread::get_id();
            return Receiver::event(event);
        }
        std::atomic<std::thread::id> deliveredOn;
    };

    RemoteTest() {
        remote_.start();
        std::promise<void> made;
        postToThread(&remote_, [&] { object_ = new Object, made.set_value(); });
        made.get_future().wait();
    }
    ~RemoteTest() override {
        if (remote_.isRunning())
            object_->deleteLater();
        remote_.requestStop();
        remote_.join();
    }

    const ZnConnectionType kBlocking_ = ZnConnectionType::BlockingQueuedConnection;
    zn::atomic::Thread remote_{"remote"};
    Object* object_ = nullptr;
    Sender sender_;
};

TEST_F(RemoteTest, EventsAndSignalsCrossThreads) {
    application_.postEvent(object_, new ZnEvent(100), 0);
    std::atomic<std::thread::id> autoThread;
    sender_.connect(&Sender::changed, object_, [&] { autoThread = std::this_thread::get_id(); });
    sender_.changed(1);
    const std::thread::id own = std::this_thread::get_id();
    for (const std::atomic<std::thread::id>* thread : {&object_->deliveredOn, &autoThread}) {
        EXPECT_TRUE(pollUntil([&] { return thread->load() != std::thread::id(); }));
        EXPECT_NE(thread->load(), own);
    }
}

TEST_F(RemoteTest, ABlockingEmissionReturnsAfterItsSlots) {
    Receiver local;
    int seen = 0;
    sender_.connect(
        &Sender::changed, object_, [&](int value) { seen = value; }, kBlocking_);
    sender_.connect(&Sender::changed, &local, &Receiver::take, kBlocking_);
    sender_.changed(2);
    EXPECT_EQ(seen, 2);
    EXPECT_EQ(local.values, std::vector<int>{2}); // on the own thread inline, no dead lock
}

TEST_F(RemoteTest, ABlockingDeliveryToAThreadThatIsEndingDoesNotHang) {
    std::promise<void> ending;
    std::promise<void> returned;
    std::unique_ptr<Receiver> receiver;
    postToThread(&remote_, [&] {
        receiver = std::make_unique<Receiver>();
        object_->connect(&ZnObject::destroyed, [&] {
            ending.set_value();
            EXPECT_EQ(returned.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
        });
        object_->deleteLater(); // happens when the thread takes no more posts
        ZnCoreApplication::instance()->quit();
    });
    ending.get_future().wait();
    sender_.connect(&Sender::changed, receiver.get(), &Receiver::take, kBlocking_);
    sender_.changed(1);
    returned.set_value();
    remote_.join();
    EXPECT_TRUE(receiver->values.empty());
}

TEST_F(RemoteTest, ABlockingDeliveryThatIsRefusedDoesNotHang) {
    LogCapture log;
    // Fill the remote pool to its capacity: its one running task keeps the others from being served.
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    while (postToThread(&remote_, [released] { released.wait(); })) {
    }
    bool ran = false;
    sender_.connect(
        &Sender::changed, object_, [&] { ran = true; }, kBlocking_);
    sender_.changed(1);
    EXPECT_FALSE(ran);
    EXPECT_GE(log.countOf("saturated"), 1);
    release.set_value();
}

} // namespace
