#include "agent/McpForwardCall.h"

#include "agent/McpJson.h"
#include "core/types/ZnJsonDocument.h"

#include <utility>

namespace {

constexpr long long kUsPerMs = 1000;

ZnJsonValue parseBody(std::string_view text, JsonReading reading) {
    ZnString error; // a body that is no JSON is handed on as it is
    ZnJsonDocument document = ZnJsonDocument::fromJson(text, &error, reading, mcp::kMaxJsonValues);
    return error.isEmpty() ? std::move(document.root()) : ZnJsonValue();
}

} // namespace

McpForwardCall::McpForwardCall(const McpBridgeServiceRecord& record, const ZnJsonValue& request,
                               const ZnString& protocolVersion, const ZnString& sessionId)
    : endpoint_(record.endpoint),
      timeoutUs_((record.timeoutMs < 1 ? McpBridgeServiceRecord::kDefaultTimeoutMs : record.timeoutMs) * kUsPerMs),
      reading_(record.interop ? JsonReading::Exact : JsonReading::Dialect), requestBody_(request.toJson()) {
    client_.setHeader("Accept", record.interop ? "application/json, text/event-stream" : "application/json");
    if (!protocolVersion.isEmpty())
        client_.setHeader("Mcp-Protocol-Version", protocolVersion);
    if (!sessionId.isEmpty())
        client_.setHeader("Mcp-Session-Id", sessionId);
    if (!record.bearerToken.isEmpty())
        client_.setHeader("Authorization", "Bearer " + record.bearerToken);
    if (!record.tlsCaFile.isEmpty())
        client_.setCaFile(record.tlsCaFile);
    client_.connect(&ZnHttpClient::finished, &loop_, [this] { finishForward_(true, 0); });
    client_.connect(&ZnHttpClient::errorOccurred, &loop_, [this](int code) { finishForward_(false, code); });
    timer_.connect(&ZnTimer::timeout, &loop_, [this] { end(kTimedOut); });
    timer_.setSingleShot(true);
    if (!record.interop)
        return;
    if (request.object()->contains("id"))
        requestId_ = request.object()->value("id");
    client_.setMaxResponseBytes(kMaxAnswerBytes);
    client_.setBodyObserver([this](const ZnMap<ZnString, ZnString>& headers, std::string_view bytes) {
        return takeAnswer_(headers, bytes);
    });
}

McpForwardResult McpForwardCall::run() {
    timer_.startUs(timeoutUs_);
    const bool hasBegun = client_.request(ZnHttpClient::Post, endpoint_, std::move(requestBody_), "application/json");
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

/// Returns whether the answer is there.
bool McpForwardCall::takeAnswer_(const ZnMap<ZnString, ZnString>& headers, std::string_view bytes) {
    if (!stream_ && McpAnswerStream::isEventStream(headers.value("content-type").view()))
        stream_.emplace(requestId_, static_cast<std::size_t>(kMaxAnswerBytes));
    return stream_ && stream_->take(bytes);
}

void McpForwardCall::finishForward_(bool transportOk, int errorCode) {
    if (std::exchange(hasEnded_, true))
        return;
    timer_.stop();
    result_.transportOk = transportOk;
    result_.errorCode = errorCode;
    result_.statusCode = client_.statusCode();
    result_.reason = client_.reasonPhrase();
    result_.mcpSessionId = client_.responseHeaders().value("mcp-session-id");
    result_.rawBody = client_.takeBody();
    if (transportOk)
        readBody_();
    if (!result_.body.isNull())
        result_.rawBody.release();
    loop_.quit();
}

void McpForwardCall::readBody_() {
    if (stream_) {
        result_.body = std::move(stream_->answer());
        result_.notifications = std::move(stream_->others());
    } else if (!trimmedView(result_.rawBody.view()).empty()) {
        result_.body = parseBody(result_.rawBody.view(), reading_);
    }
}

ZnJsonObject forwardResultToJson_(McpForwardResult result) {
    ZnJsonObject object{{"transportOk", result.transportOk},
                        {"errorCode", result.errorCode},
                        {"statusCode", result.statusCode},
                        {"reason", std::move(result.reason)},
                        {"mcpSessionId", std::move(result.mcpSessionId)}};
    if (result.body.isNull())
        object["rawBody"] = result.rawBody.toZnString();
    else
        object["body"] = std::move(result.body);
    if (!result.notifications.isEmpty())
        object["notifications"] = std::move(result.notifications);
    return object;
}
