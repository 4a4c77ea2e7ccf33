#include "core/io/http1/ZnHttpResponseReader_.h"

#include "core/io/http1/ZnHttpWireText_.h"
#include "core/types/ZnJsonDocument.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <limits>

namespace wire = zn::http::wire;

namespace {

constexpr const char* kCategory = "zn.core.io.znhttpclient";
constexpr std::string_view kHeadEnd = "\r\n\r\n";
/// A chunk that says it is larger is taken for a mistake, as is a size line that does not end.
constexpr std::uint64_t kMaxChunkBytes = std::uint64_t(1) << 40;
constexpr std::uint64_t kMaxChunkLineBytes = 8192;
constexpr std::size_t kLoggedTextBytes = 64; // of what a peer sent; escaped, so that it stays on its line

ZnHttpChunkDecoder_::Rules chunkRules() {
    ZnHttpChunkDecoder_::Rules rules;
    rules.allowsBlankBehindSize = true;
    rules.endsAtLastChunk = true;
    rules.maxLineBytes = kMaxChunkLineBytes;
    rules.maxChunkBytes = kMaxChunkBytes;
    return rules;
}

} // namespace

void ZnHttpResponseReader_::begin(const Rules& rules) {
    rules_ = rules;
    state_ = State_::Head;
    buffer_.release();
    scannedBytes_ = headBytes_ = 0;
    contentLength_ = -1;
    isChunked_ = false;
    chunks_.reset();
    response_ = ZnHttpClientResponse_();
}

ZnHttpResponseReader_::Outcome ZnHttpResponseReader_::feed(std::string_view bytes) {
    Outcome outcome;
    if (buffer_.isEmpty()) { // the usual case
        outcome = read_(&bytes);
        buffer_.append(bytes);
    } else {
        buffer_.append(bytes);
        std::string_view rest = buffer_.view();
        outcome = read_(&rest);
        buffer_.consumeFront(buffer_.size() - rest.size());
    }
    return isTooLarge_() ? Outcome::TooLarge : outcome;
}

bool ZnHttpResponseReader_::endsBeyondDoubt() const noexcept {
    if (headBytes_ != response_.rawHeaders.size())
        return false;
    if (state_ == State_::Chunks) // the end of the trailers, which are not waited for, has come along, or not
        return chunks_ && chunks_->state() == ZnHttpChunkDecoder_::State::End && chunks_->isExact() &&
               buffer_.view() == wire::kLineEnd;
    const bool isCounted = static_cast<std::int64_t>(response_.body.size()) == contentLength_;
    return buffer_.isEmpty() && (state_ == State_::Complete || (state_ == State_::Counted && isCounted));
}

ZnHttpResponseReader_::Outcome ZnHttpResponseReader_::read_(std::string_view* input) {
    while (state_ == State_::Head) {
        if (!takeHead_(input))
            return Outcome::NeedMore;
    }
    switch (state_) {
    case State_::Head: break;
    case State_::Counted: {
        takeBytes_(input, contentLength_ - static_cast<std::int64_t>(response_.body.size()));
        const bool isWhole = static_cast<std::int64_t>(response_.body.size()) == contentLength_;
        return isWhole ? Outcome::Complete : Outcome::NeedMore;
    }
    case State_::Chunks: return takeChunks_(input);
    case State_::ToClose: takeBytes_(input, std::numeric_limits<std::int64_t>::max()); break;
    case State_::Complete: return Outcome::Complete;
    }
    return Outcome::NeedMore;
}

/// False: it is not whole yet, or there were too many.
bool ZnHttpResponseReader_::takeHead_(std::string_view* input) {
    const std::size_t end = input->find(kHeadEnd, scannedBytes_);
    if (end == std::string_view::npos) {
        scannedBytes_ = input->size() - std::min(input->size(), kHeadEnd.size() - 1);
        return false;
    }
    scannedBytes_ = 0;
    response_.rawHeaders = ZnString(input->substr(0, end + kHeadEnd.size()));
    input->remove_prefix(response_.rawHeaders.size());
    headBytes_ += response_.rawHeaders.size();
    parseHead_();
    if (isInterim_()) {
        response_.headers.clear();
        return headBytes_ <= rules_.maxHeadBytes;
    }
    if (isWithoutBody_() || contentLength_ == 0)
        state_ = State_::Complete;
    else if (isChunked_)
        state_ = State_::Chunks;
    else
        state_ = contentLength_ < 0 ? State_::ToClose : State_::Counted;
    return true;
}

bool ZnHttpResponseReader_::isInterim_() const noexcept {
    constexpr int kSwitchingProtocols = 101; // is final: what follows is no HTTP
    const int status = response_.statusCode;
    return rules_.statusFraming && status >= 100 && status <= 199 && status != kSwitchingProtocols;
}

/// Whatever its headers say.
bool ZnHttpResponseReader_::isWithoutBody_() const noexcept {
    const int status = response_.statusCode;
    return rules_.isHeadRequest || (rules_.statusFraming && (status == 204 || status == 205 || status == 304));
}

void ZnHttpResponseReader_::parseHead_() {
    std::string_view rest = response_.rawHeaders.view();
    std::string_view line;
    while (line.empty() && !rest.empty())
        line = wire::cutPiece(&rest, wire::kLineEnd);
    parseStatusLine_(line);
    std::string_view name;
    std::string_view value;
    while (!rest.empty()) {
        if (wire::splitHeaderLine(wire::cutPiece(&rest, wire::kLineEnd), &name, &value))
            response_.headers.insert(wire::lowerText(name), ZnString(value));
    }
    bool isNumber = false;
    contentLength_ = response_.headers.value("content-length").toLongLong(&isNumber);
    isChunked_ = wire::containsLower(response_.headers.value("transfer-encoding").view(), "chunked");
    if (!isNumber || contentLength_ < 0 || isChunked_)
        contentLength_ = -1;
}

void ZnHttpResponseReader_::parseStatusLine_(std::string_view line) {
    wire::cutPiece(&line, " ");
    bool isNumber = false;
    const long long status = ZnString(wire::cutPiece(&line, " ")).toLongLong(&isNumber); // nothing of it is logged
    response_.statusCode = isNumber && status >= 0 && status <= 999 ? static_cast<int>(status) : 0;
    response_.reasonPhrase = ZnString(trimmedView(line));
}

void ZnHttpResponseReader_::takeBytes_(std::string_view* input, std::int64_t maxBytes) {
    const auto takenBytes = static_cast<std::size_t>(std::min(static_cast<std::int64_t>(input->size()), maxBytes));
    response_.body.append(input->substr(0, takenBytes));
    input->remove_prefix(takenBytes);
}

ZnHttpResponseReader_::Outcome ZnHttpResponseReader_::takeChunks_(std::string_view* input) {
    using Step = ZnHttpChunkDecoder_::Step;
    if (!chunks_)
        chunks_.emplace(chunkRules());
    std::string_view bytes;
    Step step;
    while ((step = chunks_->next(input, &bytes)) == Step::Data)
        response_.body.append(bytes);
    if (step != Step::Failed)
        return step == Step::End ? Outcome::Complete : Outcome::NeedMore;
    if (chunks_->fault() == ZnHttpChunkDecoder_::Fault::MissingLineEnd) {
        ZN_LOG_ERROR(kCategory, "ZnHttpClient::processChunked_") << "[ZnHttpClient] missing CRLF after chunk";
        return Outcome::InvalidChunkEnd;
    }
    const std::string_view text = trimmedView(wire::cutPiece(&bytes, ";"));
    ZN_LOG_ERROR(kCategory, "ZnHttpClient::processChunked_")
        << "[ZnHttpClient] invalid chunk size: " << escapeJsonString(text.substr(0, kLoggedTextBytes));
    return Outcome::InvalidChunkSize;
}

bool ZnHttpResponseReader_::isTooLarge_() const noexcept {
    if (headBytes_ + (state_ == State_::Head ? buffer_.size() : 0) > rules_.maxHeadBytes)
        return true;
    const std::int64_t announcedBytes = isWithoutBody_() ? 0 : contentLength_;
    const auto bodyBytes = static_cast<std::int64_t>(response_.body.size());
    return rules_.maxBodyBytes > 0 && std::max(bodyBytes, announcedBytes) > rules_.maxBodyBytes;
}
