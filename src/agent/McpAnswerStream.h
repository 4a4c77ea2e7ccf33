#pragma once

#include "core/io/http/ZnEventStreamParser.h"
#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonValue.h"

#include <optional>
#include <string_view>

/// The messages of one upstream answer that comes as an event stream, read exactly.
///
/// The answer is the message that has the request's id, the same in type and digits, and no "method". All others are
/// kept in their order, text that is no JSON as a string. Events with a name other than "message" are no messages.
/// Thread: a value, on the loop.
class McpAnswerStream {
public:
    static bool isEventStream(std::string_view contentType);

    /// Without an id there is no answer to wait for.
    McpAnswerStream(std::optional<ZnJsonValue> requestId, std::size_t maxEventBytes)
        : requestId_(std::move(requestId)), parser_(maxEventBytes) {}

    /// Returns whether the answer has come; what stands behind it is not read. A message that is too large ends the
    /// reading without one.
    bool take(std::string_view bytes);
    /// Null without an answer.
    ZnJsonValue& answer() noexcept { return answer_; }
    /// The other messages.
    ZnJsonArray& others() noexcept { return others_; }

private:
    bool takeEvent_(std::string_view type, std::string_view data);
    void takeMessage_(ZnJsonValue message);
    bool isAnswer_(const ZnJsonValue& message) const;

    const std::optional<ZnJsonValue> requestId_;
    ZnEventStreamParser parser_;
    ZnJsonValue answer_;
    ZnJsonArray others_;
};
