#pragma once

#include "core/object/ZnSlot.h"

namespace zn::detail {

/// One call of a slot: tells the receiver who has sent the signal, for as long as the slot runs.
///
/// Thread: the one that runs the slot. Owner: the emission's stack. The scopes of a stack form a chain; each fiber has
/// a chain of its own, which the fiber pool exchanges at every switch.
class ZnSlotScope {
public:
    /// Re-checks connection and receiver: both may have ended since the delivery was chosen.
    ZnSlotScope(const ISlotBase& slot, const ZnPointerControlRef& sender);
    ~ZnSlotScope() { current() = outer_; }
    ZnSlotScope(const ZnSlotScope&) = delete;
    ZnSlotScope& operator=(const ZnSlotScope&) = delete;

    /// False: the slot must not be called.
    bool isEntered() const noexcept { return isEntered_; }
    /// The sender of the innermost signal whose slot of `receiver` runs, or null.
    static ZnObject* senderFor(const ZnPointerControl& receiver);
    /// The innermost scope of the running stack.
    static const ZnSlotScope*& current() noexcept;

private:
    const ZnSlotScope* const outer_;
    const ZnPointerControl* const receiver_;
    const ZnPointerControlRef& sender_;
    bool isEntered_ = false;
};

} // namespace zn::detail
