#pragma once

#include "core/runtime/ZnPoolState_.h"

#include <memory>

/// Runs the tasks of one worker, one after the other, on a fiber of its thread: a closure on its way there.
///
/// One that the loop drops for want of a stack comes again by a timer: else the worker would count as scheduled for
/// ever. Thread: made on any, runs on the worker's.
/// Owner: the loop that it is posted to. A task may delete the pool, which it sees by its weak reference.
class ZnPoolDrain_ {
public:
    /// Posts a drain to the worker, for which needsDrain() has just given true. Without a lock: it may have to wake a
    /// sleeping thread. A thread without a loop is ending, and its tasks move to another worker.
    static void post(ZnPoolState_& state, ZnPoolWorker_& worker);

    ZnPoolDrain_(ZnPoolDrain_&& other) noexcept;
    ZnPoolDrain_& operator=(ZnPoolDrain_&&) = delete;
    ~ZnPoolDrain_();
    void operator()();

private:
    ZnPoolDrain_(ZnPoolState_& state, ZnPoolWorker_& worker);
    static void run_(ZnPoolState_& state, ZnPoolWorker_& worker, const std::weak_ptr<ZnPoolState_>& alive);
    static void runSafely_(ZnRunnable& task, std::uint32_t workerId);
    static ZnRunnable* takeTask_(ZnPoolState_& state, ZnPoolWorker_& worker);
    /// Returns the task to go on with, or null when the fiber has to end.
    static ZnRunnable* finishTask_(ZnPoolState_& state, ZnPoolWorker_& worker, long long untilNs);

    ZnPoolState_* state_; // null once it has run or moved
    ZnPoolWorker_* worker_;
    std::weak_ptr<ZnPoolState_> alive_;
};
