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
constexpr auto kInSilence = ZnPostOptions::WhenFull::RefuseInSilence;

thread_local ZnCoreApplication* currentApplication = nullptr;

/// Every application of the process by its thread, for wake-ups that come from other threads.
struct ApplicationMap_ {
    std::mutex mutex;
    std::map<std::uint32_t, ZnCoreApplication*> byThread; // guarded by mutex
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
        std::lock_guard<std::mutex> guard(map.mutex);
        map.byThread[threadId_] = this;
    }
    zn::atomic::Thread::attachApplication(this);
    ZnConsoleStop::add(this);
}

ZnCoreApplication::~ZnCoreApplication() {
    ZnConsoleStop::remove(this);
    zn::atomic::Thread::attachApplication(nullptr); // from here on posts from other threads are kept or go elsewhere
    while (!runningLoops_.empty()) // they may outlive this application, or go with their fibers' stacks
        runningLoops_.front()->leaveRunning_();
    destroyWaitingObjects_();
    for (int lane = 0; lane < ZnFiberPool::kLaneCount; ++lane)
        reportRejections_(lane);
    ioDispatcher_.shutdown();
    fiberPool_.shutdown();
    destroyWaitingObjects_(); // what the captures of dropped tasks let go of
    {
        ZnTimerTable dropped; // the callbacks are destroyed without the lock
        ZnMutexLocker locker(loopMutex_);
        std::swap(dropped, timers_);
        dropped.cancelAll();
    }
    ApplicationMap_& map = applicationMap();
    std::lock_guard<std::mutex> guard(map.mutex);
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
    if (deliverOneOf_(&ZnCoreApplication::highEvents_))
        return 0;
    const long long nextTimerNs = timerPass_(nowNs);
    if (fiberPool_.hasQueuedWork() && fiberPool_.runNextWorkItem())
        return 0;
    if (deliverOneOf_(&ZnCoreApplication::normalEvents_))
        return 0;
    return nextTimerNs;
}

void ZnCoreApplication::serveTheStarved_(long long nowNs) {
    workSinceLook_ = 0;
    lastLookNs_ = nowNs;
    ioDispatcher_.pollAndDispatch(0);
    for (unsigned i = 0; i < kWorkPerLook && deliverOneOf_(&ZnCoreApplication::normalEvents_); ++i) {
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
    const auto queued = std::make_shared<QueuedEvent_>(QueuedEvent_{std::move(control), std::move(owned)});
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

void ZnCoreApplication::queueDeletion(ZnObject* object) {
    queueEvent_({zn::detail::controlOf(object), std::make_unique<ZnDeferredDeleteEvent>()}, 0);
}

void ZnCoreApplication::queueEvent_(QueuedEvent_ queued, int priority) {
    {
        ZnMutexLocker locker(loopMutex_);
        (priority >= 1 ? highEvents_ : normalEvents_).push_back(std::move(queued));
        queuedEventCount_.fetch_add(1, std::memory_order_release);
    }
    if (currentApplication != this)
        poller_->wake();
}

// --- object events

bool ZnCoreApplication::deliverOneOf_(std::deque<QueuedEvent_> ZnCoreApplication::*queue) {
    if (queuedEventCount_.load(std::memory_order_acquire) == 0)
        return false;
    QueuedEvent_ queued;
    {
        ZnMutexLocker locker(loopMutex_);
        std::deque<QueuedEvent_>& events = this->*queue;
        if (events.empty())
            return false;
        queued = std::move(events.front());
        events.pop_front();
        queuedEventCount_.fetch_sub(1, std::memory_order_relaxed);
    }
    deliver_(std::move(queued));
    return true;
}

void ZnCoreApplication::deliver_(QueuedEvent_ queued) {
    // On the loop's own context, so that an exception would leave exec().
    try {
        if (ZnObject* receiver = queued.receiver->get())
            notify(receiver, queued.event.get());
        ZnObject* left = queued.receiver->get();
        if (left != nullptr && queued.event->type == ZnEvent::kDeferredDelete)
            left->deletionRefused_();
    } catch (const std::exception& error) {
        ZN_LOG_ERROR(kCategory, "ZnCoreApplication::deliver_")
            << "Unhandled exception in object event: " << error.what();
    } catch (...) {
        ZN_LOG_ERROR(kCategory, "ZnCoreApplication::deliver_") << "Unhandled unknown exception in object event";
    }
}

bool ZnCoreApplication::notify(ZnObject* receiver, ZnEvent* event) {
    const zn::detail::ZnPointerControlRef control = zn::detail::controlIfLive(receiver);
    if (event == nullptr || !control)
        return false;
    const bool wasInDelivery = event->inDelivery;
    event->inDelivery = true;
    bool handled = false;
    if (runFilters_(eventFilters_, control, event) ||
        (control->get() != nullptr && runFilters_(receiver->eventFilters_, control, event))) {
        event->accepted = true;
        handled = true;
    } else if (control->get() != nullptr) {
        handled = receiver->event(event);
    }
    event->inDelivery = wasInDelivery;
    return handled;
}

bool ZnCoreApplication::runFilters_(const std::vector<zn::detail::ZnPointerControlRef>& filters,
                                    const zn::detail::ZnPointerControlRef& receiver, ZnEvent* event) {
    if (filters.empty())
        return false;
    const std::vector<zn::detail::ZnPointerControlRef> copy = filters; // a filter may change the list
    for (auto at = copy.rbegin(); at != copy.rend(); ++at) {
        ZnObject* filter = (*at)->get();
        ZnObject* watched = receiver->get();
        if (filter == nullptr || watched == nullptr || !ZnObject::sharesThread_(*filter, *watched))
            continue;
        if (filter->eventFilter(watched, event))
            return true;
    }
    return false;
}

void ZnCoreApplication::installEventFilter(ZnObject* filter) {
    if (zn::detail::ZnPointerControlRef control = zn::detail::controlIfLive(filter))
        eventFilters_.push_back(std::move(control));
}

void ZnCoreApplication::destroyWaitingObjects_() {
    std::deque<QueuedEvent_> queued;
    do {
        queued.clear();
        ZnMutexLocker locker(loopMutex_);
        queued.swap(normalEvents_);
        queuedEventCount_.fetch_sub(static_cast<int>(queued.size()), std::memory_order_relaxed);
    } while (deleteReceivers_(queued));
}

bool ZnCoreApplication::deleteReceivers_(std::deque<QueuedEvent_>& queued) {
    for (QueuedEvent_& entry : queued) {
        ZnObject* receiver = entry.receiver->get();
        if (receiver != nullptr && entry.event->type == ZnEvent::kDeferredDelete)
            delete receiver;
    }
    return !queued.empty();
}

// --- timers

/// The closure of one firing. If the pool drops it, the timer goes back in line: a firing is late, not lost.
class ZnCoreApplication::TimerFire_ {
public:
    TimerFire_(ZnCoreApplication& application, std::shared_ptr<ZnTimerRecord> record)
        : application_(&application), record_(std::move(record)) {}
    TimerFire_(TimerFire_&& other) noexcept = default;
    TimerFire_& operator=(TimerFire_&&) = delete;
    ~TimerFire_() {
        if (record_)
            application_->putTimerBack_(record_, monotonicNowNs());
    }
    void operator()() {
        const std::shared_ptr<ZnTimerRecord> record = std::move(record_);
        application_->fireTimer_(record);
    }

private:
    ZnCoreApplication* application_;
    std::shared_ptr<ZnTimerRecord> record_;
};

int ZnCoreApplication::addTimer(std::function<void()> callback, int intervalUs, bool singleShot, int lane) {
    const long long intervalNs = std::max(intervalUs, 1) * kNsPerUs;
    int id = 0;
    {
        ZnMutexLocker locker(loopMutex_);
        id = timers_.add(std::move(callback), intervalNs, singleShot, lane, monotonicNowNs() + intervalNs)->id;
        mirrorNextTimer_();
    }
    if (currentApplication != this)
        poller_->wake();
    return id;
}

void ZnCoreApplication::removeTimer(int id) {
    std::shared_ptr<ZnTimerRecord> removed; // destroyed without the lock
    ZnMutexLocker locker(loopMutex_);
    removed = timers_.remove(id);
    mirrorNextTimer_();
}

void ZnCoreApplication::mirrorNextTimer_() {
    nextTimerDueNs_.store(timers_.nextDueNs(), std::memory_order_release);
}

long long ZnCoreApplication::timerPass_(long long nowNs) {
    const long long dueNs = nextTimerDueNs_.load(std::memory_order_acquire);
    if (dueNs < 0)
        return -1;
    if (dueNs > nowNs)
        return dueNs - nowNs;
    bool allPosted = true;
    for (std::size_t group = 0; group < ZnTimerTable::kGroupCount; ++group)
        allPosted = postDueTimers_(group, nowNs) && allPosted;
    const long long nextDueNs = nextTimerDueNs_.load(std::memory_order_acquire);
    if (!allPosted) // the pool is full of work, which goes first
        return 0;
    return nextDueNs < 0 ? -1 : std::max(nextDueNs - nowNs, 0LL);
}

bool ZnCoreApplication::postDueTimers_(std::size_t group, long long nowNs) {
    for (;;) {
        std::shared_ptr<ZnTimerRecord> record;
        {
            ZnMutexLocker locker(loopMutex_);
            const ZnTimerRecord* next = timers_.next(group);
            if (next == nullptr || next->dueNs > nowNs)
                return true;
            if (!fiberPool_.canAccept(next->lane, ZnFiberPool::Purpose::WakeUp))
                return false;
            record = timers_.takeNext(group);
            mirrorNextTimer_();
        }
        const int lane = record->lane;
        ZnTask fire(TimerFire_(*this, std::move(record)));
        if (!post(fire, {.lane = lane, .purpose = ZnFiberPool::Purpose::WakeUp, .whenFull = kInSilence}))
            return false; // another thread took the room; the timer goes back in line
    }
}

void ZnCoreApplication::fireTimer_(const std::shared_ptr<ZnTimerRecord>& record) {
    if (record->cancelled.load(std::memory_order_acquire))
        return;
    if (record->singleShot) {
        ZnMutexLocker locker(loopMutex_);
        timers_.forget(record->id);
    } else {
        putTimerBack_(record, monotonicNowNs() + record->intervalNs);
    }
    record->callback();
}

void ZnCoreApplication::putTimerBack_(const std::shared_ptr<ZnTimerRecord>& record, long long dueNs) {
    ZnMutexLocker locker(loopMutex_);
    timers_.putBack(record, dueNs);
    mirrorNextTimer_();
}

// --- parked fibers

bool unblockFiber(int waitId, int lane) {
    if (currentApplication != nullptr && currentApplication->fiberPool().unblock(waitId, lane))
        return true;
    ApplicationMap_& map = applicationMap();
    std::lock_guard<std::mutex> guard(map.mutex);
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
