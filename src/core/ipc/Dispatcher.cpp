#include "core/ipc/Dispatcher.h"

#include "core/ipc/DispatchTable.h"
#include "core/platform/ZnProcess.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <vector>

namespace zn::ipc {

namespace {

constexpr const char* kCategory = "zn.core.ipc.dispatcher";

void dispatchAllSubscriptions() {
    Dispatcher::instance().dispatchAll();
}

/// Runs `function` with the dispatcher of the thread's loop, if the loop is still there.
template <typename Function>
void withIoDispatcher(zn::atomic::Thread* thread, Function function) {
    zn::atomic::Thread::withLive(thread, [&](zn::atomic::Thread& record) {
        record.withApplication([&](ZnCoreApplication* application) {
            if (application != nullptr)
                function(application->ioDispatcher());
        });
    });
}

} // namespace

Dispatcher& Dispatcher::instance() {
    static Dispatcher& dispatcher = *new Dispatcher;
    return dispatcher;
}

Dispatcher::Dispatcher() : forkCount_(ZnProcess::forkCount()) {}

bool Dispatcher::add(std::uint64_t id, std::shared_ptr<CallbackRecord> record) {
    const ZnMutexLocker locker(mutex_);
    forgetParent_();
    zn::atomic::Thread* thread = record->thread;
    subscriptions_.emplace(id, std::move(record));
    if (watchId_ == 0)
        beginWait_(thread);
    return watchId_ != 0;
}

void Dispatcher::forgetParent_() {
    if (forkCount_ == ZnProcess::forkCount())
        return;
    forkCount_ = ZnProcess::forkCount();
    subscriptions_.clear();
    socket_.reset();
    watchId_ = 0;
}

void Dispatcher::beginWait_(zn::atomic::Thread* thread) {
    if (!socket_)
        socket_ = ZnNotifySocket::open();
    if (!socket_)
        return;
    withIoDispatcher(thread, [&](ZnIoDispatcher& ioDispatcher) ZN_NO_THREAD_SAFETY_ANALYSIS {
        watchId_ = ioDispatcher.watchHandle(socket_, [this, socket = socket_](unsigned) { onNotified_(*socket); });
        waitThread_ = thread;
    });
    if (watchId_ != 0 && !detail::addDispatchCallback(&dispatchAllSubscriptions))
        ZN_LOG_WARNING(kCategory, "Dispatcher::add")
            << "No room in the table of callbacks; this module goes without it";
}

void Dispatcher::remove(std::uint64_t id, const std::shared_ptr<CallbackRecord>& record) {
    {
        const ZnMutexLocker locker(mutex_);
        const auto [first, last] = subscriptions_.equal_range(id);
        const auto at = std::find_if(first, last, [&](const auto& entry) { return entry.second == record; });
        if (at != last)
            subscriptions_.erase(at);
        if (subscriptions_.empty()) {
            detail::removeDispatchCallback(&dispatchAllSubscriptions);
            endWait_();
        } else if (record->thread == waitThread_) {
            moveWait_(record->thread);
        }
    }
    record->active.store(false, std::memory_order_release); // a dispatch that is under way skips it
}

void Dispatcher::endWait_() {
    if (watchId_ != 0)
        withIoDispatcher(waitThread_, [&](ZnIoDispatcher& ioDispatcher)
                                          ZN_NO_THREAD_SAFETY_ANALYSIS { ioDispatcher.unwatch(watchId_); });
    watchId_ = 0;
    waitThread_ = nullptr;
    // Now, for the loop may keep the handle for a while, and the next subscription needs the name.
    if (socket_)
        socket_->closeDescriptor();
    socket_.reset();
}

/// A thread without subscriptions may end, so it does not keep the wait.
void Dispatcher::moveWait_(zn::atomic::Thread* from) {
    const auto isOn = [from](const auto& entry) { return entry.second->thread == from; };
    if (watchId_ == 0 || std::any_of(subscriptions_.begin(), subscriptions_.end(), isOn))
        return;
    withIoDispatcher(from, [&](ZnIoDispatcher& ioDispatcher)
                               ZN_NO_THREAD_SAFETY_ANALYSIS { ioDispatcher.unwatch(watchId_); });
    watchId_ = 0;
    beginWait_(subscriptions_.begin()->second->thread); // what has been sent meanwhile is still in the socket
}

std::size_t Dispatcher::countOf(std::uint64_t id) {
    const ZnMutexLocker locker(mutex_);
    return subscriptions_.count(id);
}

void Dispatcher::onNotified_(ZnNotifySocket& socket) {
    bool hasMore = false;
    const bool isSet = socket.take(&hasMore);
    if (hasMore) { // the rest is another unit of work: whoever floods the socket does not hold up the loop
        const ZnMutexLocker locker(mutex_);
        withIoDispatcher(waitThread_, [&](ZnIoDispatcher& ioDispatcher)
                                          ZN_NO_THREAD_SAFETY_ANALYSIS { ioDispatcher.signal(watchId_); });
    }
    if (isSet && !detail::runDispatchTable())
        dispatchAll();
}

void Dispatcher::dispatchAll() {
    std::vector<std::shared_ptr<CallbackRecord>> records;
    {
        const ZnMutexLocker locker(mutex_);
        records.reserve(subscriptions_.size());
        for (const auto& [id, record] : subscriptions_)
            records.push_back(record);
    }
    for (const std::shared_ptr<CallbackRecord>& record : records) {
        if (record && record->active.load(std::memory_order_acquire))
            record->callable();
    }
}

void signalProcess(std::uint32_t pid) {
    ZnNotifySocket::signal(pid);
}

} // namespace zn::ipc
