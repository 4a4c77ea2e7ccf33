#include "core/ipc/Subscription.h"

#include "core/ipc/Dispatcher.h"
#include "core/ipc/Names.h"
#include "core/ipc/SignalBlock.h"
#include "core/ipc/SubscribersRegistryTable.h"
#include "core/platform/ZnProcess.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/types/ZnAssert.h"
#include "core/types/ZnLogger.h"

#include <atomic>
#include <thread>
#include <utility>

namespace zn::ipc {

namespace {

constexpr const char* kCategory = "zn.core.ipc.subscription";
constexpr int kHeartbeatMs = 5000; // a third of what makes a row nobody's
constexpr int kRegisterMs = 100;   // while the registry's mutex cannot be had
constexpr int kRetryMs = 20;       // while the channel's mutex cannot be had
constexpr int kRetryWaitMs = 1;
constexpr int kSleepMs = 1000; // a waiter looks up so often, at least

const char* reasonFor(detail::RegistryOutcome outcome) {
    return outcome == detail::RegistryOutcome::Full ? "the domain has as many subscriptions as it can have"
                                                    : "the registry of subscribers cannot be opened";
}

} // namespace

/// The subscription's state, which timers, posts and callbacks under way may outlive.
/// Thread: the subscription's, but for onNotified_() and the waiter's thread.
class Subscription::Core_ : public std::enable_shared_from_this<Core_> {
public:
    Core_(detail::SubscriptionKey key, std::shared_ptr<detail::SignalBlock> block, Callback callback)
        : key_(std::move(key)),
          block_(std::move(block)),
          callback_(std::move(callback)),
          id_(subscriptionId(key_.domain, key_.object, key_.signal, key_.pid, key_.subscriberObject)),
          forkCount_(ZnProcess::forkCount()),
          seen_(block_->sequence()) {}

    bool begin(ZnString* errorText);
    void end();
    std::uint64_t id() const noexcept { return id_; }
    bool isRegistered() const noexcept { return isRegistered_; }

private:
    class EndOfDelivery_;

    bool isActive_() const { return record_->active.load(std::memory_order_acquire); }
    void onNotified_();
    void postDelivery_();
    void deliver_();
    bool takeNews_(SignalValue* value);
    void tryAgainLater_();
    void planHeartbeat_(int delayMs);
    void beat_();
    void runWaiter_();
    void stopWaiter_();

    const detail::SubscriptionKey key_;
    const std::shared_ptr<detail::SignalBlock> block_;
    const Callback callback_;
    const std::uint64_t id_;
    const unsigned forkCount_; // a child that has been forked leaves all this alone
    const std::shared_ptr<CallbackRecord> record_ = std::make_shared<CallbackRecord>();
    std::atomic<std::uint64_t> seen_;   // sequence that has been called back for; written on the own thread
    std::atomic<bool> isPosted_{false}; // a delivery is on its way; pairs with onNotified_()
    bool isDelivering_ = false;
    bool isRetryDue_ = false;
    bool hasWaitedInVain_ = false; // for the channel's mutex: the next wait is a short one
    bool isRegistered_ = false;
    bool isFullReported_ = false;
    int heartbeatId_ = -1;

    std::thread waiter_; // only while notifications cannot be waited for
    std::atomic<bool> waiterStops_{false};
    std::atomic<bool> waiterHasEnded_{false};
};

/// Also when the callback throws.
class Subscription::Core_::EndOfDelivery_ {
public:
    explicit EndOfDelivery_(Core_& core) : core_(core) { core_.isDelivering_ = true; }
    ~EndOfDelivery_() { core_.isDelivering_ = false; }
    EndOfDelivery_(const EndOfDelivery_&) = delete;
    EndOfDelivery_& operator=(const EndOfDelivery_&) = delete;

private:
    Core_& core_;
};

bool Subscription::Core_::begin(ZnString* errorText) {
    const detail::RegistryOutcome outcome = detail::registerSubscription(key_);
    if (outcome == detail::RegistryOutcome::Full || outcome == detail::RegistryOutcome::NoRegistry)
        return *errorText = reasonFor(outcome), false;
    isRegistered_ = outcome == detail::RegistryOutcome::Done;
    record_->thread = zn::atomic::Thread::currentThread();
    record_->callable = [weak = weak_from_this()] {
        if (const std::shared_ptr<Core_> core = weak.lock())
            core->onNotified_();
    };
    if (!Dispatcher::instance().add(id_, record_)) {
        ZN_LOG_WARNING(kCategory, "Subscription::subscribe")
            << "The name of this process's notify event is taken; a thread waits for each subscription";
        waiter_ = std::thread([this] { runWaiter_(); });
    }
    planHeartbeat_(isRegistered_ ? kHeartbeatMs : kRegisterMs);
    onNotified_(); // what came since the sequence was noted found no row, or nobody at the event
    return true;
}

void Subscription::Core_::end() {
    if (forkCount_ != ZnProcess::forkCount()) {
        if (waiter_.joinable())
            waiter_.detach(); // it was the parent's
        return;
    }
    ZN_DEBUG_ASSERT(record_->thread == zn::atomic::Thread::currentThread());
    stopWaiter_();
    if (std::exchange(isRegistered_, false))
        unregisterSubscription(key_.domain, key_.object, key_.signal, key_.pid, key_.subscriberObject);
    Dispatcher::instance().remove(id_, record_);
    if (ZnCoreApplication* application = ZnCoreApplication::instance())
        application->removeTimer(heartbeatId_);
}

/// Any thread. Only what has changed leads to work.
void Subscription::Core_::onNotified_() {
    if (isActive_() && block_->sequence() != seen_.load(std::memory_order_acquire) &&
        !isPosted_.exchange(true, std::memory_order_acq_rel))
        postDelivery_();
}

void Subscription::Core_::postDelivery_() {
    ZnTask task([self = shared_from_this()] { self->deliver_(); });
    postTask(record_->thread, task,
             {.purpose = ZnFiberPool::Purpose::WakeUp,
              .whenFull = ZnPostOptions::WhenFull::Wait,
              .whenNotRunning = ZnPostOptions::WhenNotRunning::Refuse});
}

void Subscription::Core_::deliver_() {
    isPosted_.store(false, std::memory_order_release);
    if (isDelivering_)
        return; // the round that is parked in the callback goes on
    const EndOfDelivery_ endOfDelivery(*this);
    SignalValue value;
    while (isActive_() && takeNews_(&value))
        callback_(value);
}

bool Subscription::Core_::takeNews_(SignalValue* value) {
    const std::uint64_t seen = seen_.load(std::memory_order_relaxed);
    if (block_->sequence() == seen)
        return false;
    if (!block_->read(hasWaitedInVain_ ? kRetryWaitMs : detail::kLockWaitMs, value)) {
        hasWaitedInVain_ = true;
        tryAgainLater_();
        return false;
    }
    hasWaitedInVain_ = false;
    seen_.store(value->sequence, std::memory_order_release);
    return value->sequence != seen;
}

void Subscription::Core_::tryAgainLater_() {
    if (std::exchange(isRetryDue_, true))
        return;
    ZnCoreApplication::instance()->addTimer(
        [self = shared_from_this()] {
            self->isRetryDue_ = false;
            self->deliver_();
        },
        kRetryMs * 1000, true, ZnFiberPool::kDefaultLane);
}

void Subscription::Core_::planHeartbeat_(int delayMs) {
    heartbeatId_ = ZnCoreApplication::instance()->addTimer(
        [self = shared_from_this()] {
            if (self->isActive_())
                self->beat_();
        },
        delayMs * 1000, true, ZnFiberPool::kDefaultLane);
}

void Subscription::Core_::beat_() {
    const auto count = static_cast<std::uint32_t>(Dispatcher::instance().countOf(id_));
    const detail::RegistryOutcome outcome = detail::refreshSubscription(key_, count, kRetryWaitMs);
    isRegistered_ =
        outcome == detail::RegistryOutcome::Done || (isRegistered_ && outcome == detail::RegistryOutcome::Busy);
    if (outcome == detail::RegistryOutcome::Full && !std::exchange(isFullReported_, true))
        ZN_LOG_WARNING(kCategory, "Subscription::beat")
            << "Lost the place of " << key_.signal << ": " << reasonFor(outcome);
    planHeartbeat_(outcome == detail::RegistryOutcome::Busy ? kRegisterMs : kHeartbeatMs);
    onNotified_(); // while the row was not there, nobody called
}

/// A thread of its own, where the process has no notify event.
void Subscription::Core_::runWaiter_() {
    std::uint64_t known = seen_.load(std::memory_order_acquire);
    while (!waiterStops_.load(std::memory_order_acquire)) {
        if (block_->waitForChange(known, kSleepMs)) {
            known = block_->sequence();
            onNotified_();
        }
    }
    waiterHasEnded_.store(true, std::memory_order_release);
}

void Subscription::Core_::stopWaiter_() {
    if (!waiter_.joinable())
        return;
    waiterStops_.store(true, std::memory_order_release);
    while (!waiterHasEnded_.load(std::memory_order_acquire)) { // it may be just before it sleeps
        block_->wakeWaiters();
        std::this_thread::yield();
    }
    waiter_.join();
}

std::unique_ptr<Subscription> Subscription::subscribe(const ZnString& domain, const ZnString& object,
                                                      const ZnString& signal, const ZnString& subscriberObject,
                                                      Callback callback, ZnString* errorText) {
    if (!detail::checkAddress(domain, object, signal, errorText))
        return nullptr;
    if (!callback || ZnCoreApplication::instance() == nullptr)
        return *errorText = "a subscription needs a callback and a thread with an event loop", nullptr;
    std::shared_ptr<detail::SignalBlock> block = detail::SignalBlock::open(domain, object, signal, errorText);
    if (!block)
        return nullptr;
    auto core = std::make_shared<Core_>(
        detail::SubscriptionKey{domain, object, signal, ZnProcess::currentId(), subscriberObject}, std::move(block),
        std::move(callback));
    return core->begin(errorText) ? std::unique_ptr<Subscription>(new Subscription(std::move(core))) : nullptr;
}

Subscription::Subscription(std::shared_ptr<Core_> core) : core_(std::move(core)) {}

Subscription::~Subscription() {
    core_->end();
}

std::uint64_t Subscription::id() const {
    return core_->id();
}

bool Subscription::isRegistered() const {
    return core_->isRegistered();
}

} // namespace zn::ipc
