#pragma once

#include "core/storage/embeddeddb/WalFrame_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

namespace znEmbeddedDbDetail {

/// One write on its way to the log.
///
/// Thread: its writer's until it is queued, then the committing thread's until it is done.
struct PendingWrite_ {
    WalBatch_ batch;
    bool isSynced = false;   // the writer waits for stable storage
    bool isPeriodic = false; // brought there within the sync interval
    std::uint64_t putCount = 0;
    std::function<void(const ZnEmbeddedDbStatus&)> whenDone; // set: nobody waits

    // Of what follows, where somebody waits. The condition wants this type, and spares the waiter a second lock.
    std::mutex mutex;
    std::condition_variable condition;
    ZnEmbeddedDbStatus status;
    bool done = false;
};

} // namespace znEmbeddedDbDetail
