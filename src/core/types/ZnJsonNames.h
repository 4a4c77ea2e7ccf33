#pragma once

#include "core/types/ZnJsonValue.h"

#include <algorithm>
#include <cstddef>
#include <new>
#include <string_view>

// The members of an object as they lie in its block: by turns a name and its value. Internal to this folder.
namespace zn::detail {

/// Byte order: below, at or above 0.
inline int compareNames(std::string_view left, std::string_view right) noexcept {
    // Most names differ in their first byte, which spares the call.
    if (!left.empty() && !right.empty() && left.front() != right.front())
        return static_cast<unsigned char>(left.front()) - static_cast<unsigned char>(right.front());
    return left.compare(right);
}

/// Puts a member in front of the one at `index`, in a block that has room for it. Gives the place of its name, and of
/// its value behind that; both are Null.
inline ZnJsonValue* insertMember(ZnJsonCell_& object, std::size_t index) noexcept {
    ZnJsonValue* const at = object.values() + 2 * index;
    ZnJsonValue* const end = object.values() + object.valueCount();
    ::new (static_cast<void*>(end)) ZnJsonValue;
    ::new (static_cast<void*>(end + 1)) ZnJsonValue;
    std::move_backward(at, end, end + 2);
    ++object.block.count;
    return at; // new, or moved from
}

/// Sorts by name; of members with the same name only the one that stood last stays.
void sortMembers(ZnJsonCell_& object);

} // namespace zn::detail
