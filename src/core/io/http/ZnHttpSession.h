#pragma once

#include "core/io/ZnAbstractSocket.h"
#include "core/io/http/ZnHttpLimits.h"
#include "core/io/http/ZnHttpRequest.h"
#include "core/io/http/ZnHttpResponse.h"
#include "core/io/http/ZnHttpTimeouts.h"
#include "core/object/ZnObject.h"
#include "core/types/ZnList.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

class ZnHttpBodyStream_;
class ZnHttpParser_;
class ZnHttpRouter;
class ZnTimer;

/// One HTTP connection: reads requests, has them answered one at a time and in order, enforces the time-outs.
///
/// A file or a chunked body leaves piece by piece: the next piece is made when the socket has emptied its buffer, so
/// a slow reader stops the reading of the file, and memory holds one piece.
/// A handler runs inline and may park for as long as it likes. Meanwhile anything may happen to the session: a
/// time-out answers for the handler, the peer leaves, the server stops, the object is deleted. So every frame that
/// calls out holds a ZnPointer to the session from before the call, and behind the call tests it and closed_ first.
/// A peer that closes its sending side gets the answers to the requests that it has completed; what it has left half
/// said is dropped.
/// Thread: that of its socket; the response callback may be called from any thread.
/// Owner: the server, which deletes it when it closes; without a closed handler it deletes itself.
/// Invariant: at most one of responseInProgress_ and asyncPending_ is set; while one is, no other request begins.
class ZnHttpSession : public ZnObject {
public:
    ZN_OBJECT(ZnHttpSession, ZnObject)

    using RequestHandler = std::function<void(const std::shared_ptr<ZnHttpRequest>&, ZnHttpResponseCallback)>;
    /// The answer to a request whose body is not wanted; null for all others. Must not park.
    using HeadCheck = std::function<std::unique_ptr<ZnHttpResponse>(ZnHttpRequest&)>;
    using ClosedHandler = std::function<void(ZnHttpSession*)>;

    /// Takes the connected socket over. Without a socket or a router the session deletes itself. Call start()
    /// when the handlers are set.
    ZnHttpSession(ZnAbstractSocket* socket, const ZnHttpRouter* router, const ZnHttpLimits& limits,
                  const ZnHttpTimeouts& timeouts, bool isTls, unsigned short localPort, ZnObject* parent = nullptr);
    ~ZnHttpSession() override;

    /// Answers the requests; without one the router does.
    void setRequestHandler(RequestHandler handler);
    /// Asked in front of a body, unless earlier answers are still due: those come first, and nothing is refused then.
    void setHeadCheck(HeadCheck check);
    /// Called once, when the connection has ended; it is to delete the session later.
    void setClosedHandler(ClosedHandler handler) { onClosed_ = std::move(handler); }

    /// Ends the session if its connection is gone already. Bytes that came before the handlers were set are announced
    /// by the socket's first readiness event, which the loop delivers after the caller has returned.
    void start();
    /// Ends the connection at once; an answer that has not left is dropped. Nothing when it has ended.
    void close() { closeSession_(); }
    bool isClosed() const noexcept { return closed_; }

private:
    // Slots of the socket and the timer.
    void onReadyRead_();
    void onWriteFinished_();
    void onTimeoutWatch_();

    // Input.
    bool readInput_();
    bool isBodyWanted_(const HeadCheck& check, ZnHttpRequest& request);
    void describePeer_(ZnHttpRequest& request);
    bool sendContinue_();
    void discardInput_();

    // Requests.
    bool canStartRequest_() const noexcept;
    bool isAnswerDue_() const noexcept;
    void holdConnection_();
    void processNextRequest_();
    void startNextRequest_();
    ZnHttpResponseCallback responseCallback_();
    void answer_(unsigned long long requestSerial, ZnHttpResponse&& response);

    // Responses. Each of these may be the end of the session; its caller tests for that.
    void sendResponse_(ZnHttpResponse&& response, bool keepAlive, bool isHead);
    void sendStream_(ZnHttpResponse&& response);
    bool takePiece_(std::string* text, ZnByteArray* bytes);
    void sendNextPiece_();
    void sendSwitch_(ZnHttpResponse&& response);
    void switchOver_();
    void writeBytes_(ZnString head, ZnByteArray body);
    void finishResponse_();
    void forgetRequest_();
    void sendError_(int status, const ZnString& text);
    void refuse_(ZnHttpResponse&& response);
    void beginDrain_();
    void closeSession_();
    void releaseSocket_();

    void scheduleResume_();
    void resume_();
    /// Calls `step` from the loop unless the session is gone by then.
    void postWeakly_(void (ZnHttpSession::*step)());

    // Time-outs.
    long long nextDeadlineNs_() const noexcept;
    long long nextWriteLookNs_() const noexcept;
    void noteWrite_(long long now);
    void lookAtWrite_(long long now);
    void lookAtPeer_(long long now);
    void abandonRequest_();
    bool isLeftByLateAnswer_() const noexcept;
    int handlerTimeoutMs_() const noexcept { return timeouts_.handlerTimeoutMs.value_or(timeouts_.bodyTimeoutMs); }
    bool isIdle_() const noexcept;
    int requestTimeoutMs_() const noexcept;
    void armTimeout_();
    void runTimeoutTable_(long long now);

    ZnPointer<ZnAbstractSocket> socket_;          // child; null once released
    const ZnHttpRouter* const router_;            // not owned; not used once the session is closed
    const std::unique_ptr<ZnHttpParser_> parser_; // never null
    const ZnHttpTimeouts timeouts_;
    ZnTimer* timeoutTimer_ = nullptr;                        // child
    ZnList<std::shared_ptr<ZnHttpRequest>> pendingRequests_; // oldest first, at most maxPipelinedRequests
    std::shared_ptr<ZnHttpRequest> currentRequest_;          // shared with the frame that runs the handler
    unsigned long long requestSerial_ = 0; // of currentRequest_: tells a late answer from the present one

    bool responseInProgress_ = false; // a head was written, the response has not left yet
    bool asyncPending_ = false;       // the request is with its handler
    bool closeAfterResponse_ = false;
    bool nextPieceDue_ = false;    // the last piece has left from inside write, resume_() sends the next
    bool closed_ = false;          // final
    bool holdsConnection_ = false; // the socket stays when the peer closes its sending side
    bool insideWrite_ = false;     // keeps a writeFinished from inside write out of the session
    bool resumeDeferred_ = false;  // one came
    bool resumeScheduled_ = false; // resume_() is on its way
    bool inputRefused_ = false;    // an error answer is the last one: what still comes is discarded
    bool draining_ = false;        // that answer has left
    unsigned long long discardedBytes_ = 0;

    std::unique_ptr<ZnHttpResponse> headRefusal_;     // what the head check has answered, while the parser comes back
    std::unique_ptr<ZnHttpBodyStream_> bodyStream_;   // what is left of the response's body; null when all was written
    std::function<void(ZnAbstractSocket*)> onSwitch_; // set: the connection leaves HTTP when the response has left

    // The handler is shared with the frame that calls it, which may outlive the session.
    std::shared_ptr<const RequestHandler> requestHandler_;
    ClosedHandler onClosed_;
    const bool isTls_;
    const unsigned short localPort_;
    ZnString peerAddress_; // asked for at the first request
    unsigned short peerPort_ = 0;
    bool peerKnown_ = false;

    // Monotonic nanoseconds.
    const long long createdNs_;
    long long lastActivityNs_;
    long long requestStartNs_;
    long long asyncStartNs_;
    long long lastWriteNs_;             // or when the peer was last seen to take something
    long long writeLookNs_;             // when that was looked at last
    long long peerLookNs_ = 0;          // when the peer of a handler's request was looked at last
    bool hasProbedPeer_ = false;        // for the present request
    unsigned long long takenBytes_ = 0; // by the peer, at that time
    long long drainStartNs_ = 0;
    long long armedTickNs_; // when timeoutTimer_ fires
};
