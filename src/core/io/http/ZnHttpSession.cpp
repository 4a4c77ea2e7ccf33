#include "core/io/http/ZnHttpSession.h"

#include "core/io/ZnTcpSocket.h"
#include "core/io/http/ZnHttpAbandonGuard.h"
#include "core/io/http/ZnHttpHandoff_.h"
#include "core/io/http/ZnHttpMultipart.h"
#include "core/io/http/ZnHttpParser_.h"
#include "core/io/http/ZnHttpPeerInfo_.h"
#include "core/io/http/ZnHttpResponsePieces_.h"
#include "core/io/http/ZnHttpRouter.h"
#include "core/io/http/ZnHttpTimeoutTable_.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/runtime/Thread.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnTimer.h"
#include "core/types/ZnLogger.h"

#include <exception>
#include <utility>

namespace {

constexpr const char* kCategory = "zn.core.io.znhttpsession";

constexpr std::size_t kReadBytes = 64 * 1024;
// A peer that sends many requests at once is served this many, then the other connections have their turn.
constexpr int kRequestsPerGo = 16;

constexpr unsigned long long kMaxDiscardedBytes = 32 * 1024 * 1024; // well above what the system's buffers may hold

// Shared by all sessions of a thread. Its content is used up before anything that could park.
thread_local char readBuffer[kReadBytes];

using Phase = ZnHttpSessionPhase_;

ZnHttpResponse errorAnswer(int status, const ZnString& text) {
    const std::string_view body = text.isEmpty() ? std::string_view("Bad Request") : text.view();
    return ZnHttpResponse::plain(status < 1 ? 400 : status, body, false);
}

/// Its files are removed now, even if a handler still holds the request.
void forget(std::shared_ptr<ZnHttpRequest>* request) {
    if (*request && (*request)->tempFiles)
        (*request)->tempFiles->removeAll();
    request->reset();
}

/// The new owner may keep the fiber for long.
void giveTo(const std::function<void(ZnAbstractSocket*)>& newOwner, const ZnPointer<ZnAbstractSocket>& socket) {
    try {
        newOwner(socket.get());
        return;
    } catch (const std::exception& error) {
        ZN_LOG_ERROR(kCategory, "ZnHttpSession::switchOver_") << "[ZnHttpSession] onSwitch failed: " << error.what();
    } catch (...) {
        ZN_LOG_ERROR(kCategory, "ZnHttpSession::switchOver_") << "[ZnHttpSession] onSwitch failed";
    }
    if (socket)
        socket->deleteLater();
}

/// The session, `receiver`, has had its last signal, also the `disconnected` of this close.
void release(const ZnPointer<ZnAbstractSocket>& socket, ZnObject* receiver) {
    if (!socket)
        return;
    socket->disconnectReceiver(receiver);
    socket->close();
    if (socket)
        socket->deleteLater();
}

} // namespace

ZnHttpSession::ZnHttpSession(ZnAbstractSocket* socket, const ZnHttpRouter* router, const ZnHttpLimits& limits,
                             const ZnHttpTimeouts& timeouts, bool isTls, unsigned short localPort, ZnObject* parent)
    : ZnObject(parent),
      router_(router),
      parser_(std::make_unique<ZnHttpParser_>(limits)),
      peer_(std::make_unique<ZnHttpPeerInfo_>(isTls, localPort)),
      timeouts_(std::make_unique<ZnHttpTimeoutTable_>(timeouts, monotonicNowNs())),
      pieces_(std::make_unique<ZnHttpResponsePieces_>()) {
    if (socket == nullptr || router == nullptr) {
        stage_ = Stage_::Closed;
        deleteLater();
        return;
    }
    socket_ = socket;
    socket->setParent(this);
    socket->connect(&ZnIODevice::readyRead, this, &ZnHttpSession::onReadyRead_);
    socket->connect(&ZnAbstractSocket::disconnected, this, &ZnHttpSession::closeSession_);
    socket->connect(&ZnAbstractSocket::errorOccurred, this, &ZnHttpSession::closeSession_);
    socket->connect(&ZnAbstractSocket::writeFinished, this, &ZnHttpSession::onWriteFinished_);
    socket->connect(&ZnObject::destroyed, this, &ZnHttpSession::closeSession_);
    timeoutTimer_ = new ZnTimer(this);
    timeoutTimer_->setSingleShot(true);
    timeoutTimer_->connect(&ZnTimer::timeout, this, &ZnHttpSession::onTimeoutWatch_);
    armTimeout_();
}

ZnHttpSession::~ZnHttpSession() {
    closeSession_(); // for one that is deleted while it is open: its server must not keep the address
}

void ZnHttpSession::setRequestHandler(RequestHandler handler) {
    requestHandler_ = handler ? std::make_shared<const RequestHandler>(std::move(handler)) : nullptr;
}

void ZnHttpSession::setHeadCheck(HeadCheck check) {
    parser_->setHeadCheck([this, own = std::move(check)](ZnHttpRequest& request) {
        if (isAnswerDue_())
            return true;
        peer_->describeIn(request, socket_.get());
        headRefusal_ = own(request);
        if (headRefusal_ && request.method == "HEAD")
            headRefusal_->headOnly = true;
        return headRefusal_ == nullptr;
    });
}

void ZnHttpSession::start() {
    if (isClosed())
        return;
    if (!socket_ || !socket_->isOpen())
        closeSession_(); // the peer left before the signals were connected
}

// ---- Input

void ZnHttpSession::onReadyRead_() {
    if (isClosed() || !socket_ || onSwitch_)
        return; // what comes after a switch belongs to who takes the socket over
    if (stage_ == Stage_::Refusing || stage_ == Stage_::Draining)
        discardInput_();
    else if (readInput_())
        processNextRequest_();
}

/// Reads until the socket has no more. False: the session has ended or has refused the input.
bool ZnHttpSession::readInput_() {
    const ZnPointer<ZnHttpSession> self(this);
    for (;;) {
        const std::size_t byteCount = socket_->readInto(readBuffer, kReadBytes);
        if (!self || isClosed())
            return false; // the end of the stream was found, or an error
        if (byteCount == 0)
            return true;
        const bool wasIdle = parser_->isIdle();
        const std::size_t waitingCount = pendingRequests_.size();
        const bool isAccepted = parser_->feed({readBuffer, byteCount}, pendingRequests_);
        // Line ends between requests are no activity: with one now and then a connection could be kept for ever.
        if (!wasIdle || !parser_->isIdle() || pendingRequests_.size() > waitingCount) {
            const long long now = monotonicNowNs();
            timeouts_->noteActivity(now);
            if (wasIdle)
                timeouts_->noteRequestStart(now);
        }
        if (!isAccepted) {
            const std::unique_ptr<ZnHttpResponse> refusal = std::exchange(headRefusal_, nullptr);
            refuse_(refusal ? std::move(*refusal) : errorAnswer(parser_->errorStatus(), parser_->errorText()));
            return false;
        }
        for (std::size_t i = waitingCount; i < pendingRequests_.size(); ++i)
            peer_->describeIn(*pendingRequests_[i], socket_.get());
        holdConnection_();
        armTimeout_();
        if (parser_->expectsContinue() && !sendContinue_())
            return false;
    }
}

/// The interim answer for which a client holds a large body back, at most for a second or so. In front of answers that
/// the same client still waits for it would come out of turn, and is left out. False: the session has ended.
bool ZnHttpSession::sendContinue_() {
    if (isAnswerDue_())
        return true;
    const ZnPointer<ZnHttpSession> self(this);
    const bool isAccepted = socket_->write(ZnString("HTTP/1.1 100 Continue\r\n\r\n"));
    if (self && !isClosed() && !isAccepted)
        closeSession_();
    return self && !isClosed();
}

/// Reads and forgets what comes after a request that was refused.
void ZnHttpSession::discardInput_() {
    const ZnPointer<ZnHttpSession> self(this);
    while (discardedBytes_ <= kMaxDiscardedBytes) {
        const std::size_t byteCount = socket_->readInto(readBuffer, kReadBytes);
        if (!self || isClosed() || byteCount == 0)
            return;
        timeouts_->noteActivity(monotonicNowNs());
        discardedBytes_ += byteCount;
    }
    if (stage_ == Stage_::Draining)
        closeSession_();
}

// ---- Requests

bool ZnHttpSession::canStartRequest_() const noexcept {
    return stage_ == Stage_::Reading && !pendingRequests_.isEmpty();
}

bool ZnHttpSession::isAnswerDue_() const noexcept {
    const bool isAnswering = stage_ == Stage_::Handling || stage_ == Stage_::Responding || stage_ == Stage_::Refusing;
    return isAnswering || !pendingRequests_.isEmpty();
}

/// While an answer is due the connection outlasts the peer's close of its sending side. Letting go may end it.
void ZnHttpSession::holdConnection_() {
    const bool isDue = isAnswerDue_();
    if (isClosed() || std::exchange(holdsConnection_, isDue) == isDue)
        return;
    socket_->setHoldOnPeerClose(isDue);
}

/// Handles what waits, in a loop and not by recursion: with a quick handler a request is answered and its response
/// sent before startNextRequest_ returns.
void ZnHttpSession::processNextRequest_() {
    const ZnPointer<ZnHttpSession> self(this);
    for (int handledCount = 0; handledCount < kRequestsPerGo; ++handledCount) {
        if (!canStartRequest_())
            return;
        startNextRequest_();
        if (!self)
            return;
    }
    if (canStartRequest_())
        scheduleResume_();
}

/// Calls the handler, which may park. All that is used after the call is held by this frame or guarded.
void ZnHttpSession::startNextRequest_() {
    const std::shared_ptr<ZnHttpRequest> request = pendingRequests_.takeFirst();
    currentRequest_ = request;
    const unsigned long long serial = ++requestSerial_;
    timeouts_->noteHandlerStart(monotonicNowNs());
    hasProbedPeer_ = false;
    ZnString errorText;
    if (!zn::http::parseMultipart(*request, parser_->limits(), &errorText)) {
        refuse_(errorAnswer(400, errorText.isEmpty() ? ZnString("Invalid multipart/form-data") : errorText));
        return;
    }
    stage_ = Stage_::Handling;
    armTimeout_(); // now: once the handler is parked, nobody else would
    const ZnPointer<ZnHttpSession> self(this);
    if (const std::shared_ptr<const RequestHandler> handler = requestHandler_) {
        (*handler)(request, zn::http::onThisThread([self, serial](ZnHttpResponse&& response) {
                       if (ZnHttpSession* session = self.get())
                           session->answer_(serial, std::move(response));
                   }));
        return;
    }
    ZnHttpResponse response;
    if (!router_->dispatch(*request, &response))
        response = ZnHttpResponse::plain(404, "Not Found", request->keepAlive);
    if (self)
        answer_(serial, std::move(response));
}

/// Drops a second answer, one that comes after a time-out has answered, and one of an earlier request.
void ZnHttpSession::answer_(unsigned long long requestSerial, ZnHttpResponse&& response) {
    if (stage_ != Stage_::Handling || !socket_ || requestSerial != requestSerial_)
        return;
    const bool isHead = currentRequest_->method == "HEAD";
    if (currentRequest_->httpVersion == "HTTP/1.0")
        response.joinChunks();
    sendResponse_(std::move(response), currentRequest_->keepAlive, isHead);
}

// ---- Responses

void ZnHttpSession::sendResponse_(ZnHttpResponse&& response, bool keepAlive, bool isHead) {
    if (stage_ != Stage_::Refusing)
        stage_ = Stage_::Responding;
    holdConnection_();
    closeAfterResponse_ = response.closeConnection || !keepAlive;
    ZnHttpResponsePieces_::Piece piece;
    if (response.switchProtocols && response.onSwitch) {
        onSwitch_ = std::move(response.onSwitch);
        closeAfterResponse_ = false;
        if (response.switchWithoutHead) {
            finishResponse_();
            return;
        }
        piece = ZnHttpResponsePieces_::switchHead(response);
    } else {
        // After a 1xx the peer waits for the answer proper: the next request's would be taken for it.
        closeAfterResponse_ |= response.status >= 100 && response.status < 200;
        response.settleBody(isHead);
        const char* const errorText =
            pieces_->begin(response, closeAfterResponse_, parser_->limits().maxChunkBytes, &piece);
        if (errorText != nullptr) {
            ZN_LOG_ERROR(kCategory, "ZnHttpSession::sendResponse_")
                << "[ZnHttpSession] " << errorText << ": "
                << zn::http::encodedPath(response.filePath.view()); // on one line
            stage_ = Stage_::Reading;
            refuse_(errorAnswer(500, errorText));
            return;
        }
    }
    writeBytes_(std::move(piece.text), std::move(piece.bytes));
}

void ZnHttpSession::sendNextPiece_() {
    ZnHttpResponsePieces_::Piece piece;
    if (pieces_->takeNext(&piece)) {
        writeBytes_(std::move(piece.text), std::move(piece.bytes));
        return;
    }
    ZN_LOG_ERROR(kCategory, "ZnHttpSession::sendNextPiece_") << "[ZnHttpSession] File stream read failure";
    closeSession_(); // the head is out, so that is all the peer can be told
}

/// The socket leaves the session, which ends before the new owner hears of it.
void ZnHttpSession::switchOver_() {
    const std::function<void(ZnAbstractSocket*)> onSwitch = std::exchange(onSwitch_, nullptr);
    const ZnPointer<ZnAbstractSocket> socket = std::exchange(socket_, nullptr);
    const ZnPointer<ZnHttpSession> self(this);
    socket->disconnectReceiver(this);
    socket->setParent(nullptr);
    if (self)
        closeSession_();
    if (!socket)
        return;
    socket->setHoldOnPeerClose(false);
    if (!socket->isOpen()) { // the peer had closed already
        socket->deleteLater();
        return;
    }
    giveTo(onSwitch, socket);
}

/// The socket may emit from inside write: the end of the write, which is acted upon after it, but also an error,
/// which ends the session there and then.
void ZnHttpSession::writeBytes_(ZnString text, ZnByteArray bytes) {
    const ZnPointer<ZnHttpSession> self(this);
    insideWrite_ = true;
    resumeDeferred_ = false;
    const bool isAccepted =
        bytes.isEmpty() ? socket_->write(std::move(text)) : socket_->writeGathered(std::move(text), std::move(bytes));
    if (!self || isClosed())
        return;
    insideWrite_ = false;
    timeouts_->noteWrite(monotonicNowNs());
    if (!isAccepted) {
        closeSession_();
        return;
    }
    if (!std::exchange(resumeDeferred_, false)) {
        armTimeout_();
        return;
    }
    if (pieces_->hasNext()) {
        nextPieceDue_ = true; // from the loop: a peer that takes all at once would hold up the others
        armTimeout_();
        scheduleResume_();
        return;
    }
    finishResponse_();
    // What waits is begun from the loop, not here: below this frame there may be the one of a handler that has
    // answered and goes on. When it is processNextRequest_, that is quicker, and this finds nothing left to do.
    if (self && canStartRequest_())
        scheduleResume_();
}

void ZnHttpSession::onWriteFinished_() {
    if (isClosed() || !socket_)
        return;
    if (insideWrite_) {
        resumeDeferred_ = true;
        return;
    }
    timeouts_->noteWrite(monotonicNowNs());
    if (pieces_->hasNext()) {
        nextPieceDue_ = false;
        sendNextPiece_();
        return;
    }
    const ZnPointer<ZnHttpSession> self(this);
    finishResponse_();
    if (self)
        processNextRequest_();
}

/// The last byte of the response has left for the system.
void ZnHttpSession::finishResponse_() {
    const bool isRefusal = stage_ == Stage_::Refusing;
    if (!isRefusal && stage_ != Stage_::Responding)
        return;
    if (!isRefusal)
        stage_ = Stage_::Reading;
    forget(&currentRequest_);
    if (isClosed())
        return; // what the handler kept until now has closed the session
    if (onSwitch_)
        switchOver_();
    else if (isRefusal)
        beginDrain_();
    else if (closeAfterResponse_)
        closeSession_();
    else {
        armTimeout_();
        holdConnection_();
    }
}

void ZnHttpSession::scheduleResume_() {
    if (std::exchange(resumeScheduled_, true))
        return;
    ZnTask task([self = ZnPointer<ZnHttpSession>(this)] {
        if (ZnHttpSession* session = self.get())
            session->resume_();
    });
    ZnCoreApplication::instanceOrNew().post(task, {.whenFull = ZnPostOptions::WhenFull::Wait});
}

void ZnHttpSession::resume_() {
    resumeScheduled_ = false;
    if (std::exchange(nextPieceDue_, false))
        sendNextPiece_();
    else
        processNextRequest_();
}

/// The last answer on this connection: whatever the peer sends from here on is discarded.
void ZnHttpSession::refuse_(ZnHttpResponse&& response) {
    if (stage_ == Stage_::Handling)
        ZnHttpAbandonGuard::tell(*currentRequest_);
    if (isClosed())
        return;
    if (stage_ == Stage_::Responding || stage_ == Stage_::Refusing) {
        closeSession_(); // no second head goes out
        return;
    }
    stage_ = Stage_::Refusing;
    pendingRequests_.clear();
    sendResponse_(std::move(response), false, false);
}

/// Closing a socket with input unread, or under a peer that still sends, resets the connection, and the reset may
/// destroy the answer before the peer has read it. So when input is left, or the refusal has cut a message short,
/// the rest is read and discarded for a moment before the close.
void ZnHttpSession::beginDrain_() {
    const ZnPointer<ZnHttpSession> self(this);
    stage_ = Stage_::Draining;
    timeouts_->noteDrainStart(monotonicNowNs());
    holdConnection_();
    if (!self || isClosed())
        return;
    const unsigned long long discardedBefore = discardedBytes_;
    discardInput_();
    if (!self || isClosed())
        return;
    const int status = parser_->errorStatus();
    const bool isCutShort = status == 413 || status == 414 || status == 431 || (status != 0 && parser_->isInsideBody());
    if (isCutShort || discardedBytes_ > discardedBefore)
        armTimeout_();
    else
        closeSession_();
}

void ZnHttpSession::closeSession_() {
    const Stage_ stage = std::exchange(stage_, Stage_::Closed);
    if (stage == Stage_::Closed)
        return;
    const ZnPointer<ZnHttpSession> self(this);
    if (stage == Stage_::Handling)
        ZnHttpAbandonGuard::tell(*currentRequest_);
    nextPieceDue_ = false;
    pieces_->drop();
    onSwitch_ = nullptr;
    pendingRequests_.clear();
    forget(&currentRequest_);
    timeoutTimer_->stop();
    release(std::exchange(socket_, nullptr), this);
    if (!self)
        return;
    if (const ClosedHandler onClosed = std::exchange(onClosed_, nullptr))
        onClosed(this);
    else
        deleteLater();
}

// ---- Time-outs

ZnHttpSessionPhase_ ZnHttpSession::phase_() const noexcept {
    switch (stage_) {
    case Stage_::Reading: break;
    case Stage_::Handling: return Phase::Handling;
    case Stage_::Responding:
    case Stage_::Refusing: return Phase::Responding;
    case Stage_::Draining: return Phase::Draining;
    case Stage_::Closed: return Phase::Closed;
    }
    if (parser_->isIdle() && pendingRequests_.isEmpty())
        return Phase::Idle;
    return parser_->state() <= ZnHttpParser_::State::Headers ? Phase::Head : Phase::Body;
}

void ZnHttpSession::armTimeout_() {
    const Phase phase = phase_();
    if (timeouts_->isArmedFor(phase))
        return; // the usual case
    const long long waitNs = timeouts_->arm(phase, monotonicNowNs());
    if (waitNs == 0)
        return;
    timeoutTimer_->stop();
    timeoutTimer_->startUs((waitNs + 999) / 1000);
}

void ZnHttpSession::onTimeoutWatch_() {
    using Verdict = ZnHttpTimeoutTable_::Verdict;
    if (isClosed() || !socket_)
        return;
    const ZnPointer<ZnHttpSession> self(this);
    const long long now = monotonicNowNs();
    timeouts_->noteFired();
    const Phase phase = phase_();
    if (phase == Phase::Responding) {
        const auto* tcpSocket = dynamic_cast<const ZnTcpSocket*>(socket_.get());
        timeouts_->noteTaken(tcpSocket == nullptr ? 0 : tcpSocket->bytesTaken(), now);
    }
    switch (timeouts_->verdict(phase, now)) {
    case Verdict::None: break;
    case Verdict::Close: closeSession_(); break;
    case Verdict::CloseSlowReader:
        ZN_LOG_WARNING(kCategory, "ZnHttpSession::onTimeoutWatch_") << "[ZnHttpSession] write timeout, closing";
        closeSession_();
        break;
    case Verdict::AnswerLateHandler: refuse_(errorAnswer(504, "Route async timeout")); break;
    case Verdict::AnswerLateRequest: refuse_(errorAnswer(408, "Request Timeout")); break;
    case Verdict::LookAtPeer: lookAtPeer_(now); break;
    }
    if (self && !isClosed())
        armTimeout_();
}

/// A handler may be parked inside the socket's last event, and the next one, which would tell that the client has left,
/// waits for it.
void ZnHttpSession::lookAtPeer_(long long nowNs) {
    timeouts_->notePeerLook(nowNs);
    const auto* tcpSocket = dynamic_cast<const ZnTcpSocket*>(socket_.get());
    if (tcpSocket == nullptr || tcpSocket->peerState() == ZnTcpSocket::PeerState::Open)
        return;
    if (tcpSocket->peerState() == ZnTcpSocket::PeerState::Gone)
        closeSession_();
    else if (currentRequest_->httpVersion != "HTTP/1.0" && !std::exchange(hasProbedPeer_, true))
        socket_->write(ZnString("HTTP/1.1 102 Processing\r\n\r\n"));
}
