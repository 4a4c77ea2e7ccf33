#pragma once

#include "core/platform/ZnPoller.h"
#include "core/platform/ZnWaitHandle.h"
#include "core/types/ZnMutex.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

class ZnCoreApplication;

/// Turns the signalled state of a handle into a callback on the owning application's thread, on a pooled fiber.
///
/// At most one closure per entry is on its way at any time; what comes meanwhile is merged and leads to another
/// round. A post that the pool refuses leaves its entry marked, and it is posted as soon as there is room.
/// Thread: watchHandle, unwatch and signal may be called from any; the rest belongs to the loop.
/// Owner: the ZnCoreApplication, by value.
class ZnIoDispatcher {
public:
    using Callback = std::function<void(unsigned pendingMask)>;

    ZnIoDispatcher(ZnCoreApplication& application, ZnPoller& poller);
    ~ZnIoDispatcher();
    ZnIoDispatcher(const ZnIoDispatcher&) = delete;
    ZnIoDispatcher& operator=(const ZnIoDispatcher&) = delete;

    /// Calls `callback` whenever `handle` is signalled, until unwatch. Returns an id, or 0 on failure. The handle is
    /// kept alive while it is watched.
    unsigned long long watchHandle(std::shared_ptr<ZnWaitHandle> handle, Callback callback);
    /// After it returns no callback begins any more. Id 0 and unknown ids do nothing.
    void unwatch(unsigned long long id);
    /// As if the handle had been signalled.
    void signal(unsigned long long id);

    /// The loop's part: takes what the poller reports (sleeping up to `timeoutNs`), as much as the pool has room for,
    /// and posts it.
    void pollAndDispatch(long long timeoutNs);
    /// Whether refused entries wait for room.
    bool hasDeferred() const noexcept { return deferredCount_.load(std::memory_order_acquire) > 0; }
    /// Posts refused entries again, as far as there is room.
    void dispatchDeferred();

    void shutdown();

private:
    struct Entry_ : std::enable_shared_from_this<Entry_> {
        unsigned long long id = 0;
        ZnIoDispatcher* dispatcher = nullptr;
        std::shared_ptr<ZnWaitHandle> handle;
        Callback callback;
        std::atomic<bool> active{true};     // becomes false once
        std::atomic<bool> scheduled{false}; // a drain is queued or runs
        std::atomic<unsigned> pendingMask{0};
    };
    class Drain_;

    unsigned long long insert_(std::shared_ptr<Entry_> entry);
    int room_() const;
    void dispatch_(const std::shared_ptr<Entry_>& entry, unsigned mask);
    void defer_(std::shared_ptr<Entry_> entry);
    void drainEnded_(const std::shared_ptr<Entry_>& entry);
    void retire_(std::shared_ptr<Entry_> entry);
    std::shared_ptr<Entry_> find_(unsigned long long id);

    ZnCoreApplication& application_;
    ZnPoller& poller_;
    std::atomic<int> deferredCount_{0}; // mirrors deferred_; changed under mutex_
    std::atomic<bool> hasRetired_{false};

    ZnMutex mutex_; // leaf lock: nothing is called while it is held
    std::unordered_map<unsigned long long, std::shared_ptr<Entry_>> entries_ ZN_GUARDED_BY(mutex_);
    std::deque<std::shared_ptr<Entry_>> deferred_ ZN_GUARDED_BY(mutex_); // marked, but the pool had no room
    // Kept until the loop has finished the batch it may be in.
    std::vector<std::shared_ptr<Entry_>> retired_ ZN_GUARDED_BY(mutex_);
    unsigned long long nextId_ ZN_GUARDED_BY(mutex_) = 1;
    bool shuttingDown_ ZN_GUARDED_BY(mutex_) = false;
};
