#pragma once

#include "core/ipc/Subscription.h"
#include "core/runtime/ZnThreadPool.h"
#include "core/storage/embeddeddb/CommitQueue_.h"
#include "core/storage/embeddeddb/MaintenanceScheduler_.h"
#include "core/storage/embeddeddb/StoreCore_.h"
#include "core/storage/embeddeddb/StoreLock_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbFlushScheduler.h"

#include "core/storage/embeddeddb/ZnEmbeddedDb.h"

#include <atomic>

namespace znEmbeddedDbDetail {

/// What a ZnEmbeddedDb is made of: the shared state, the parts that work on it, and how it is opened and closed.
///
/// Thread: open, watch and close, the owner's; `isOpen` any. Owner: ZnEmbeddedDb. The pool is destroyed first, and
/// waits for tasks, which use all the others.
struct Store_ {
    explicit Store_(ZnStorageFiles& files) : core(files) { threadPool.setMaxThreadCount(kBackgroundThreads); }

    static constexpr int kBackgroundThreads = 3; // a flush never waits behind anything else

    StoreCore_ core;
    MaintenanceScheduler_ maintenance{core, threadPool};
    FlushScheduler_ flushes{core, threadPool, maintenance};
    CommitQueue_ commits{core, flushes, maintenance};
    StoreLock_ lockFile;
    std::atomic<bool> isOpen{false};
    long long closeWaitMs = 15000; // for background work that runs when the store closes
    ZnMutex refreshLock;           // first of all the store's locks; one refresh at a time, none while the store closes
    std::unique_ptr<zn::ipc::Subscription> subscription; // null: nobody watches
    std::atomic<bool> hasIndexes{false}; // some record has secondary keys: writes must look at what they replace
    ZnThreadPool threadPool;             // the last member
};

/// What a store is made of, for tests that hold its background work at sync points.
struct StoreAccess_ {
    static Store_& of(ZnEmbeddedDb& store) { return *store.store_; }
};

} // namespace znEmbeddedDbDetail
