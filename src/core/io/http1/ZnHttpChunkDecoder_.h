#pragma once

#include "core/io/http1/ZnHttpLineReader_.h"

#include <cstdint>
#include <limits>
#include <string_view>

/// Takes the framing off one body in chunks. Where the input is cut does not change what comes out.
///
///   *( hexadecimal size [ ";" ... ] CRLF  bytes CRLF )  "0" ... CRLF  *( trailer CRLF )  CRLF
///
/// The bytes of the body are not copied: they are given out as they lie in the input.
/// Thread: a value, that of the reader of a message.
class ZnHttpChunkDecoder_ {
public:
    enum class State { Size, Data, DataEnd, Trailers, End };
    enum class Step { NeedMore, Data, End, Failed };
    enum class Fault {
        None,
        SizeLineTooLong,
        InvalidSize,
        ChunkTooLarge,
        BodyTooLarge,
        MissingLineEnd,
        TrailersTooLarge,
        MalformedTrailer
    };

    struct Rules {
        static constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();
        bool strictGrammar = false;             // of size lines and trailers
        bool allowsBlankBehindSize = false;     // in front of an extension; the strict grammar refuses it all the same
        bool endsAtLastChunk = false;           // neither the trailers nor the last line end are waited for
        std::uint64_t maxLineBytes = kNoLimit;  // of a size line without its CRLF
        std::uint64_t maxChunkBytes = kNoLimit; // as announced
        std::uint64_t maxBodyBytes = kNoLimit;  // as announced, with what came before
        std::uint64_t maxTrailerBytes = kNoLimit; // with their CRLF, that of the empty line included
    };

    explicit ZnHttpChunkDecoder_(const Rules& rules) noexcept : rules_(rules), lines_(rules.strictGrammar) {}

    /// Takes what it understands off the front of `*input`, up to the first bytes of the body, which `*bytes` gets: go
    /// on behind them. What NeedMore leaves there begins the next input. `*bytes` is the text at fault after Failed,
    /// which is final, as End is.
    Step next(std::string_view* input, std::string_view* bytes);

    State state() const noexcept { return state_; }
    Fault fault() const noexcept { return fault_; }
    /// Whether every size line so far has followed the grammar to the letter.
    bool isExact() const noexcept { return isExact_; }
    /// Whether the peer owes bytes of a chunk that it has announced; also after a failure.
    bool isInsideChunk() const noexcept { return chunkRemaining_ > 0; }

private:
    Step takeSize_(std::string_view* input, std::string_view* bytes);
    bool parseSize_(std::string_view text) noexcept;
    Step takeData_(std::string_view* input, std::string_view* bytes);
    Step takeDataEnd_(std::string_view* input);
    Step takeTrailer_(std::string_view* input);
    Step fail_(Fault fault) noexcept;

    const Rules rules_;
    ZnHttpLineReader_ lines_;
    State state_ = State::Size;
    Fault fault_ = Fault::None;
    bool isExact_ = true;
    std::uint64_t chunkRemaining_ = 0; // bytes of the present chunk that are still to come
    std::uint64_t bodyBytes_ = 0;      // given out so far
    std::uint64_t trailerBytes_ = 0;   // so far
};
