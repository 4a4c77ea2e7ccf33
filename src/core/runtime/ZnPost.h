#pragma once

#include "core/runtime/ZnFiberPool.h"
#include "core/types/ZnTask.h"

#include <cstdint>

namespace zn::atomic {
class Thread;
}

/// How a task is posted, and what happens when it cannot be queued at once.
struct ZnPostOptions {
    /// When the pool is full. Refuse: the log tells of the first refusal of a burst at once, and of the others with
    /// their number a second later. RefuseInSilence: it does not, nor is the refusal counted. Wait: the task stands in
    /// line, as a timer that is due, until there is room.
    enum class WhenFull : std::uint8_t { Refuse, RefuseInSilence, Wait };
    /// When the thread has no loop, not yet or not any more. Keep: the task is posted at the thread's next start.
    enum class WhenNotRunning : std::uint8_t { Keep, Refuse };
    /// When the target is null, or its record was destroyed. UseFallback: the task is posted to the current thread, and
    /// from a thread without a record to the fallback thread.
    enum class WhenGone : std::uint8_t { Refuse, UseFallback };

    int lane = ZnFiberPool::kDefaultLane;
    ZnFiberPool::Purpose purpose = ZnFiberPool::Purpose::NewWork;
    WhenFull whenFull = WhenFull::Refuse;
    WhenNotRunning whenNotRunning = WhenNotRunning::Keep;
    WhenGone whenGone = WhenGone::Refuse;
};

/// What has become of a post. Queued: it runs, or waits in line. Kept: for the thread's next start. With the others
/// the task is still the caller's, which may destroy it without any lock.
enum class ZnPostResult { Queued, Kept, Full, NotRunning, Gone };

/// Posts to a thread whose record may be null or be ending on another thread. Any thread.
ZnPostResult postTask(zn::atomic::Thread* target, ZnTask& task, ZnPostOptions options = {});
/// Posts to a thread whose record stays for as long as the call takes. Any thread.
ZnPostResult postTask(zn::atomic::Thread& target, ZnTask& task, ZnPostOptions options = {});

/// As postTask() for a record that stays: returns whether the task was queued, and destroys a refused one. Any thread.
bool postToThread(zn::atomic::Thread* target, ZnTask task, int lane = ZnFiberPool::kDefaultLane);
