#pragma once

#include "core/types/ZnTask.h"

namespace zn::atomic {
class Thread;
}

namespace zn::http {

/// Runs `task` on `thread`'s loop, before other work. When the pool there has no room the task waits for some: an
/// answer must not be lost because many came at once. Any thread; nothing when the thread's record has gone.
void handOver(zn::atomic::Thread* thread, ZnTask task);

} // namespace zn::http
