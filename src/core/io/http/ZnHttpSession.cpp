#include "core/io/http/ZnHttpSession.h"

#include "core/io/ZnTcpSocket.h"
#include "core/io/http/ZnHttpAbandonGuard.h"
#include "core/io/http/ZnHttpBodyStream_.h"
#include "core/io/http/ZnHttpHandoff_.h"
#include "core/io/http/ZnHttpMultipart.h"
#include "core/io/http/ZnHttpParser_.h"
#include "core/io/http/ZnHttpRouter.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/runtime/Thread.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnTimer.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <utility>

namespace {

constexpr const char* kCategory = "zn.core.io.znhttpsession";

constexpr std::size_t kReadBytes = 64 * 1024;
// A body up to this size is copied behind its head and leaves with it in one write; a larger one is handed over.
constexpr std::size_t kJoinedBodyBytes = 16 * 1024;
// A peer that sends many requests at once is served this many, then the other connections have their turn.
constexpr int kRequestsPerGo = 16;

constexpr long long kNsPerMs = 1'000'000;
constexpr long long kNever = std::numeric_limits<long long>::max();
constexpr long long kWatchNs = 200 * kNsPerMs; // the grid of time-out checks
// How often, in a write time-out, one looks whether the peer takes anything: the time-out is exact to that part.
constexpr int kWriteLooks = 16;
constexpr long long kLongestSleepNs = 1'000'000 * kNsPerMs; // within what a timer can do

// How long a refused peer may still send before the connection is closed under it; see beginDrain_.
constexpr long long kDrainNs = 1000 * kNsPerMs;
constexpr long long kDrainQuietNs = 200 * kNsPerMs;
constexpr unsigned long long kMaxDiscardedBytes = 32 * 1024 * 1024; // well above what the system's buffers may hold

// Shared by all sessions of a thread. Its content is used up before anything that could park.
thread_local char readBuffer[kReadBytes];

/// When a clock that began at `sinceNs` first shows more than `limitMs` whole milliseconds.
long long deadlineNs(long long sinceNs, int limitMs) noexcept {
    return limitMs < 1 ? kNever : sinceNs + (static_cast<long long>(limitMs) + 1) * kNsPerMs;
}

} // namespace

ZnHttpSession::ZnHttpSession(ZnAbstractSocket* socket, const ZnHttpRouter* router, const ZnHttpLimits& limits,
                             const ZnHttpTimeouts& timeouts, bool isTls, unsigned short localPort, ZnObject* parent)
    : ZnObject(parent),
      router_(router),
      parser_(std::make_unique<ZnHttpParser_>(limits)),
      timeouts_(timeouts),
      isTls_(isTls),
      localPort_(localPort),
      createdNs_(monotonicNowNs()),
      lastActivityNs_(createdNs_),
      requestStartNs_(createdNs_),
      asyncStartNs_(createdNs_),
      lastWriteNs_(createdNs_),
      writeLookNs_(createdNs_),
      armedTickNs_(kNever) {
    if (socket == nullptr || router == nullptr) {
        closed_ = true;
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
    parser_->setHeadCheck(
        [this, own = std::move(check)](ZnHttpRequest& request) { return isBodyWanted_(own, request); });
}

void ZnHttpSession::start() {
    if (closed_)
        return;
    if (!socket_ || !socket_->isOpen())
        closeSession_(); // the peer left before the signals were connected
}

// ---- Input

void ZnHttpSession::onReadyRead_() {
    if (closed_ || !socket_ || onSwitch_)
        return; // what comes behind a switch belongs to who takes the socket over
    if (inputRefused_)
        discardInput_();
    else if (readInput_())
        processNextRequest_();
}

/// Reads until the socket has no more. False: the session has ended or has refused the input.
bool ZnHttpSession::readInput_() {
    const ZnPointer<ZnHttpSession> self(this);
    for (;;) {
        const std::size_t byteCount = socket_->readInto(readBuffer, kReadBytes);
        if (!self || closed_)
            return false; // the end of the stream was found, or an error
        if (byteCount == 0)
            return true;
        const bool wasIdle = parser_->isIdle();
        const std::size_t waitingCount = pendingRequests_.size();
        const bool isAccepted = parser_->feed({readBuffer, byteCount}, pendingRequests_);
        // Line ends between requests are no activity: with one now and then a connection could be kept for ever.
        if (!wasIdle || !parser_->isIdle() || pendingRequests_.size() > waitingCount) {
            lastActivityNs_ = monotonicNowNs();
            if (wasIdle)
                requestStartNs_ = lastActivityNs_;
        }
        if (!isAccepted) {
            if (headRefusal_)
                refuse_(std::move(*std::exchange(headRefusal_, nullptr)));
            else
                sendError_(parser_->errorStatus(), parser_->errorText());
            return false;
        }
        for (std::size_t i = waitingCount; i < pendingRequests_.size(); ++i)
            describePeer_(*pendingRequests_[i]);
        holdConnection_();
        armTimeout_();
        if (parser_->expectsContinue() && !sendContinue_())
            return false;
    }
}

/// The interim answer for which a client holds a large body back, at most for a second or so. In front of answers that
/// the same client still waits for it would come out of turn, and is left out. False: the session has ended.
bool ZnHttpSession::sendContinue_() {
    if (responseInProgress_ || asyncPending_ || !pendingRequests_.isEmpty())
        return true;
    const ZnPointer<ZnHttpSession> self(this);
    const bool isAccepted = socket_->write(ZnString("HTTP/1.1 100 Continue\r\n\r\n"));
    if (self && !closed_ && !isAccepted)
        closeSession_();
    return self && !closed_;
}

bool ZnHttpSession::isBodyWanted_(const HeadCheck& check, ZnHttpRequest& request) {
    if (isAnswerDue_())
        return true;
    describePeer_(request);
    headRefusal_ = check(request);
    if (headRefusal_ && request.method == "HEAD")
        headRefusal_->headOnly = true;
    return headRefusal_ == nullptr;
}

void ZnHttpSession::describePeer_(ZnHttpRequest& request) {
    if (!peerKnown_) {
        peerKnown_ = true;
        if (const auto* tcpSocket = dynamic_cast<const ZnTcpSocket*>(socket_.get())) {
            peerAddress_ = tcpSocket->peerAddress();
            peerPort_ = tcpSocket->peerPort();
        }
    }
    request.isTls = isTls_;
    request.localPort = localPort_;
    request.peerAddress = peerAddress_;
    request.peerPort = peerPort_;
}

/// Reads and forgets what comes behind a request that was refused.
void ZnHttpSession::discardInput_() {
    const ZnPointer<ZnHttpSession> self(this);
    while (discardedBytes_ <= kMaxDiscardedBytes) {
        const std::size_t byteCount = socket_->readInto(readBuffer, kReadBytes);
        if (!self || closed_ || byteCount == 0)
            return;
        lastActivityNs_ = monotonicNowNs();
        discardedBytes_ += byteCount;
    }
    if (draining_)
        closeSession_();
}

// ---- Requests

bool ZnHttpSession::canStartRequest_() const noexcept {
    return !closed_ && !responseInProgress_ && !asyncPending_ && !inputRefused_ && !pendingRequests_.isEmpty();
}

bool ZnHttpSession::isAnswerDue_() const noexcept {
    return responseInProgress_ || asyncPending_ || !pendingRequests_.isEmpty();
}

/// While an answer is due the connection outlasts the peer's close of its sending side. Letting go may end it.
void ZnHttpSession::holdConnection_() {
    const bool isDue = isAnswerDue_();
    if (closed_ || std::exchange(holdsConnection_, isDue) == isDue)
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

/// Calls the handler, which may park. All that is used behind the call is held by this frame or guarded.
void ZnHttpSession::startNextRequest_() {
    const std::shared_ptr<ZnHttpRequest> request = pendingRequests_.takeFirst();
    currentRequest_ = request;
    const unsigned long long serial = ++requestSerial_;
    requestStartNs_ = asyncStartNs_ = peerLookNs_ = monotonicNowNs();
    hasProbedPeer_ = false;
    ZnString errorText;
    if (!zn::http::parseMultipart(*request, parser_->limits(), &errorText)) {
        sendError_(400, errorText.isEmpty() ? ZnString("Invalid multipart/form-data") : errorText);
        return;
    }
    asyncPending_ = true;
    armTimeout_(); // now: once the handler is parked, nobody else would
    if (const std::shared_ptr<const RequestHandler> handler = requestHandler_) {
        (*handler)(request, responseCallback_());
        return;
    }
    const ZnPointer<ZnHttpSession> self(this);
    ZnHttpResponse response;
    if (!router_->dispatch(*request, &response))
        response = ZnHttpResponse::plain(404, "Not Found", request->keepAlive);
    if (self)
        answer_(serial, std::move(response));
}

/// Carries an answer to the session's thread and there into the session, if it still lives.
ZnHttpResponseCallback ZnHttpSession::responseCallback_() {
    return [self = ZnPointer<ZnHttpSession>(this), thread = zn::atomic::Thread::currentThread(),
            serial = requestSerial_](ZnHttpResponse&& response) {
        if (thread == nullptr || thread == zn::atomic::Thread::currentThread()) {
            if (ZnHttpSession* session = self.get())
                session->answer_(serial, std::move(response));
            return;
        }
        // On another thread the session may die between a test and its use, so the test is left to its own thread.
        zn::http::handOver(thread, [self, serial, answer = std::make_unique<ZnHttpResponse>(std::move(response))]() {
            if (ZnHttpSession* session = self.get())
                session->answer_(serial, std::move(*answer));
        });
    };
}

/// Drops a second answer, one that comes after a time-out has answered, and one of an earlier request.
void ZnHttpSession::answer_(unsigned long long requestSerial, ZnHttpResponse&& response) {
    if (closed_ || !socket_ || !asyncPending_ || responseInProgress_ || requestSerial != requestSerial_)
        return;
    const bool isHead = currentRequest_->method == "HEAD";
    if (currentRequest_->httpVersion == "HTTP/1.0")
        response.joinChunks();
    sendResponse_(std::move(response), currentRequest_->keepAlive, isHead);
}

// ---- Responses

void ZnHttpSession::sendResponse_(ZnHttpResponse&& response, bool keepAlive, bool isHead) {
    responseInProgress_ = true;
    asyncPending_ = false;
    holdConnection_();
    closeAfterResponse_ = response.closeConnection || !keepAlive;
    if (response.switchProtocols && response.onSwitch) {
        sendSwitch_(std::move(response));
        return;
    }
    // Behind a 1xx the peer waits for the answer proper: the next request's would be taken for it.
    closeAfterResponse_ |= response.status >= 100 && response.status < 200;
    response.settleBody(isHead);
    if ((response.useFile || response.chunked) && !response.headOnly) {
        sendStream_(std::move(response));
        return;
    }
    // The head never leaves alone: a small packet in front of the body costs the peer's delayed acknowledgement.
    const bool isJoined = response.body.size() <= kJoinedBodyBytes;
    ZnString head = response.head(closeAfterResponse_, isJoined ? response.body.size() : 0);
    if (response.headOnly)
        response.body = ZnByteArray();
    else if (isJoined)
        head.append(response.body.view());
    writeBytes_(std::move(head), isJoined ? ZnByteArray() : std::move(response.body));
}

/// The first piece leaves with the head, so that a file that cannot be read is found out before a head has promised it.
void ZnHttpSession::sendStream_(ZnHttpResponse&& response) {
    bodyStream_ = ZnHttpBodyStream_::open(response, parser_->limits().maxChunkBytes);
    std::string head = response.head(closeAfterResponse_).takeStr();
    ZnByteArray bytes;
    const char* const errorText = !bodyStream_                 ? "Unable to open file"
                                  : !takePiece_(&head, &bytes) ? "File stream read failure"
                                                               : nullptr;
    if (errorText == nullptr) {
        writeBytes_(ZnString(std::move(head)), std::move(bytes));
        return;
    }
    ZN_LOG_ERROR(kCategory, "ZnHttpSession::sendResponse_")
        << "[ZnHttpSession] " << errorText << ": " << zn::http::encodedPath(response.filePath.view()); // on one line
    bodyStream_.reset();
    responseInProgress_ = false;
    sendError_(500, errorText);
}

/// False: the file has no more. True also when there was nothing left to take.
bool ZnHttpSession::takePiece_(std::string* text, ZnByteArray* bytes) {
    if (!bodyStream_->isAtEnd() && !bodyStream_->take(text, bytes))
        return false;
    if (bodyStream_->isAtEnd())
        bodyStream_.reset(); // the end of this write is the end of the response
    return true;
}

void ZnHttpSession::sendNextPiece_() {
    std::string text;
    ZnByteArray bytes;
    if (takePiece_(&text, &bytes)) {
        writeBytes_(ZnString(std::move(text)), std::move(bytes));
        return;
    }
    ZN_LOG_ERROR(kCategory, "ZnHttpSession::sendNextPiece_") << "[ZnHttpSession] File stream read failure";
    closeSession_(); // the head is out, so that is all the peer can be told
}

/// What is behind the head of a switch is not HTTP: no body goes out, and no more input is read.
void ZnHttpSession::sendSwitch_(ZnHttpResponse&& response) {
    onSwitch_ = std::move(response.onSwitch);
    closeAfterResponse_ = false;
    response.headOnly = false;
    response.useFile = response.chunked = false;
    response.body = ZnByteArray();
    if (response.switchWithoutHead)
        finishResponse_();
    else
        writeBytes_(response.head(false), ZnByteArray());
}

/// The socket leaves the session, which ends before the new owner hears of it: that one may keep the fiber for long.
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
    try {
        onSwitch(socket.get());
        return;
    } catch (const std::exception& error) {
        ZN_LOG_ERROR(kCategory, "ZnHttpSession::switchOver_") << "[ZnHttpSession] onSwitch failed: " << error.what();
    } catch (...) {
        ZN_LOG_ERROR(kCategory, "ZnHttpSession::switchOver_") << "[ZnHttpSession] onSwitch failed";
    }
    if (socket)
        socket->deleteLater();
}

/// The socket may emit from inside write: the end of the write, which is acted upon behind it, but also an error,
/// which ends the session there and then.
void ZnHttpSession::writeBytes_(ZnString head, ZnByteArray body) {
    const ZnPointer<ZnHttpSession> self(this);
    insideWrite_ = true;
    resumeDeferred_ = false;
    const bool isAccepted =
        body.isEmpty() ? socket_->write(std::move(head)) : socket_->writeGathered(std::move(head), std::move(body));
    if (!self || closed_)
        return;
    insideWrite_ = false;
    noteWrite_(monotonicNowNs());
    if (!isAccepted) {
        closeSession_();
        return;
    }
    if (!std::exchange(resumeDeferred_, false)) {
        armTimeout_();
        return;
    }
    if (bodyStream_) {
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
    if (closed_ || !socket_)
        return;
    if (insideWrite_) {
        resumeDeferred_ = true;
        return;
    }
    noteWrite_(monotonicNowNs());
    if (bodyStream_) {
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
    if (!responseInProgress_)
        return;
    responseInProgress_ = false;
    forgetRequest_();
    if (onSwitch_)
        switchOver_();
    else if (closeAfterResponse_ && !inputRefused_)
        closeSession_();
    else if (closeAfterResponse_)
        beginDrain_();
    else {
        armTimeout_();
        holdConnection_();
    }
}

/// The handler's answer is not wanted any more.
void ZnHttpSession::abandonRequest_() {
    if (asyncPending_ && currentRequest_)
        ZnHttpAbandonGuard::tell(*currentRequest_);
}

/// Its files go now, even if a handler still holds the request.
void ZnHttpSession::forgetRequest_() {
    if (currentRequest_ && currentRequest_->tempFiles)
        currentRequest_->tempFiles->removeAll();
    currentRequest_.reset();
}

void ZnHttpSession::scheduleResume_() {
    if (std::exchange(resumeScheduled_, true))
        return;
    postWeakly_(&ZnHttpSession::resume_);
}

void ZnHttpSession::resume_() {
    resumeScheduled_ = false;
    if (std::exchange(nextPieceDue_, false))
        sendNextPiece_();
    else
        processNextRequest_();
}

void ZnHttpSession::postWeakly_(void (ZnHttpSession::*step)()) {
    const auto call = [self = ZnPointer<ZnHttpSession>(this), step]() {
        if (ZnHttpSession* session = self.get())
            (session->*step)();
    };
    ZnCoreApplication* application = ZnCoreApplication::instance();
    ZnTask task(call);
    if (application == nullptr || !application->tryPostOnLane(task, ZnFiberPool::kDefaultLane))
        ZnTimer::singleShot(0, call); // saturated: timers that find no room fire later, but do fire
}

void ZnHttpSession::sendError_(int status, const ZnString& text) {
    const std::string_view body = text.isEmpty() ? std::string_view("Bad Request") : text.view();
    refuse_(ZnHttpResponse::plain(status < 1 ? 400 : status, body, false));
}

/// The last answer on this connection: whatever the peer sends from here on is discarded.
void ZnHttpSession::refuse_(ZnHttpResponse&& response) {
    if (closed_)
        return;
    abandonRequest_();
    asyncPending_ = false;
    if (responseInProgress_) {
        closeSession_(); // no second head goes out
        return;
    }
    inputRefused_ = true;
    pendingRequests_.clear();
    sendResponse_(std::move(response), false, false);
}

/// Closing a socket with input unread, or under a peer that still sends, resets the connection, and the reset may
/// destroy the answer before the peer has read it. So when input is left, or the refusal has cut a message short,
/// the rest is read and discarded for a moment before the close.
void ZnHttpSession::beginDrain_() {
    const ZnPointer<ZnHttpSession> self(this);
    draining_ = true;
    drainStartNs_ = lastActivityNs_ = monotonicNowNs();
    holdConnection_();
    if (!self || closed_)
        return;
    const unsigned long long discardedBefore = discardedBytes_;
    discardInput_();
    if (!self || closed_)
        return;
    const int status = parser_->errorStatus();
    const bool isCutShort = status == 413 || status == 414 || status == 431 || (status != 0 && parser_->isInsideBody());
    if (isCutShort || discardedBytes_ > discardedBefore)
        armTimeout_();
    else
        closeSession_();
}

void ZnHttpSession::closeSession_() {
    if (std::exchange(closed_, true))
        return;
    const ZnPointer<ZnHttpSession> self(this);
    abandonRequest_();
    asyncPending_ = responseInProgress_ = nextPieceDue_ = false;
    bodyStream_.reset();
    onSwitch_ = nullptr;
    pendingRequests_.clear();
    forgetRequest_();
    timeoutTimer_->stop();
    releaseSocket_();
    if (!self)
        return;
    if (const ClosedHandler onClosed = std::exchange(onClosed_, nullptr))
        onClosed(this);
    else
        deleteLater();
}

void ZnHttpSession::releaseSocket_() {
    const ZnPointer<ZnAbstractSocket> socket = std::exchange(socket_, nullptr);
    if (!socket)
        return;
    socket->disconnectReceiver(this); // the session has had its last signal, also the `disconnected` of this close
    socket->close();
    if (socket)
        socket->deleteLater();
}

// ---- Time-outs
//
// The rule: every 200 ms since the session was made, the first row that applies decides. A periodic timer would
// wake the loop 25,000 times a second for 5,000 idle connections. So the timer is armed, once, for the first tick
// of that grid at which a row could fire. Deadlines mostly move away from the present as requests come and go; that
// is not followed, the timer finds it out when it fires and is armed again. Only a state whose deadline lies before
// the armed tick arms it anew, which in the usual flow no request does.

long long ZnHttpSession::nextDeadlineNs_() const noexcept {
    if (closed_)
        return kNever;
    if (draining_)
        return std::min(drainStartNs_ + kDrainNs, lastActivityNs_ + kDrainQuietNs);
    if (responseInProgress_)
        return std::min(deadlineNs(lastWriteNs_, timeouts_.writeTimeoutMs), nextWriteLookNs_());
    if (asyncPending_)
        return std::min(deadlineNs(asyncStartNs_, handlerTimeoutMs_()), deadlineNs(peerLookNs_, timeouts_.peerLookMs));
    const long long requestDeadline = deadlineNs(requestStartNs_, requestTimeoutMs_());
    return isIdle_() ? std::min(requestDeadline, deadlineNs(lastActivityNs_, timeouts_.keepAliveTimeoutMs))
                     : requestDeadline;
}

long long ZnHttpSession::nextWriteLookNs_() const noexcept {
    return timeouts_.writeTimeoutMs < 1 ? kNever : writeLookNs_ + timeouts_.writeTimeoutMs * kNsPerMs / kWriteLooks;
}

/// Restarts the clock of the write time-out.
void ZnHttpSession::noteWrite_(long long now) {
    lastWriteNs_ = writeLookNs_ = now;
}

/// A peer that takes a large piece slowly, but steadily, is not cut.
void ZnHttpSession::lookAtWrite_(long long now) {
    writeLookNs_ = now;
    const auto* tcpSocket = dynamic_cast<const ZnTcpSocket*>(socket_.get());
    const unsigned long long takenBytes = tcpSocket == nullptr ? 0 : tcpSocket->bytesTaken();
    if (std::exchange(takenBytes_, takenBytes) != takenBytes)
        lastWriteNs_ = now;
}

/// A handler may be parked inside the socket's last event, and the next one, which would tell that the client has left,
/// waits for it.
void ZnHttpSession::lookAtPeer_(long long now) {
    peerLookNs_ = now;
    const auto* tcpSocket = dynamic_cast<const ZnTcpSocket*>(socket_.get());
    if (tcpSocket == nullptr || tcpSocket->peerState() == ZnTcpSocket::PeerState::Open)
        return;
    if (tcpSocket->peerState() == ZnTcpSocket::PeerState::Gone)
        closeSession_();
    else if (currentRequest_->httpVersion != "HTTP/1.0" && !std::exchange(hasProbedPeer_, true))
        socket_->write(ZnString("HTTP/1.1 102 Processing\r\n\r\n"));
}

/// Whether the handler has used up the time in which the next request was to begin.
bool ZnHttpSession::isLeftByLateAnswer_() const noexcept {
    return isIdle_() && lastWriteNs_ >= deadlineNs(requestStartNs_, timeouts_.headerTimeoutMs);
}

bool ZnHttpSession::isIdle_() const noexcept {
    return parser_->isIdle() && pendingRequests_.isEmpty();
}

/// Between two requests the one for the headers counts, too: from the start of the last request.
int ZnHttpSession::requestTimeoutMs_() const noexcept {
    return parser_->state() <= ZnHttpParser_::State::Headers ? timeouts_.headerTimeoutMs : timeouts_.bodyTimeoutMs;
}

void ZnHttpSession::armTimeout_() {
    const long long deadline = nextDeadlineNs_();
    if (deadline >= armedTickNs_)
        return; // the usual case
    const long long now = monotonicNowNs();
    const long long soonest = std::max(deadline, now + 1);
    const long long tickCount = (soonest - createdNs_ + kWatchNs - 1) / kWatchNs;
    const long long tickNs = std::min(createdNs_ + tickCount * kWatchNs, now + kLongestSleepNs);
    if (tickNs >= armedTickNs_)
        return;
    armedTickNs_ = tickNs;
    timeoutTimer_->stop();
    timeoutTimer_->startUs((tickNs - now + 999) / 1000);
}

void ZnHttpSession::onTimeoutWatch_() {
    if (closed_ || !socket_)
        return;
    const ZnPointer<ZnHttpSession> self(this);
    armedTickNs_ = kNever;
    runTimeoutTable_(monotonicNowNs());
    if (self && !closed_)
        armTimeout_();
}

/// The first row that applies decides; the first two do so even when they do not fire.
void ZnHttpSession::runTimeoutTable_(long long now) {
    if (draining_) {
        if (now >= nextDeadlineNs_())
            closeSession_();
    } else if (responseInProgress_) {
        lookAtWrite_(now);
        if (now >= deadlineNs(lastWriteNs_, timeouts_.writeTimeoutMs)) {
            ZN_LOG_WARNING(kCategory, "ZnHttpSession::onTimeoutWatch_") << "[ZnHttpSession] write timeout, closing";
            closeSession_();
        }
    } else if (asyncPending_) {
        if (now >= deadlineNs(asyncStartNs_, handlerTimeoutMs_()))
            sendError_(504, "Route async timeout");
        else if (now >= deadlineNs(peerLookNs_, timeouts_.peerLookMs))
            lookAtPeer_(now);
    } else if (now >= deadlineNs(requestStartNs_, requestTimeoutMs_())) {
        if (isLeftByLateAnswer_())
            closeSession_(); // a 408 would meet, unasked for, the next request of a peer that has had no time for it
        else
            sendError_(408, "Request Timeout");
    } else if (isIdle_() && now >= deadlineNs(lastActivityNs_, timeouts_.keepAliveTimeoutMs)) {
        closeSession_();
    }
}
