#include "core/io/http1/ZnHttpChunkDecoder_.h"

#include "core/io/http1/ZnHttpGrammar_.h"
#include "core/io/http1/ZnHttpWireText_.h"

#include <algorithm>

namespace grammar = zn::http::grammar;
namespace wire = zn::http::wire;

ZnHttpChunkDecoder_::Step ZnHttpChunkDecoder_::next(std::string_view* input, std::string_view* bytes) {
    if (fault_ != Fault::None)
        return Step::Failed;
    // A step that has come to an end of its own hands over to the step of the next state.
    for (State before = state_;; before = state_) {
        Step step = Step::NeedMore;
        switch (state_) {
        case State::Size: step = takeSize_(input, bytes); break;
        case State::Data: step = takeData_(input, bytes); break;
        case State::DataEnd: step = takeDataEnd_(input); break;
        case State::Trailers: step = takeTrailer_(input); break;
        case State::End: return Step::End;
        }
        if (step != Step::NeedMore || state_ == before)
            return step;
    }
}

ZnHttpChunkDecoder_::Step ZnHttpChunkDecoder_::takeSize_(std::string_view* input, std::string_view* bytes) {
    *bytes = *input;
    const bool isWhole = lines_.take(input, bytes);
    if ((isWhole ? bytes->size() : ZnHttpLineReader_::unfinishedBytes(*input)) > rules_.maxLineBytes)
        return fail_(Fault::SizeLineTooLong);
    if (!isWhole)
        return Step::NeedMore;
    isExact_ = isExact_ && grammar::isChunkSizeLine(*bytes);
    std::string_view rest = trimmedView(*bytes);
    *bytes = wire::cutPiece(&rest, ";");
    if (rules_.allowsBlankBehindSize)
        *bytes = trimmedView(*bytes);
    if ((rules_.strictGrammar && !isExact_) || !parseSize_(*bytes))
        return fail_(Fault::InvalidSize);
    if (chunkRemaining_ > rules_.maxChunkBytes)
        return fail_(Fault::ChunkTooLarge);
    if (chunkRemaining_ > rules_.maxBodyBytes - bodyBytes_)
        return fail_(Fault::BodyTooLarge);
    state_ = chunkRemaining_ > 0 ? State::Data : rules_.endsAtLastChunk ? State::End : State::Trailers;
    return Step::NeedMore;
}

bool ZnHttpChunkDecoder_::parseSize_(std::string_view text) noexcept {
    std::uint64_t size = 0;
    for (const char c : text) {
        const int digit = wire::hexDigit(c);
        if (digit < 0 || size > std::numeric_limits<std::uint64_t>::max() >> 4)
            return false;
        size = size << 4 | static_cast<std::uint64_t>(digit);
    }
    chunkRemaining_ = size;
    return !text.empty();
}

ZnHttpChunkDecoder_::Step ZnHttpChunkDecoder_::takeData_(std::string_view* input, std::string_view* bytes) {
    if (input->empty())
        return Step::NeedMore;
    *bytes = input->substr(0, static_cast<std::size_t>(std::min<std::uint64_t>(chunkRemaining_, input->size())));
    input->remove_prefix(bytes->size());
    bodyBytes_ += bytes->size();
    chunkRemaining_ -= bytes->size();
    if (chunkRemaining_ == 0)
        state_ = State::DataEnd;
    return Step::Data;
}

ZnHttpChunkDecoder_::Step ZnHttpChunkDecoder_::takeDataEnd_(std::string_view* input) {
    if (input->size() < wire::kLineEnd.size())
        return Step::NeedMore;
    if (!input->starts_with(wire::kLineEnd))
        return fail_(Fault::MissingLineEnd);
    input->remove_prefix(wire::kLineEnd.size());
    state_ = State::Size;
    return Step::NeedMore;
}

/// Trailers are dropped: nobody asks for them, and a request must not change by what comes after its body.
ZnHttpChunkDecoder_::Step ZnHttpChunkDecoder_::takeTrailer_(std::string_view* input) {
    std::string_view line;
    while (lines_.take(input, &line)) {
        trailerBytes_ += line.size() + wire::kLineEnd.size();
        if (trailerBytes_ > rules_.maxTrailerBytes)
            return fail_(Fault::TrailersTooLarge);
        if (line.empty()) {
            state_ = State::End;
            return Step::End;
        }
        if (rules_.strictGrammar && !grammar::isFieldLine(line))
            return fail_(Fault::MalformedTrailer);
    }
    const bool fits = trailerBytes_ + ZnHttpLineReader_::unfinishedBytes(*input) <= rules_.maxTrailerBytes;
    return fits ? Step::NeedMore : fail_(Fault::TrailersTooLarge);
}

ZnHttpChunkDecoder_::Step ZnHttpChunkDecoder_::fail_(Fault fault) noexcept {
    fault_ = fault;
    return Step::Failed;
}
