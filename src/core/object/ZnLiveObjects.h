#pragma once

#include "core/object/ZnPointer.h"
#include "core/types/ZnMutex.h"

#include <cstddef>
#include <vector>

/// Every object whose destruction has not begun: a hash set of addresses, without an allocation per object.
///
/// Thread: any. One per process, never destroyed. The lock is held for the look-up alone.
class ZnLiveObjects {
public:
    static ZnLiveObjects& instance();

    void insert(const ZnObject* object);
    void remove(const ZnObject* object);
    bool contains(const ZnObject* object);
    /// The object's control, taken while the object cannot end; null when it is not in the set.
    zn::detail::ZnPointerControlRef controlOf(const ZnObject* object);
    /// Makes every object between the two addresses count as destroyed: their memory is freed without their
    /// destructors.
    void forgetWithin(const void* begin, const void* end);

private:
    ZnLiveObjects();

    std::size_t homeOf_(const ZnObject* object) const ZN_REQUIRES(lock_);
    std::size_t find_(const ZnObject* object) const ZN_REQUIRES(lock_);
    void grow_() ZN_REQUIRES(lock_);
    void place_(const ZnObject* object) ZN_REQUIRES(lock_);
    std::vector<const ZnObject*> objectsWithin_(const void* begin, const void* end);

    ZnMutex lock_;                                             // leaf lock
    std::vector<const ZnObject*> places_ ZN_GUARDED_BY(lock_); // linear probing; null is free; a power of two
    std::size_t count_ ZN_GUARDED_BY(lock_) = 0;
};
