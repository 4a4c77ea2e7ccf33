#include "core/runtime/ZnEventLoop.h"

#include "core/runtime/ZnCoreApplication.h"

#include <algorithm>
#include <climits>

ZnEventLoop::ZnEventLoop(ZnObject* parent) : ZnObject(parent), place_{this}, node_(place_.begin()) {}

ZnEventLoop::~ZnEventLoop() {
    quit();
}

int ZnEventLoop::exec(int timeoutMs) {
    ZnCoreApplication& application = ZnCoreApplication::instanceOrNew();
    if (running_ || application.isEndingWaits())
        return -1;
    const ZnPointer<ZnEventLoop> self(this);
    running_ = true;
    application_ = &application;
    application.runningLoops_.splice(application.runningLoops_.end(), place_, node_);
    waitId_ = nextFiberWaitId();
    int timerId = -1;
    if (timeoutMs > 0) {
        const long long timeoutUs = std::min(timeoutMs * 1000LL, static_cast<long long>(INT_MAX));
        timerId = application.addTimer(
            [self] {
                if (self)
                    self->quit();
            },
            static_cast<int>(timeoutUs), true, ZnFiberPool::kFirstLane);
    }
    application.fiberPool().yieldCurrent(waitId_);
    // The loop object may have been destroyed by now: its destructor resumes the waiter.
    if (timerId != -1)
        application.removeTimer(timerId);
    return 0;
}

void ZnEventLoop::quit() {
    if (!running_)
        return;
    leaveRunning_();
    unblockFiber(waitId_, ZnFiberPool::kFirstLane);
}

void ZnEventLoop::leaveRunning_() {
    running_ = false;
    place_.splice(place_.end(), application_->runningLoops_, node_);
}
