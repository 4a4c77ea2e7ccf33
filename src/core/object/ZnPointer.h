#pragma once

#include <atomic>
#include <memory>
#include <type_traits>

class ZnObject;

namespace zn::atomic {
class Thread;
}

namespace zn::detail {
/// One per object: holds its address until its destruction begins. Unlike an address it is never used again
/// for another object, so delayed calls hold it to tell whether their object is still the one they meant.
/// Made as a ZnConnectionHub only, which is what the rest of the object's bookkeeping needs.
struct ZnPointerControl {
    ZnObject* get() const noexcept { return object.load(std::memory_order_acquire); }

    std::atomic<ZnObject*> object;        // cleared by the object's destructor; pairs with get()
    zn::atomic::Thread* thread = nullptr; // the object's owning thread, set by its constructor; check that it lives

protected:
    explicit ZnPointerControl(ZnObject* target) : object(target) {}
    ~ZnPointerControl() = default;
};

using ZnPointerControlRef = std::shared_ptr<ZnPointerControl>;
/// For an object that cannot end meanwhile: one's own, or one of the calling thread.
ZnPointerControlRef controlOf(const ZnObject* object);
/// For any pointer: null when the object's destruction has begun.
ZnPointerControlRef controlIfLive(const ZnObject* object);
} // namespace zn::detail

/// A guard pointer: reads as null once its object's destruction has begun.
///
/// Thread: any may hold and test one; the answer is reliable on the object's own thread only.
template <typename T>
class ZnPointer {
public:
    ZnPointer() = default;
    ZnPointer(T* object) : control_(object == nullptr ? nullptr : zn::detail::controlOf(object)), typed_(object) {}

    T* get() const noexcept { return control_ && control_->get() != nullptr ? typed_ : nullptr; }
    T* operator->() const noexcept { return get(); }
    T& operator*() const noexcept { return *get(); }
    explicit operator bool() const noexcept { return get() != nullptr; }

private:
    zn::detail::ZnPointerControlRef control_;
    T* typed_ = nullptr;
};
