#include "core/object/ZnObject.h"

#include "core/object/ZnLiveObjects.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/types/ZnAssert.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>

namespace {

/// Tells whoever waits for a blocking delivery that it is over: also when the task is refused or dropped and so
/// destroyed without having run.
class BlockingContext_ {
public:
    void finish() {
        std::lock_guard<std::mutex> guard(mutex_);
        done_ = true;
        condition_.notify_all();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        condition_.wait(lock, [this] { return done_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable condition_;
    bool done_ = false; // guarded by mutex_
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

bool isSameThread(const zn::atomic::Thread* left, const zn::atomic::Thread* right) {
    return left == right || (left->threadId() != 0 && left->threadId() == right->threadId());
}

} // namespace

zn::detail::ZnPointerControlRef zn::detail::controlOf(const ZnObject* object) {
    return object->control_;
}

ZnObject::ZnObject(ZnObject* parent) : control_(std::make_shared<zn::detail::ZnPointerControl>(this)) {
    ZnLiveObjects::instance().insert(this);
    zn::atomic::Thread* owner = zn::atomic::Thread::currentThread();
    control_->thread = owner != nullptr ? owner : zn::atomic::Thread::fallbackThread();
    if (parent != nullptr)
        setParent(parent);
}

ZnObject::~ZnObject() {
    control_->object.store(nullptr, std::memory_order_release);
    ZnLiveObjects::instance().remove(this);
    dropIncomingConnections_();
    deleteChildren_();
    if (ZnObject* parent = std::exchange(parent_, nullptr))
        parent->removeChild(this);
    destroyed();
    // Not marked as disconnected: what this object has queued on other threads is still delivered there.
    forgetSender_(takeOutgoingConnections_());
}

bool ZnObject::isLive(const ZnObject* object) {
    return ZnLiveObjects::instance().contains(object);
}

// --- tree and events

void ZnObject::deleteChildren_() {
    // One at a time: the end of one child may delete another, which then leaves the list by itself.
    while (!children_.empty()) {
        ZnObject* child = children_.front();
        children_.erase(children_.begin());
        if (child->parent_ == this)
            child->parent_ = nullptr;
        delete child;
    }
}

void ZnObject::setParent(ZnObject* parent) {
    if (parent != nullptr && !isLive(parent))
        return;
    const ZnPointer<ZnObject> self(this);
    const ZnPointer<ZnObject> newParent(parent);
    if (ZnObject* oldParent = std::exchange(parent_, nullptr))
        oldParent->removeChild(this);
    if (!self)
        return;
    parent_ = newParent.get();
    if (parent_ != nullptr)
        parent_->addChild(this);
    if (self)
        parentChanged(newParent.get());
}

void ZnObject::addChild(ZnObject* child) {
    if (!isLive(child))
        return;
    children_.push_back(child);
    const ZnPointer<ZnObject> self(this);
    childAdded(child);
    ZnChildEvent event(ZnEvent::kChildAdded, child);
    if (self)
        sendChildEvent_(&event);
}

void ZnObject::removeChild(ZnObject* child) {
    children_.erase(std::remove(children_.begin(), children_.end(), child), children_.end());
    const ZnPointer<ZnObject> self(this);
    childRemoved(child);
    ZnChildEvent event(ZnEvent::kChildRemoved, child);
    if (self)
        sendChildEvent_(&event);
}

void ZnObject::sendChildEvent_(ZnChildEvent* event) {
    if (ZnCoreApplication* application = ZnCoreApplication::instance()) {
        application->sendEvent(this, event);
        return;
    }
    const ZnPointer<ZnObject> self(this);
    const std::vector<zn::detail::ZnPointerControlRef> filters = eventFilters_;
    for (auto at = filters.rbegin(); at != filters.rend() && self; ++at) {
        ZnObject* filter = (*at)->get();
        if (filter != nullptr && filter->eventFilter(this, event))
            return;
    }
    if (self)
        this->event(event);
}

bool ZnObject::event(ZnEvent* event) {
    if (event == nullptr)
        return false;
    switch (event->type) {
    case ZnEvent::kChildAdded:
    case ZnEvent::kChildRemoved:
        childEvent(static_cast<ZnChildEvent*>(event));
        event->accepted = true;
        return true;
    case ZnEvent::kDeferredDelete:
        delete this;
        return true;
    default:
        return false;
    }
}

bool ZnObject::eventFilter(ZnObject* /*watched*/, ZnEvent* /*event*/) {
    return false;
}

void ZnObject::childEvent(ZnChildEvent* event) {
    if (event == nullptr)
        return;
    if (event->type == ZnEvent::kChildAdded)
        childAddedEvent(event->child);
    else if (event->type == ZnEvent::kChildRemoved)
        childRemovedEvent(event->child);
}

ZnString ZnObject::className() const {
    return "ZnObject";
}

ZnList<ZnString> ZnObject::classHierarchy() const {
    return {ZnString("ZnObject")};
}

void ZnObject::onObjectNameChanged(const ZnString& /*name*/) {}
void ZnObject::childAddedEvent(ZnObject* /*child*/) {}
void ZnObject::childRemovedEvent(ZnObject* /*child*/) {}
void ZnObject::parentChanged(ZnObject* /*newParent*/) {}

void ZnObject::setObjectName(const ZnString& name) {
    if (name == objectName_)
        return;
    objectName_ = name;
    const ZnPointer<ZnObject> self(this);
    const ZnString copy = name; // `name` may lie in something that a slot changes
    onObjectNameChanged(copy);
    if (self)
        ObjectNameChanged(copy);
}

void ZnObject::installEventFilter(ZnObject* filter) {
    if (isLive(filter))
        eventFilters_.push_back(filter->control_);
}

// --- threads

zn::atomic::Thread* ZnObject::thread() const {
    return zn::atomic::Thread::isLive(control_->thread) ? control_->thread : nullptr;
}

bool ZnObject::sharesThread_(const ZnObject& left, const ZnObject& right) {
    const zn::atomic::Thread* leftThread = left.thread();
    const zn::atomic::Thread* rightThread = right.thread();
    return leftThread == nullptr || rightThread == nullptr || isSameThread(leftThread, rightThread);
}

ZnObject* ZnObject::sender() const {
    return currentSender_ ? currentSender_->get() : nullptr;
}

void ZnObject::deleteLater() {
    if (deleteRequested_.exchange(true, std::memory_order_acq_rel))
        return;
    zn::atomic::Thread* owner = thread();
    if (owner == nullptr)
        owner = zn::atomic::Thread::currentThread();
    if (owner == nullptr)
        owner = zn::atomic::Thread::fallbackThread();
    if (owner == nullptr) {
        delete this;
        return;
    }
    // This thread's own application also takes it while it is ending and has left its record.
    ZnCoreApplication* application = ZnCoreApplication::instance();
    if (application != nullptr && owner == zn::atomic::Thread::currentThread()) {
        application->queueDeletion(this);
        return;
    }
    ZnTask whenStarted([control = control_] {
        if (ZnObject* object = control->get())
            delete object;
    });
    const bool isTaken = zn::atomic::Thread::withLive(owner, [&](zn::atomic::Thread& record) {
        record.withApplicationOrPending(whenStarted, ZnFiberPool::kDefaultLane, true, [this](ZnCoreApplication& remote) {
            remote.queueDeletion(this);
            return true;
        });
    });
    if (!isTaken) // its thread has gone since
        postToThreadOrFallback(nullptr, std::move(whenStarted));
}

void ZnObject::executeBlockingOnThread(zn::atomic::Thread* target, ZnTask function) {
    zn::atomic::Thread* from = thread();
    if (from == nullptr)
        from = zn::atomic::Thread::currentThread();
    bool isElsewhere = false;
    zn::atomic::Thread::withLive(target, [&](zn::atomic::Thread& record) {
        isElsewhere = record.isRunning() && (from == nullptr || !isSameThread(&record, from));
    });
    if (!isElsewhere) {
        function();
        return;
    }
    auto context = std::make_shared<BlockingContext_>();
    ZnTask task([function = std::move(function), finish = FinishAtEnd_(context)]() mutable { function(); });
    if (postToThreadIfLive(target, task, ZnFiberPool::kDefaultLane))
        context->wait();
    else
        task(); // the thread has gone meanwhile
}

// --- connections

void ZnObject::addConnection_(const SignalKey& key, std::shared_ptr<ISlotBase> slot, ZnConnectionType type) {
    ZnObject* receiver = slot->receiverObject();
    {
        ZnMutexLocker locker(connectionLock_);
        auto at = std::find_if(connectionsByKey_.begin(), connectionsByKey_.end(),
                               [&](const SignalConnections_& entry) { return entry.key == key; });
        if (at == connectionsByKey_.end())
            at = connectionsByKey_.insert(at, {key, nullptr});
        auto changed = at->connections ? std::make_shared<ConnectionList_>(*at->connections)
                                       : std::make_shared<ConnectionList_>();
        changed->push_back({std::move(slot), type});
        at->connections = std::move(changed);
    }
    if (receiver != nullptr)
        receiver->noteSender_(this, 1);
}

void ZnObject::noteSender_(ZnObject* sender, int connectionCount) {
    ZnMutexLocker locker(senderLock_);
    const auto at = std::find_if(senders_.begin(), senders_.end(),
                                 [&](const SenderCount_& entry) { return entry.sender == sender; });
    if (at == senders_.end()) {
        if (connectionCount > 0)
            senders_.push_back({sender, connectionCount});
        return;
    }
    at->connectionCount += connectionCount;
    if (at->connectionCount <= 0)
        senders_.erase(at);
}

void ZnObject::disconnectReceiver(ZnObject* receiver) {
    if (receiver == nullptr)
        return;
    const bool receiverIsLive = isLive(receiver);
    int droppedCount = 0;
    std::vector<ConnectionListRef_> dropped; // slots are destroyed without the lock
    {
        ZnMutexLocker locker(connectionLock_);
        for (auto at = connectionsByKey_.begin(); at != connectionsByKey_.end();) {
            auto kept = std::make_shared<ConnectionList_>();
            for (const Connection_& connection : *at->connections) {
                if (connection.slot->receiverAddress() == receiver) {
                    connection.slot->markDisconnected();
                    ++droppedCount;
                } else {
                    kept->push_back(connection);
                }
            }
            dropped.push_back(std::move(at->connections));
            if (kept->empty()) {
                at = connectionsByKey_.erase(at);
            } else {
                at->connections = std::move(kept);
                ++at;
            }
        }
    }
    if (receiverIsLive && droppedCount > 0)
        receiver->noteSender_(this, -droppedCount);
}

void ZnObject::disconnectAll() {
    const std::vector<SignalConnections_> dropped = takeOutgoingConnections_();
    for (const SignalConnections_& entry : dropped) {
        for (const Connection_& connection : *entry.connections)
            connection.slot->markDisconnected();
    }
    forgetSender_(dropped);
}

void ZnObject::dropIncomingConnections_() {
    std::vector<SenderCount_> senders;
    {
        ZnMutexLocker locker(senderLock_);
        senders.swap(senders_);
    }
    for (const SenderCount_& entry : senders) {
        if (isLive(entry.sender))
            entry.sender->disconnectReceiver(this);
    }
}

std::vector<ZnObject::SignalConnections_> ZnObject::takeOutgoingConnections_() {
    ZnMutexLocker locker(connectionLock_);
    return std::exchange(connectionsByKey_, {});
}

void ZnObject::forgetSender_(const std::vector<SignalConnections_>& dropped) {
    for (const SignalConnections_& entry : dropped) {
        for (const Connection_& connection : *entry.connections) {
            if (ZnObject* receiver = connection.slot->receiverObject())
                receiver->noteSender_(this, -1);
        }
    }
}

// --- emission

ZnObject::ConnectionListRef_ ZnObject::connectionsFor_(const SignalKey& key) const {
    ZnMutexLocker locker(connectionLock_);
    for (const SignalConnections_& entry : connectionsByKey_) {
        if (entry.key == key)
            return entry.connections;
    }
    return nullptr;
}

ZnObject::Emission_ ZnObject::beginEmission_() {
    return {control_, control_->thread};
}

ZnObject::Delivery_ ZnObject::chooseDelivery_(const Emission_& emission, const Connection_& connection,
                                              zn::atomic::Thread** target) {
    const ISlotBase& slot = *connection.slot;
    ZnObject* receiver = slot.receiverObject();
    if (!slot.isConnected() || (slot.hasReceiver() && receiver == nullptr))
        return Delivery_::Skip;
    if (connection.type == ZnConnectionType::DirectConnection)
        return Delivery_::Now;
    // The usual case first: sender and receiver share a thread record, dead or alive.
    const bool isAuto = connection.type == ZnConnectionType::AutoConnection;
    zn::atomic::Thread* owner = slot.receiverThread(); // the receiver itself may be going on another thread
    if (isAuto && (receiver == nullptr || owner == emission.senderThread))
        return Delivery_::Now;
    *target = zn::atomic::Thread::isLive(owner) ? owner : nullptr;
    if (connection.type == ZnConnectionType::QueuedConnection)
        return Delivery_::Post;
    if (connection.type == ZnConnectionType::BlockingQueuedConnection)
        return Delivery_::Block;
    zn::atomic::Thread* sender =
        zn::atomic::Thread::isLive(emission.senderThread) ? emission.senderThread : zn::atomic::Thread::currentThread();
    return *target == nullptr || (sender != nullptr && isSameThread(*target, sender)) ? Delivery_::Now
                                                                                       : Delivery_::Post;
}

bool ZnObject::enterSlot_(const ISlotBase& slot, const zn::detail::ZnPointerControlRef& senderControl) {
    if (!slot.isConnected())
        return false;
    if (!slot.hasReceiver())
        return true;
    ZnObject* receiver = slot.receiverObject();
    if (receiver == nullptr)
        return false;
    receiver->currentSender_ = senderControl;
    return true;
}

void ZnObject::postDelivery_(zn::atomic::Thread* target, ZnTask task) {
    postToThreadOrFallback(target, std::move(task));
}

void ZnObject::blockOnDelivery_(const Emission_& emission, zn::atomic::Thread* target, ZnTask task) {
    if (ZnObject* sender = emission.senderControl->get())
        sender->executeBlockingOnThread(target, std::move(task));
    else
        postDelivery_(target, std::move(task));
}

// --- signals

void ZnObject::ObjectNameChanged(const ZnString& name) {
    emitSignal(&ZnObject::ObjectNameChanged, name);
}
void ZnObject::destroyed() {
    emitSignal(&ZnObject::destroyed);
}
void ZnObject::childAdded(ZnObject* child) {
    emitSignal(&ZnObject::childAdded, child);
}
void ZnObject::childRemoved(ZnObject* child) {
    emitSignal(&ZnObject::childRemoved, child);
}
