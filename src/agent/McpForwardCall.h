#pragma once

#include "agent/McpAnswerStream.h"
#include "agent/McpBridgeServiceRecord.h"
#include "agent/McpForwardResult.h"
#include "core/io/ZnHttpClient.h"
#include "core/runtime/ZnEventLoop.h"
#include "core/runtime/ZnTimer.h"
#include "core/types/ZnJsonDocument.h"

#include <cstdint>
#include <optional>

/// One upstream call: an HTTP POST, its time limit, and the park of the fiber that waits for both.
///
/// For a service with interoperability on, the request and the answer are read exactly, an answer that is an event
/// stream is decoded, and the call ends as soon as the stream has brought the answer.
/// Thread: one, on a pooled fiber; the call lives on that fiber's stack.
/// Invariant: ends exactly once, by the response, an error, the time limit or end(), whichever comes first, also while
/// run() is still parked in the look-up of a name. What comes later changes nothing.
class McpForwardCall {
public:
    static constexpr int kTimedOut = -1001;
    static constexpr int kStopped = -1002;
    static constexpr std::int64_t kMaxAnswerBytes = 67108864; // with interoperability on

    /// `request` is a JSON object. The texts are trimmed and hold no control characters; an empty one is not sent.
    McpForwardCall(const McpBridgeServiceRecord& record, const ZnJsonValue& request, const ZnString& protocolVersion,
                   const ZnString& sessionId);
    McpForwardCall(const McpForwardCall&) = delete;
    McpForwardCall& operator=(const McpForwardCall&) = delete;

    /// Sends the request to the service and parks the calling fiber until the call has ended. Once.
    McpForwardResult run();
    /// Ends the call with `errorCode`; the parked fiber resumes from the loop.
    void end(int errorCode);

private:
    bool takeAnswer_(const ZnMap<ZnString, ZnString>& headers, std::string_view bytes);
    void finishForward_(bool transportOk, int errorCode);
    void readBody_();

    const ZnString endpoint_;
    const long long timeoutUs_;
    const JsonReading reading_;
    ZnByteArray requestBody_;
    std::optional<ZnJsonValue> requestId_;
    std::optional<McpAnswerStream> stream_; // while the answer is an event stream that is to be decoded
    ZnHttpClient client_;
    ZnTimer timer_;
    ZnEventLoop loop_;
    McpForwardResult result_;
    bool hasEnded_ = false;
};
