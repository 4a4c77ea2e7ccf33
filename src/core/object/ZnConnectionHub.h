#pragma once

#include "core/object/ZnSlot.h"
#include "core/types/ZnMutex.h"

#include <memory>
#include <vector>

namespace zn::detail {

class ZnConnectionHub;
using ZnConnectionHubRef = std::shared_ptr<ZnConnectionHub>;

/// The connections of one object, both ways. It outlives the object, so that two connected objects may end at the same
/// time on two threads: each side works on the other's hub and never on the other object.
///
/// Thread: any. Owner: shared by its object, the slots that call it and the hubs of its receivers.
/// Invariant: two hubs' locks are never held together, and no slot is destroyed under one.
class ZnConnectionHub final : public ZnPointerControl {
public:
    struct Connection {
        std::shared_ptr<ISlotBase> slot;
        ZnConnectionType type;
    };
    using List = std::vector<Connection>;
    using ListRef = std::shared_ptr<const List>; // replaced, never changed: an emission keeps the list it began with

    explicit ZnConnectionHub(ZnObject* owner) : ZnPointerControl(owner) {}

    /// Nothing when either object's end has come that far.
    static void connect(const ZnConnectionHubRef& sender, const SignalKey& key, std::shared_ptr<ISlotBase> slot,
                        ZnConnectionType type);
    static void disconnectReceiver(const ZnConnectionHubRef& sender, const ZnConnectionHubRef& receiver);
    /// Drops every connection of the sender; deliveries under way do nothing any more.
    static void disconnectAll(const ZnConnectionHubRef& sender);

    // The two halves of an object's end.
    /// No signal reaches the receiver from now on.
    static void closeIncoming(const ZnConnectionHubRef& receiver);
    /// No slot is connected any more. What the sender has queued on other threads is still delivered there.
    static void closeOutgoing(const ZnConnectionHubRef& sender);

    /// The connections of a signal; null when there are none.
    ListRef connectionsOf(const SignalKey& key) const;

private:
    struct Signal_ {
        SignalKey key;
        ListRef connections;
    };
    struct Sender_ {
        ZnConnectionHubRef hub;
        int connectionCount;
    };

    bool append_(const SignalKey& key, std::shared_ptr<ISlotBase> slot, ZnConnectionType type);
    /// Returns how many connections to `receiver` there were.
    int drop_(const ZnConnectionHub& receiver);
    /// False when the receiver's end has begun.
    bool noteSender_(const ZnConnectionHubRef& sender, int connectionCount);
    std::vector<Signal_> takeOutgoing_(bool isLast);
    static void forget_(const ZnConnectionHubRef& sender, const std::vector<Signal_>& dropped);

    mutable ZnMutex lock_;
    std::vector<Signal_> signals_ ZN_GUARDED_BY(lock_);
    std::vector<Sender_> senders_ ZN_GUARDED_BY(lock_); // whose signals reach this object
    bool hasClosedIncoming_ ZN_GUARDED_BY(lock_) = false;
    bool hasClosedOutgoing_ ZN_GUARDED_BY(lock_) = false;
};

} // namespace zn::detail
