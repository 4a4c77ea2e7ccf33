#include "core/runtime/ZnTimer.h"

#include "core/platform/ZnMonotonicClock.h"
#include "core/runtime/ZnCoreApplication.h"

#include <algorithm>

namespace {

constexpr long long kLongestUs = 0x7fffffff;

/// Ends a timer that was made for one call.
class EndAtEnd_ {
public:
    explicit EndAtEnd_(const ZnPointer<ZnTimer>& timer) : timer_(timer) {}
    ~EndAtEnd_() {
        if (!timer_)
            return;
        timer_->stop();
        timer_->deleteLater();
    }
    EndAtEnd_(const EndAtEnd_&) = delete;
    EndAtEnd_& operator=(const EndAtEnd_&) = delete;

private:
    const ZnPointer<ZnTimer> timer_; // its own: the slot may be destroyed with the timer
};

} // namespace

ZnTimer::ZnTimer(ZnObject* parent) : ZnObject(parent) {}

ZnTimer::ZnTimer(int ms, ZnObject* parent) : ZnObject(parent), intervalUs_(ms * 1000LL) {}

ZnTimer::~ZnTimer() {
    if (timerId_ != -1)
        ZnCoreApplication::instanceOrNew().removeTimer(timerId_);
}

bool ZnTimer::forwardToOwner_(std::function<void(ZnTimer*)> call) {
    zn::atomic::Thread* owner = thread();
    if (owner == nullptr || owner == zn::atomic::Thread::currentThread())
        return false;
    ZnTask forwarded([self = ZnPointer<ZnTimer>(this), call = std::move(call)] {
        if (self)
            call(self.get());
    });
    postTask(owner, forwarded); // a thread that has ended has no timers
    return true;
}

void ZnTimer::setIntervalUs_(long long intervalUs) {
    if (!active_)
        intervalUs_ = std::max(intervalUs, 1LL);
}

void ZnTimer::start(int ms) {
    startUs(ms * 1000LL);
}

void ZnTimer::startUs(long long intervalUs) {
    if (forwardToOwner_([intervalUs](ZnTimer* timer) { timer->startUs(intervalUs); }))
        return;
    setIntervalUs_(intervalUs);
    start();
}

void ZnTimer::start() {
    if (forwardToOwner_([](ZnTimer* timer) { timer->start(); }) || active_)
        return;
    active_ = true;
    lastTimeoutNs_ = monotonicNowNs();
    const auto delayUs = static_cast<int>(std::clamp(intervalUs_, 1LL, kLongestUs));
    timerId_ = ZnCoreApplication::instanceOrNew().addTimer(
        [self = ZnPointer<ZnTimer>(this)] {
            if (!self)
                return;
            self->lastTimeoutNs_ = monotonicNowNs();
            self->timeout();
        },
        delayUs, singleShot_, ZnFiberPool::kDefaultLane);
}

void ZnTimer::stop() {
    if (forwardToOwner_([](ZnTimer* timer) { timer->stop(); }) || !active_)
        return;
    active_ = false;
    if (timerId_ != -1)
        ZnCoreApplication::instanceOrNew().removeTimer(std::exchange(timerId_, -1));
}

void ZnTimer::singleShot(int ms, std::function<void()> fn) {
    singleShotUs(ms * 1000LL, std::move(fn));
}

void ZnTimer::singleShotUs(long long intervalUs, std::function<void()> fn) {
    auto* timer = new ZnTimer(nullptr);
    timer->setIntervalUs_(intervalUs);
    timer->setSingleShot(true);
    timer->connect(&ZnTimer::timeout, [guard = ZnPointer<ZnTimer>(timer), fn = std::move(fn)] {
        const EndAtEnd_ end(guard); // also when the function throws
        fn();
    });
    timer->start();
}

void ZnTimer::timeout() {
    emitSignal(&ZnTimer::timeout);
}
