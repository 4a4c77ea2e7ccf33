#include "core/object/ZnObject.h"

#include "core/object/ZnAlive.h"
#include "core/object/ZnLiveObjects.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/types/ZnLogger.h"

#include <algorithm>

namespace {

constexpr const char* kCategory = "zn.core.object.znobject";

} // namespace

zn::detail::ZnPointerControlRef zn::detail::controlOf(const ZnObject* object) {
    return object->hub_;
}

zn::detail::ZnPointerControlRef zn::detail::controlIfLive(const ZnObject* object) {
    return ZnLiveObjects::instance().controlOf(object);
}

ZnObject::ZnObject(ZnObject* parent) : hub_(std::make_shared<zn::detail::ZnConnectionHub>(this)) {
    zn::atomic::Thread* owner = zn::atomic::Thread::currentThread();
    hub_->thread = owner != nullptr ? owner : zn::atomic::Thread::fallbackThread();
    ZnLiveObjects::instance().insert(this);
    if (parent != nullptr)
        setParent(parent);
}

ZnObject::~ZnObject() {
    hub_->object.store(nullptr, std::memory_order_release);
    ZnLiveObjects::instance().remove(this);
    zn::detail::ZnConnectionHub::closeIncoming(hub_);
    deleteChildren_();
    if (ZnObject* parent = std::exchange(parent_, nullptr))
        parent->removeChild(this);
    destroyed();
    zn::detail::ZnConnectionHub::closeOutgoing(hub_);
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

bool ZnObject::isWithin_(const ZnObject* ancestor) const {
    for (const ZnObject* object = this; object != nullptr; object = object->parent_) {
        if (object == ancestor)
            return true;
    }
    return false;
}

void ZnObject::setParent(ZnObject* parent) {
    if (hub_->get() == nullptr || (parent != nullptr && !isLive(parent)))
        return;
    if (parent != nullptr && parent->isWithin_(this)) {
        ZN_LOG_WARNING(kCategory, "ZnObject::setParent") << "an object cannot be its own parent or ancestor";
        return;
    }
    const ZnPointer<ZnObject> newParent(parent);
    ++parentChangeCount_;
    const ZnAlive alive(this, parentChangeCount_);
    if (ZnObject* oldParent = std::exchange(parent_, nullptr))
        oldParent->removeChild(this);
    // A slot may also have deleted the new parent, or moved it below this object.
    if (!alive || (newParent && newParent->isWithin_(this)))
        return;
    parent_ = newParent.get();
    if (parent_ != nullptr)
        parent_->addChild(this);
    if (alive)
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
    case ZnEvent::kDeferredDelete: delete this; return true;
    default: return false;
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
    if (zn::detail::ZnPointerControlRef control = zn::detail::controlIfLive(filter))
        eventFilters_.push_back(std::move(control));
}

// --- threads

zn::atomic::Thread* ZnObject::thread() const {
    return zn::atomic::Thread::isLive(hub_->thread) ? hub_->thread : nullptr;
}

bool ZnObject::sharesThread_(const ZnObject& left, const ZnObject& right) {
    const zn::atomic::Thread* leftThread = left.thread();
    const zn::atomic::Thread* rightThread = right.thread();
    return leftThread == nullptr || rightThread == nullptr || leftThread->isSameAs(*rightThread);
}

ZnObject* ZnObject::sender() const {
    return zn::detail::ZnSlotScope::senderFor(*hub_);
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
    ZnTask whenStarted([control = hub_] {
        if (ZnObject* object = control->get())
            delete object;
    });
    const bool isTaken = zn::atomic::Thread::withLive(owner, [&](zn::atomic::Thread& record) {
        record.withApplicationOrPending(whenStarted, ZnFiberPool::kDefaultLane, true,
                                        [this](ZnCoreApplication& remote) {
                                            remote.queueDeletion(this);
                                            return true;
                                        });
    });
    if (!isTaken) // its thread has ended since
        postTask(nullptr, whenStarted, {.whenGone = ZnPostOptions::WhenGone::UseFallback});
}

void ZnObject::executeBlockingOnThread(zn::atomic::Thread* target, ZnTask function) {
    zn::detail::ZnEmission::runBlocking(hub_->thread, target, std::move(function));
}

void ZnObject::disconnectReceiver(ZnObject* receiver) {
    if (const zn::detail::ZnPointerControlRef control = zn::detail::controlIfLive(receiver))
        zn::detail::ZnConnectionHub::disconnectReceiver(hub_,
                                                        std::static_pointer_cast<zn::detail::ZnConnectionHub>(control));
}

void ZnObject::disconnectAll() {
    zn::detail::ZnConnectionHub::disconnectAll(hub_);
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
