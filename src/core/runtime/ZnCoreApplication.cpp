#include "core/runtime/ZnCoreApplication.h"

#include "core/object/ZnObject.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/platform/ZnThreadControl.h"
#include "core/runtime/ZnEventLoop.h"
#include "core/types/ZnAssert.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <map>

namespace {

constexpr const char* kCategory = "zn.core.runtime.zncoreapplication";
constexpr long long kNsPerUs = 1000;
constexpr long long kNsPerMs = 1000000;
/// While work is always queued, the poller and the events of low priority still get their turn this often: whichever
/// comes first. The work between two looks bounds how late everybody else's readiness is seen.
constexpr unsigned kWorkPerLook = 256;
constexpr long long kLongestBetweenLooksNs = kNsPerMs;
constexpr int kRejectionReportUs = 1000000;

thread_local ZnCoreApplication* currentApplication = nullptr;

/// Every application of the process by its thread, for wake-ups that come from other threads.
struct ApplicationMap_ {
    ZnMutex mutex;
    std::map<std::uint32_t, ZnCoreApplication*> byThread ZN_GUARDED_BY(mutex);
};

ApplicationMap_& applicationMap() {
    static ApplicationMap_* const map = new ApplicationMap_; // threads may outlive static destruction
    return *map;
}

std::unique_ptr<ZnPoller> checked(std::unique_ptr<ZnPoller> poller) {
    ZN_ASSERT(poller != nullptr); // no descriptors left
    return poller;
}

} // namespace

ZnCoreApplication::ZnCoreApplication(int argc, char** argv) : ZnCoreApplication(ZnPoller::open()) {
    ZnThreadControl::raiseDescriptorLimit();
    parseCommandLine_(argc, argv);
}

ZnCoreApplication::ZnCoreApplication() : ZnCoreApplication(ZnPoller::open()) {}

ZnCoreApplication::ZnCoreApplication(std::unique_ptr<ZnPoller> poller, bool isHelper)
    : isHelper_(isHelper), poller_(checked(std::move(poller))), ioDispatcher_(*this, *poller_) {
    ZN_ASSERT(currentApplication == nullptr); // one per thread
    currentApplication = this;
    threadId_ = ZnThreadControl::currentThreadId();
    ZnThreadControl::usePreciseTimers();
    fiberPool_.setMainFiber(&mainFiber_);
    setEventFiberStackSize(0);
    {
        ApplicationMap_& map = applicationMap();
        const ZnMutexLocker locker(map.mutex);
        map.byThread[threadId_] = this;
    }
    zn::atomic::Thread::attachApplication(this);
    ZnConsoleStop::add(this);
}

ZnCoreApplication::~ZnCoreApplication() {
    ZnConsoleStop::remove(this);
    zn::atomic::Thread::attachApplication(nullptr); // from here on posts from other threads are kept or go elsewhere
    while (!runningLoops_.empty()) // they may outlive this application, or end with their fibers' stacks
        runningLoops_.front()->leaveRunning_();
    events_.deleteWaitingObjects();
    for (int lane = 0; lane < ZnFiberPool::kLaneCount; ++lane)
        reportRejections_(lane);
    ioDispatcher_.shutdown();
    fiberPool_.shutdown();
    events_.deleteWaitingObjects(); // what the captures of dropped tasks let go of
    timers_.clear();
    ApplicationMap_& map = applicationMap();
    const ZnMutexLocker locker(map.mutex);
    map.byThread.erase(threadId_);
    currentApplication = nullptr;
}

ZnCoreApplication* ZnCoreApplication::instance() noexcept {
    return currentApplication;
}

ZnCoreApplication& ZnCoreApplication::instanceOrNew() {
    if (currentApplication == nullptr)
        new ZnCoreApplication(); // enters itself in the thread's slot and stays there
    return *currentApplication;
}

void ZnCoreApplication::parseCommandLine_(int argc, char** argv) {
    ZnString lastKey;
    for (int i = 1; i < argc; ++i) {
        const ZnString argument(argv[i]);
        const std::size_t equalsAt = argument.indexOf("=");
        const bool isLong = argument.startsWith("--");
        if (isLong && equalsAt != ZnString::npos) {
            lastKey = ZnString(argument.view().substr(2, equalsAt - 2));
            parsedOptions_.insert(lastKey, ZnString(argument.view().substr(equalsAt + 1)));
        } else if (argument.startsWith("-")) {
            lastKey = ZnString(argument.view().substr(isLong ? 2 : 1));
            const bool hasValue = i + 1 < argc && !ZnString(argv[i + 1]).startsWith("-");
            parsedOptions_.insert(lastKey, hasValue ? ZnString(argv[++i]) : ZnString());
        } else if (!lastKey.isEmpty()) {
            ZnString& value = parsedOptions_[lastKey];
            value += ' ';
            value += argument;
        }
    }
}

void ZnCoreApplication::setEventFiberStackSize(int bytes) {
    if (fiberPool_.isWarmedUp()) {
        ZN_LOG_WARNING(kCategory, "ZnCoreApplication::setEventFiberStackSize")
            << "setEventFiberStackSize() called after fiber pool warm-up; existing warm fibers keep their original "
               "stack size and only future spillover fibers may use the new value.";
    }
    ZnFiberPool::Config config;
    if (bytes > 0)
        config.stackSize = bytes;
    fiberPool_.configure(config);
}

// --- the loop

int ZnCoreApplication::exec(long long maxDurationUs) {
    ZnThreadControl::raisePriority();
    if (isQuitRequested())
        return exitCode_;
    const long long deadlineNs = maxDurationUs == 0 ? 0 : monotonicNowNs() + maxDurationUs * kNsPerUs;
    runLoop_(nullptr, deadlineNs);
    return exitCode_;
}

bool ZnCoreApplication::processUntil(const std::function<bool()>& isDone, int maxMs) {
    if (isDone())
        return true;
    return runLoop_(&isDone, monotonicNowNs() + maxMs * kNsPerMs);
}

bool ZnCoreApplication::endWaits(int maxMs) {
    endingWaits_ = true;
    const auto endThem = [this] {
        while (!runningLoops_.empty())
            runningLoops_.front()->quit();
        return fiberPool_.stats().blockedCount == 0 && !fiberPool_.hasQueuedWork();
    };
    const bool isDone = processUntil(endThem, maxMs);
    endingWaits_ = false;
    return isDone;
}

void ZnCoreApplication::unwindFibers() {
    endingWaits_ = true;
    while (!runningLoops_.empty())
        runningLoops_.front()->quit();
    fiberPool_.unwindParked();
    endingWaits_ = false;
}

bool ZnCoreApplication::runLoop_(const std::function<bool()>* isDone, long long deadlineNs) {
    ZN_ASSERT(!fiberPool_.isOnFiber());
    long long passStartNs = monotonicNowNs();
    for (;;) {
        long long delayNs = processEvents_(passStartNs);
        long long nowNs = monotonicNowNs();
        const long long busyNs = nowNs - passStartNs;
        const bool isOver = isDone != nullptr ? (*isDone)() : isQuitRequested();
        if (delayNs != 0 && !isOver && (deadlineNs == 0 || nowNs < deadlineNs)) {
            if (deadlineNs != 0)
                delayNs = delayNs < 0 ? deadlineNs - nowNs : std::min(delayNs, deadlineNs - nowNs);
            ioDispatcher_.pollAndDispatch(delayNs);
            nowNs = lastLookNs_ = monotonicNowNs();
            workSinceLook_ = 0;
        }
        loadMeter_.add(nowNs, busyNs, nowNs - passStartNs);
        passStartNs = nowNs;
        if (isOver)
            return true;
        if (deadlineNs != 0 && nowNs >= deadlineNs)
            return isDone != nullptr && (*isDone)();
    }
}

long long ZnCoreApplication::processEvents_(long long nowNs) {
    if (ioDispatcher_.hasDeferred())
        ioDispatcher_.dispatchDeferred();
    if (++workSinceLook_ >= kWorkPerLook || nowNs - lastLookNs_ >= kLongestBetweenLooksNs)
        serveTheStarved_(nowNs);
    if (fiberPool_.hasLaneZeroWork() && fiberPool_.runNextWorkItem())
        return 0;
    if (events_.deliverOneHigh())
        return 0;
    const long long nextTimerNs = timers_.postDue(nowNs);
    if (fiberPool_.hasQueuedWork() && fiberPool_.runNextWorkItem())
        return 0;
    if (events_.deliverOneNormal())
        return 0;
    return nextTimerNs;
}

void ZnCoreApplication::serveTheStarved_(long long nowNs) {
    workSinceLook_ = 0;
    lastLookNs_ = nowNs;
    ioDispatcher_.pollAndDispatch(0);
    for (unsigned i = 0; i < kWorkPerLook && events_.deliverOneNormal(); ++i) {
        if (monotonicNowNs() - nowNs >= kLongestBetweenLooksNs)
            break;
    }
}

void ZnCoreApplication::quit() {
    running_.store(false, std::memory_order_release);
    poller_->wake();
}

bool ZnCoreApplication::requestStop() noexcept {
    running_.store(false, std::memory_order_release);
    poller_->wake();
    return !isHelper_;
}

// --- posts

bool ZnCoreApplication::post(ZnTask& task, ZnPostOptions options) {
    ZnFiberPool::Rejection rejection;
    if (offer(task, options, &rejection))
        return true;
    logRejected(rejection);
    return false;
}

bool ZnCoreApplication::offer(ZnTask& task, ZnPostOptions options, ZnFiberPool::Rejection* rejection) {
    if (!fiberPool_.submit(task, options.lane, options.purpose))
        return onFull_(task, options, rejection);
    if (currentApplication != this)
        poller_->wake();
    return true;
}

bool ZnCoreApplication::onFull_(ZnTask& task, ZnPostOptions options, ZnFiberPool::Rejection* rejection) {
    switch (options.whenFull) {
    case ZnPostOptions::WhenFull::Refuse: *rejection = countRejected_(options.lane); return false;
    case ZnPostOptions::WhenFull::RefuseInSilence: return false;
    case ZnPostOptions::WhenFull::Wait: break;
    }
    // Timers that find no room fire later, but do fire.
    addTimer([late = std::make_shared<ZnTask>(std::move(task))] { (*late)(); }, 1, true, options.lane);
    return true;
}

ZnFiberPool::Rejection ZnCoreApplication::countRejected_(int lane) {
    const ZnFiberPool::Rejection rejection = fiberPool_.countRejected(lane);
    if (rejection.isFirst) {
        const int knownLane = rejection.lane;
        addTimer([this, knownLane] { reportRejections_(knownLane); }, kRejectionReportUs, true,
                 ZnFiberPool::kFirstLane);
    }
    return rejection;
}

void ZnCoreApplication::logRejected(const ZnFiberPool::Rejection& rejection) {
    if (rejection.isFirst)
        ZN_LOG_WARNING(kCategory, "ZnCoreApplication::postEventOnLaneImpl_")
            << "ZnFiberPool saturated; rejecting posted event on lane=" << rejection.lane;
}

void ZnCoreApplication::reportRejections_(int lane) {
    const std::uint64_t count = fiberPool_.takeUnreported(lane);
    if (count > 1) // the first one was told of when it came
        ZN_LOG_WARNING(kCategory, "ZnCoreApplication::postEventOnLaneImpl_")
            << "ZnFiberPool saturated; rejected " << count << " posted events on lane=" << lane << " within a second";
}

void ZnCoreApplication::postEvent(ZnObject* receiver, ZnEvent* event, int priority) {
    std::unique_ptr<ZnEvent> owned(event);
    zn::detail::ZnPointerControlRef control = zn::detail::controlIfLive(receiver);
    if (event == nullptr || !control)
        return;
    zn::atomic::Thread* const ownerThread = control->thread;
    const auto queued =
        std::make_shared<ZnEventQueue::Queued>(ZnEventQueue::Queued{std::move(control), std::move(owned)});
    if (ownerThread == zn::atomic::Thread::currentThread() && currentApplication != nullptr) {
        currentApplication->queueEvent_(std::move(*queued), priority);
        return;
    }
    // An object of another thread is served there: when that is not running, at its next start, and never beside it.
    ZnTask whenStarted([queued, priority] { currentApplication->queueEvent_(std::move(*queued), priority); });
    const bool hasThread = zn::atomic::Thread::withLive(ownerThread, [&](zn::atomic::Thread& owner) {
        owner.withApplicationOrPending(whenStarted, ZnFiberPool::kDefaultLane, true,
                                       [&](ZnCoreApplication& application) {
                                           application.queueEvent_(std::move(*queued), priority);
                                           return true;
                                       });
    });
    if (!hasThread)
        queueEvent_(std::move(*queued), priority);
}

int ZnCoreApplication::addTimer(std::function<void()> callback, int intervalUs, bool singleShot, int lane) {
    const int id = timers_.add(std::move(callback), intervalUs, singleShot, lane);
    if (currentApplication != this)
        poller_->wake();
    return id;
}

void ZnCoreApplication::queueDeletion(ZnObject* object) {
    queueEvent_({zn::detail::controlOf(object), std::make_unique<ZnDeferredDeleteEvent>()}, 0);
}

void ZnCoreApplication::queueEvent_(ZnEventQueue::Queued&& queued, int priority) {
    events_.add(std::move(queued), priority);
    if (currentApplication != this)
        poller_->wake();
}

// --- parked fibers

bool unblockFiber(int waitId, int lane) {
    if (currentApplication != nullptr && currentApplication->fiberPool().unblock(waitId, lane))
        return true;
    ApplicationMap_& map = applicationMap();
    const ZnMutexLocker locker(map.mutex);
    for (const auto& [threadId, application] : map.byThread) {
        if (application != currentApplication && application->fiberPool().unblock(waitId, lane)) {
            application->wake();
            return true;
        }
    }
    return false;
}

int nextFiberWaitId() noexcept {
    static std::atomic<int> counter{0};
    return ~counter.fetch_add(1, std::memory_order_relaxed);
}
