#pragma once

#include <utility>

/// A piece of work for a ZnThreadPool.
///
/// Thread: run() is called once, on a fiber of one of the pool's workers, so it may park.
/// Owner: the pool from the moment it has accepted the task, if `autoDelete` is set then; otherwise whoever made it,
/// who may delete it as soon as run() has done what it waits for.
class ZnRunnable {
public:
    ZnRunnable() = default;
    virtual ~ZnRunnable() = default;
    ZnRunnable(const ZnRunnable&) = delete;
    ZnRunnable& operator=(const ZnRunnable&) = delete;

    /// An exception that leaves it is logged by the pool and goes no further.
    virtual void run() = 0;

    bool autoDelete = true; // read before run()
};

/// Runs a callable: `pool.start(new ZnCallableRunnable([=] { ... }), 0)`.
template <typename F>
class ZnCallableRunnable final : public ZnRunnable {
public:
    explicit ZnCallableRunnable(F callable) : callable_(std::move(callable)) {}
    void run() override { callable_(); }

private:
    F callable_;
};
