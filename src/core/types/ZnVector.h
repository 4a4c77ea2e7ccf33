#pragma once

#include "core/types/ZnSequence.h"

/// A sequence with signed 32-bit indices in removeAt, and removal by value.
template <typename T>
class ZnVector : public ZnSequence<T> {
public:
    using ZnSequence<T>::ZnSequence;

    /// Appends a T() and gives it.
    T& appendNew() { return this->values_.emplace_back(); }
    /// std::out_of_range below 0, and at or above size().
    void removeAt(int index) {
        if (index < 0 || static_cast<std::size_t>(index) >= this->size())
            throw std::out_of_range("ZnVector::removeAt index out of range");
        this->values_.erase(this->begin() + index);
    }
    /// Removes the first equal element; does nothing without one.
    void removeOne(const T& value) {
        const auto at = std::find(this->begin(), this->end(), value);
        if (at != this->end())
            this->values_.erase(at);
    }
    bool operator==(const ZnVector& other) const = default;
};
