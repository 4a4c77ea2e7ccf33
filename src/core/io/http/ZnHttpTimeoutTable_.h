#pragma once

#include "core/io/http/ZnHttpTimeouts.h"

/// What a session waits for. Idle, Head and Body are those in which no request is with its handler or being answered:
/// nothing of the next one has come, or not all of its head, or not all of its body.
enum class ZnHttpSessionPhase_ : int { Closed, Draining, Responding, Handling, Idle, Head, Body };

/// The clocks of one session, and what is to be done about it when one has run out.
///
/// The first row whose phase is the session's decides, whether or not its time has come:
///
///   phase        runs out                                                    verdict
///   Closed       never
///   Draining     1000 ms after its begin, or after 200 ms of silence         Close
///   Responding   writeTimeoutMs after the peer has last taken something      CloseSlowReader
///   Handling     handlerTimeoutMs after the handler was called               AnswerLateHandler
///                else every peerLookMs                                       LookAtPeer
///   Idle         headerTimeoutMs after the begin of the last request         AnswerLateRequest, but Close when the
///                                                                            handler has used that time up
///                else keepAliveTimeoutMs after the last activity             Close
///   Head         headerTimeoutMs after the begin of the request              AnswerLateRequest
///   Body         bodyTimeoutMs after the begin of the request                AnswerLateRequest
///
/// "After" means more whole milliseconds than the limit, and a limit below 1 never runs out.
///
/// The table is looked at on a grid of 200 ms that begins with the session. A periodic timer would wake the loop 25,000
/// times a second for 5,000 idle connections. So one is armed, once, for the first tick at which a row could fire.
/// Deadlines mostly move away from the present as requests come and go; that is not followed, the timer finds it out
/// when it fires and is armed again. Only a phase whose deadline lies before the armed tick arms it anew, which in the
/// usual flow no request does.
///
/// Thread: a value, that of its session. All times are monotonic nanoseconds.
class ZnHttpTimeoutTable_ {
public:
    enum class Verdict { None, Close, CloseSlowReader, AnswerLateHandler, AnswerLateRequest, LookAtPeer };

    ZnHttpTimeoutTable_(const ZnHttpTimeouts& timeouts, long long nowNs) noexcept;

    void noteActivity(long long nowNs) noexcept { lastActivityNs_ = nowNs; }
    void noteRequestStart(long long nowNs) noexcept { requestStartNs_ = nowNs; }
    void noteHandlerStart(long long nowNs) noexcept { requestStartNs_ = handlerStartNs_ = peerLookNs_ = nowNs; }
    void noteWrite(long long nowNs) noexcept { lastWriteNs_ = writeLookNs_ = nowNs; }
    /// `takenBytes`: all that the peer has taken so far. One that takes a large piece slowly, but steadily, is not cut.
    void noteTaken(unsigned long long takenBytes, long long nowNs) noexcept;
    void notePeerLook(long long nowNs) noexcept { peerLookNs_ = nowNs; }
    void noteDrainStart(long long nowNs) noexcept { drainStartNs_ = lastActivityNs_ = nowNs; }

    Verdict verdict(ZnHttpSessionPhase_ phase, long long nowNs) const noexcept;

    /// Whether the armed timer fires soon enough. Reads no clock.
    bool isArmedFor(ZnHttpSessionPhase_ phase) const noexcept { return nextDeadlineNs_(phase) >= armedTickNs_; }
    /// Nanoseconds until the timer is to fire; 0: as it is armed it fires soon enough.
    long long arm(ZnHttpSessionPhase_ phase, long long nowNs) noexcept;
    void noteFired() noexcept;

private:
    long long nextDeadlineNs_(ZnHttpSessionPhase_ phase) const noexcept;
    long long requestDeadlineNs_(ZnHttpSessionPhase_ phase) const noexcept;
    long long handlerDeadlineNs_() const noexcept;
    long long nextWriteLookNs_() const noexcept;

    const ZnHttpTimeouts timeouts_;
    const long long createdNs_;
    long long lastActivityNs_;
    long long requestStartNs_;
    long long handlerStartNs_;
    long long lastWriteNs_;             // or when the peer was last seen to take something
    long long writeLookNs_;             // when that was looked at last
    unsigned long long takenBytes_ = 0; // at that time
    long long peerLookNs_ = 0;          // when the peer of a handler's request was looked at last
    long long drainStartNs_ = 0;
    long long armedTickNs_; // when the timer fires
};
