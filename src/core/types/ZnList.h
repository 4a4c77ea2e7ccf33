#pragma once

#include "core/types/ZnSequence.h"

/// A sequence with unsigned indices.
template <typename T>
class ZnList : public ZnSequence<T> {
public:
    using ZnSequence<T>::ZnSequence;

    /// std::out_of_range at or above size().
    void removeAt(std::size_t index) {
        if (index >= this->size())
            throw std::out_of_range("Index out of range");
        this->values_.erase(this->begin() + static_cast<std::ptrdiff_t>(index));
    }
    bool operator==(const ZnList& other) const = default;
};
