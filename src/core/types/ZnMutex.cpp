#include "core/types/ZnMutex.h"

bool ZnMutex::tryLock() {
    if (mode_ == Mode::Recursive)
        return recursive_.try_lock();
    std::uint32_t expected = kFree_;
    // Pairs with the releasing exchange in unlock().
    return state_.compare_exchange_strong(expected, kHeld_, std::memory_order_acquire, std::memory_order_relaxed);
}

void ZnMutex::lockSlow_() {
    if (mode_ == Mode::Recursive) {
        recursive_.lock();
        return;
    }
    // A thread that has come this far cannot know whether others wait too, so it takes the lock as contended;
    // at worst its unlock() wakes nobody. Pairs with the releasing exchange in unlock().
    while (state_.exchange(kContended_, std::memory_order_acquire) != kFree_)
        state_.wait(kContended_, std::memory_order_relaxed);
}

void ZnMutex::unlockSlow_() {
    if (mode_ == Mode::Recursive)
        recursive_.unlock();
    else
        state_.notify_one();
}

int& zn::detail::heldLockCount() noexcept {
    thread_local int count = 0;
    return count;
}
