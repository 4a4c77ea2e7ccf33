#pragma once

#include "agent/McpBridgeServiceRecord.h"
#include "agent/McpForwardResult.h"
#include "core/io/ZnHttpClient.h"
#include "core/runtime/ZnEventLoop.h"
#include "core/runtime/ZnTimer.h"

/// One upstream call: an HTTP POST, its time limit, and the park of the fiber that waits for both.
///
/// Thread: one, on a pooled fiber; the call lives on that fiber's stack.
/// Invariant: ends exactly once, by the response, an error, the time limit or end(), whichever comes first, also while
/// run() is still parked in the look-up of a name. What comes later changes nothing.
class McpForwardCall {
public:
    static constexpr int kTimedOut = -1001;
    static constexpr int kStopped = -1002;

    /// The texts are trimmed and hold no control characters; an empty one is not sent.
    McpForwardCall(const McpBridgeServiceRecord& record, const ZnString& protocolVersion, const ZnString& sessionId);
    McpForwardCall(const McpForwardCall&) = delete;
    McpForwardCall& operator=(const McpForwardCall&) = delete;

    /// Sends `body` to the service and parks the calling fiber until the call has ended.
    McpForwardResult run(ZnByteArray body);
    /// Ends the call with `errorCode`; the parked fiber resumes from the loop.
    void end(int errorCode);

private:
    void finishForward_(bool transportOk, int errorCode);

    const ZnString endpoint_;
    const long long timeoutUs_;
    ZnHttpClient client_;
    ZnTimer timer_;
    ZnEventLoop loop_;
    McpForwardResult result_;
    bool hasEnded_ = false;
};
