#include "core/runtime/ZnFiberSlots.h"

#include <algorithm>
#include <utility>

namespace {
/// Slots are made so many at a time, and so many idle ones are kept beyond the warm ones.
constexpr std::size_t kGroupSlots = 64;
} // namespace

bool ZnFiberSlots::addGroup(std::size_t slotCount, std::size_t stackBytes, bool isWarm) {
    auto group = std::make_unique<ZnStackGroup>(slotCount, stackBytes);
    if (!group->stacks.isValid())
        return false;
    group->isWarm = isWarm;
    std::vector<ZnFiberSlot*>& idle = isWarm ? idleWarm_ : idleGrown_;
    idle.reserve(idle.size() + slotCount);
    for (std::size_t i = slotCount; i-- > 0;) { // the last one added is the first one used
        ZnFiberSlot& slot = group->slots[i];
        slot.pool = pool_;
        slot.group = group.get();
        slot.stackIndex = i;
        idle.push_back(&slot);
    }
    (isWarm ? warmCount_ : grownCount_) += static_cast<int>(slotCount);
    groups_.push_back(std::move(group));
    return true;
}

ZnFiberSlot* ZnFiberSlots::acquire(std::size_t stackBytes) {
    if (idleWarm_.empty() && idleGrown_.empty() && !addGroup(kGroupSlots, stackBytes, false))
        return nullptr;
    std::vector<ZnFiberSlot*>& idle = idleWarm_.empty() ? idleGrown_ : idleWarm_;
    ZnFiberSlot* slot = idle.back();
    idle.pop_back();
    slot->idle = false;
    ++slot->group->busyCount;
    return slot;
}

void ZnFiberSlots::release(ZnFiberSlot& slot) {
    slot.waitId = 0;
    slot.idle = true;
    --slot.group->busyCount;
    (slot.group->isWarm ? idleWarm_ : idleGrown_).push_back(&slot);
}

ZnFiberSlots::Groups ZnFiberSlots::takeSpare() {
    Groups spare;
    for (std::size_t i = groups_.size(); i-- > 0 && idleGrown_.size() > kGroupSlots;) {
        if (groups_[i]->isWarm || groups_[i]->busyCount > 0)
            continue;
        const auto isOfGroup = [group = groups_[i].get()](const ZnFiberSlot* slot) { return slot->group == group; };
        std::erase_if(idleGrown_, isOfGroup);
        grownCount_ -= static_cast<int>(groups_[i]->slots.size());
        spare.push_back(std::move(groups_[i]));
        groups_.erase(groups_.begin() + static_cast<std::ptrdiff_t>(i));
    }
    return spare;
}

ZnFiberSlots::Groups ZnFiberSlots::takeAll() {
    idleWarm_.clear();
    idleGrown_.clear();
    warmCount_ = grownCount_ = 0;
    return std::exchange(groups_, {});
}
