#pragma once

#include "agent/McpAnswerStream.h"
#include "agent/McpBridgeServiceRecord.h"
#include "agent/McpForwardResult.h"
#include "agent/McpWork.h"
#include "core/io/ZnHttpClient.h"
#include "core/runtime/ZnEventLoop.h"
#include "core/runtime/ZnTimer.h"
#include "core/types/ZnJsonDocument.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

using McpHeaderList = std::vector<std::pair<ZnString, ZnString>>; // names and values

/// What a call sends, taken out of the client's message, which is not kept.
struct McpForwardRequest {
    ZnByteArray body;              // a JSON object as text
    std::optional<ZnJsonValue> id; // of the object
    ZnString protocolVersion;      // header values: trimmed, without control characters; an empty one is not sent
    ZnString sessionId;
    std::optional<ZnJsonValue> progressToken; // with which the service is to tell of progress
    ZnString method;                          // these two for observers: what the body says
    ZnString tool;
    McpHeaderList headers;         // further ones, which mirror the body
    McpHeaderList argumentHeaders; // likewise, of the tool's arguments
    bool isModern = false;         // of revision 2026-07-28: no session, and the end of the connection cancels it
    bool mirrorsTool = false;      // such a call of a tool
    bool listsTools = false;       // it asks for a list of tools
    bool opensSession = false;     // it is an "initialize"
    bool isExact = false;          // as for a service with interoperability
    bool mayResume = false;        // an event stream that ends without the answer is taken up again
    int timeoutMs = 0;             // 0: the service's
};

/// One upstream call: an HTTP POST, its time limit, and the park of the fiber that waits for both.
///
/// For a service with interoperability on, an answer that is an event stream is decoded, exactly, and the call ends as
/// soon as the stream has brought the answer.
/// Thread: one, on a pooled fiber; the call lives on that fiber's stack.
/// Invariant: ends exactly once, by the response, an error, the time limit or end(), whichever comes first, also while
/// run() is still parked in the look-up of a name. What comes later changes nothing.
class McpForwardCall {
public:
    static constexpr int kTimedOut = -1001; // also: the service closed the connection before its answer was whole
    static constexpr int kStopped = -1002;
    static constexpr int kClientGone = -1003;   // nobody is there to be told
    static constexpr int kTooManyBytes = -1004; // the client is told of it in another way
    static constexpr int kCancelled = -1005;    // by the client, who waits for no answer

    /// Told how many bytes of the answer have come; false ends the call with kTooManyBytes.
    using Growth = std::function<bool(std::size_t byteCount)>;

    /// `workers` read messages that are too large for the loop. `maxAnswerBytes`: above 0.
    McpForwardCall(const McpBridgeServiceRecord& record, McpForwardRequest&& request, std::int64_t maxAnswerBytes,
                   McpWorkers& workers);
    McpForwardCall(const McpForwardCall&) = delete;
    McpForwardCall& operator=(const McpForwardCall&) = delete;

    void setGrowth(Growth growth) { growth_ = std::move(growth); }
    /// See ZnHttpClient::setConnectionPool. Before run().
    void setConnectionPool(ZnHttpConnectionPool* pool, const ZnString& partition) {
        client_.setConnectionPool(pool, partition);
    }
    /// Sees what the service tells of progress with the request's token, as params. It must not park.
    using Progress = std::function<void(const ZnJsonObject& params)>;
    void setProgress(Progress progress) { progress_ = std::move(progress); }
    /// Sends the request to the service and parks the calling fiber until the call has ended. Once; nothing is sent
    /// when the call has been ended before.
    McpForwardResult run();
    /// Of the answer's body, as far as it has come.
    std::size_t answerBytes() const noexcept { return answerBytes_; }
    /// Ends the call with `errorCode`; the parked fiber resumes from the loop.
    void end(int errorCode);

private:
    bool takeAnswer_(const ZnMap<ZnString, ZnString>& headers, std::string_view bytes);
    bool takeEvents_();
    void tellProgress_(const ZnJsonValue& message) const;
    void onResponseEnd_(int errorCode);
    bool mayResume_(int errorCode) const;
    void resume_();
    void finishForward_(bool transportOk, int errorCode);

    const ZnString endpoint_;
    const int timeoutMs_;
    const bool interop_;
    const std::int64_t maxAnswerBytes_;
    McpWorkers& workers_;
    Growth growth_;
    Progress progress_;
    McpForwardRequest request_;
    std::optional<McpAnswerStream> stream_; // while the answer is an event stream that is to be decoded
    std::size_t answerBytes_ = 0;
    std::size_t unpausedBytes_ = 0; // of events that were parsed on the loop since others had their turn
    ZnHttpClient client_;
    ZnTimer timer_;
    std::optional<ZnTimer> resumeTimer_; // made when it is needed: timers and their connections are most of a call
    bool isResumed_ = false;
    ZnEventLoop loop_;
    McpForwardResult result_;
    bool hasEnded_ = false;
};
