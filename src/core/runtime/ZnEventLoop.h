#pragma once

#include "core/object/ZnObject.h"

#include <list>

class ZnCoreApplication;

/// Parks the calling fiber until quit(): the way in which code on a fiber waits without stopping its thread.
///
/// Thread: the owning thread, on a pooled fiber (every posted closure, timer and slot is on one). Called off a
/// fiber, exec() does not wait.
class ZnEventLoop : public ZnObject {
public:
    ZN_OBJECT(ZnEventLoop, ZnObject)

    explicit ZnEventLoop(ZnObject* parent = nullptr);
    /// Resumes a waiter that is still parked.
    ~ZnEventLoop() override;

    /// Parks until quit(), or until `timeoutMs` milliseconds have passed if that is above 0. Returns -1 at once when
    /// the loop is already running or the application is ending its waits, else 0.
    int exec(int timeoutMs = 0);
    /// Ends exec(); nothing when it does not run.
    void quit();
    bool isRunning() const noexcept { return running_; }

private:
    friend class ZnCoreApplication; // lets go of the loops that still run when it ends
    void leaveRunning_();

    bool running_ = false;
    int waitId_ = 0;
    // One node, which moves to the application's running loops while this one runs.
    std::list<ZnEventLoop*> place_;
    const std::list<ZnEventLoop*>::iterator node_;
    ZnCoreApplication* application_ = nullptr; // while it runs
};
