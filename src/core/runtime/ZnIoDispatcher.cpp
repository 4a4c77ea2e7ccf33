#include "core/runtime/ZnIoDispatcher.h"

#include "core/runtime/ZnCoreApplication.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <array>

namespace {
constexpr const char* kCategory = "zn.core.runtime.zniodispatcher";
constexpr unsigned kSignalled = 1; // the only bit that readiness produces
/// A refused drain does not wait in line as a task: its entry does, without an allocation, and goes ahead of what the
/// poller reports later.
constexpr ZnPostOptions kDrainPost{.purpose = ZnFiberPool::Purpose::WakeUp,
                                   .whenFull = ZnPostOptions::WhenFull::RefuseInSilence};
} // namespace

/// The closure of one round. If it is destroyed without having run (dropped by the pool), the entry must not
/// stay marked as scheduled, or its handle would never be heard of again.
class ZnIoDispatcher::Drain_ {
public:
    explicit Drain_(std::shared_ptr<Entry_> entry) : entry_(std::move(entry)) {}
    Drain_(Drain_&& other) noexcept = default;
    Drain_& operator=(Drain_&&) = delete;
    ~Drain_() {
        if (entry_ && entry_->active.load(std::memory_order_acquire))
            entry_->dispatcher->defer_(std::move(entry_));
    }

    void operator()() {
        const std::shared_ptr<Entry_> entry = std::move(entry_);
        if (!entry->active.load(std::memory_order_acquire))
            return;
        const EndOfRound_ endOfRound(entry); // also when the callback throws
        const unsigned mask = entry->pendingMask.exchange(0, std::memory_order_acq_rel);
        if (mask != 0)
            entry->callback(mask);
    }

private:
    class EndOfRound_ {
    public:
        explicit EndOfRound_(const std::shared_ptr<Entry_>& entry) : entry_(entry) {}
        ~EndOfRound_() {
            // The callback may have parked: the dispatcher is touched only while the entry is still registered with it.
            if (entry_->active.load(std::memory_order_acquire))
                entry_->dispatcher->drainEnded_(entry_);
        }
        EndOfRound_(const EndOfRound_&) = delete;
        EndOfRound_& operator=(const EndOfRound_&) = delete;

    private:
        const std::shared_ptr<Entry_>& entry_;
    };

    std::shared_ptr<Entry_> entry_;
};

ZnIoDispatcher::ZnIoDispatcher(ZnCoreApplication& application, ZnPoller& poller)
    : application_(application), poller_(poller) {}

ZnIoDispatcher::~ZnIoDispatcher() {
    shutdown();
}

unsigned long long ZnIoDispatcher::watchHandle(std::shared_ptr<ZnWaitHandle> handle, Callback callback) {
    if (!handle || !callback)
        return 0;
    auto entry = std::make_shared<Entry_>();
    entry->dispatcher = this;
    entry->handle = std::move(handle);
    entry->callback = std::move(callback);
    const unsigned long long id = insert_(std::move(entry));
    if (id == 0)
        ZN_LOG_ERROR(kCategory, "ZnIoDispatcher::watchHandle") << "[ZnIoDispatcher] RegisterWaitForSingleObject failed";
    return id;
}

unsigned long long ZnIoDispatcher::insert_(std::shared_ptr<Entry_> entry) {
    const ZnMutexLocker locker(mutex_);
    // Inside the lock, so that unwatch from another thread finds either nothing or a registered handle.
    if (shuttingDown_ || !poller_.add(entry->handle->descriptor(), entry.get()))
        return 0;
    entry->id = nextId_++;
    return entries_.emplace(entry->id, std::move(entry)).first->first;
}

void ZnIoDispatcher::unwatch(unsigned long long id) {
    std::shared_ptr<Entry_> entry;
    {
        const ZnMutexLocker locker(mutex_);
        const auto at = entries_.find(id);
        if (at == entries_.end())
            return;
        entry = std::move(at->second);
        entries_.erase(at);
    }
    retire_(std::move(entry));
}

void ZnIoDispatcher::retire_(std::shared_ptr<Entry_> entry) {
    entry->active.store(false, std::memory_order_release);
    poller_.remove(entry->handle->descriptor());
    // The loop may hold the entry's address in the batch that it works through now: it frees it afterwards.
    const ZnMutexLocker locker(mutex_);
    retired_.push_back(std::move(entry));
    hasRetired_.store(true, std::memory_order_release);
}

std::shared_ptr<ZnIoDispatcher::Entry_> ZnIoDispatcher::find_(unsigned long long id) {
    const ZnMutexLocker locker(mutex_);
    const auto at = entries_.find(id);
    return at == entries_.end() ? nullptr : at->second;
}

void ZnIoDispatcher::signal(unsigned long long id) {
    if (const std::shared_ptr<Entry_> entry = find_(id))
        dispatch_(entry, kSignalled);
}

void ZnIoDispatcher::dispatch_(const std::shared_ptr<Entry_>& entry, unsigned mask) {
    if (!entry->active.load(std::memory_order_acquire))
        return;
    // Sequentially consistent, as the two operations of drainEnded_(): either the end of the round sees the mask, or
    // this sees that the round has ended. Anything weaker lets both read what was there before.
    entry->pendingMask.fetch_or(mask, std::memory_order_seq_cst);
    bool expected = false;
    if (!entry->scheduled.compare_exchange_strong(expected, true, std::memory_order_seq_cst))
        return; // merged with the round that is under way
    // A refused task goes back through Drain_'s destructor into the deferred entries.
    ZnTask task(Drain_{entry});
    application_.post(task, kDrainPost);
}

void ZnIoDispatcher::drainEnded_(const std::shared_ptr<Entry_>& entry) {
    entry->scheduled.store(false, std::memory_order_seq_cst);
    // What came during the callback is either seen here or dispatched by whoever brought it.
    if (entry->pendingMask.load(std::memory_order_seq_cst) != 0)
        dispatch_(entry, 0);
}

void ZnIoDispatcher::defer_(std::shared_ptr<Entry_> entry) {
    const ZnMutexLocker locker(mutex_);
    if (shuttingDown_)
        return;
    deferred_.push_back(std::move(entry)); // stays marked as scheduled, so it is here once at most
    deferredCount_.fetch_add(1, std::memory_order_release);
}

void ZnIoDispatcher::dispatchDeferred() {
    const int room = room_();
    if (room <= 0)
        return;
    std::vector<std::shared_ptr<Entry_>> ready;
    {
        const ZnMutexLocker locker(mutex_);
        const auto count = std::min(deferred_.size(), static_cast<std::size_t>(room));
        const auto middle = deferred_.begin() + static_cast<std::ptrdiff_t>(count);
        ready.assign(std::make_move_iterator(deferred_.begin()), std::make_move_iterator(middle));
        deferred_.erase(deferred_.begin(), middle);
        deferredCount_.fetch_sub(static_cast<int>(count), std::memory_order_release);
    }
    for (std::shared_ptr<Entry_>& entry : ready) {
        ZnTask task(Drain_{std::move(entry)});
        application_.post(task, kDrainPost);
    }
}

int ZnIoDispatcher::room_() const {
    return application_.fiberPool().roomFor(ZnFiberPool::kDefaultLane, ZnFiberPool::Purpose::WakeUp);
}

void ZnIoDispatcher::pollAndDispatch(long long timeoutNs) {
    if (hasRetired_.exchange(false, std::memory_order_acq_rel)) {
        std::vector<std::shared_ptr<Entry_>> retired; // freed without the lock
        const ZnMutexLocker locker(mutex_);
        retired.swap(retired_);
    }
    const int room = room_();
    if (room <= 0 && timeoutNs == 0)
        return; // what is ready stays ready
    std::array<ZnPoller::Ready, ZnPoller::kMaxEvents> events;
    const std::size_t count = poller_.wait(timeoutNs, events.data(), static_cast<std::size_t>(std::max(room, 1)));
    for (std::size_t i = 0; i < count; ++i) {
        auto* entry = static_cast<Entry_*>(events[i].context);
        if (entry->active.load(std::memory_order_acquire) && entry->handle->noteReady(events[i].readiness))
            dispatch_(entry->shared_from_this(), kSignalled);
    }
}

void ZnIoDispatcher::shutdown() {
    std::unordered_map<unsigned long long, std::shared_ptr<Entry_>> entries;
    std::deque<std::shared_ptr<Entry_>> deferred;
    {
        const ZnMutexLocker locker(mutex_);
        shuttingDown_ = true;
        entries.swap(entries_);
        deferred.swap(deferred_);
        deferredCount_.store(0, std::memory_order_release);
    }
    for (auto& [id, entry] : entries) {
        entry->active.store(false, std::memory_order_release);
        poller_.remove(entry->handle->descriptor());
    }
}
