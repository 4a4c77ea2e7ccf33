#include "core/object/ZnConnectionHub.h"

#include <algorithm>
#include <utility>

namespace zn::detail {

void ZnConnectionHub::connect(const ZnConnectionHubRef& sender, const SignalKey& key, std::shared_ptr<ISlotBase> slot,
                              ZnConnectionType type) {
    const auto receiver = std::static_pointer_cast<ZnConnectionHub>(slot->receiverControl());
    if (sender->append_(key, std::move(slot), type) && receiver && !receiver->noteSender_(sender, 1))
        sender->drop_(*receiver);
}

bool ZnConnectionHub::append_(const SignalKey& key, std::shared_ptr<ISlotBase> slot, ZnConnectionType type) {
    ZnMutexLocker locker(lock_);
    if (hasClosedOutgoing_)
        return false;
    auto at = std::find_if(signals_.begin(), signals_.end(), [&](const Signal_& entry) { return entry.key == key; });
    if (at == signals_.end())
        at = signals_.insert(at, {key, nullptr});
    auto changed = at->connections ? std::make_shared<List>(*at->connections) : std::make_shared<List>();
    changed->push_back({std::move(slot), type});
    at->connections = std::move(changed);
    return true;
}

bool ZnConnectionHub::noteSender_(const ZnConnectionHubRef& sender, int connectionCount) {
    ZnConnectionHubRef dropped; // let go of without the lock: it may be the last reference
    ZnMutexLocker locker(lock_);
    if (hasClosedIncoming_)
        return false;
    const auto at =
        std::find_if(senders_.begin(), senders_.end(), [&](const Sender_& entry) { return entry.hub == sender; });
    if (at == senders_.end()) {
        if (connectionCount > 0)
            senders_.push_back({sender, connectionCount});
        return true;
    }
    at->connectionCount += connectionCount;
    if (at->connectionCount <= 0) {
        dropped = std::move(at->hub);
        senders_.erase(at);
    }
    return true;
}

int ZnConnectionHub::drop_(const ZnConnectionHub& receiver) {
    int droppedCount = 0;
    std::vector<ListRef> dropped; // slots are destroyed without the lock
    ZnMutexLocker locker(lock_);
    for (auto at = signals_.begin(); at != signals_.end();) {
        auto kept = std::make_shared<List>();
        for (const Connection& connection : *at->connections) {
            if (connection.slot->receiverControl().get() == &receiver) {
                connection.slot->markDisconnected();
                ++droppedCount;
            } else {
                kept->push_back(connection);
            }
        }
        dropped.push_back(std::move(at->connections));
        if (kept->empty()) {
            at = signals_.erase(at);
        } else {
            at->connections = std::move(kept);
            ++at;
        }
    }
    return droppedCount;
}

void ZnConnectionHub::disconnectReceiver(const ZnConnectionHubRef& sender, const ZnConnectionHubRef& receiver) {
    if (const int droppedCount = sender->drop_(*receiver); droppedCount > 0)
        receiver->noteSender_(sender, -droppedCount);
}

std::vector<ZnConnectionHub::Signal_> ZnConnectionHub::takeOutgoing_(bool isLast) {
    ZnMutexLocker locker(lock_);
    hasClosedOutgoing_ = hasClosedOutgoing_ || isLast;
    return std::exchange(signals_, {});
}

void ZnConnectionHub::forget_(const ZnConnectionHubRef& sender, const std::vector<Signal_>& dropped) {
    for (const Signal_& entry : dropped) {
        for (const Connection& connection : *entry.connections) {
            if (const auto receiver = std::static_pointer_cast<ZnConnectionHub>(connection.slot->receiverControl()))
                receiver->noteSender_(sender, -1);
        }
    }
}

void ZnConnectionHub::disconnectAll(const ZnConnectionHubRef& sender) {
    const std::vector<Signal_> dropped = sender->takeOutgoing_(false);
    for (const Signal_& entry : dropped) {
        for (const Connection& connection : *entry.connections)
            connection.slot->markDisconnected();
    }
    forget_(sender, dropped);
}

void ZnConnectionHub::closeIncoming(const ZnConnectionHubRef& receiver) {
    std::vector<Sender_> senders;
    {
        ZnMutexLocker locker(receiver->lock_);
        receiver->hasClosedIncoming_ = true;
        senders.swap(receiver->senders_);
    }
    for (const Sender_& entry : senders)
        entry.hub->drop_(*receiver);
}

void ZnConnectionHub::closeOutgoing(const ZnConnectionHubRef& sender) {
    forget_(sender, sender->takeOutgoing_(true));
}

ZnConnectionHub::ListRef ZnConnectionHub::connectionsOf(const SignalKey& key) const {
    ZnMutexLocker locker(lock_);
    for (const Signal_& entry : signals_) {
        if (entry.key == key)
            return entry.connections;
    }
    return nullptr;
}

} // namespace zn::detail
