#include "core/ipc/Channel.h"

#include "core/ipc/Dispatcher.h"
#include "core/ipc/Names.h"
#include "core/ipc/SignalBlock.h"
#include "core/ipc/SubscribersRegistryTable.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnTimer.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

namespace zn::ipc {

namespace {
constexpr int kRetryMs = 20;
constexpr int kRetryWaitMs = 1; // of 20: little enough for a loop, and more than a mutex that works is held
} // namespace

/// The channel's state, which a retry may outlive.
class Channel::Core_ : public std::enable_shared_from_this<Core_> {
public:
    Core_(ZnString domain, ZnString object, ZnString signal, std::shared_ptr<detail::SignalBlock> block)
        : domain_(std::move(domain)),
          object_(std::move(object)),
          signal_(std::move(signal)),
          block_(std::move(block)) {}

    void publish(SignalValue value) {
        // Who has had to wait in vain does not wait again: a loop that publishes often would hardly do anything else.
        const int waitMs = hasUnsaid() ? 0 : detail::kLockWaitMs;
        const bool isWritten = block_->publish(waitMs, [&] {
            takePending_(); // older than this one
            return std::optional<SignalValue>(value);
        });
        if (isWritten)
            tell_(waitMs);
        else
            leaveUnsaid_(value);
    }

    /// Does what is unsaid, as far as it can be done within the waits.
    void say(int waitMs) {
        bool isWritten = false;
        const auto write = [&] {
            const std::optional<SignalValue> value = takePending_();
            isWritten = value.has_value();
            return value;
        };
        const Unsaid_ unsaid = this->unsaid_();
        const bool hadMutex = !unsaid.value || block_->publish(waitMs, write);
        if (isWritten || unsaid.notification)
            tell_(waitMs);
        if (!hadMutex)
            tryAgainLater_();
    }

    bool hasUnsaid() const {
        const Unsaid_ unsaid = unsaid_();
        return unsaid.value || unsaid.notification;
    }

private:
    struct Unsaid_ {
        bool value;
        bool notification;
    };

    /// One attempt to come; if it is dropped without having been made, another may be planned.
    struct Retry_ {
        explicit Retry_(std::shared_ptr<Core_> owner) : core(std::move(owner)) {}
        ~Retry_() {
            if (!isMade)
                core->endRetry_();
        }
        Retry_(const Retry_&) = delete;
        Retry_& operator=(const Retry_&) = delete;
        void make() {
            isMade = true;
            core->endRetry_(); // it may lead to another
            core->say(kRetryWaitMs);
        }

        const std::shared_ptr<Core_> core;
        bool isMade = false;
    };

    void tell_(int waitMs) {
        block_->wakeWaiters();
        std::vector<std::uint32_t> pids;
        const auto outcome = listSubscriberPids(domain_, object_, signal_, pids, waitMs, detail::ProcessCheck::WhenDue);
        const bool isBusy = outcome == detail::RegistryOutcome::Busy;
        {
            const ZnMutexLocker locker(lock_);
            owesNotification_ = isBusy;
        }
        if (isBusy)
            tryAgainLater_();
        std::sort(pids.begin(), pids.end());
        pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
        for (const std::uint32_t pid : pids)
            signalProcess(pid);
    }

    void leaveUnsaid_(SignalValue value) {
        {
            const ZnMutexLocker locker(lock_);
            pending_ = value;
        }
        tryAgainLater_();
    }

    void tryAgainLater_() {
        {
            const ZnMutexLocker locker(lock_);
            if (std::exchange(isRetryDue_, true))
                return;
        }
        const auto retry = std::make_shared<Retry_>(shared_from_this());
        ZnTask plan([retry] { ZnTimer::singleShot(kRetryMs, [retry] { retry->make(); }); });
        if (ZnCoreApplication::instance() != nullptr)
            plan();
        else
            postTask(nullptr, plan, {.whenGone = ZnPostOptions::WhenGone::UseFallback});
    }
    void endRetry_() {
        const ZnMutexLocker locker(lock_);
        isRetryDue_ = false;
    }

    Unsaid_ unsaid_() const {
        const ZnMutexLocker locker(lock_);
        return {pending_.has_value(), owesNotification_};
    }
    std::optional<SignalValue> takePending_() {
        const ZnMutexLocker locker(lock_);
        return std::exchange(pending_, std::nullopt);
    }

    const ZnString domain_;
    const ZnString object_;
    const ZnString signal_;
    const std::shared_ptr<detail::SignalBlock> block_;

    mutable ZnMutex lock_;                                    // leaf; taken after the channel's mutex
    std::optional<SignalValue> pending_ ZN_GUARDED_BY(lock_); // could not be written; the latest only
    bool owesNotification_ ZN_GUARDED_BY(lock_) = false;      // written, but subscribers could not be listed
    bool isRetryDue_ ZN_GUARDED_BY(lock_) = false;
};

std::unique_ptr<Channel> Channel::open(const ZnString& domain, const ZnString& object, const ZnString& signal,
                                       ZnString* errorText) {
    if (!detail::checkAddress(domain, object, signal, errorText))
        return nullptr;
    std::shared_ptr<detail::SignalBlock> block = detail::SignalBlock::open(domain, object, signal, errorText);
    if (!block)
        return nullptr;
    return std::unique_ptr<Channel>(new Channel(std::make_shared<Core_>(domain, object, signal, std::move(block))));
}

Channel::Channel(std::shared_ptr<Core_> core) : core_(std::move(core)) {}

Channel::~Channel() {
    if (core_->hasUnsaid())
        core_->say(detail::kLockWaitMs);
}

bool Channel::publish(std::uint64_t first, std::uint64_t second) {
    core_->publish({0, first, second});
    return true;
}

bool Channel::hasUnsaid() const {
    return core_->hasUnsaid();
}

} // namespace zn::ipc
