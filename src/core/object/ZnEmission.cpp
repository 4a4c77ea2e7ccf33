#include "core/object/ZnEmission.h"

#include "core/runtime/Thread.h"
#include "core/types/ZnMutex.h"

#include <condition_variable>
#include <memory>

namespace zn::detail {
namespace {

/// Tells whoever waits for a blocking delivery that it is over: also when the task is refused or dropped and so
/// destroyed without having run.
class BlockingContext_ {
public:
    void finish() {
        const ZnMutexLocker locker(mutex_);
        done_ = true;
        condition_.notify_all();
    }
    void wait() {
        const ZnMutexLocker locker(mutex_);
        while (!done_)
            condition_.wait(mutex_);
    }

private:
    ZnMutex mutex_;
    std::condition_variable_any condition_;
    bool done_ ZN_GUARDED_BY(mutex_) = false;
};

class FinishAtEnd_ {
public:
    explicit FinishAtEnd_(std::shared_ptr<BlockingContext_> context) : context_(std::move(context)) {}
    FinishAtEnd_(FinishAtEnd_&& other) noexcept = default;
    FinishAtEnd_& operator=(FinishAtEnd_&&) = delete;
    ~FinishAtEnd_() {
        if (context_)
            context_->finish();
    }

private:
    std::shared_ptr<BlockingContext_> context_;
};

} // namespace

ZnEmission::Delivery_ ZnEmission::chooseDelivery_(const ZnConnectionHub::Connection& connection,
                                                  zn::atomic::Thread** target) const {
    const ISlotBase& slot = *connection.slot;
    if (!slot.isConnected() || (slot.hasReceiver() && slot.receiverObject() == nullptr))
        return Delivery_::Skip;
    if (connection.type == ZnConnectionType::DirectConnection)
        return Delivery_::Now;
    // The usual case first: sender and receiver share a thread record, dead or alive.
    const bool isAuto = connection.type == ZnConnectionType::AutoConnection;
    zn::atomic::Thread* owner = slot.receiverThread(); // the receiver itself may be ending on another thread
    if (isAuto && (!slot.hasReceiver() || owner == senderThread_))
        return Delivery_::Now;
    *target = zn::atomic::Thread::isLive(owner) ? owner : nullptr;
    if (connection.type == ZnConnectionType::QueuedConnection)
        return Delivery_::Post;
    if (connection.type == ZnConnectionType::BlockingQueuedConnection)
        return Delivery_::Block;
    zn::atomic::Thread* sender =
        zn::atomic::Thread::isLive(senderThread_) ? senderThread_ : zn::atomic::Thread::currentThread();
    return *target == nullptr || (sender != nullptr && (*target)->isSameAs(*sender)) ? Delivery_::Now : Delivery_::Post;
}

void ZnEmission::post_(zn::atomic::Thread* target, ZnTask task) {
    postTask(target, task, {.whenGone = ZnPostOptions::WhenGone::UseFallback});
}

void ZnEmission::block_(zn::atomic::Thread* target, ZnTask task) const {
    if (sender_->get() != nullptr)
        runBlocking(senderThread_, target, std::move(task));
    else
        post_(target, std::move(task));
}

void ZnEmission::runBlocking(zn::atomic::Thread* from, zn::atomic::Thread* target, ZnTask function) {
    if (!zn::atomic::Thread::isLive(from))
        from = zn::atomic::Thread::currentThread();
    bool isElsewhere = false;
    zn::atomic::Thread::withLive(target, [&](zn::atomic::Thread& record) {
        isElsewhere = record.isRunning() && (from == nullptr || !record.isSameAs(*from));
    });
    if (!isElsewhere) {
        function();
        return;
    }
    auto context = std::make_shared<BlockingContext_>();
    ZnTask task([function = std::move(function), finish = FinishAtEnd_(context)]() mutable { function(); });
    // A thread that is ending takes nothing more: to keep the task for its next start would let the caller wait for
    // ever.
    const ZnPostResult result = postTask(target, task, {.whenNotRunning = ZnPostOptions::WhenNotRunning::Refuse});
    if (result == ZnPostResult::Queued)
        context->wait();
}

} // namespace zn::detail
