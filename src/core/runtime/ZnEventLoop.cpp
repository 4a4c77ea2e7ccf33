#include "core/runtime/ZnEventLoop.h"

#include "core/runtime/ZnCoreApplication.h"

#include <algorithm>
#include <climits>

ZnEventLoop::ZnEventLoop(ZnObject* parent) : ZnObject(parent) {}

ZnEventLoop::~ZnEventLoop() {
    quit();
}

int ZnEventLoop::exec(int timeoutMs) {
    if (running_)
        return -1;
    ZnCoreApplication& application = ZnCoreApplication::instanceOrNew();
    const ZnPointer<ZnEventLoop> self(this);
    running_ = true;
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
    // The loop object may be gone by now: its destructor resumes the waiter.
    if (timerId != -1)
        application.removeTimer(timerId);
    return 0;
}

void ZnEventLoop::quit() {
    if (!running_)
        return;
    running_ = false;
    unblockFiber(waitId_, ZnFiberPool::kFirstLane);
}
