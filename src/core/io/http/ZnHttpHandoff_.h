#pragma once

#include "core/io/http/ZnHttpResponse.h"
#include "core/runtime/Thread.h"
#include "core/types/ZnTask.h"

#include <memory>
#include <utility>

namespace zn::http {

/// Runs `task` on `thread`'s loop, before other work. When the pool there has no room the task waits for some: an
/// answer must not be lost because many came at once. Any thread; nothing when the thread's record was destroyed.
void handOver(zn::atomic::Thread* thread, ZnTask task);

/// A callback that carries an answer to the calling thread, where `take` gets it; on that thread it does so at once.
/// Whoever takes it may have ended by then, and only there can that be told: elsewhere it might end between the test
/// and its use.
template <typename Take>
ZnHttpResponseCallback onThisThread(Take take) {
    return [take, thread = zn::atomic::Thread::currentThread()](ZnHttpResponse&& response) {
        if (thread == nullptr || thread == zn::atomic::Thread::currentThread()) {
            take(std::move(response));
            return;
        }
        handOver(thread,
                 [take, answer = std::make_unique<ZnHttpResponse>(std::move(response))] { take(std::move(*answer)); });
    };
}

} // namespace zn::http
