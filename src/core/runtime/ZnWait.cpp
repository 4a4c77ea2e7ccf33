#include "core/runtime/ZnWait.h"

#include "core/runtime/ZnCoreApplication.h"

#include <algorithm>
#include <climits>

bool ZnSignalWait::run(int maxMs) {
    if (hasEnded_)
        return isFulfilled_;
    ZnCoreApplication& application = ZnCoreApplication::instanceOrNew();
    int timerId = -1;
    if (maxMs >= 0) {
        const auto delayUs = static_cast<int>(std::min(maxMs * 1000LL, static_cast<long long>(INT_MAX)));
        // On the default lane: a wait of no time at all is there for others to have their turn.
        timerId = application.addTimer(
            [this, loop = ZnPointer<ZnEventLoop>(&loop_)] {
                if (!loop || hasEnded_)
                    return;
                hasTimedOut_ = true;
                end_(false);
            },
            delayUs, true, ZnFiberPool::kDefaultLane);
    }
    loop_.exec();
    if (timerId != -1)
        application.removeTimer(timerId);
    return isFulfilled_;
}

void ZnSignalWait::end_(bool isFulfilled) {
    if (std::exchange(hasEnded_, true))
        return;
    isFulfilled_ = isFulfilled;
    loop_.quit();
}

bool sleepFor(int ms) {
    ZnSignalWait wait;
    wait.run(std::max(ms, 0));
    return wait.hasTimedOut();
}
