#pragma once

#include "core/types/ZnJsonValue.h"

#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <string_view>
#include <utility>

/// A JSON object: members ordered by the bytes of their names. A value with deep copies; moving one leaves it empty.
///
/// Members lie next to each other in a sorted row: finding one is a binary search, adding one in front of others moves
/// those. References to values hold until a member is added or removed.
class ZnJsonObject : public ZnJsonNode_ {
public:
    /// One member of the list that an object is made of, which takes the value over.
    struct Initial {
        Initial(std::string_view memberName, ZnJsonValue memberValue)
            : name(memberName), value(std::move(memberValue)) {}
        std::string_view name;
        mutable ZnJsonValue value; // lists give out their parts as const only
    };

    /// What iteration gives: `for (const auto& [name, value] : object)`.
    template <typename Value>
    struct Member {
        std::string_view name;
        Value& value;
    };

    /// Goes through the members in the order of their names.
    template <typename Value>
    class Iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = Member<Value>;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = Member<Value>;

        Iterator() noexcept = default;
        explicit Iterator(Value* at) noexcept : at_(at) {}
        Member<Value> operator*() const noexcept { return {at_[0].string(), at_[1]}; }
        Iterator& operator++() noexcept {
            at_ += 2;
            return *this;
        }
        Iterator operator++(int) noexcept { return Iterator(std::exchange(at_, at_ + 2)); }
        bool operator==(const Iterator& other) const noexcept = default;

    private:
        Value* at_ = nullptr; // a name, and behind it the value
    };

    ZnJsonObject() noexcept : ZnJsonNode_(ZnJsonCell_(JsonType::Object)) {}
    /// Of members with the same name the first one counts.
    ZnJsonObject(std::initializer_list<Initial> members);
    ZnJsonObject(const ZnJsonObject& other) = default;
    ZnJsonObject(ZnJsonObject&& other) noexcept : ZnJsonNode_(other.takeCell_(JsonType::Object)) {}
    ZnJsonObject& operator=(ZnJsonObject other) noexcept { // by value: it may be a part of what is given up
        std::swap(cell_, other.cell_);
        return *this;
    }

    /// The value under `name`, inserted as Null if absent.
    ZnJsonValue& operator[](std::string_view name);
    ZnJsonValue& operator[](const ZnString& name) { return (*this)[name.view()]; }
    ZnJsonValue& operator[](const char* name) { return (*this)[std::string_view(name)]; }
    /// The value under `name`, or a shared Null. Never inserts.
    const ZnJsonValue& value(std::string_view name) const;
    bool contains(std::string_view name) const;
    /// Returns whether there was one.
    bool remove(std::string_view name);
    std::size_t size() const noexcept { return cell_.block.count; }
    bool isEmpty() const noexcept { return size() == 0; }
    auto begin() noexcept { return Iterator<ZnJsonValue>(cell_.values()); }
    auto end() noexcept { return Iterator<ZnJsonValue>(cell_.values() + cell_.valueCount()); }
    auto begin() const noexcept { return Iterator<const ZnJsonValue>(cell_.values()); }
    auto end() const noexcept { return Iterator<const ZnJsonValue>(cell_.values() + cell_.valueCount()); }
    bool operator==(const ZnJsonObject& other) const { return isEqual_(other); }

private:
    friend class ZnJsonValue; // is the object when it holds one

    ZnJsonValue* lowerBound_(std::string_view name) const noexcept;
    ZnJsonValue* find_(std::string_view name) const noexcept;
};
