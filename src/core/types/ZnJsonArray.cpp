#include "core/types/ZnJsonArray.h"

#include "core/types/ZnJsonArena.h"

#include <new>
#include <stdexcept>
#include <utility>

void ZnJsonArray::append(ZnJsonValue value) {
    zn::detail::makeRoom(cell_);
    ::new (static_cast<void*>(cell_.values() + cell_.block.count)) ZnJsonValue(std::move(value));
    ++cell_.block.count;
}

void ZnJsonArray::reserve(std::size_t count) {
    if (count > zn::detail::blockCapacity(cell_))
        zn::detail::moveToBlock(cell_, count, nullptr);
}

const ZnJsonValue& ZnJsonArray::at(std::size_t index) const {
    if (index >= size())
        throw std::out_of_range("Index out of bounds");
    return begin()[index];
}

ZnJsonValue& ZnJsonArray::at(std::size_t index) {
    if (index >= size())
        throw std::out_of_range("Index out of bounds");
    return begin()[index];
}
