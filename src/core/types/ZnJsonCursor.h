#pragma once

#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonObject.h"

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

// Walking JSON trees without recursion: callers run on small stacks. Internal to this folder.

/// Walks the children of one container. `Value` is ZnJsonValue or const ZnJsonValue.
template <typename Value>
class ZnJsonCursor_ {
    template <typename Container>
    using Qualified_ = std::conditional_t<std::is_const_v<Value>, const Container, Container>;
    using Member_ = decltype(std::declval<Qualified_<ZnJsonObject>&>().begin());

public:
    explicit ZnJsonCursor_(Value& container) noexcept : container_(&container) {
        if (Qualified_<ZnJsonArray>* array = container.array()) {
            element_ = std::to_address(array->begin());
            elementEnd_ = std::to_address(array->end());
        } else {
            member_ = container.object()->begin();
            memberEnd_ = container.object()->end();
        }
    }
    Value& container() const noexcept { return *container_; }
    bool isArray() const noexcept { return container_->isArray(); }
    bool atEnd() const noexcept { return isArray() ? element_ == elementEnd_ : member_ == memberEnd_; }
    /// The current member's name; of an object only.
    const ZnString& name() const noexcept { return member_->first; }
    /// The current child; steps to the next one.
    Value& take() noexcept { return isArray() ? *element_++ : (member_++)->second; }

private:
    Value* container_;
    Value* element_ = nullptr;
    Value* elementEnd_ = nullptr;
    Member_ member_{};
    Member_ memberEnd_{};
};

/// A stack that allocates from its thirteenth item on only: most trees are shallower.
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
