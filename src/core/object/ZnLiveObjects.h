#pragma once

#include "core/types/ZnMutex.h"

#include <cstddef>
#include <vector>

class ZnObject;

/// Every object whose destruction has not begun: a hash set of addresses, without an allocation per object.
///
/// Thread: any. One per process, never destroyed. The lock is held for the look-up alone.
class ZnLiveObjects {
public:
    static ZnLiveObjects& instance();

    void insert(const ZnObject* object);
    void remove(const ZnObject* object);
    bool contains(const ZnObject* object);

private:
    ZnLiveObjects();

    std::size_t homeOf_(const ZnObject* object) const ZN_REQUIRES(lock_);
    std::size_t find_(const ZnObject* object) const ZN_REQUIRES(lock_);
    void grow_() ZN_REQUIRES(lock_);
    void place_(const ZnObject* object) ZN_REQUIRES(lock_);

    ZnMutex lock_; // leaf lock
    std::vector<const ZnObject*> places_ ZN_GUARDED_BY(lock_); // linear probing; null is free; a power of two
    std::size_t count_ ZN_GUARDED_BY(lock_) = 0;
};
