#pragma once

#include "core/runtime/ZnThreadPool.h"

#include <functional>

namespace mcp {

/// Runs `work` on a thread of the pool while the calling fiber is parked; at once where that cannot be. False: the wait was
/// ended before the work had, or the pool went; the work may still run then, so it shares what it needs and borrows
/// nothing.
bool awaitWork(ZnThreadPool& pool, std::function<void()> work);

/// Parks the calling fiber for one turn of the loop. Nothing when it is on none.
void letOthersRun();

} // namespace mcp
