#include "agent/McpForwardCall.h"

#include "agent/McpFailureText.h"
#include "agent/McpJson.h"
#include "agent/McpRpcAnswer.h"
#include "agent/McpServiceHeaders.h"
#include "agent/McpText.h"
#include "agent/McpWork.h"
#include "core/runtime/ZnWait.h"

#include <utility>

namespace {
constexpr long long kUsPerMs = 1000;
constexpr int kOk = 200;                     // of HTTP
constexpr std::size_t kBytesInOneGo = 65536; // of small events: a million of them may come in one stream
constexpr std::size_t kEventBytes = 64;      // what an event costs beside its text
} // namespace

McpForwardCall::McpForwardCall(const McpBridgeServiceRecord& record, McpForwardRequest&& request,
                               std::int64_t maxAnswerBytes, McpWorkers& workers)
    : endpoint_(record.endpoint),
      timeoutMs_(request.timeoutMs > 0 ? request.timeoutMs : record.limitMs()),
      interop_(record.interop || request.isExact),
      maxAnswerBytes_(maxAnswerBytes),
      workers_(workers),
      request_(std::move(request)) {
    client_.setHeader("Accept", interop_ ? "application/json, text/event-stream" : "application/json");
    if (!request_.protocolVersion.isEmpty())
        client_.setHeader("Mcp-Protocol-Version", request_.protocolVersion);
    if (!request_.sessionId.isEmpty())
        client_.setHeader("Mcp-Session-Id", request_.sessionId);
    for (const McpHeaderList* headers : {&request_.headers, &request_.argumentHeaders}) {
        for (const auto& [name, value] : *headers)
            client_.setHeader(name, value);
    }
    mcp::setServiceHeaders(client_, record);
    client_.setMaxResponseBytes(maxAnswerBytes_);
    client_.setStatusFraming(interop_);
    client_.setBodyObserver([this](const ZnMap<ZnString, ZnString>& headers, std::string_view bytes) {
        return takeAnswer_(headers, bytes);
    });
    client_.connect(&ZnHttpClient::finished, &loop_, [this] { onResponseEnd_(0); });
    client_.connect(&ZnHttpClient::errorOccurred, &loop_, [this](int code) { onResponseEnd_(code); });
    timer_.connect(&ZnTimer::timeout, &loop_, [this] { end(kTimedOut); });
    timer_.setSingleShot(true);
}

McpForwardResult McpForwardCall::run() {
    if (hasEnded_)
        return std::move(result_);
    timer_.startUs(timeoutMs_ * kUsPerMs);
    const bool hasBegun = client_.request(ZnHttpClient::Post, endpoint_, std::move(request_.body), "application/json");
    if (!hasBegun)
        finishForward_(false, ZnHttpClient::kUrlNotAccepted); // nothing when a signal has said more already
    if (!hasEnded_)
        loop_.exec();
    end(kStopped); // nothing unless the application has ended the wait
    return std::move(result_);
}

void McpForwardCall::end(int errorCode) {
    if (hasEnded_)
        return;
    client_.abort();
    finishForward_(false, errorCode);
}

/// Returns whether the answer is there. The call may be over, and destroyed, when it returns false.
bool McpForwardCall::takeAnswer_(const ZnMap<ZnString, ZnString>& headers, std::string_view bytes) {
    answerBytes_ += bytes.size();
    if (growth_ && !growth_(answerBytes_)) {
        end(kTooManyBytes);
        return false;
    }
    if (!interop_)
        return false;
    const bool isStream = McpAnswerStream::isEventStream(headers.value("content-type").view());
    if (isResumed_ && !isStream)
        return false; // a refusal: what there was of the stream stays
    if (!stream_ && isStream)
        stream_.emplace(std::move(request_.id), static_cast<std::size_t>(maxAnswerBytes_));
    if (!stream_)
        return false;
    stream_->take(bytes);
    return takeEvents_();
}

bool McpForwardCall::takeEvents_() {
    const ZnPointer<ZnEventLoop> self(&loop_); // the call itself is no object: they go together
    while (stream_->hasEvents()) {
        const auto events = std::make_shared<std::deque<McpStreamEvent>>(stream_->takeEvents());
        std::size_t byteCount = 0;
        for (const McpStreamEvent& event : *events)
            byteCount += event.text.size();
        const auto parse = [events] {
            for (McpStreamEvent& event : *events)
                event.parse();
        };
        unpausedBytes_ += byteCount + events->size() * kEventBytes;
        if (byteCount >= McpRpcAnswer::kLargeBytes) {
            if (!workers_.await(parse))
                return false;
        } else {
            if (std::exchange(unpausedBytes_, unpausedBytes_ % kBytesInOneGo) >= kBytesInOneGo)
                sleepFor(0);
            parse();
        }
        if (!self || hasEnded_)
            return false;
        for (McpStreamEvent& event : *events) {
            if (progress_)
                tellProgress_(event.message);
            if (stream_->takeMessages(event))
                return true;
        }
        if (stream_->hasTooMany()) {
            end(ZnHttpClient::kResponseTooLarge);
            return false;
        }
    }
    return false;
}

void McpForwardCall::tellProgress_(const ZnJsonValue& message) const {
    if (const ZnJsonArray* batch = message.array()) {
        for (const ZnJsonValue& entry : *batch)
            tellProgress_(entry);
        return;
    }
    const ZnJsonObject* object = message.object();
    const ZnJsonObject* params = object == nullptr ? nullptr : object->value("params").object();
    if (params != nullptr && object->value("method").string() == "notifications/progress" &&
        params->value("progressToken") == *request_.progressToken)
        progress_(*params);
}

// --- streams that a service ends in the middle

void McpForwardCall::onResponseEnd_(int errorCode) {
    if (hasEnded_)
        return;
    if (!mayResume_(errorCode))
        return finishForward_(errorCode == 0 || isResumed_, isResumed_ ? 0 : errorCode);
    if (!std::exchange(isResumed_, true)) {
        result_.statusCode = client_.statusCode() == 0 ? kOk : client_.statusCode();
        result_.reason = client_.reasonPhrase();
        result_.mcpSessionId = client_.responseHeaders().value("mcp-session-id");
    }
    resumeTimer_.emplace();
    resumeTimer_->connect(&ZnTimer::timeout, &loop_, [this] { resume_(); });
    resumeTimer_->setSingleShot(true);
    resumeTimer_->start(stream_->retryMs());
}

/// A service may end a stream when it likes, and a connection may break: what has an id can be asked for from there on.
bool McpForwardCall::mayResume_(int errorCode) const {
    const bool isRefused = errorCode == 0 && (client_.statusCode() < 200 || client_.statusCode() > 299);
    const bool hasEnded = errorCode == 0 || errorCode == ZnHttpClient::kClosedEarly;
    return request_.mayResume && hasEnded && !isRefused && stream_ && stream_->canResume();
}

void McpForwardCall::resume_() {
    client_.setHeader("Accept", "text/event-stream");
    client_.setHeader("Last-Event-ID", ZnString(stream_->lastEventId()));
    stream_->restart();
    if (!client_.request(ZnHttpClient::Get, endpoint_, ZnByteArray(), ZnString()))
        onResponseEnd_(ZnHttpClient::kConnectNotBegun);
}

void McpForwardCall::finishForward_(bool transportOk, int errorCode) {
    if (std::exchange(hasEnded_, true))
        return;
    timer_.stop();
    result_.transportOk = transportOk;
    result_.errorCode = errorCode == ZnHttpClient::kClosedEarly ? kTimedOut : errorCode;
    resumeTimer_.reset();
    if (!isResumed_) {
        result_.statusCode = client_.statusCode();
        result_.reason = client_.reasonPhrase();
        result_.mcpSessionId = client_.responseHeaders().value("mcp-session-id");
    }
    result_.rawBody = client_.takeBody();
    if (transportOk && stream_) {
        result_.isDecoded = true;
        result_.body = std::move(stream_->answer());
        result_.notifications = std::move(stream_->others());
        result_.lacksAnswer = stream_->awaitsAnswer() && result_.body.isNull();
    }
    if (!transportOk)
        result_.message = mcp::failureText(errorCode, endpoint_, timeoutMs_, client_.failureDetail());
    else if (result_.lacksAnswer)
        result_.message = "the event stream ended without the answer";
    else if (!result_.isSuccess())
        result_.message = mcp::statusText(endpoint_, result_.statusCode, result_.reason);
    loop_.quit();
}
