#pragma once

#include "core/types/ZnMutex.h"

/// Lets go of a mutex that the caller holds, for a scope; it is held again after it, however the scope ends.
class ZN_SCOPED_CAPABILITY ZnMutexUnlocker {
public:
    explicit ZnMutexUnlocker(ZnMutex& mutex) ZN_RELEASE(mutex) : mutex_(mutex) { mutex_.unlock(); }
    ~ZnMutexUnlocker() ZN_RELEASE() ZN_NO_THREAD_SAFETY_ANALYSIS { mutex_.lock(); } // the analysis takes the scope back
    ZnMutexUnlocker(const ZnMutexUnlocker&) = delete;
    ZnMutexUnlocker& operator=(const ZnMutexUnlocker&) = delete;

private:
    ZnMutex& mutex_;
};
