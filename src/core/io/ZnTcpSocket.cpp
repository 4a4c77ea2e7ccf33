#include "core/io/ZnTcpSocket.h"

#include "core/object/ZnAlive.h"
#include "core/platform/ZnSocketError.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnWait.h"
#include "core/types/ZnMutex.h"

#include <algorithm>
#include <atomic>

namespace {

/// A name look-up that a fiber waits for. Shared with the resolver's thread, which may answer when the fiber, the
/// socket and even the application have ended.
struct Lookup_ {
    std::atomic<bool> answered{false}; // set by the resolver before it unblocks; see ZnFiberPool::yieldCurrent
    ZnMutex mutex;
    ZnResolver::Result addresses ZN_GUARDED_BY(mutex);
};

} // namespace

/// One readiness event. User code may delete the socket, close it, or connect it anew while the event is served,
/// and long after that when it parks; whatever follows asks stillValid() first.
class ZnTcpSocket::EventScope_ {
public:
    explicit EventScope_(ZnTcpSocket& socket) : alive_(&socket, socket.handle_) {
        socket.insideEvents_ = true;
        socket.readBudgetBytes_ = kReadBudgetBytes;
    }
    ~EventScope_() {
        if (ZnTcpSocket* socket = alive_.get())
            socket->insideEvents_ = false;
    }
    EventScope_(const EventScope_&) = delete;
    EventScope_& operator=(const EventScope_&) = delete;
    bool stillValid() const { return static_cast<bool>(alive_); }

private:
    const ZnAlive<ZnTcpSocket, std::shared_ptr<ZnSocketHandle>> alive_;
};

ZnTcpSocket::ZnTcpSocket(ZnObject* parent) : ZnAbstractSocket(parent) {}

ZnTcpSocket::~ZnTcpSocket() {
    ZnTcpSocket::close();
    state_ = SocketState::Unconnected; // in silence: a receiver may have connected it anew
    ZnTcpSocket::close();
}

// --- readiness

bool ZnTcpSocket::registerWait_() {
    ZnCoreApplication* application = ZnCoreApplication::instance();
    if (application == nullptr)
        return false;
    waitId_ = application->ioDispatcher().watchHandle(handle_, [self = ZnPointer<ZnTcpSocket>(this)](unsigned) {
        if (self)
            self->onNetworkEvents_();
    });
    return waitId_ != 0;
}

void ZnTcpSocket::onNetworkEvents_() {
    if (!handle_)
        return;
    const EventScope_ scope(*this);
    if (!handleEvents_(handle_->takeEvents(), scope) || failWhenGone_(scope))
        return;
    finishPeerClose_();
    if (scope.stillValid() && stoppedBeforeEnd_)
        requestAnotherRead_();
}

bool ZnTcpSocket::handleEvents_(const ZnNetworkEvents& events, const EventScope_& scope) {
    if ((events.mask & ZnNetworkEvents::kConnect) != 0 && !onConnectEvent_(events.connectError, scope))
        return false;
    if ((events.mask & ZnNetworkEvents::kRead) != 0 && !onReadReady_()) {
        if (scope.stillValid())
            close();
        return false;
    }
    if (!scope.stillValid())
        return false;
    if ((events.mask & ZnNetworkEvents::kWrite) != 0 && !onWriteReady_()) {
        if (scope.stillValid())
            close();
        return false;
    }
    if (!scope.stillValid())
        return false;
    if ((events.mask & ZnNetworkEvents::kClose) != 0)
        onPeerClosed_();
    return scope.stillValid();
}

bool ZnTcpSocket::onConnectEvent_(int error, const EventScope_& scope) {
    if (error != 0) {
        onAttemptFailed_(error, scope);
        return false;
    }
    const bool goesOn = onConnectReady_();
    if (!scope.stillValid())
        return false;
    if (!goesOn)
        close();
    return goesOn;
}

/// Nothing else would end a held connection whose peer is gone: there may be nobody who reads or writes.
bool ZnTcpSocket::failWhenGone_(const EventScope_& scope) {
    if (!holdOnPeerClose_ || !remoteClosed_ || stoppedBeforeEnd_)
        return false;
    const int error = handle_->failure();
    if (error == 0)
        return false;
    errorOccurred(error);
    if (scope.stillValid())
        close();
    return true;
}

void ZnTcpSocket::requestAnotherRead_() {
    stoppedBeforeEnd_ = false;
    handle_->requestReadEvent();
    if (ZnCoreApplication* application = ZnCoreApplication::instance())
        application->ioDispatcher().signal(waitId_);
}

bool ZnTcpSocket::onConnectReady_() {
    state_ = SocketState::Connected;
    connected();
    return true;
}

bool ZnTcpSocket::onReadReady_() {
    readyRead();
    return true;
}

bool ZnTcpSocket::onWriteReady_() {
    writePending_();
    return true;
}

void ZnTcpSocket::onPeerClosed_() {
    remoteClosed_ = true;
    readyRead();
}

bool ZnTcpSocket::canFinishClose_() const {
    return remoteClosed_ && writeBuffer_.isEmpty();
}

void ZnTcpSocket::finishPeerClose_() {
    // A reader that was stopped before the end gets the rest first: the close comes when it has found the end.
    if (remoteClosed_ && !holdOnPeerClose_ && !stoppedBeforeEnd_ && canFinishClose_() &&
        state_ != SocketState::Unconnected)
        close();
}

void ZnTcpSocket::setHoldOnPeerClose(bool hold) {
    holdOnPeerClose_ = hold;
    if (!hold && !insideEvents_) // else at the event's end
        finishPeerClose_();
}

void ZnTcpSocket::expectWriteEvent_() {
    if (handle_)
        handle_->expectWriteEvent();
}

// --- connecting

bool ZnTcpSocket::connectToHost(const ZnString& host, unsigned short port) {
    const ZnPointer<ZnTcpSocket> self(this);
    const ZnString hostCopy = host; // the caller's text may be destroyed while this fiber is parked
    close();
    if (!self || isInUse_())
        return false; // a receiver has deleted it, or uses it for something else
    std::optional<ZnResolver::Result> addresses = resolveHost_(hostCopy, port);
    if (!addresses)
        return false; // not touched any more: closed, reused or deleted in the meantime
    untriedAddresses_.assign(addresses->rbegin(), addresses->rend());
    for (ZnSocketAddress& address : untriedAddresses_)
        address = address.withPort(port);
    Attempt_ attempt = tryNextAddress_(ZnSocketError::kHostNotFound);
    if (!attempt.handle) {
        errorOccurred(attempt.error);
        return false;
    }
    state_ = SocketState::Connecting;
    return follow_(std::move(attempt));
}

std::optional<ZnResolver::Result> ZnTcpSocket::resolveHost_(const ZnString& host, unsigned short port) {
    const ZnSocketAddress numeric = ZnSocketAddress::fromNumeric(host, port);
    if (numeric.family() != ZnSocketAddress::Family::None)
        return ZnResolver::Result{numeric};
    ZnCoreApplication* application = ZnCoreApplication::instance();
    if (application == nullptr || !application->fiberPool().isOnFiber())
        return ZnResolver::resolveNow(host);
    const auto lookup = std::make_shared<Lookup_>();
    const int waitId = nextFiberWaitId();
    const ZnAlive alive(this, connectGeneration_);
    lookupId_ = ZnResolver::resolve(host, [lookup, waitId](const ZnResolver::Result& addresses) {
        {
            const ZnMutexLocker locker(lookup->mutex);
            lookup->addresses = addresses;
        }
        lookup->answered.store(true, std::memory_order_release);
        unblockFiber(waitId, ZnFiberPool::kFirstLane);
    });
    resolveWaitId_ = waitId;
    application->fiberPool().yieldCurrent(waitId, &lookup->answered);
    if (!alive)
        return std::nullopt;
    resolveWaitId_ = 0;
    ZnResolver::withdraw(std::exchange(lookupId_, 0)); // the wait may have ended without an answer
    const ZnMutexLocker locker(lookup->mutex);
    return lookup->addresses;
}

/// Goes through the addresses that are left until a connection is under way. Without one: the last failure.
ZnTcpSocket::Attempt_ ZnTcpSocket::tryNextAddress_(int lastError) {
    Attempt_ attempt{nullptr, lastError};
    while (!attempt.handle && !untriedAddresses_.empty()) {
        const ZnSocketAddress address = untriedAddresses_.back();
        untriedAddresses_.pop_back();
        std::shared_ptr<ZnSocketHandle> handle = ZnSocketHandle::open(address.family(), &attempt.error);
        if (!handle)
            continue;
        attempt.error = handle->connect(address);
        if (attempt.error == 0 || attempt.error == ZnSocketError::kWouldBlock ||
            attempt.error == ZnSocketError::kInProgress)
            attempt.handle = std::move(handle);
    }
    return attempt;
}

bool ZnTcpSocket::follow_(Attempt_ attempt) {
    handle_ = std::move(attempt.handle);
    const ZnAlive alive(this, handle_);
    bool goesOn = registerWait_();
    if (!goesOn)
        errorOccurred(ZnSocketError::kNoBufferSpace);
    else if (attempt.error == 0)
        goesOn = onConnectReady_();
    if (!goesOn && alive)
        close();
    return goesOn;
}

/// The next address of the name has its chance; only the failure of the last one is told.
void ZnTcpSocket::onAttemptFailed_(int error, const EventScope_& scope) {
    Attempt_ next = tryNextAddress_(error);
    if (next.handle) {
        dropHandle_();
        follow_(std::move(next));
        return;
    }
    errorOccurred(next.error);
    if (scope.stillValid())
        close();
}

void ZnTcpSocket::adoptDescriptor(std::shared_ptr<ZnSocketHandle> handle, bool emitConnected) {
    const ZnPointer<ZnTcpSocket> self(this);
    close();
    if (!self || !handle || isInUse_())
        return; // as in connectToHost
    handle_ = std::move(handle);
    const ZnAlive alive(this, handle_);
    if (!registerWait_()) {
        errorOccurred(ZnSocketError::kNoBufferSpace);
        if (alive)
            close();
        return;
    }
    state_ = SocketState::Connected;
    if (emitConnected)
        connected();
}

void ZnTcpSocket::close() {
    const SocketState previous = state_;
    ++connectGeneration_;
    if (resolveWaitId_ != 0) {
        ZnResolver::withdraw(std::exchange(lookupId_, 0));
        unblockFiber(std::exchange(resolveWaitId_, 0), ZnFiberPool::kFirstLane);
    }
    const bool hadHandle = handle_ != nullptr;
    dropHandle_();
    untriedAddresses_.clear();
    writeBuffer_.release();
    if (previous == SocketState::Unconnected || !hadHandle)
        return;                         // without a handle: called from a receiver of the signal below
    const ZnAlive alive(this, handle_); // no handle: it is another one when a receiver has connected anew
    disconnected();                     // its receivers still see the old state
    if (alive)
        state_ = SocketState::Unconnected;
}

void ZnTcpSocket::dropHandle_() {
    ZnCoreApplication* application = ZnCoreApplication::instance();
    if (waitId_ != 0 && application != nullptr)
        application->ioDispatcher().unwatch(waitId_);
    waitId_ = 0;
    if (handle_)
        handle_->closeDescriptor(); // the dispatcher may hold the handle a little longer
    handle_.reset();
    remoteClosed_ = false;
    insideEvents_ = false;
    stoppedBeforeEnd_ = false;
    peerAddressText_.clear();
}

// --- reading

ZnString ZnTcpSocket::read(long long maxBytes) {
    char buffer[kReadBytes];
    const bool isInRange = maxBytes >= 1 && maxBytes <= static_cast<long long>(kReadBytes);
    return ZnString(buffer, receive_(buffer, isInRange ? static_cast<std::size_t>(maxBytes) : kReadBytes));
}

std::size_t ZnTcpSocket::readInto(char* buffer, std::size_t capacity) {
    return receive_(buffer, capacity);
}

std::size_t ZnTcpSocket::receive_(char* buffer, std::size_t capacity) {
    if (!canTransfer_() || !handle_->maybeReadable() || capacity == 0)
        return 0;
    if (insideEvents_ && readBudgetBytes_ == 0) {
        stoppedBeforeEnd_ = true; // the rest comes with the next event
        return 0;
    }
    const ZnSocketHandle::Transfer transfer = handle_->receive(buffer, capacity);
    stoppedBeforeEnd_ = transfer.byteCount == capacity;
    if (transfer.error == ZnSocketError::kWouldBlock)
        return 0;
    if (transfer.error != 0) {
        errorOccurred(transfer.error);
        return 0;
    }
    if (transfer.byteCount == 0) {
        remoteClosed_ = true;
        // While an event is served the close waits for its end: what the reader still has to answer can go out.
        if (!insideEvents_)
            finishPeerClose_();
        return 0;
    }
    bytesReceived_ += transfer.byteCount;
    readBudgetBytes_ -= std::min(readBudgetBytes_, transfer.byteCount);
    if (stoppedBeforeEnd_ && !insideEvents_)
        requestAnotherRead_();
    return transfer.byteCount;
}

// --- writing

bool ZnTcpSocket::write(ZnString bytes) {
    if (!canTransfer_())
        return false;
    if (writeBuffer_.isEmpty() && canSendDirectly_())
        return sendDirectly_(bytes.view(), {});
    writeBuffer_.append(bytes.view());
    flushWrites_();
    return true;
}

bool ZnTcpSocket::write(ZnByteArray bytes) {
    if (!canTransfer_())
        return false;
    if (writeBuffer_.isEmpty() && !canSendDirectly_())
        writeBuffer_ = std::move(bytes);
    else if (writeBuffer_.isEmpty())
        return sendDirectly_(bytes.view(), {});
    else
        writeBuffer_.append(bytes);
    flushWrites_();
    return true;
}

bool ZnTcpSocket::writeGathered(ZnString head, ZnByteArray body) {
    if (!canTransfer_())
        return false;
    if (writeBuffer_.isEmpty() && canSendDirectly_()) {
        const ZnSocketHandle::Transfer transfer = handle_->send(head.data(), head.size(), body.data(), body.size());
        // The usual large answer: the head is out and most of the body is not. The body becomes the buffer.
        if (transfer.byteCount >= head.size() && !body.isEmpty()) {
            body.consumeFront(transfer.byteCount - head.size());
            writeBuffer_ = std::move(body);
        } else {
            writeBuffer_.append(head.view().substr(transfer.byteCount));
            writeBuffer_.append(body);
        }
        return finishDirectSend_(transfer);
    }
    writeBuffer_.append(head.view());
    writeBuffer_.append(body);
    flushWrites_();
    return true;
}

bool ZnTcpSocket::sendDirectly_(std::string_view first, std::string_view second) {
    if (first.empty() && second.empty())
        return true;
    const ZnSocketHandle::Transfer transfer = handle_->send(first.data(), first.size(), second.data(), second.size());
    if (transfer.byteCount < first.size())
        writeBuffer_.append(first.substr(transfer.byteCount));
    writeBuffer_.append(second.substr(transfer.byteCount - std::min(transfer.byteCount, first.size())));
    return finishDirectSend_(transfer);
}

bool ZnTcpSocket::finishDirectSend_(const ZnSocketHandle::Transfer& transfer) {
    bytesSent_ += transfer.byteCount;
    if (transfer.error != 0 && transfer.error != ZnSocketError::kWouldBlock)
        errorOccurred(transfer.error);
    else if (writeBuffer_.isEmpty())
        writeFinished();
    return true;
}

void ZnTcpSocket::flushWrites_() {
    writePending_();
}

void ZnTcpSocket::writePending_() {
    if (!canTransfer_() || writeBuffer_.isEmpty())
        return;
    const ZnSocketHandle::Transfer transfer = handle_->send(writeBuffer_.data(), writeBuffer_.size());
    if (transfer.byteCount > 0)
        writeBuffer_.consumeFront(transfer.byteCount);
    if (writeBuffer_.isEmpty())
        writeBuffer_.release(); // an idle connection keeps no memory
    if (transfer.byteCount > 0 || transfer.error != 0)
        finishDirectSend_(transfer);
}

ZnTcpSocket::PeerState ZnTcpSocket::peerState() const {
    if (!handle_ || handle_->failure() != 0)
        return PeerState::Gone;
    return handle_->hasPeerFinished() ? PeerState::Finished : PeerState::Open;
}

bool ZnTcpSocket::isQuiet() const {
    return canTransfer_() && !remoteClosed_ && writeBuffer_.isEmpty() && handle_->isQuiet();
}

unsigned long long ZnTcpSocket::bytesTaken() const {
    return bytesSent_ - (handle_ ? handle_->unacknowledgedBytes() : 0);
}

// --- waiting

bool ZnTcpSocket::waitForConnected(int msecs) {
    return waitFor_(
        &ZnAbstractSocket::connected, [](const ZnTcpSocket& socket) { return socket.state_ == SocketState::Connected; },
        msecs);
}

bool ZnTcpSocket::waitForBytesWritten(int msecs) {
    if (writeBuffer_.isEmpty())
        return true;
    const ZnPointer<ZnTcpSocket> self(this);
    flushWrites_();
    return self && waitFor_(
                       &ZnAbstractSocket::writeFinished,
                       [](const ZnTcpSocket& socket) {
                           return socket.state_ == SocketState::Connected && socket.writeBuffer_.isEmpty();
                       },
                       msecs);
}

bool ZnTcpSocket::waitFor_(void (ZnAbstractSocket::*signal)(), const std::function<bool(const ZnTcpSocket&)>& isDone,
                           int msecs) {
    if (isDone(*this))
        return true;
    if (state_ == SocketState::Unconnected && resolveWaitId_ == 0 && msecs < 0)
        return false; // nothing that could end the wait would come
    const ZnPointer<ZnTcpSocket> self(this);
    ZnSignalWait wait;
    wait.expect(*this, signal, [&] { return isDone(*this); });
    wait.endOn(*this, &ZnAbstractSocket::disconnected);
    wait.endOn(*this, &ZnAbstractSocket::errorOccurred);
    wait.endOn(*this, &ZnObject::destroyed);
    return wait.run(msecs) || (self && isDone(*this));
}

// --- addresses

ZnString ZnTcpSocket::peerAddress() const {
    if (peerAddressText_.isEmpty() && handle_)
        peerAddressText_ = handle_->peerAddress().text();
    return peerAddressText_;
}

unsigned short ZnTcpSocket::peerPort() const {
    return handle_ ? handle_->peerAddress().port() : static_cast<unsigned short>(0);
}

ZnString ZnTcpSocket::localAddress() const {
    return handle_ ? handle_->localAddress().text() : ZnString();
}

unsigned short ZnTcpSocket::localPort() const {
    return handle_ ? handle_->localAddress().port() : static_cast<unsigned short>(0);
}
