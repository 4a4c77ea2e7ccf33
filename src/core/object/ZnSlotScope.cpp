#include "core/object/ZnSlotScope.h"

namespace zn::detail {
namespace {
thread_local const ZnSlotScope* innermost = nullptr;
} // namespace

const ZnSlotScope*& ZnSlotScope::current() noexcept {
    return innermost;
}

ZnSlotScope::ZnSlotScope(const ISlotBase& slot, const ZnPointerControlRef& sender)
    : outer_(innermost), receiver_(slot.receiverControl().get()), sender_(sender) {
    innermost = this;
    isEntered_ = slot.isConnected() && (!slot.hasReceiver() || receiver_->get() != nullptr);
}

ZnObject* ZnSlotScope::senderFor(const ZnPointerControl& receiver) {
    for (const ZnSlotScope* scope = innermost; scope != nullptr; scope = scope->outer_) {
        if (scope->receiver_ == &receiver)
            return scope->sender_->get();
    }
    return nullptr;
}

} // namespace zn::detail
