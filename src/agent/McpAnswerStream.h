#pragma once

#include "core/io/http/ZnEventStreamParser.h"
#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonValue.h"
#include "core/types/ZnString.h"

#include <deque>
#include <optional>
#include <string_view>
#include <utility>

/// One event of a stream, as text and as what it says. It stands by itself: those of a large
/// answer are parsed on another thread.
struct McpStreamEvent {
    /// Exactly; a text that is no JSON becomes a string, and bytes that are no UTF-8 are replaced.
    void parse();

    ZnString text;
    ZnJsonValue message; // after parse()
};

/// The messages of one upstream answer that comes as an event stream.
///
/// The answer is the message that has the request's id, the same in type and digits, and no "method". All others are
/// kept in their order. Events with a name other than "message" are no messages.
/// Thread: a value, on the loop.
class McpAnswerStream {
public:
    /// More messages than this are no answer that anybody wants, and take many times their size.
    static constexpr std::size_t kMaxMessages = 100000;

    static bool isEventStream(std::string_view contentType);

    /// Without an id there is no answer to wait for.
    McpAnswerStream(std::optional<ZnJsonValue> requestId, std::size_t maxEventBytes)
        : requestId_(std::move(requestId)), maxEventBytes_(maxEventBytes), parser_(maxEventBytes) {}

    /// Notes the events that end in `bytes`. One that is too large ends the reading.
    void take(std::string_view bytes);
    bool hasEvents() const noexcept { return !events_.empty(); }
    /// Those that were noted, in their order; they are to be parsed.
    std::deque<McpStreamEvent> takeEvents() { return std::exchange(events_, {}); }
    /// Takes the messages of a parsed event. Returns whether the answer has come; what stands behind it is not read.
    bool takeMessages(McpStreamEvent& event);

    /// Whether the service can be asked for what comes after the last event, and the answer is still to come.
    bool canResume() const;
    std::string_view lastEventId() const noexcept { return lastEventId_.view(); }
    int retryMs() const noexcept { return retryMs_; } // what the service wants to be waited before that
    /// The stream goes on in another response.
    void restart() { parser_ = ZnEventStreamParser(maxEventBytes_); }

    bool hasTooMany() const noexcept { return others_.size() > kMaxMessages; }
    bool awaitsAnswer() const noexcept { return requestId_.has_value(); }
    /// Null without an answer.
    ZnJsonValue& answer() noexcept { return answer_; }
    /// The other messages.
    ZnJsonArray& others() noexcept { return others_; }

private:
    void takeMessage_(ZnJsonValue message);
    bool isAnswer_(const ZnJsonValue& message) const;

    static constexpr int kUsualRetryMs = 1000;

    const std::optional<ZnJsonValue> requestId_;
    const std::size_t maxEventBytes_;
    ZnEventStreamParser parser_;
    ZnString lastEventId_;
    int retryMs_ = kUsualRetryMs;
    bool isReadable_ = true;
    std::deque<McpStreamEvent> events_;
    ZnJsonValue answer_;
    ZnJsonArray others_;
};
