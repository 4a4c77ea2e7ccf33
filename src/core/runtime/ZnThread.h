#pragma once

#include "core/object/ZnObject.h"
#include "core/runtime/Thread.h"

#include <memory>

/// A thread with an event loop of its own, with signals for its start and its end.
///
/// Thread: start() and the destructor belong to the owning thread or to whoever guards them; quit, wait and isRunning
/// may be called from any thread. Both signals are emitted on the new thread itself: connect a receiver of another
/// thread with QueuedConnection.
/// Owner: its parent, or whoever made it. The destructor ends the loop and waits for the thread; on that thread itself
/// it does not wait.
/// A subclass that overrides run() calls quit() and wait() in its own destructor.
class ZnThread : public ZnObject {
public:
    ZN_OBJECT(ZnThread, ZnObject)

    explicit ZnThread(ZnString name, ZnObject* parent = nullptr);
    ~ZnThread() override;

    /// Starts the thread and returns once its loop accepts posts. False, with a line in the log, if it runs already,
    /// the system has no thread to give, or a slot of `finished` asks for it on the ending thread itself. A thread that
    /// has finished may be started again.
    virtual bool start();
    /// Called once per start, on a fiber of the new thread's loop.
    virtual void run();

    /// Ends the loop after what is queued on its lane 0. Does not wait.
    void quit();
    /// Blocks the calling thread until this one has ended; returns at once when that is this one itself.
    void wait();
    bool isRunning() const noexcept { return thread_->isRunning(); }
    /// Whether the caller is on this thread.
    bool isCurrent() const;

    const ZnString& name() const noexcept { return thread_->name(); }
    zn::atomic::Thread& handle() const noexcept { return *thread_; }

    void started();  // signal, before the loop runs
    void finished(); // signal, after the loop and its application have ended

private:
    std::unique_ptr<zn::atomic::Thread> thread_;
};
