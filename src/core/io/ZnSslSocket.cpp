#include "core/io/ZnSslSocket.h"

#include "core/io/ZnSslEngine_.h"
#include "core/object/ZnAlive.h"
#include "core/runtime/ZnTimer.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr const char* kCategory = "zn.core.io.znsslsocket";
constexpr std::size_t kRecordBytes = 16384;
/// One run of the pump moves at most this much in one direction, and a reader that does not read stops the input here.
constexpr std::size_t kMaxPlainBytes = ZnTcpSocket::kReadBudgetBytes;
constexpr int kMaxStepsPerRun = 4;
/// And receives at most about this many records and messages of the protocol: small ones cost much for what they bring.
constexpr unsigned kMaxPartsPerRun = 128;
constexpr int kMaxReadsPerRun = 128;
/// After a run that has brought nothing, although there was more.
constexpr int kFruitlessDelayMs = 2;

// Shared by all sockets of a thread: its content is used up before anything that could park.
thread_local char recordBuffer[kRecordBytes];

using Outcome = ZnSslEngine_::Outcome;

} // namespace

ZnSslSocket::ZnSslSocket(ZnObject* parent) : ZnTcpSocket(parent) {}

ZnSslSocket::~ZnSslSocket() {
    ZnSslSocket::close();
}

// --- starting

bool ZnSslSocket::connectToHostEncrypted(const ZnString& host, unsigned short port) {
    const ZnPointer<ZnSslSocket> self(this);
    const ZnString hostCopy = host; // the caller's text may be part of what a receiver deletes
    close();
    // The wish is noted when nothing can cancel it any more: what follows must not go on without TLS.
    if (!self || hasHandle_())
        return false; // a receiver has deleted it, or uses it for something else
    startOnConnect_ = keepStartOnConnect_ = true;
    return connectToHost(hostCopy, port);
}

bool ZnSslSocket::connectToHost(const ZnString& host, unsigned short port) {
    hostName_ = host;
    return ZnTcpSocket::connectToHost(hostName_, port);
}

bool ZnSslSocket::onConnectReady_() {
    if (!std::exchange(startOnConnect_, false))
        return ZnTcpSocket::onConnectReady_();
    return startClientEncryption_();
}

bool ZnSslSocket::startClientEncryption_() {
    const ZnString& name = peerHostName_.isEmpty() ? hostName_ : peerHostName_;
    if (name.isEmpty())
        return failSsl_(kHandshakeFailed, "[ZnSslSocket] TLS peer hostname missing");
    auto engine = std::make_unique<ZnSslEngine_>();
    if (!engine->initClient(name, static_cast<std::uint64_t>(descriptor_()), caFile_, sessions_))
        return failSsl_(kHandshakeFailed, "[ZnSslSocket] OpenSSL client init failed: " + engine->lastError());
    engine_ = std::move(engine);
    beginHandshake_();
    return true;
}

bool ZnSslSocket::startServerEncryption(const std::shared_ptr<const ZnSslServerContext>& context) {
    if (!canTransfer_() || !context)
        return false;
    auto engine = std::make_unique<ZnSslEngine_>();
    if (!engine->initServer(context, static_cast<std::uint64_t>(descriptor_())))
        return failSsl_(kHandshakeFailed, "[ZnSslSocket] OpenSSL server init failed: " + engine->lastError());
    engine_ = std::move(engine);
    beginHandshake_();
    return true;
}

void ZnSslSocket::beginHandshake_() {
    state_ = SocketState::Connecting;
    phase_ = Phase_::Handshaking;
    settle_();
    readReady_ = writeReady_ = true;
    readWantsRoom_ = writeWantsRoom_ = false;
    plainBuffer_.release();
    schedulePump_();
}

void ZnSslSocket::close() {
    if (!std::exchange(keepStartOnConnect_, false))
        startOnConnect_ = false;
    ++connectionSerial_;
    insideDelivery_ = insideWriteFinished_ = readHasFailed_ = closeAnnounced_ = false;
    readReady_ = writeReady_ = false;
    phase_ = Phase_::Plain;
    settle_();
    plainBuffer_.release();
    if (const std::unique_ptr<ZnSslEngine_> engine = std::move(engine_))
        engine->shutdown();
    ZnTcpSocket::close();
}

bool ZnSslSocket::isTrustedBy_(const ZnSslSessions_& sessions) const {
    return engine_ && sessions.isCurrent(engine_->clientContext());
}

/// Bytes at the socket may be no more than a ticket: they count all the same, as this must not change anything.
bool ZnSslSocket::isQuiet() const {
    const bool isSettled =
        phase_ == Phase_::Plain || (phase_ == Phase_::Encrypted && plainBuffer_.isEmpty() && !readReady_ &&
                                    !readHasFailed_ && !engine_->hasUnread() && pendingOp_ != Operation_::Write);
    return isSettled && ZnTcpSocket::isQuiet();
}

void ZnSslSocket::setHoldOnPeerClose(bool hold) {
    if (engine_ && phase_ == Phase_::Encrypted)
        engine_->acceptEndWithoutAlert(hold);
    ZnTcpSocket::setHoldOnPeerClose(hold);
}

// --- readiness

bool ZnSslSocket::onReadReady_() {
    if (phase_ == Phase_::Plain)
        return ZnTcpSocket::onReadReady_();
    readReady_ = true;
    pump_();
    return true;
}

bool ZnSslSocket::onWriteReady_() {
    if (phase_ == Phase_::Plain)
        return ZnTcpSocket::onWriteReady_();
    writeReady_ = true;
    readWantsRoom_ = writeWantsRoom_ = false;
    pump_();
    return true;
}

void ZnSslSocket::onPeerClosed_() {
    if (phase_ == Phase_::Plain) {
        ZnTcpSocket::onPeerClosed_();
        return;
    }
    remoteClosed_ = true;
    readReady_ = true;
    pump_();
}

bool ZnSslSocket::canFinishClose_() const {
    if (phase_ == Phase_::Plain)
        return ZnTcpSocket::canFinishClose_();
    return remoteClosed_ && plainBuffer_.isEmpty() && writeBuffer_.isEmpty() && pendingOp_ == Operation_::None &&
           !readReady_ && !readHasFailed_ && !insideDelivery_;
}

// --- the pump

/// For what must not happen now, under a caller that does not expect a signal, or would take too long.
void ZnSslSocket::schedulePump_(int delayMs) {
    if (std::exchange(pumpScheduled_, true))
        return;
    ZnTimer::singleShot(delayMs, [self = ZnPointer<ZnSslSocket>(this)] {
        if (!self)
            return;
        self->pumpScheduled_ = false;
        self->pump_();
    });
}

/// Runs OpenSSL until it needs the socket or something is to be announced. The announcement comes last, when a further
/// run is already on its way: its receivers may park for long, and the connection must go on meanwhile.
void ZnSslSocket::pump_() {
    News_ news = News_::None;
    for (int stepCount = 0; news == News_::None; ++stepCount) {
        const Operation_ operation = nextOperation_();
        if (operation == Operation_::None)
            return;
        if (stepCount == kMaxStepsPerRun) {
            schedulePump_();
            return;
        }
        news = run_(operation);
        if (news == News_::None && operation == Operation_::Read && canRead_()) {
            schedulePump_(kFruitlessDelayMs); // it was stopped: the others have their turn
            return;
        }
    }
    const bool hasFailed = news >= News_::HandshakeFailed;
    if (!hasFailed && nextOperation_() != Operation_::None)
        schedulePump_();
    announce_(news);
}

/// A pending operation is repeated when the socket is ready for it; a write may pass a pending read, and a read a
/// pending write, since each has a buffer of its own in OpenSSL. Not when it wants room to write as well: the two would
/// pass each other for as long as there is none.
ZnSslSocket::Operation_ ZnSslSocket::nextOperation_() const {
    if (!engine_ || !hasHandle_() || phase_ == Phase_::Plain || phase_ == Phase_::Failed)
        return Operation_::None;
    if (phase_ == Phase_::Handshaking)
        return pendingOp_ == Operation_::None || hasWantedIo_() ? Operation_::Handshake : Operation_::None;
    if (readHasFailed_)
        return plainBuffer_.isEmpty() ? Operation_::Read : Operation_::None; // nothing else is possible any more
    switch (pendingOp_) {
    case Operation_::Read:
        if (hasWantedIo_() && plainBuffer_.size() < kMaxPlainBytes)
            return Operation_::Read;
        return canWrite_() ? Operation_::Write : Operation_::None;
    case Operation_::Write:
        if (hasWantedIo_())
            return Operation_::Write;
        return wantIo_ == WantIo_::WantWrite && canRead_() ? Operation_::Read : Operation_::None;
    default:
        if (canRead_())
            return Operation_::Read;
        return canWrite_() ? Operation_::Write : Operation_::None;
    }
}

bool ZnSslSocket::canRead_() const {
    return readReady_ && !readWantsRoom_ && plainBuffer_.size() < kMaxPlainBytes;
}

bool ZnSslSocket::canWrite_() const {
    return !writeBuffer_.isEmpty() && !writeWantsRoom_;
}

bool ZnSslSocket::hasWantedIo_() const {
    return wantIo_ == WantIo_::None || (wantIo_ == WantIo_::WantRead ? readReady_ : writeReady_);
}

ZnSslSocket::News_ ZnSslSocket::run_(Operation_ operation) {
    switch (operation) {
    case Operation_::Handshake: return doHandshake_();
    case Operation_::Read: return doRead_();
    default: return doWrite_();
    }
}

ZnSslSocket::News_ ZnSslSocket::doHandshake_() {
    const Outcome outcome = engine_->handshake();
    if (outcome == Outcome::WantRead || outcome == Outcome::WantWrite) {
        repeatLater_(Operation_::Handshake, outcome);
        return News_::None;
    }
    if (outcome != Outcome::None)
        return News_::HandshakeFailed;
    settle_();
    phase_ = Phase_::Encrypted;
    engine_->acceptEndWithoutAlert(holdsOnPeerClose_());
    // The peer's first bytes may have come with its last message, and no further event tells of them.
    readReady_ = true;
    return News_::Encrypted;
}

ZnSslSocket::News_ ZnSslSocket::doRead_() {
    if (readHasFailed_)
        return News_::ReadFailed;
    bool dataCame = false;
    const unsigned firstPart = engine_->receivedPartCount();
    for (int readCount = 0;; ++readCount) {
        const bool isLong = readCount == kMaxReadsPerRun || engine_->receivedPartCount() - firstPart >= kMaxPartsPerRun;
        if (isLong || plainBuffer_.size() >= kMaxPlainBytes) {
            settle_();
            readReady_ = true; // the rest comes in another run
            break;
        }
        std::size_t byteCount = 0;
        const Outcome outcome = engine_->read(recordBuffer, kRecordBytes, &byteCount);
        if (outcome == Outcome::None) {
            countReceived_(byteCount);
            plainBuffer_.append(recordBuffer, byteCount);
            dataCame = true;
            continue;
        }
        if (outcome == Outcome::Failure) {
            settle_();
            readReady_ = false;
            readHasFailed_ = true; // many peers close without an alert: what they have sent counts
            return dataCame || !plainBuffer_.isEmpty() ? News_::DataCame : News_::ReadFailed;
        }
        if (outcome == Outcome::WantRead && !engine_->socketWasDrained())
            continue; // OpenSSL stops after a message of the protocol
        if (outcome == Outcome::Closed) {
            settle_();
            readReady_ = false;
            remoteClosed_ = true;
        } else {
            repeatLater_(Operation_::Read, outcome);
        }
        break;
    }
    return dataCame || remoteClosed_ ? News_::DataCame : News_::None;
}

ZnSslSocket::News_ ZnSslSocket::doWrite_() {
    for (std::size_t sentBytes = 0; sentBytes < kMaxPlainBytes;) {
        std::size_t byteCount = 0;
        const std::size_t offeredBytes = std::min(writeBuffer_.size(), kRecordBytes);
        const Outcome outcome = engine_->write(writeBuffer_.data(), offeredBytes, &byteCount);
        if (outcome != Outcome::None)
            return stopWriting_(outcome);
        countSent_(byteCount);
        sentBytes += byteCount;
        writeBuffer_.consumeFront(byteCount);
        readWantsRoom_ = false; // there was some
        if (writeBuffer_.isEmpty()) {
            writeBuffer_.release(); // an idle connection keeps no memory
            settle_();
            return News_::WritesDone;
        }
    }
    settle_();
    return News_::None; // the rest comes in another step
}

ZnSslSocket::News_ ZnSslSocket::stopWriting_(Outcome outcome) {
    if (outcome == Outcome::WantRead || outcome == Outcome::WantWrite) {
        repeatLater_(Operation_::Write, outcome);
        return News_::None;
    }
    settle_();
    if (outcome == Outcome::Failure)
        return News_::WriteFailed;
    readReady_ = true; // the peer has closed: a read finds it out
    return News_::None;
}

void ZnSslSocket::repeatLater_(Operation_ operation, Outcome outcome) {
    pendingOp_ = operation;
    if (outcome == Outcome::WantRead) {
        wantIo_ = WantIo_::WantRead;
        readReady_ = !engine_->socketWasDrained();
    } else {
        wantIo_ = WantIo_::WantWrite;
        writeReady_ = false;
        (operation == Operation_::Read ? readWantsRoom_ : writeWantsRoom_) = true;
        readReady_ = readReady_ || operation == Operation_::Read; // to be repeated, also after a write that passes it
        expectWriteEvent_();
    }
}

void ZnSslSocket::settle_() {
    pendingOp_ = Operation_::None;
    wantIo_ = WantIo_::None;
}

// --- what the pump tells

void ZnSslSocket::announce_(News_ news) {
    const ZnAlive alive(this, connectionSerial_);
    switch (news) {
    case News_::None: return;
    case News_::Encrypted:
        state_ = SocketState::Connected;
        connected();
        if (alive)
            encrypted();
        return;
    case News_::DataCame: deliver_(); return;
    case News_::WritesDone:
        insideWriteFinished_ = true;
        writeFinished();
        if (alive) {
            insideWriteFinished_ = false;
            finishPeerClose_();
        }
        return;
    case News_::HandshakeFailed:
        failSsl_(kHandshakeFailed, "[ZnSslSocket] OpenSSL handshake failed: " + engine_->lastError());
        return;
    case News_::ReadFailed: failSsl_(kReadFailed, "[ZnSslSocket] OpenSSL read failed: " + engine_->lastError()); return;
    case News_::WriteFailed:
        failSsl_(kWriteFailed, "[ZnSslSocket] OpenSSL write failed: " + engine_->lastError());
        return;
    }
}

/// While the receiver of the last bytes runs, the close waits: what it still has to answer can go out.
void ZnSslSocket::deliver_() {
    const ZnAlive alive(this, connectionSerial_);
    const bool tellsClose = remoteClosed_ && holdsOnPeerClose_() && !std::exchange(closeAnnounced_, true);
    if (!plainBuffer_.isEmpty() || tellsClose) {
        insideDelivery_ = true;
        readyRead();
        if (!alive)
            return;
    }
    insideDelivery_ = false; // also for a receiver of earlier bytes that is parked: the peer does not wait for it
    finishPeerClose_();
}

bool ZnSslSocket::failSsl_(int code, const ZnString& text) {
    const ZnAlive alive(this, connectionSerial_);
    phase_ = Phase_::Failed;
    settle_();
    ZN_LOG_ERROR(kCategory, "ZnSslSocket::failSsl_") << text;
    sslErrors(ZnList<ZnString>{text});
    if (alive)
        errorOccurred(code);
    if (alive)
        close();
    return false;
}

void ZnSslSocket::encrypted() {
    emitSignal(&ZnSslSocket::encrypted);
}

void ZnSslSocket::sslErrors(const ZnList<ZnString>& errors) {
    emitSignal(&ZnSslSocket::sslErrors, errors);
}

// --- reading and writing

ZnString ZnSslSocket::read(long long maxBytes) {
    if (phase_ == Phase_::Plain)
        return ZnTcpSocket::read(maxBytes);
    if (state_ != SocketState::Connected || plainBuffer_.isEmpty())
        return {};
    const bool isBounded = maxBytes >= 1 && maxBytes < static_cast<long long>(plainBuffer_.size());
    const std::size_t byteCount = isBounded ? static_cast<std::size_t>(maxBytes) : plainBuffer_.size();
    ZnString bytes(plainBuffer_.data(), byteCount);
    plainBuffer_.consumeFront(byteCount);
    afterRead_();
    return bytes;
}

std::size_t ZnSslSocket::readInto(char* buffer, std::size_t capacity) {
    if (phase_ == Phase_::Plain)
        return ZnTcpSocket::readInto(buffer, capacity);
    const std::size_t byteCount = std::min(capacity, plainBuffer_.size());
    if (state_ != SocketState::Connected || byteCount == 0)
        return 0;
    std::memcpy(buffer, plainBuffer_.data(), byteCount);
    plainBuffer_.consumeFront(byteCount);
    afterRead_();
    return byteCount;
}

/// The close may delete this object: nothing may follow.
void ZnSslSocket::afterRead_() {
    if (plainBuffer_.isEmpty())
        plainBuffer_.release(); // an idle connection keeps no memory
    if (canRead_() || readHasFailed_)
        schedulePump_(); // it had stopped because nobody read
    else
        finishPeerClose_();
}

void ZnSslSocket::flushWrites_() {
    if (phase_ == Phase_::Plain) {
        ZnTcpSocket::flushWrites_();
        return;
    }
    // At once, unless a read would have to come first: a caller of write does not expect readyRead. Nor from inside
    // writeFinished, where a chain of writes would use up the stack.
    const bool canWriteNow = phase_ == Phase_::Encrypted && pendingOp_ != Operation_::Write && !readHasFailed_ &&
                             wantIo_ != WantIo_::WantWrite && !insideWriteFinished_ && canWrite_();
    if (!canWriteNow) {
        schedulePump_();
        return;
    }
    const News_ news = doWrite_();
    if (news == News_::None && nextOperation_() != Operation_::None)
        schedulePump_();
    announce_(news);
}
