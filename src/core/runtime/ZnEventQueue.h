#pragma once

#include "core/object/ZnEvent.h"
#include "core/object/ZnPointer.h"
#include "core/types/ZnMutex.h"

#include <atomic>
#include <deque>
#include <memory>
#include <vector>

/// The object events of one application, which are delivered through its event filters and those of the receiver.
///
/// Thread: add() may be called from any; all else belongs to the application's thread.
/// Owner: the ZnCoreApplication, by value.
class ZnEventQueue {
public:
    struct Queued {
        zn::detail::ZnPointerControlRef receiver;
        std::unique_ptr<ZnEvent> event;
    };

    /// Queues an event; priority 1 and above goes before the others. The caller wakes the loop.
    void add(Queued&& queued, int priority);
    /// Deliver the oldest event of priority 1 and above, or of those below; false when there is none.
    bool deliverOneHigh() { return !isEmpty_() && deliverOneOf_(&ZnEventQueue::high_); }
    bool deliverOneNormal() { return !isEmpty_() && deliverOneOf_(&ZnEventQueue::normal_); }
    /// Delivers at once. The caller keeps the event. Returns whether somebody has handled it.
    bool notify(ZnObject* receiver, ZnEvent* event);
    /// `filter` sees every event; the latest filter goes first.
    void installFilter(ZnObject* filter);
    /// Deletes the objects that wait for deferred deletion; the other events are dropped.
    void deleteWaitingObjects();

private:
    using Events_ = std::deque<Queued>;

    bool isEmpty_() const noexcept { return count_.load(std::memory_order_acquire) == 0; }
    bool deliverOneOf_(Events_ ZnEventQueue::*queue);
    void deliver_(const Queued& queued);
    static bool runFilters_(const std::vector<zn::detail::ZnPointerControlRef>& filters,
                            const zn::detail::ZnPointerControlRef& receiver, ZnEvent* event);
    static bool deleteReceivers_(Events_& queued);

    std::vector<zn::detail::ZnPointerControlRef> filters_;
    std::atomic<int> count_{0}; // a hint that spares the lock; changed under it
    ZnMutex lock_;              // leaf lock, never held while user code runs
    Events_ normal_ ZN_GUARDED_BY(lock_);
    Events_ high_ ZN_GUARDED_BY(lock_); // priority 1 and above
};
