#pragma once

#include "core/platform/ZnNotifySocket.h"
#include "core/types/ZnMutex.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

class ZnCoreApplication;
namespace zn::atomic {
class Thread;
}

namespace zn::ipc {

/// What a notification calls for one subscription.
struct CallbackRecord {
    std::atomic<bool> active{true};       // cleared at the end of the subscription; pairs with dispatchAll()
    std::function<void()> callable;       // any thread; does not park
    zn::atomic::Thread* thread = nullptr; // the subscription's, whose loop can watch for notifications
};

/// The process's subscriptions, and its wait for notifications of other processes.
///
/// The wait is on the loop of one of the subscriptions, and moves to another's when that one ends.
/// Thread: any, but add and remove are called on the record's thread.
/// Owner: the process, to its very end. A child that has been forked begins with none.
class Dispatcher {
public:
    static Dispatcher& instance();

    /// False: notifications cannot be waited for, since something else has the name of this process's event.
    bool add(std::uint64_t id, std::shared_ptr<CallbackRecord> record);
    /// The record's callable is not begun any more once this has returned on the thread of the wait.
    void remove(std::uint64_t id, const std::shared_ptr<CallbackRecord>& record);
    /// Number of subscriptions with this id.
    std::size_t countOf(std::uint64_t id);
    /// Calls the callables of all subscriptions, which may add and remove others.
    void dispatchAll();

private:
    using Records_ = std::multimap<std::uint64_t, std::shared_ptr<CallbackRecord>>;

    Dispatcher();
    void forgetParent_() ZN_REQUIRES(mutex_);
    void beginWait_(zn::atomic::Thread* thread) ZN_REQUIRES(mutex_);
    void endWait_() ZN_REQUIRES(mutex_);
    void moveWait_(zn::atomic::Thread* from) ZN_REQUIRES(mutex_);
    void onNotified_(ZnNotifySocket& socket);

    ZnMutex mutex_; // see docs/lock-order.md; no callable is called while it is held
    Records_ subscriptions_ ZN_GUARDED_BY(mutex_);
    std::shared_ptr<ZnNotifySocket> socket_ ZN_GUARDED_BY(mutex_);
    zn::atomic::Thread* waitThread_ ZN_GUARDED_BY(mutex_) = nullptr; // whose loop watches the socket
    unsigned long long watchId_ ZN_GUARDED_BY(mutex_) = 0;           // 0: nobody does
    unsigned forkCount_ ZN_GUARDED_BY(mutex_);
};

/// Sets the notify event of a process. Any thread.
void signalProcess(std::uint32_t pid);

} // namespace zn::ipc
