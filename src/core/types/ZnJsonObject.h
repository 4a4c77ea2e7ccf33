#pragma once

#include "core/types/ZnJsonValue.h"
#include "core/types/ZnMap.h"

/// A JSON object: members ordered by the bytes of their names. A value with deep copies.
class ZnJsonObject {
public:
    ZnJsonObject() = default;
    ZnJsonObject(std::initializer_list<std::pair<const ZnString, ZnJsonValue>> members) : members_(members) {}

    /// The value under `name`, inserted as Null if absent.
    ZnJsonValue& operator[](const ZnString& name) { return members_[name]; }
    ZnJsonValue& operator[](ZnString&& name) { return members_[std::move(name)]; }
    /// As operator[], at constant cost when `name` comes behind all others.
    ZnJsonValue& slotNearEnd(const ZnString& name) { return members_.slotNearEnd(name); }
    ZnJsonValue& slotNearEnd(ZnString&& name) { return members_.slotNearEnd(std::move(name)); }
    /// The value under `name`, or a shared Null. Never inserts.
    const ZnJsonValue& value(std::string_view name) const;
    bool contains(std::string_view name) const { return members_.contains(name); }
    bool remove(std::string_view name) { return members_.remove(name); }
    std::size_t size() const noexcept { return members_.size(); }
    bool isEmpty() const noexcept { return members_.isEmpty(); }
    auto begin() noexcept { return members_.begin(); }
    auto end() noexcept { return members_.end(); }
    auto begin() const noexcept { return members_.begin(); }
    auto end() const noexcept { return members_.end(); }
    bool operator==(const ZnJsonObject& other) const;

private:
    ZnMap<ZnString, ZnJsonValue> members_;
};
