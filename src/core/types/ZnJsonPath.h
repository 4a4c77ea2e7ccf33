#pragma once

#include <cstddef>
#include <new>
#include <type_traits>
#include <vector>

/// The way from the root of a JSON tree to where a walk is: callers run on small stacks, so that no walk recurses.
/// Allocates from its thirteenth item on only: most trees are shallower. Internal to this folder.
template <typename Item>
class ZnJsonPath_ {
    static_assert(std::is_trivially_destructible_v<Item> && std::is_trivially_copyable_v<Item>);

public:
    ZnJsonPath_() noexcept {}
    ZnJsonPath_(const ZnJsonPath_&) = delete;
    ZnJsonPath_& operator=(const ZnJsonPath_&) = delete;
    bool isEmpty() const noexcept { return count_ == 0; }
    std::size_t size() const noexcept { return count_ + spilled_.size(); }
    /// Valid until the next push or pop.
    Item& top() noexcept { return spilled_.empty() ? *slot_(count_ - 1) : spilled_.back(); }
    void push(const Item& item) {
        if (count_ < kInside_)
            ::new (static_cast<void*>(slot_(count_++))) Item(item);
        else
            spilled_.push_back(item);
    }
    void pop() noexcept {
        if (spilled_.empty())
            --count_;
        else
            spilled_.pop_back();
    }

private:
    static constexpr std::size_t kInside_ = 12;

    Item* slot_(std::size_t index) noexcept { return reinterpret_cast<Item*>(storage_) + index; }

    alignas(Item) std::byte storage_[kInside_ * sizeof(Item)];
    std::size_t count_ = 0;
    std::vector<Item> spilled_;
};
