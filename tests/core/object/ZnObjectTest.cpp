#include "core/object/ZnObject.h"

#include "core/runtime/ZnTimer.h"
#include "support/LogCapture.h"
#include "support/LoopFixture.h"

#include <future>
#include <memory>
#include <thread>

namespace {

class Sender : public ZnObject {
public:
    ZN_OBJECT(Sender, ZnObject)
    using ZnObject::ZnObject;
    void changed(int value) { emitSignal(&Sender::changed, value); }
    void named(const ZnString& name) { emitSignal(&Sender::named, name); }
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

TEST_F(ZnObjectTest, DirectDeliveryKeepsTheOrderAndNamesTheSender) {
    Sender sender;
    Receiver first;
    Receiver second;
    std::vector<int> order;
    sender.connect(&Sender::changed, &first, &Receiver::take);
    sender.connect(&Sender::changed, [&](int value) { order.push_back(value); });
    sender.connect(&Sender::changed, &second, [&] { order.push_back(-1); }); // ignores the argument
    sender.changed(7);
    EXPECT_EQ(first.values, std::vector<int>{7});
    EXPECT_EQ(first.lastSender, &sender);
    EXPECT_EQ(order, (std::vector<int>{7, -1}));
}

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
    EXPECT_EQ(alive.values, std::vector<int>{5});
    EXPECT_EQ(alive.lastSender, nullptr);
    EXPECT_TRUE(replacement.values.empty());
}

TEST_F(ZnObjectTest, DeleteLaterTwiceDeletesOnce) {
    int deaths = 0;
    auto* object = new ZnObject;
    object->connect(&ZnObject::destroyed, [&] { ++deaths; });
    object->deleteLater();
    object->deleteLater();
    ASSERT_TRUE(runUntil([&] { return deaths == 1; }));
    ZnObject another;
    settle();
    EXPECT_TRUE(ZnObject::isLive(&another));
    EXPECT_EQ(deaths, 1);
}

TEST_F(ZnObjectTest, DeletionIsNotStarvedByABusyLoop) {
    bool dead = false;
    auto* object = new ZnObject;
    object->connect(&ZnObject::destroyed, [&] { dead = true; });
    std::function<void()> again = [&] {
        if (!dead)
            application_.postEvent([&] { again(); });
    };
    application_.postEvent([&] { again(); });
    object->deleteLater();
    EXPECT_TRUE(runUntil([&] { return dead; }));
}

TEST_F(ZnObjectTest, ParentsOwnTheirChildren) {
    std::vector<ZnString> events;
    auto* parent = new Sender;
    auto* child = new Receiver(parent);
    child->connect(&ZnObject::destroyed, [&] {
        events.push_back("child");
        EXPECT_EQ(child->parent(), nullptr);
    });
    parent->connect(&ZnObject::destroyed, [&] { events.push_back("parent"); });
    EXPECT_EQ(parent->children().size(), 1U);
    auto* moved = new Receiver(parent);
    moved->setParent(nullptr);
    EXPECT_EQ(parent->children().size(), 1U);
    delete parent;
    EXPECT_EQ(events, (std::vector<ZnString>{"child", "parent"}));
    delete moved;
}

TEST_F(ZnObjectTest, TheEndOfOneChildMayDeleteAnother) {
    auto* parent = new ZnObject;
    auto* first = new ZnObject(parent);
    auto* second = new ZnObject(parent);
    first->connect(&ZnObject::destroyed, [second] { delete second; });
    const ZnPointer<ZnObject> guard(second);
    delete parent;
    EXPECT_FALSE(guard);
}

TEST_F(ZnObjectTest, EventsOfAnObjectAreDeliveredOnItsOwnThread) {
    class Target : public ZnObject {
    public:
        bool event(ZnEvent* event) override {
            if (event->type == 100)
                delivered.set_value(std::this_thread::get_id());
            return ZnObject::event(event);
        }
        std::promise<std::thread::id> delivered;
    };
    zn::atomic::Thread thread("events");
    std::promise<Target*> made;
    thread.setOnStart([&] { made.set_value(new Target); });
    ASSERT_TRUE(thread.start());
    Target* target = made.get_future().get();
    application_.postEvent(target, new ZnEvent(100), 0);
    EXPECT_NE(target->delivered.get_future().get(), std::this_thread::get_id());
    target->deleteLater();
}

TEST_F(ZnObjectTest, FiltersSeeEventsFirstAndTheLatestFilterWins) {
    class Filter : public ZnObject {
    public:
        Filter(ZnString name, std::vector<ZnString>& log, bool takes) : name_(std::move(name)), log_(log), takes_(takes) {}
        bool eventFilter(ZnObject*, ZnEvent*) override {
            log_.push_back(name_);
            return takes_;
        }

    private:
        ZnString name_;
        std::vector<ZnString>& log_;
        bool takes_;
    };
    std::vector<ZnString> log;
    ZnObject target;
    Filter first("first", log, false);
    Filter second("second", log, true);
    Filter global("global", log, false);
    target.installEventFilter(&first);
    target.installEventFilter(&second);
    target.installEventFilter(nullptr);
    application_.installEventFilter(&global);
    ZnEvent event(100);
    EXPECT_TRUE(application_.sendEvent(&target, &event));
    EXPECT_TRUE(event.accepted);
    EXPECT_FALSE(event.inDelivery);
    EXPECT_EQ(log, (std::vector<ZnString>{"global", "second"}));
}

TEST_F(ZnObjectTest, NamesAndHierarchy) {
    ZnTimer timer;
    EXPECT_EQ(timer.className(), "ZnTimer");
    EXPECT_EQ(timer.classHierarchy(), (ZnList<ZnString>{"ZnObject", "ZnTimer"}));
    int changes = 0;
    timer.connect(&ZnObject::ObjectNameChanged, [&](const ZnString& name) {
        ++changes;
        EXPECT_EQ(name, "tick");
    });
    timer.setObjectName("tick");
    timer.setObjectName("tick");
    EXPECT_EQ(changes, 1);
    const ZnPointer<ZnTimer> guard(&timer);
    EXPECT_EQ(guard.get(), &timer);
}

/// An object that lives on a thread of its own.
class RemoteReceiver {
public:
    RemoteReceiver() : thread_("remote") {
        std::promise<void> made;
        thread_.setOnStart([&] {
            object_ = new Receiver;
            made.set_value();
        });
        thread_.start();
        made.get_future().wait();
    }
    ~RemoteReceiver() {
        object_->deleteLater();
        thread_.requestStop();
        thread_.join();
    }
    Receiver* object() { return object_; }
    zn::atomic::Thread& thread() { return thread_; }

private:
    zn::atomic::Thread thread_;
    Receiver* object_ = nullptr;
};

TEST_F(ZnObjectTest, SignalsCrossThreads) {
    RemoteReceiver remote;
    Sender sender;
    std::promise<std::thread::id> autoThread;
    sender.connect(&Sender::changed, remote.object(),
                   [&](int) { autoThread.set_value(std::this_thread::get_id()); });
    sender.changed(1);
    EXPECT_NE(autoThread.get_future().get(), std::this_thread::get_id());

    Sender blockingSender;
    std::vector<int> seen;
    blockingSender.connect(&Sender::changed, remote.object(), [&](int value) { seen.push_back(value); },
                           ZnConnectionType::BlockingQueuedConnection);
    blockingSender.changed(2);
    EXPECT_EQ(seen, std::vector<int>{2}); // the emission returned after the slot

    Receiver local;
    blockingSender.connect(&Sender::changed, &local, &Receiver::take, ZnConnectionType::BlockingQueuedConnection);
    blockingSender.changed(3); // to the own thread: inline, no dead lock
    EXPECT_EQ(local.values, std::vector<int>{3});
}

TEST_F(ZnObjectTest, ABlockingDeliveryThatIsRefusedDoesNotHang) {
    LogCapture log;
    RemoteReceiver remote;
    // Fill the remote pool to its capacity: its one running task keeps the others from being served.
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    while (postToThread(&remote.thread(), [released] { released.wait(); })) {
    }
    Sender sender;
    bool ran = false;
    sender.connect(&Sender::changed, remote.object(), [&](int) { ran = true; },
                   ZnConnectionType::BlockingQueuedConnection);
    sender.changed(1);
    EXPECT_FALSE(ran);
    EXPECT_GE(log.countOf("saturated"), 1);
    release.set_value();
}

} // namespace
