#pragma once

#include "core/runtime/ZnThreadPool.h"

#include <functional>
#include <memory>

/// Threads for messages and answers that are too large for the loop.
///
/// Thread: that of the loop. Owner: shared by those who await work, which may be left alone with it.
class McpWorkers : public std::enable_shared_from_this<McpWorkers> {
public:
    McpWorkers();

    /// Runs `work` on a thread of the pool while the calling fiber is parked; at once where that cannot be. False: the
    /// wait was ended before the work had; the work may still run then, so it shares what it needs and borrows nothing.
    bool await(std::function<void()> work);
    /// Gives what large messages needed in small pieces back to the system, once a burst is over: it stays with the
    /// allocator otherwise.
    void giveMemoryBackSoon();

private:
    bool isMemoryDue_ = false; // giveMemoryBackSoon() has a timer
    ZnThreadPool pool_;
};
