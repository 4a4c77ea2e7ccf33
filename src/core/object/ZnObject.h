#pragma once

#include "core/object/ZnConnectionHub.h"
#include "core/object/ZnEmission.h"
#include "core/object/ZnEvent.h"
#include "core/object/ZnPointer.h"
#include "core/types/ZnList.h"
#include "core/types/ZnString.h"
#include "core/types/ZnTask.h"

#include <atomic>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

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

    /// Null takes it out of the tree. A dead parent, the object itself and its descendants are refused, with a line in
    /// the log. Where a slot of the change re-parents once more, that later call is the one that counts.
    void setParent(ZnObject* parent);
    ZnObject* parent() const noexcept { return parent_; }
    const std::vector<ZnObject*>& children() const noexcept { return children_; }
    void setObjectName(const ZnString& name);
    const ZnString& objectName() const noexcept { return objectName_; }
    /// `filter` sees every event of this object first; the latest filter goes first. Null is ignored.
    void installEventFilter(ZnObject* filter);

    /// The owning thread, or null when it no longer exists.
    zn::atomic::Thread* thread() const;
    /// Inside a slot of this object: the sender of the signal, or null when it was destroyed; elsewhere null.
    ZnObject* sender() const;
    /// Deletes this object from its thread's loop. Calling it again does nothing, unless a filter or an event() of its
    /// own has kept it alive. Any thread.
    void deleteLater();

    /// Calls `function` (a callable, or a member function of the receiver) whenever `signal` is emitted. A function
    /// that takes no arguments may be connected to any signal. A receiver that is destroyed is disconnected.
    template <typename Sender, typename... Args, typename Receiver, typename Function>
    void connect(void (Sender::*signal)(Args...), Receiver* receiver, Function function,
                 ZnConnectionType type = ZnConnectionType::AutoConnection) {
        zn::detail::ZnPointerControlRef control = zn::detail::controlIfLive(receiver);
        if (!control)
            return;
        using Slot = SlotFunctionReceiver<Receiver, Function, std::decay_t<Args>...>;
        zn::detail::ZnConnectionHub::connect(hub_, SignalKey::of(signal),
                                             std::make_shared<Slot>(std::move(control), receiver, std::move(function)),
                                             type);
    }
    template <typename Sender, typename... Args, typename Function>
    void connect(void (Sender::*signal)(Args...), Function function,
                 ZnConnectionType type = ZnConnectionType::AutoConnection) {
        using Slot = SlotFunction<Function, std::decay_t<Args>...>;
        zn::detail::ZnConnectionHub::connect(hub_, SignalKey::of(signal), std::make_shared<Slot>(std::move(function)),
                                             type);
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
    /// after it the caller tests a ZnPointer to itself before it touches a member. The arguments are copied first: a
    /// slot may end or change what they refer to, and the next slot still gets the values of the emission.
    template <typename Sender, typename... SignalArgs, typename... Args>
    void emitSignal(void (Sender::*signal)(SignalArgs...), const Args&... args) {
        const zn::detail::ZnConnectionHub::ListRef connections = hub_->connectionsOf(SignalKey::of(signal));
        if (!connections)
            return;
        const zn::detail::ZnEmission emission(hub_, hub_->thread);
        const std::tuple<std::decay_t<SignalArgs>...> values(args...);
        for (const zn::detail::ZnConnectionHub::Connection& connection : *connections)
            emission.deliver(connection, values);
    }

    /// Runs `function` on `target` and waits for its end; inline when that is this object's thread, and when the
    /// target is not running or refuses the post.
    void executeBlockingOnThread(zn::atomic::Thread* target, ZnTask function);

private:
    friend class ZnEventQueue;
    friend zn::detail::ZnPointerControlRef zn::detail::controlOf(const ZnObject* object);

    /// Whether the owning threads are the same, or one of them is not known.
    static bool sharesThread_(const ZnObject& left, const ZnObject& right);
    void sendChildEvent_(ZnChildEvent* event);
    void deleteChildren_();
    bool isWithin_(const ZnObject* ancestor) const;
    void deletionRefused_() noexcept { deleteRequested_.store(false, std::memory_order_release); }

    const zn::detail::ZnConnectionHubRef hub_; // outlives this object; holds its address, thread and connections
    std::atomic<bool> deleteRequested_{false};
    ZnObject* parent_ = nullptr;      // not owned; owner thread only, as are the next four
    unsigned parentChangeCount_ = 0;  // tells setParent() that a slot of it has called it again
    std::vector<ZnObject*> children_; // owned, in the order of insertion
    std::vector<zn::detail::ZnPointerControlRef> eventFilters_;
    ZnString objectName_;
};

/// Gives a class derived from ZnObject its name: in the public part, with the class and its base.
#define ZN_OBJECT(Class, Base)                                                                                         \
    ZnString className() const override {                                                                              \
        return #Class;                                                                                                 \
    }                                                                                                                  \
    ZnList<ZnString> classHierarchy() const override {                                                                 \
        ZnList<ZnString> names = Base::classHierarchy();                                                               \
        names.append(#Class);                                                                                          \
        return names;                                                                                                  \
    }
