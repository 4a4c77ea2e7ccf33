#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

/// Decodes a stream of server-sent events, in pieces of any size.
///
/// Lines end with LF, CR or CRLF; a byte order mark in front is skipped. An event without "data" is none, but its
/// "id" counts, as does "retry". What stands behind the last empty line is no event. UTF-8 is kept as it comes.
/// Thread: a value.
class ZnEventStreamParser {
public:
    /// `type` is empty where the stream names none. Both are valid during the call. Returns whether to go on.
    using Handler = std::function<bool(std::string_view type, std::string_view data)>;

    /// An event, or a line, of more bytes ends the decoding.
    explicit ZnEventStreamParser(std::size_t maxEventBytes) : maxEventBytes_(maxEventBytes) {}

    /// Calls `handler` for every event that ends in `bytes`. Returns whether there was none that was too large. After
    /// that, or when the handler has said stop, the parser is not to be used any more.
    bool feed(std::string_view bytes, const Handler& handler);

    /// The id of the last event that had one; empty without one.
    std::string_view lastEventId() const noexcept { return lastEventId_; }
    /// Milliseconds that the stream wants to be waited before it is taken up again; -1 when it has not said.
    int retryMs() const noexcept { return retryMs_; }

private:
    enum class Step_ { GoOn, Stopped, TooLarge };

    bool skipByteOrderMark_(std::string_view* bytes);
    Step_ takeLine_(std::string_view line, const Handler& handler);
    void takeField_(std::string_view name, std::string_view value);
    void takeRetry_(std::string_view value);

    std::size_t maxEventBytes_;
    std::size_t markBytes_ = 0;  // of the byte order mark, seen so far
    bool isBehindMark_ = false;  // the stream's text has begun
    bool skipsLineFeed_ = false; // the last byte was CR: a LF belongs to it
    std::string line_;           // begun and not ended
    std::string type_;
    std::string id_; // of this event, or an earlier one
    std::string lastEventId_;
    int retryMs_ = -1;
    std::string data_; // each line with an LF behind it; empty: none yet
};
