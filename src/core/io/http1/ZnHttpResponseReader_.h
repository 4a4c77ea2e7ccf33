#pragma once

#include "core/io/http1/ZnHttpChunkDecoder_.h"
#include "core/io/http1/ZnHttpClientResponse_.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

/// Makes one response of the bytes that a server sends. Where they are cut does not change what comes out.
///
///   status line CRLF  *( name ":" value CRLF )  CRLF  [ body ]
///   body: chunks, or else Content-Length bytes, or else whatever comes until the connection ends
///
/// It is generous: a line that is no header is passed over, and a status that is no number is 0.
/// Thread: that of its client, which owns it. Nothing here parks or calls out.
/// Invariant: buffer_ holds only what cannot be used yet; the bytes of a body go straight to their place.
class ZnHttpResponseReader_ {
public:
    enum class Outcome { NeedMore, Complete, InvalidChunkSize, InvalidChunkEnd, TooLarge };

    struct Rules {
        bool isHeadRequest = false;    // no body follows
        bool statusFraming = false;    // interim responses (1xx) are passed over; 204, 205 and 304 have no body
        std::size_t maxHeadBytes = 0;  // interim responses included
        std::int64_t maxBodyBytes = 0; // announced or received; 0: no limit
    };

    /// Forgets the response before, its memory included.
    void begin(const Rules& rules);
    /// Takes the next bytes in. All but NeedMore are final until the next begin(); failures of the framing are logged.
    Outcome feed(std::string_view bytes);
    /// Whether the end of the connection completes the response.
    bool endsWithConnection() const noexcept { return state_ == State_::ToClose; }

    /// Whether the response is whole, its framing was to the letter, and nothing has come with it, neither an interim
    /// response nor a byte more. What its head says is not judged.
    bool endsBeyondDoubt() const noexcept;

    /// What has come so far; the head is whole or empty.
    const ZnHttpClientResponse_& response() const noexcept { return response_; }
    ZnHttpClientResponse_ takeResponse() { return std::move(response_); }
    /// Received and not used yet.
    std::size_t bufferedBytes() const noexcept { return buffer_.size(); }

private:
    enum class State_ { Head, Counted, Chunks, ToClose, Complete };

    Outcome read_(std::string_view* input);
    bool takeHead_(std::string_view* input);
    bool isInterim_() const noexcept;
    bool isWithoutBody_() const noexcept;
    void parseHead_();
    void parseStatusLine_(std::string_view line);
    void takeBytes_(std::string_view* input, std::int64_t maxBytes);
    Outcome takeChunks_(std::string_view* input);
    bool isTooLarge_() const noexcept;

    Rules rules_;
    State_ state_ = State_::Head;
    ZnByteArray buffer_;
    std::size_t scannedBytes_ = 0;    // of buffer_, known not to begin the end of the head
    std::size_t headBytes_ = 0;       // of the heads that are read
    std::int64_t contentLength_ = -1; // -1: unknown
    bool isChunked_ = false;
    std::optional<ZnHttpChunkDecoder_> chunks_;
    ZnHttpClientResponse_ response_;
};
