#pragma once

#include "core/object/ZnPointer.h"

/// Tells code that has called out, parked or been posted whether its object still lives and is still at the same work:
/// the same connection, request or round.
///
/// The work is known by a mark, a member of the object that changes when the work ends: a serial number, a handle.
/// Thread: the object's own. Owner: the frame or the closure that asks.
template <typename T, typename Mark>
class ZnAlive {
public:
    /// `mark` is a member of `object`, so that it is read only while the object lives.
    ZnAlive(T* object, const Mark& mark) : object_(object), mark_(&mark), markThen_(mark) {}

    explicit operator bool() const noexcept { return get() != nullptr; }
    /// The object, or null when it was destroyed or is at something else.
    T* get() const noexcept {
        T* const object = object_.get();
        return object != nullptr && *mark_ == markThen_ ? object : nullptr;
    }

private:
    ZnPointer<T> object_;
    const Mark* mark_;
    Mark markThen_;
};
