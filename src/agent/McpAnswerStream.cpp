#include "agent/McpAnswerStream.h"

#include "agent/McpHeaders.h"
#include "agent/McpJson.h"
#include "agent/McpText.h"
#include "core/types/ZnJsonDocument.h"

#include <algorithm>
#include <utility>

namespace {

constexpr int kLeastRetryMs = 50; // a service that says 0 must not be asked without end
constexpr int kMostRetryMs = 60000;
constexpr std::size_t kMaxEventIdBytes = 1024;

} // namespace

void McpStreamEvent::parse() {
    text = mcp::wellFormed(std::move(text));
    ZnString error;
    ZnJsonDocument document = ZnJsonDocument::fromJson(text.view(), &error, JsonReading::Exact, mcp::kMaxJsonValues);
    message = error.isEmpty() ? std::move(document.root()) : ZnJsonValue(text);
}

bool McpAnswerStream::isEventStream(std::string_view contentType) {
    const ZnString mediaType(trimmedView(contentType.substr(0, contentType.find(';'))));
    return mediaType.equalsIgnoreCase("text/event-stream");
}

void McpAnswerStream::take(std::string_view bytes) {
    const auto note = [this](std::string_view type, std::string_view data) {
        const bool isMessage = type.empty() || type == "message";
        if (isMessage && !trimmedView(data).empty())
            events_.push_back({ZnString(data), ZnJsonValue()});
        return true;
    };
    isReadable_ = isReadable_ && parser_.feed(bytes, note);
    if (!parser_.lastEventId().empty())
        lastEventId_ = ZnString(parser_.lastEventId());
    if (parser_.retryMs() >= 0)
        retryMs_ = std::clamp(parser_.retryMs(), kLeastRetryMs, kMostRetryMs);
}

bool McpAnswerStream::canResume() const {
    const bool isUsable =
        !lastEventId_.isEmpty() && lastEventId_.size() <= kMaxEventIdBytes && mcp::isHeaderValue(lastEventId_.view());
    return isReadable_ && isUsable && awaitsAnswer() && answer_.isNull() && !hasTooMany();
}

bool McpAnswerStream::takeMessages(McpStreamEvent& event) {
    if (ZnJsonArray* batch = event.message.array()) {
        for (ZnJsonValue& message : *batch)
            takeMessage_(std::move(message));
    } else {
        takeMessage_(std::move(event.message));
    }
    return !answer_.isNull();
}

void McpAnswerStream::takeMessage_(ZnJsonValue message) {
    if (answer_.isNull() && isAnswer_(message))
        answer_ = std::move(message);
    else
        others_.append(std::move(message));
}

bool McpAnswerStream::isAnswer_(const ZnJsonValue& message) const {
    const ZnJsonObject* object = message.object();
    return requestId_ && object != nullptr && object->contains("id") && !object->contains("method") &&
           object->value("id") == *requestId_;
}
