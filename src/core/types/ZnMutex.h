#pragma once

#include "core/types/ZnThreadAnnotations.h"

#include <atomic>
#include <cstdint>
#include <mutex>

/// The system's lock.
///
/// Mode NonRecursive has no owner: a flag that a waiter sets when it is clear, so it may be released by
/// another thread than the one that took it. Mode Recursive is owned by a thread and counts its depth.
/// Thread: any. No fiber may park while it holds one; use ZnMutexLocker, which lets debug builds check that.
class ZN_CAPABILITY("mutex") ZnMutex {
public:
    enum class Mode { NonRecursive = 0, Recursive = 1 };

    explicit ZnMutex(Mode mode = Mode::NonRecursive) : mode_(mode) {}
    ZnMutex(const ZnMutex&) = delete;
    ZnMutex& operator=(const ZnMutex&) = delete;

    void lock() ZN_ACQUIRE() {
        std::uint32_t expected = kFree_;
        if (mode_ == Mode::Recursive ||
            !state_.compare_exchange_strong(expected, kHeld_, std::memory_order_acquire, std::memory_order_relaxed))
            lockSlow_();
    }
    bool tryLock() ZN_TRY_ACQUIRE(true);
    void unlock() ZN_RELEASE() {
        // Pairs with the acquiring exchange of the next owner in lock() or lockSlow_().
        if (mode_ == Mode::Recursive || state_.exchange(kFree_, std::memory_order_release) == kContended_)
            unlockSlow_();
    }
    Mode mode() const { return mode_; }

private:
    static constexpr std::uint32_t kFree_ = 0;
    static constexpr std::uint32_t kHeld_ = 1;
    static constexpr std::uint32_t kContended_ = 2; // held, and someone may be waiting

    void lockSlow_();
    void unlockSlow_();

    const Mode mode_;
    std::atomic<std::uint32_t> state_{kFree_};
    std::recursive_mutex recursive_; // used in mode Recursive only
};

namespace zn::detail {
/// Locks that the calling thread holds through ZnMutexLocker. A fiber switch asserts that it is 0.
int& heldLockCount() noexcept;
} // namespace zn::detail

/// Holds a ZnMutex for a scope.
class ZN_SCOPED_CAPABILITY ZnMutexLocker {
public:
    explicit ZnMutexLocker(ZnMutex& mutex) ZN_ACQUIRE(mutex) : mutex_(mutex) {
        mutex_.lock();
#if !defined(__OPTIMIZE__)
        ++zn::detail::heldLockCount();
#endif
    }
    ~ZnMutexLocker() ZN_RELEASE() {
#if !defined(__OPTIMIZE__)
        --zn::detail::heldLockCount();
#endif
        mutex_.unlock();
    }
    ZnMutexLocker(const ZnMutexLocker&) = delete;
    ZnMutexLocker& operator=(const ZnMutexLocker&) = delete;

private:
    ZnMutex& mutex_;
};
