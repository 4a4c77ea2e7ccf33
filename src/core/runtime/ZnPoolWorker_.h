#pragma once

#include "core/runtime/ZnRunnable.h"
#include "core/runtime/ZnThread.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <utility>

struct ZnPoolTask_ {
    ZnRunnable* runnable = nullptr;
    int priority = 0;

    /// Of a task that will not run.
    void release() const {
        if (runnable->autoDelete)
            delete runnable;
    }
};

/// A worker of a thread pool: a thread with a loop, and the tasks that wait for it.
///
/// Thread: the pool's lock guards all but `id`, `thread`, `expiryMs` and `orphan`.
/// Owner: the pool; shared with a caller that is about to post to it.
struct ZnPoolWorker_ : std::enable_shared_from_this<ZnPoolWorker_> {
    bool isBusy() const { return running || scheduled || !tasks.empty(); }
    std::size_t load() const { return tasks.size() + (running || scheduled ? 1 : 0); }
    void insert(ZnPoolTask_ task) {
        const auto isHigher = [](const ZnPoolTask_& left, const ZnPoolTask_& right) {
            return left.priority > right.priority;
        };
        tasks.insert(std::upper_bound(tasks.begin(), tasks.end(), task, isHigher), task);
    }
    /// Whether the caller has to post a drain, when it has released the lock; from then on one is on its way.
    bool needsDrain() { return !tasks.empty() && !retiring && !running && !std::exchange(scheduled, true); }

    std::uint32_t id = 0;
    std::unique_ptr<ZnThread> thread;
    std::deque<ZnPoolTask_> tasks; // higher priorities first, then in order of arrival
    ZnRunnable* orphan = nullptr;  // the running task if the pool has to delete it; used on the worker's thread only
    bool running = false;
    bool scheduled = false; // a drain is on its way
    bool retiring = false;
    bool expiryArmed = false;     // a timer for the expiry is on its way
    std::uint32_t generation = 0; // changes whenever the worker stops being idle
    int expiryMs = 30000;
    long long lastActivityNs = 0;
};

using ZnPoolWorkerRef_ = std::shared_ptr<ZnPoolWorker_>;
