#pragma once

#include "core/runtime/ZnPoolState_.h"

#include <cstdint>

/// How workers leave their pool: after an idle time, or because something else has ended their loops.
namespace ZnPoolRetirement_ {

/// On the worker's thread, at the end of a task behind which no other one waits. Returns whether the caller has to call
/// armExpiry() with `*generation`, when it has released the lock.
bool beginIdleTime(ZnPoolState_& state, ZnPoolWorker_& worker, std::uint32_t* generation) ZN_REQUIRES(state.lock);
void armExpiry(ZnPoolState_& state, ZnPoolWorker_& worker, std::uint32_t generation);
/// On the worker's thread, when its loop has ended: what it had to do goes to other workers, or is dropped.
void workerEnded(ZnPoolState_& state, ZnPoolWorker_& worker);
/// Any thread: gives out the retired workers whose threads have ended, to be joined and deleted without the lock.
void takeEnded(ZnPoolState_& state, ZnPoolState_::Workers* ended) ZN_REQUIRES(state.lock);
/// Any thread: joins and deletes them.
void reap(ZnPoolState_& state) ZN_EXCLUDES(state.lock);

} // namespace ZnPoolRetirement_
