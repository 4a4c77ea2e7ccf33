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

class ZnHttpParser_;
class ZnHttpPeerInfo_;
class ZnHttpResponsePieces_;
class ZnHttpRouter;
class ZnHttpTimeoutTable_;
class ZnTimer;
enum class ZnHttpSessionPhase_ : int;

/// One HTTP connection: reads requests, has them answered one at a time and in order, enforces the time-outs.
///
/// A file or a chunked body leaves piece by piece: the next piece is made when the socket has emptied its buffer, so
/// a slow reader stops the reading of the file, and memory holds one piece.
/// A handler runs inline and may park for as long as it likes. Meanwhile anything may happen to the session: a
/// time-out answers for the handler, the peer leaves, the server stops, the object is deleted. So every frame that
/// calls out holds a ZnPointer to the session from before the call, and after the call tests it and isClosed() first.
/// A peer that closes its sending side gets the answers to the requests that it has completed; what it has left half
/// said is dropped.
/// Thread: that of its socket; the response callback may be called from any thread.
/// Owner: the server, which deletes it when it closes; without a closed handler it deletes itself.
/// Invariant: a request begins in Reading only, so no two are handled or answered at the same time.
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
    /// Asked before a body comes, unless earlier answers are still due: those come first, and nothing is refused then.
    void setHeadCheck(HeadCheck check);
    /// Called once, when the connection has ended; it is to delete the session later.
    void setClosedHandler(ClosedHandler handler) { onClosed_ = std::move(handler); }

    /// Ends the session if its connection has ended already. Bytes that came before the handlers were set are announced
    /// by the socket's first readiness event, which the loop delivers after the caller has returned.
    void start();
    /// Ends the connection at once; an answer that has not left is dropped. Nothing when it has ended.
    void close() { closeSession_(); }
    bool isClosed() const noexcept { return stage_ == Stage_::Closed; }

private:
    /// Reading -> Handling     a request went to its handler
    ///         -> Refusing     what the peer has sent is refused, or came too late
    /// Handling -> Responding  the handler has answered
    ///          -> Refusing    it has not in its time, or what the peer sends meanwhile is refused
    /// Responding -> Reading   the response has left, and the connection stays
    /// Refusing -> Draining    the refusal, the last answer, has left
    /// any -> Closed           final
    /// What the peer sends is taken in up to Responding, and discarded in Refusing and Draining. A refusal in
    /// Responding closes, since no second head goes out.
    enum class Stage_ { Reading, Handling, Responding, Refusing, Draining, Closed };

    // Slots of the socket and the timer.
    void onReadyRead_();
    void onWriteFinished_();
    void onTimeoutWatch_();

    // Input.
    bool readInput_();
    bool sendContinue_();
    void discardInput_();

    // Requests.
    bool canStartRequest_() const noexcept;
    bool isAnswerDue_() const noexcept;
    void holdConnection_();
    void processNextRequest_();
    void startNextRequest_();
    void answer_(unsigned long long requestSerial, ZnHttpResponse&& response);

    // Responses. Each of these may be the end of the session; its caller tests for that.
    void sendResponse_(ZnHttpResponse&& response, bool keepAlive, bool isHead);
    void sendNextPiece_();
    void switchOver_();
    void writeBytes_(ZnString text, ZnByteArray bytes);
    void finishResponse_();
    void refuse_(ZnHttpResponse&& response);
    void beginDrain_();
    void closeSession_();

    void scheduleResume_();
    void resume_();
    ZnHttpSessionPhase_ phase_() const noexcept;
    void armTimeout_();
    void lookAtPeer_(long long nowNs);

    ZnPointer<ZnAbstractSocket> socket_;          // child; null once released
    const ZnHttpRouter* const router_;            // not owned; not used once the session is closed
    const std::unique_ptr<ZnHttpParser_> parser_; // never null, as are the next three
    const std::unique_ptr<ZnHttpPeerInfo_> peer_;
    const std::unique_ptr<ZnHttpTimeoutTable_> timeouts_;
    const std::unique_ptr<ZnHttpResponsePieces_> pieces_;    // of the response
    ZnTimer* timeoutTimer_ = nullptr;                        // child
    ZnList<std::shared_ptr<ZnHttpRequest>> pendingRequests_; // oldest first, at most maxPipelinedRequests
    std::shared_ptr<ZnHttpRequest> currentRequest_;          // shared with the frame that runs the handler
    unsigned long long requestSerial_ = 0; // of currentRequest_: tells a late answer from the present one

    Stage_ stage_ = Stage_::Reading;
    unsigned long long discardedBytes_ = 0;
    bool closeAfterResponse_ = false;
    bool nextPieceDue_ = false;    // the last piece has left from inside write, resume_() sends the next
    bool holdsConnection_ = false; // the socket stays when the peer closes its sending side
    bool insideWrite_ = false;     // keeps a writeFinished from inside write out of the session
    bool resumeDeferred_ = false;  // one came
    bool resumeScheduled_ = false; // resume_() is on its way
    bool hasProbedPeer_ = false;   // for the present request

    std::unique_ptr<ZnHttpResponse> headRefusal_;     // what the head check has answered, while the parser comes back
    std::function<void(ZnAbstractSocket*)> onSwitch_; // set: the connection leaves HTTP when the response has left
    // The handler is shared with the frame that calls it, which may outlive the session.
    std::shared_ptr<const RequestHandler> requestHandler_;
    ClosedHandler onClosed_;
};
