#include "core/types/ZnJsonObject.h"

#include "core/types/ZnJsonArena.h"
#include "core/types/ZnJsonNames.h"

#include <algorithm>
#include <memory>
#include <utility>

ZnJsonObject::ZnJsonObject(std::initializer_list<Initial> members) : ZnJsonObject() {
    zn::detail::moveToBlock(cell_, 2 * members.size(), nullptr);
    for (const Initial& member : members) {
        const std::size_t sizeBefore = size();
        ZnJsonValue& slot = (*this)[member.name];
        if (size() != sizeBefore)
            slot = std::move(member.value);
    }
}

ZnJsonValue& ZnJsonObject::operator[](std::string_view name) {
    ZnJsonValue* at = lowerBound_(name);
    ZnJsonValue* const end = cell_.values() + cell_.valueCount();
    if (at != end && at->string() == name)
        return at[1];
    ZnJsonValue nameValue(name); // `name` may lie in a value that is about to move
    const auto index = static_cast<std::size_t>(at - cell_.values()) / 2;
    zn::detail::makeRoom(cell_);
    at = zn::detail::insertMember(cell_, index);
    at[0] = std::move(nameValue);
    return at[1];
}

const ZnJsonValue& ZnJsonObject::value(std::string_view name) const {
    static const ZnJsonValue* const kNull =
        new ZnJsonValue; // never destroyed: threads may read it while the process ends
    const ZnJsonValue* const at = find_(name);
    return at == nullptr ? *kNull : at[1];
}

bool ZnJsonObject::contains(std::string_view name) const {
    return find_(name) != nullptr;
}

bool ZnJsonObject::remove(std::string_view name) {
    ZnJsonValue* const at = find_(name);
    if (at == nullptr)
        return false;
    ZnJsonValue* const end = cell_.values() + cell_.valueCount();
    std::destroy(std::move(at + 2, end, at), end);
    --cell_.block.count;
    return true;
}

/// Where the member of this name is, or would be.
ZnJsonValue* ZnJsonObject::lowerBound_(std::string_view name) const noexcept {
    ZnJsonValue* first = cell_.values();
    for (std::size_t count = size(); count > 0;) {
        const std::size_t half = count / 2;
        if (zn::detail::compareNames(first[2 * half].string(), name) < 0) {
            first += 2 * (half + 1);
            count -= half + 1;
        } else {
            count = half;
        }
    }
    return first;
}

/// Null when there is none.
ZnJsonValue* ZnJsonObject::find_(std::string_view name) const noexcept {
    constexpr std::size_t kFew = 8; // most objects: looking at each name is quicker than halving
    if (size() <= kFew) {
        for (ZnJsonValue* at = cell_.values(); at != cell_.values() + cell_.valueCount(); at += 2) {
            if (at->string() == name)
                return at;
        }
        return nullptr;
    }
    ZnJsonValue* const at = lowerBound_(name);
    return at != cell_.values() + cell_.valueCount() && at->string() == name ? at : nullptr;
}
