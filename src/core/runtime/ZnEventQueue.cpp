#include "core/runtime/ZnEventQueue.h"

#include "core/object/ZnObject.h"
#include "core/types/ZnLogger.h"

#include <exception>

namespace {
constexpr const char* kCategory = "zn.core.runtime.zncoreapplication";
} // namespace

void ZnEventQueue::add(Queued&& queued, int priority) {
    ZnMutexLocker locker(lock_);
    (priority >= 1 ? high_ : normal_).push_back(std::move(queued));
    count_.fetch_add(1, std::memory_order_release);
}

bool ZnEventQueue::deliverOneOf_(Events_ ZnEventQueue::*queue) {
    Queued queued;
    {
        ZnMutexLocker locker(lock_);
        Events_& events = this->*queue;
        if (events.empty())
            return false;
        queued = std::move(events.front());
        events.pop_front();
        count_.fetch_sub(1, std::memory_order_relaxed);
    }
    deliver_(queued);
    return true;
}

void ZnEventQueue::deliver_(const Queued& queued) {
    // On the loop's own context, so that an exception would leave exec().
    try {
        if (ZnObject* receiver = queued.receiver->get())
            notify(receiver, queued.event.get());
        ZnObject* left = queued.receiver->get();
        if (left != nullptr && queued.event->type == ZnEvent::kDeferredDelete)
            left->deletionRefused_();
    } catch (const std::exception& error) {
        ZN_LOG_ERROR(kCategory, "ZnCoreApplication::deliver_")
            << "Unhandled exception in object event: " << error.what();
    } catch (...) {
        ZN_LOG_ERROR(kCategory, "ZnCoreApplication::deliver_") << "Unhandled unknown exception in object event";
    }
}

bool ZnEventQueue::notify(ZnObject* receiver, ZnEvent* event) {
    const zn::detail::ZnPointerControlRef control = zn::detail::controlIfLive(receiver);
    if (event == nullptr || !control)
        return false;
    const bool wasInDelivery = event->inDelivery;
    event->inDelivery = true;
    bool handled = false;
    if (runFilters_(filters_, control, event) ||
        (control->get() != nullptr && runFilters_(receiver->eventFilters_, control, event))) {
        event->accepted = true;
        handled = true;
    } else if (control->get() != nullptr) {
        handled = receiver->event(event);
    }
    event->inDelivery = wasInDelivery;
    return handled;
}

bool ZnEventQueue::runFilters_(const std::vector<zn::detail::ZnPointerControlRef>& filters,
                               const zn::detail::ZnPointerControlRef& receiver, ZnEvent* event) {
    if (filters.empty())
        return false;
    const std::vector<zn::detail::ZnPointerControlRef> copy = filters; // a filter may change the list
    for (auto at = copy.rbegin(); at != copy.rend(); ++at) {
        ZnObject* filter = (*at)->get();
        ZnObject* watched = receiver->get();
        if (filter == nullptr || watched == nullptr || !ZnObject::sharesThread_(*filter, *watched))
            continue;
        if (filter->eventFilter(watched, event))
            return true;
    }
    return false;
}

void ZnEventQueue::installFilter(ZnObject* filter) {
    if (zn::detail::ZnPointerControlRef control = zn::detail::controlIfLive(filter))
        filters_.push_back(std::move(control));
}

void ZnEventQueue::deleteWaitingObjects() {
    Events_ queued;
    do {
        queued.clear();
        ZnMutexLocker locker(lock_);
        queued.swap(normal_);
        count_.fetch_sub(static_cast<int>(queued.size()), std::memory_order_relaxed);
    } while (deleteReceivers_(queued));
}

bool ZnEventQueue::deleteReceivers_(Events_& queued) {
    for (Queued& entry : queued) {
        ZnObject* receiver = entry.receiver->get();
        if (receiver != nullptr && entry.event->type == ZnEvent::kDeferredDelete)
            delete receiver;
    }
    return !queued.empty();
}
