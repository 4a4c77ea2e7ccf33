#pragma once

#include "core/storage/embeddeddb/Memtable_.h"
#include "core/types/ZnThreadAnnotations.h"

#include <mutex>
#include <shared_mutex>

namespace znEmbeddedDbDetail {

/// A reader/writer lock that the thread-safety analysis knows, with scopes for either side.
class ZN_CAPABILITY("shared_mutex") MemtableLock_ {
public:
    void lock() ZN_ACQUIRE() { native_.lock(); }
    void unlock() ZN_RELEASE() { native_.unlock(); }
    void lockShared() ZN_ACQUIRE_SHARED() { native_.lock_shared(); }
    void unlockShared() ZN_RELEASE() { native_.unlock_shared(); }

private:
    std::shared_mutex native_;
};

class ZN_SCOPED_CAPABILITY MemtableReadScope_ {
public:
    explicit MemtableReadScope_(MemtableLock_& lock) ZN_ACQUIRE_SHARED(lock) : lock_(lock) { lock_.lockShared(); }
    ~MemtableReadScope_() ZN_RELEASE() { lock_.unlockShared(); }
    MemtableReadScope_(const MemtableReadScope_&) = delete;
    MemtableReadScope_& operator=(const MemtableReadScope_&) = delete;

private:
    MemtableLock_& lock_;
};

class ZN_SCOPED_CAPABILITY MemtableWriteScope_ {
public:
    explicit MemtableWriteScope_(MemtableLock_& lock) ZN_ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
    ~MemtableWriteScope_() ZN_RELEASE() { lock_.unlock(); }
    MemtableWriteScope_(const MemtableWriteScope_&) = delete;
    MemtableWriteScope_& operator=(const MemtableWriteScope_&) = delete;

private:
    MemtableLock_& lock_;
};

/// A memtable that readers and the committing thread share; once it is sealed it does not change any more.
///
/// Thread: any, through `lock`. Owner: shared by the store and the views.
struct SharedMemtable_ {
    MemtableLock_ lock; // taken after the store's mutex; see docs/lock-order.md
    Memtable_ table ZN_GUARDED_BY(lock);

    /// Of a memtable that has been sealed: without the lock, sorted when first asked for.
    const Memtable_& sealed() ZN_NO_THREAD_SAFETY_ANALYSIS {
        std::call_once(sortedOnce_, [this]() ZN_NO_THREAD_SAFETY_ANALYSIS { table.sort(); });
        return table;
    }

private:
    std::once_flag sortedOnce_;
};

} // namespace znEmbeddedDbDetail
