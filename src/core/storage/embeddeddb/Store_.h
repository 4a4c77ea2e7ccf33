#pragma once

#include "core/runtime/ZnThreadPool.h"
#include "core/storage/embeddeddb/CommitQueue_.h"
#include "core/storage/embeddeddb/StoreCore_.h"
#include "core/storage/embeddeddb/StoreLock_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbFlushScheduler.h"

#include <atomic>

namespace znEmbeddedDbDetail {

/// What a ZnEmbeddedDb is made of: the shared state, the parts that work on it, and how it is opened and closed.
///
/// Thread: open and close, the owner's; `isOpen` any. Owner: ZnEmbeddedDb. The pool goes first: it waits for tasks.
struct Store_ {
    explicit Store_(ZnStorageFiles& files) : core(files) { threadPool.setMaxThreadCount(kBackgroundThreads); }

    static constexpr int kBackgroundThreads = 3; // a flush never waits behind anything else

    StoreCore_ core;
    ZnThreadPool threadPool;
    FlushScheduler_ flushes{core, threadPool};
    CommitQueue_ commits{core, flushes};
    StoreLock_ lockFile;
    std::atomic<bool> isOpen{false};
    std::atomic<bool> hasIndexes{false}; // some record has secondary keys: writes must look at what they replace
};

} // namespace znEmbeddedDbDetail
