#pragma once

#include "core/object/ZnConnectionHub.h"
#include "core/object/ZnSlotScope.h"
#include "core/types/ZnTask.h"

#include <tuple>
#include <utility>

namespace zn::atomic {
class Thread;
}

namespace zn::detail {

/// One emission of a signal: chooses for each connection how it is served, and serves it.
///
/// Thread: the emitting one. Owner: the emission's stack. It outlives the sender, which a slot may delete.
class ZnEmission {
public:
    ZnEmission(ZnPointerControlRef sender, zn::atomic::Thread* senderThread)
        : sender_(std::move(sender)), senderThread_(senderThread) {}

    template <typename... SlotArgs>
    void deliver(const ZnConnectionHub::Connection& connection, const std::tuple<SlotArgs...>& values) const {
        zn::atomic::Thread* target = nullptr;
        const Delivery_ delivery = chooseDelivery_(connection, &target);
        if (delivery == Delivery_::Skip)
            return;
        if (delivery == Delivery_::Now) {
            enterSlot_(*connection.slot, sender_, values);
            return;
        }
        ZnTask task([slot = connection.slot, sender = sender_, values]() { enterSlot_(*slot, sender, values); });
        if (delivery == Delivery_::Post)
            post_(target, std::move(task));
        else
            block_(target, std::move(task));
    }

    /// Runs `function` on `target` and waits for its end; at once when that is `from`'s thread, or the target does not
    /// run. A post that is refused is not waited for.
    static void runBlocking(zn::atomic::Thread* from, zn::atomic::Thread* target, ZnTask function);

private:
    enum class Delivery_ { Skip, Now, Post, Block };

    /// `*target` is the thread to post to, or null.
    Delivery_ chooseDelivery_(const ZnConnectionHub::Connection& connection, zn::atomic::Thread** target) const;
    static void post_(zn::atomic::Thread* target, ZnTask task);
    void block_(zn::atomic::Thread* target, ZnTask task) const;

    template <typename... SlotArgs>
    static void enterSlot_(ISlotBase& slot, const ZnPointerControlRef& sender, const std::tuple<SlotArgs...>& values) {
        const ZnSlotScope scope(slot, sender);
        if (scope.isEntered())
            std::apply([&](const auto&... value) { static_cast<ITypedSlot<SlotArgs...>&>(slot).invoke(value...); },
                       values);
    }

    const ZnPointerControlRef sender_;
    zn::atomic::Thread* const senderThread_; // may have ended
};

} // namespace zn::detail
