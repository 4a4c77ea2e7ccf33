#pragma once

#include "core/object/ZnEvent.h"
#include "core/object/ZnPointer.h"
#include "core/object/ZnSlot.h"
#include "core/types/ZnList.h"
#include "core/types/ZnMutex.h"
#include "core/types/ZnString.h"
#include "core/types/ZnTask.h"

#include <atomic>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

namespace zn::atomic {
class Thread;
}

/// Base of everything that lives on an event loop: a place in a parent and child tree, an owning thread, and
/// typed signals.
///
/// Thread: the owning thread (that of the constructor), but for connect, disconnectReceiver, deleteLater,
/// thread and isLive, which any thread may call.
/// Owner: a parent owns its children; otherwise whoever made it, or nobody after deleteLater.
/// Invariant: an object may be destroyed while calls to it are on their way; they are dropped.
class ZnObject {
public:
    explicit ZnObject(ZnObject* parent = nullptr);
    virtual ~ZnObject();
    ZnObject(const ZnObject&) = delete;
    ZnObject& operator=(const ZnObject&) = delete;

    /// Handles child events and deferred deletion; returns whether the event was of use.
    virtual bool event(ZnEvent* event);
    /// Sees the events of objects that installed this one as a filter; true ends the delivery.
    virtual bool eventFilter(ZnObject* watched, ZnEvent* event);
    virtual void childEvent(ZnChildEvent* event);
    virtual ZnString className() const;
    /// Names of the classes, the base first.
    virtual ZnList<ZnString> classHierarchy() const;
    virtual void addChild(ZnObject* child);
    virtual void removeChild(ZnObject* child);

    void setParent(ZnObject* parent);
    ZnObject* parent() const noexcept { return parent_; }
    const std::vector<ZnObject*>& children() const noexcept { return children_; }
    void setObjectName(const ZnString& name);
    const ZnString& objectName() const noexcept { return objectName_; }
    /// `filter` sees every event of this object first; the latest filter goes first. Null is ignored.
    void installEventFilter(ZnObject* filter);

    /// The owning thread, or null when it no longer exists.
    zn::atomic::Thread* thread() const;
    /// Inside a slot of this object: the sender of the signal, or null when it is gone.
    ZnObject* sender() const;
    /// Deletes this object from its thread's loop. Calling it again does nothing. Any thread.
    void deleteLater();

    /// Calls `function` (a callable, or a member function of the receiver) whenever `signal` is emitted. A function
    /// that takes no arguments may be connected to any signal. A receiver that dies is disconnected.
    template <typename Sender, typename... Args, typename Receiver, typename Function>
    void connect(void (Sender::*signal)(Args...), Receiver* receiver, Function function,
                 ZnConnectionType type = ZnConnectionType::AutoConnection) {
        if (receiver == nullptr || !isLive(receiver))
            return;
        addConnection_(SignalKey::of(signal),
                       std::make_shared<SlotFunctionReceiver<Receiver, Function, std::decay_t<Args>...>>(
                           receiver, std::move(function)),
                       type);
    }
    template <typename Sender, typename... Args, typename Function>
    void connect(void (Sender::*signal)(Args...), Function function,
                 ZnConnectionType type = ZnConnectionType::AutoConnection) {
        addConnection_(SignalKey::of(signal),
                       std::make_shared<SlotFunction<Function, std::decay_t<Args>...>>(std::move(function)), type);
    }
    /// Drops every connection from this sender to `receiver`. Null and dead pointers are ignored.
    void disconnectReceiver(ZnObject* receiver);
    /// Drops every connection of this sender.
    void disconnectAll();

    /// Whether `object` points at an object whose destruction has not begun. Any pointer value may be passed; a
    /// new object at an old address counts as live, so code that waits holds a ZnPointer instead.
    static bool isLive(const ZnObject* object);

    // Signals.
    void ObjectNameChanged(const ZnString& name);
    void destroyed();
    void childAdded(ZnObject* child);
    void childRemoved(ZnObject* child);

protected:
    virtual void onObjectNameChanged(const ZnString& name);
    virtual void childAddedEvent(ZnObject* child);
    virtual void childRemovedEvent(ZnObject* child);
    virtual void parentChanged(ZnObject* newParent);

    /// The body of every signal. Slots run with no lock held and may delete sender, receiver or connection:
    /// after it the caller tests a ZnPointer to itself before it touches a member.
    template <typename Sender, typename... SignalArgs, typename... Args>
    void emitSignal(void (Sender::*signal)(SignalArgs...), const Args&... args) {
        const ConnectionListRef_ connections = connectionsFor_(SignalKey::of(signal));
        if (!connections)
            return;
        const Emission_ emission = beginEmission_();
        for (const Connection_& connection : *connections)
            deliver_<std::decay_t<SignalArgs>...>(emission, connection, args...);
    }

    /// Runs `function` on `target` and waits for its end; inline when that is this object's thread, and when the
    /// target is not running or refuses the post.
    void executeBlockingOnThread(zn::atomic::Thread* target, ZnTask function);

private:
    friend class ZnCoreApplication;
    friend zn::detail::ZnPointerControlRef zn::detail::controlOf(const ZnObject* object);

    struct Connection_ {
        std::shared_ptr<ISlotBase> slot;
        ZnConnectionType type;
    };
    using ConnectionList_ = std::vector<Connection_>;
    using ConnectionListRef_ = std::shared_ptr<const ConnectionList_>;
    struct SignalConnections_ {
        SignalKey key;
        ConnectionListRef_ connections; // replaced, never changed: an emission keeps the list it began with
    };
    struct SenderCount_ {
        ZnObject* sender;
        int connectionCount;
    };
    struct Emission_ {
        zn::detail::ZnPointerControlRef senderControl;
        zn::atomic::Thread* senderThread;
    };
    enum class Delivery_ { Skip, Now, Post, Block };

    void addConnection_(const SignalKey& key, std::shared_ptr<ISlotBase> slot, ZnConnectionType type);
    ConnectionListRef_ connectionsFor_(const SignalKey& key) const;
    Emission_ beginEmission_();
    /// How one connection is served; `*target` is the thread to post to.
    static Delivery_ chooseDelivery_(const Emission_& emission, const Connection_& connection,
                                     zn::atomic::Thread** target);
    /// Re-checks the connection and the receiver, and notes the sender. False: do not call the slot.
    static bool enterSlot_(const ISlotBase& slot, const zn::detail::ZnPointerControlRef& senderControl);
    static void postDelivery_(zn::atomic::Thread* target, ZnTask task);
    static void blockOnDelivery_(const Emission_& emission, zn::atomic::Thread* target, ZnTask task);

    template <typename... SlotArgs, typename... Args>
    static void deliver_(const Emission_& emission, const Connection_& connection, const Args&... args) {
        using Slot = ITypedSlot<SlotArgs...>;
        zn::atomic::Thread* target = nullptr;
        const Delivery_ delivery = chooseDelivery_(emission, connection, &target);
        if (delivery == Delivery_::Skip)
            return;
        if (delivery == Delivery_::Now) {
            if (enterSlot_(*connection.slot, emission.senderControl))
                static_cast<Slot&>(*connection.slot).invoke(args...);
            return;
        }
        ZnTask task([slot = connection.slot, sender = emission.senderControl,
                     values = std::tuple<SlotArgs...>(args...)]() {
            if (enterSlot_(*slot, sender))
                std::apply([&](const auto&... value) { static_cast<Slot&>(*slot).invoke(value...); }, values);
        });
        if (delivery == Delivery_::Post)
            postDelivery_(target, std::move(task));
        else
            blockOnDelivery_(emission, target, std::move(task));
    }

    /// Whether the owning threads are the same, or one of them is not known.
    static bool sharesThread_(const ZnObject& left, const ZnObject& right);
    void noteSender_(ZnObject* sender, int connectionCount);
    void sendChildEvent_(ZnChildEvent* event);
    void dropIncomingConnections_();
    std::vector<SignalConnections_> takeOutgoingConnections_();
    void forgetSender_(const std::vector<SignalConnections_>& dropped);
    void deleteChildren_();

    const zn::detail::ZnPointerControlRef control_; // with the owning thread
    std::atomic<bool> deleteRequested_{false};
    ZnObject* parent_ = nullptr;                   // not owned; owner thread only, as are the next four
    std::vector<ZnObject*> children_;              // owned, in the order of insertion
    std::vector<zn::detail::ZnPointerControlRef> eventFilters_;
    ZnString objectName_;
    zn::detail::ZnPointerControlRef currentSender_;

    mutable ZnMutex connectionLock_;               // released before a receiver's senderLock_ is taken
    std::vector<SignalConnections_> connectionsByKey_ ZN_GUARDED_BY(connectionLock_);
    ZnMutex senderLock_;                           // leaf lock
    std::vector<SenderCount_> senders_ ZN_GUARDED_BY(senderLock_); // senders with connections to this object
};

/// Gives a class derived from ZnObject its name: in the public part, with the class and its base.
#define ZN_OBJECT(Class, Base)                                                                               \
    ZnString className() const override { return #Class; }                                                   \
    ZnList<ZnString> classHierarchy() const override {                                                       \
        ZnList<ZnString> names = Base::classHierarchy();                                                     \
        names.append(#Class);                                                                                \
        return names;                                                                                        \
    }
