#pragma once

#include "core/types/ZnThreadAnnotations.h"

#include <mutex>
#include <shared_mutex>

/// Shared and exclusive lock. Mode Recursive lets its owner take it again, exclusively in every case.
///
/// Thread: any. unlock() releases the side that the calling thread took last; in mode NonRecursive the
/// counts that tell it are kept per thread and lock.
class ZN_CAPABILITY("shared_mutex") ZnReadWriteLock {
public:
    enum class Mode { NonRecursive = 0, Recursive = 1 };

    explicit ZnReadWriteLock(Mode mode = Mode::NonRecursive) : mode_(mode) {}
    ZnReadWriteLock(const ZnReadWriteLock&) = delete;
    ZnReadWriteLock& operator=(const ZnReadWriteLock&) = delete;

    void lockForRead() ZN_ACQUIRE_SHARED();
    void lockForWrite() ZN_ACQUIRE();
    void unlock() ZN_RELEASE_GENERIC();

private:
    const Mode mode_;
    std::shared_mutex native_;
    std::recursive_mutex recursive_; // used in mode Recursive only
};
