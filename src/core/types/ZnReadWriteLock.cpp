#include "core/types/ZnReadWriteLock.h"

#include "core/types/ZnAssert.h"

#include <cstdint>
#include <vector>

namespace {

/// How often the calling thread holds one lock, per side.
struct Holding_ {
    const ZnReadWriteLock* lock;
    std::uint32_t sharedCount;
    std::uint32_t exclusiveCount;
};

/// Holds entries with a count above 0 only, so it is as long as the number of locks held at once: a scan
/// from the back finds the latest at once, and an address that is used again starts afresh.
std::vector<Holding_>& holdings() {
    thread_local std::vector<Holding_> list;
    return list;
}

Holding_& holdingOf(const ZnReadWriteLock* lock) {
    std::vector<Holding_>& list = holdings();
    for (auto at = list.rbegin(); at != list.rend(); ++at) {
        if (at->lock == lock)
            return *at;
    }
    return list.emplace_back(Holding_{lock, 0, 0});
}

void dropHolding(Holding_& holding) {
    std::vector<Holding_>& list = holdings();
    holding = list.back();
    list.pop_back();
}

} // namespace

void ZnReadWriteLock::lockForRead() {
    if (mode_ == Mode::Recursive) {
        recursive_.lock();
        return;
    }
    Holding_& holding = holdingOf(this); // before locking: the only step that may throw
    native_.lock_shared();
    ++holding.sharedCount;
}

void ZnReadWriteLock::lockForWrite() {
    if (mode_ == Mode::Recursive) {
        recursive_.lock();
        return;
    }
    Holding_& holding = holdingOf(this);
    native_.lock();
    ++holding.exclusiveCount;
}

void ZnReadWriteLock::unlock() {
    if (mode_ == Mode::Recursive) {
        recursive_.unlock();
        return;
    }
    Holding_& holding = holdingOf(this);
    // A thread cannot hold both sides of one lock, so a count above 0 names the side.
    const bool isExclusive = holding.exclusiveCount > 0;
    ZN_ASSERT(isExclusive || holding.sharedCount > 0);
    --(isExclusive ? holding.exclusiveCount : holding.sharedCount);
    if (holding.sharedCount == 0 && holding.exclusiveCount == 0)
        dropHolding(holding);
    if (isExclusive)
        native_.unlock();
    else
        native_.unlock_shared();
}
