#include "agent/McpAnswerStream.h"

#include "agent/McpJson.h"
#include "core/types/ZnJsonDocument.h"

#include <utility>

bool McpAnswerStream::isEventStream(std::string_view contentType) {
    const ZnString mediaType(trimmedView(contentType.substr(0, contentType.find(';'))));
    return mediaType.equalsIgnoreCase("text/event-stream");
}

bool McpAnswerStream::take(std::string_view bytes) {
    parser_.feed(bytes, [this](std::string_view type, std::string_view data) { return takeEvent_(type, data); });
    return !answer_.isNull();
}

bool McpAnswerStream::takeEvent_(std::string_view type, std::string_view data) {
    const bool isMessage = type.empty() || type == "message";
    if (!isMessage || trimmedView(data).empty())
        return true;
    ZnString error;
    ZnJsonDocument document = ZnJsonDocument::fromJson(data, &error, JsonReading::Exact, mcp::kMaxJsonValues);
    if (!error.isEmpty())
        others_.append(ZnString(data));
    else if (ZnJsonArray* batch = document.root().array())
        for (ZnJsonValue& message : *batch)
            takeMessage_(std::move(message));
    else
        takeMessage_(std::move(document.root()));
    return answer_.isNull();
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
