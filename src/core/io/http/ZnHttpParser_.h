#pragma once

#include "core/io/http/ZnHttpLimits.h"
#include "core/io/http/ZnHttpMultipartStream_.h"
#include "core/io/http/ZnHttpRequest.h"
#include "core/io/http1/ZnHttpChunkDecoder_.h"
#include "core/io/http1/ZnHttpLineReader_.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnList.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

/// Turns the bytes of one connection into complete requests. It may stop after any byte and go on later; where
/// the input is cut does not change what comes out. It is generous in what it takes unless limits.strictGrammar is set.
///
///   request line CRLF  *( name ":" value CRLF )  CRLF  [ body ]
///   body: Content-Length bytes, or chunks as ZnHttpChunkDecoder_ draws them
///
/// Thread: that of its session. Nothing here parks or calls out.
/// Invariant: buffer_ holds only what cannot be used yet, an unfinished line or half a CRLF behind a chunk: bytes of
/// a body never stay in it, and complete input is parsed where it lies.
/// Temporary files of a multipart body belong to the parser until its request is complete, then to the request: a
/// parser that fails or ends, and a request that nobody takes, leave none behind.
/// Failed is final.
class ZnHttpParser_ {
public:
    using RequestRef = std::shared_ptr<ZnHttpRequest>;
    /// Sees a request before its body comes. False: the body is not wanted, and the parser fails. Must not park.
    using HeadCheck = std::function<bool(ZnHttpRequest&)>;

    enum class State : std::int32_t {
        RequestLine = 0, // also idle between two requests
        Headers = 1,
        FixedBody = 2,
        ChunkSize = 3,
        ChunkData = 4,
        ChunkEnd = 5,
        Trailers = 6,
        Complete = 7,
        Failed = 8
    };

    explicit ZnHttpParser_(const ZnHttpLimits& limits = ZnHttpLimits())
        : limits_(limits), lines_(limits.strictGrammar) {}

    /// Takes `bytes` in and appends the requests that they complete to `out`, whose length maxPipelinedRequests
    /// bounds. Returns false when the parser stands in Failed; requests completed before the failure are in `out`.
    bool feed(std::string_view bytes, ZnList<RequestRef>& out);

    void setHeadCheck(HeadCheck check) { headCheck_ = std::move(check); }

    State state() const noexcept { return state_; }
    /// Between two requests, with no byte of the next one; the line ends that may stand in front of it do not count.
    bool isIdle() const noexcept {
        return state_ == State::RequestLine && (buffer_.isEmpty() || buffer_.view() == "\r");
    }
    const ZnHttpLimits& limits() const noexcept { return limits_; }
    /// Whether the peer waits for an interim answer before it sends the body. True only between the end of the headers
    /// and the first byte after them.
    bool expectsContinue() const;
    /// Whether the peer still owes bytes of a body; also after a failure.
    bool isInsideBody() const noexcept {
        return bodyRemaining_ > 0 || isBodyRefused_ || (chunks_ && chunks_->isInsideChunk());
    }
    /// The HTTP status and the text of the failure; 0 and empty without one.
    int errorStatus() const noexcept { return errorStatus_; }
    const ZnString& errorText() const noexcept { return errorText_; }

private:
    std::size_t run_(std::string_view bytes, ZnList<RequestRef>& out);
    bool step_(std::string_view* input, ZnList<RequestRef>& out);
    bool fail_(int status, ZnString text);

    bool onRequestLine_(std::string_view* input);
    bool parseRequestLine_(std::string_view line);
    bool parseTarget_(std::string_view target);
    bool onHeaderLine_(std::string_view* input);
    bool parseHeaderLine_(std::string_view line);
    bool checkFraming_();
    bool finishHeaders_();
    bool parseContentLength_(std::string_view text);
    bool onFixedBody_(std::string_view* input);
    ZnHttpChunkDecoder_::Rules chunkRules_() const;
    bool onChunks_(std::string_view* input);
    bool failChunks_();
    bool beginMultipart_(std::string_view contentType);
    bool finishBody_();
    bool commit_(ZnList<RequestRef>& out);
    bool takeBody_(std::string_view bytes);

    const ZnHttpLimits limits_;
    HeadCheck headCheck_;
    ZnByteArray buffer_;
    ZnHttpLineReader_ lines_; // of buffer_
    State state_ = State::RequestLine;
    RequestRef current_;            // null until its request line is complete
    std::uint64_t headerBytes_ = 0; // this and the next four: of the current message
    std::uint64_t headerCount_ = 0;
    std::uint64_t maxBodyBytes_ = 0;                    // of this body
    std::uint64_t bodyBytes_ = 0;                       // decoded so far
    std::uint64_t bodyRemaining_ = 0;                   // of a body with a length
    std::optional<ZnHttpChunkDecoder_> chunks_;         // of a body in chunks
    bool isBodyRefused_ = false;                        // by headCheck_
    bool multipartActive_ = false;                      // the body goes to multipart_
    std::unique_ptr<ZnHttpMultipartStream_> multipart_; // made for the first such body, kept for the names of files
    int errorStatus_ = 0;
    ZnString errorText_;
};
