#include "core/io/http/ZnHttpParser_.h"

#include "core/io/http/ZnHttpMultipart.h"
#include "core/io/http1/ZnHttpGrammar_.h"
#include "core/io/http1/ZnHttpWireText_.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

namespace {

namespace grammar = zn::http::grammar;
namespace wire = zn::http::wire;

// A peer's word about the length of its body is worth this much memory; beyond it memory follows the bytes.
constexpr std::uint64_t kTrustedBodyBytes = 64 * 1024;

/// Takes the piece up to the next `separator` off the front of `*rest`. False when there is none left.
bool nextPiece(std::string_view* rest, char separator, std::string_view* piece) noexcept {
    if (rest->data() == nullptr)
        return false;
    const std::size_t end = rest->find(separator);
    *piece = rest->substr(0, end);
    *rest = end == std::string_view::npos ? std::string_view() : rest->substr(end + 1);
    return true;
}

/// Whether one of the pieces of `value` between commas is `token`, which is in lower case.
bool containsToken(std::string_view value, std::string_view token) noexcept {
    std::string_view piece;
    while (nextPiece(&value, ',', &piece)) {
        if (wire::equalsLower(trimmedView(piece), token))
            return true;
    }
    return false;
}

/// Replaces "%XX" by its byte, and with `plusIsBlank` "+" by a blank. False for a malformed sequence.
bool percentDecode(std::string_view text, bool plusIsBlank, std::string* out) {
    out->reserve(text.size() + 1); // a path may get a slash in front
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c != '%') {
            out->push_back(plusIsBlank && c == '+' ? ' ' : c);
            continue;
        }
        if (text.size() - i < 3)
            return false;
        const int high = wire::hexDigit(text[i + 1]);
        const int low = wire::hexDigit(text[i + 2]);
        if (high < 0 || low < 0)
            return false;
        out->push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    return true;
}

/// A slash in front, and every run of slashes as one.
void normalizePath(std::string* path) {
    if (path->empty() || path->front() != '/')
        path->insert(path->begin(), '/');
    path->erase(std::unique(path->begin(), path->end(), [](char a, char b) { return a == '/' && b == '/'; }),
                path->end());
}

void parseQuery(std::string_view query, ZnMap<ZnString, ZnString>* params) {
    std::string_view piece;
    while (nextPiece(&query, '&', &piece)) {
        if (piece.empty())
            continue;
        const std::size_t equals = piece.find('=');
        std::string key;
        std::string value;
        if (!percentDecode(piece.substr(0, equals), true, &key))
            continue;
        if (equals != std::string_view::npos && !percentDecode(piece.substr(equals + 1), true, &value))
            continue;
        params->insert(ZnString(std::move(key)), ZnString(std::move(value)));
    }
}

/// A second one would leave it open where the body ends, or whose request it is.
bool isAllowedOnce(std::string_view name) noexcept {
    return name == "content-length" || name == "transfer-encoding" || name == "host";
}

/// The origin form of a target: of "http://host/x" the "/x".
std::string_view withoutAuthority(std::string_view target) noexcept {
    constexpr std::size_t kLongestScheme = 8; // "https://"
    const std::string_view scheme = target.substr(0, kLongestScheme);
    if (!wire::equalsLower(scheme.substr(0, 7), "http://") && !wire::equalsLower(scheme, "https://"))
        return target;
    const std::size_t slash = target.find('/', target.find("://") + 3);
    return slash == std::string_view::npos ? std::string_view("/") : target.substr(slash);
}

ZnHttpParser_::State stateOf(ZnHttpChunkDecoder_::State state) noexcept {
    switch (state) {
    case ZnHttpChunkDecoder_::State::Size: return ZnHttpParser_::State::ChunkSize;
    case ZnHttpChunkDecoder_::State::Data: return ZnHttpParser_::State::ChunkData;
    case ZnHttpChunkDecoder_::State::DataEnd: return ZnHttpParser_::State::ChunkEnd;
    case ZnHttpChunkDecoder_::State::Trailers: return ZnHttpParser_::State::Trailers;
    case ZnHttpChunkDecoder_::State::End: break;
    }
    return ZnHttpParser_::State::Complete;
}

} // namespace

bool ZnHttpParser_::feed(std::string_view bytes, ZnList<RequestRef>& out) {
    if (state_ == State::Failed)
        return false;
    if (buffer_.isEmpty()) {
        bytes.remove_prefix(run_(bytes, out));
        if (!bytes.empty() && state_ != State::Failed)
            buffer_.append(bytes);
    } else {
        buffer_.append(bytes);
        buffer_.consumeFront(run_(buffer_.view(), out));
        if (buffer_.isEmpty())
            buffer_.release(); // an idle connection keeps no memory
    }
    if (state_ != State::Failed)
        return true;
    buffer_.release();
    current_.reset();
    return false;
}

std::size_t ZnHttpParser_::run_(std::string_view bytes, ZnList<RequestRef>& out) {
    std::string_view input = bytes;
    while (step_(&input, out)) {
    }
    return bytes.size() - input.size();
}

/// One step of the state machine. False: it needs more input, or has failed.
bool ZnHttpParser_::step_(std::string_view* input, ZnList<RequestRef>& out) {
    switch (state_) {
    case State::RequestLine: return onRequestLine_(input);
    case State::Headers: return onHeaderLine_(input);
    case State::FixedBody: return onFixedBody_(input);
    case State::ChunkSize:
    case State::ChunkData:
    case State::ChunkEnd:
    case State::Trailers: return onChunks_(input);
    case State::Complete: return commit_(out);
    case State::Failed: return false;
    }
    return false;
}

bool ZnHttpParser_::fail_(int status, ZnString text) {
    if (std::exchange(multipartActive_, false))
        multipart_->abort();
    state_ = State::Failed;
    errorStatus_ = status;
    errorText_ = std::move(text);
    return false;
}

bool ZnHttpParser_::onRequestLine_(std::string_view* input) {
    std::string_view line;
    if (!lines_.take(input, &line))
        return ZnHttpLineReader_::unfinishedBytes(*input) > limits_.maxRequestLineBytes
                   ? fail_(414, "Request line too long")
                   : false;
    if (line.empty())
        return true; // a CRLF in front of a request is harmless
    if (line.size() > limits_.maxRequestLineBytes)
        return fail_(414, "Request line too long");
    return parseRequestLine_(line);
}

bool ZnHttpParser_::parseRequestLine_(std::string_view line) {
    std::string_view pieces[3];
    for (std::string_view& piece : pieces) {
        if (!nextPiece(&line, ' ', &piece))
            return fail_(400, "Malformed request line");
        if (!limits_.strictGrammar)
            piece = trimmedView(piece);
    }
    if (pieces[0].empty() || pieces[1].empty() || pieces[2].empty())
        return fail_(400, "Malformed request line");
    if (limits_.strictGrammar && (line.data() != nullptr || !grammar::isMethod(pieces[0]) ||
                                  !grammar::isTarget(pieces[0], pieces[1]) || !grammar::isVersion(pieces[2])))
        return fail_(400, "Malformed request line");
    current_ = std::make_shared<ZnHttpRequest>();
    current_->method = wire::upperText(pieces[0]);
    current_->target = ZnString(pieces[1]);
    current_->httpVersion = wire::upperText(pieces[2]);
    if (!parseTarget_(pieces[1]))
        return fail_(400, "Malformed target");
    current_->keepAlive = current_->httpVersion == "HTTP/1.1";
    state_ = State::Headers;
    return true;
}

bool ZnHttpParser_::parseTarget_(std::string_view target) {
    const std::string_view origin = withoutAuthority(target);
    const std::size_t mark = origin.find('?');
    std::string path;
    if (!percentDecode(origin.substr(0, mark), false, &path))
        return false;
    normalizePath(&path);
    current_->path = ZnString(std::move(path));
    if (mark != std::string_view::npos) {
        current_->queryString = ZnString(origin.substr(mark + 1));
        parseQuery(current_->queryString.view(), &current_->queryParams);
    }
    return true;
}

bool ZnHttpParser_::onHeaderLine_(std::string_view* input) {
    std::string_view line;
    if (!lines_.take(input, &line)) {
        return headerBytes_ + ZnHttpLineReader_::unfinishedBytes(*input) > limits_.maxHeaderBytes
                   ? fail_(431, "Headers too large")
                   : false;
    }
    headerBytes_ += line.size() + 2;
    if (headerBytes_ > limits_.maxHeaderBytes)
        return fail_(431, "Headers too large");
    return line.empty() ? finishHeaders_() : parseHeaderLine_(line);
}

bool ZnHttpParser_::parseHeaderLine_(std::string_view line) {
    std::string_view nameText;
    std::string_view value;
    if (line.starts_with(':') || !wire::splitHeaderLine(line, &nameText, &value))
        return fail_(400, "Malformed header");
    if (++headerCount_ > limits_.maxHeaderCount)
        return fail_(431, "Too many headers");
    if (limits_.strictGrammar && !grammar::isFieldLine(line))
        return fail_(400, "Malformed header");
    ZnString name = wire::lowerText(nameText);
    if (limits_.strictGrammar && isAllowedOnce(name.view()) && current_->headers.contains(name))
        return fail_(400, "Repeated header");
    const std::size_t nameCount = current_->headers.size();
    current_->headers.insert(std::move(name), ZnString(value));
    if (current_->headers.size() == nameCount)
        current_->repeatedHeaders.append(wire::lowerText(nameText));
    return true;
}

/// What the strict grammar asks of the headers as a whole.
bool ZnHttpParser_::checkFraming_() {
    const auto& headers = current_->headers;
    const auto host = headers.find("host");
    const bool isOld = current_->httpVersion == "HTTP/1.0";
    if (host == headers.end() ? !isOld : !grammar::isHost(host->second.view()))
        return fail_(400, "Missing or malformed Host");
    const auto coding = headers.find("transfer-encoding");
    if (coding != headers.end() && (isOld || !wire::equalsLower(coding->second.view(), "chunked")))
        return fail_(400, "Unsupported transfer coding");
    return true;
}

bool ZnHttpParser_::finishHeaders_() {
    if (limits_.strictGrammar && !checkFraming_())
        return false;
    const auto& headers = current_->headers;
    const auto none = headers.end();
    if (const auto connection = headers.find("connection"); connection != none) {
        if (containsToken(connection->second.view(), "close"))
            current_->keepAlive = false;
        else if (containsToken(connection->second.view(), "keep-alive"))
            current_->keepAlive = true;
    }
    const auto coding = headers.find("transfer-encoding");
    const bool chunked = coding != none && wire::containsLower(coding->second.view(), "chunked");
    const auto length = headers.find("content-length");
    if (length != none && !parseContentLength_(length->second.view()))
        return fail_(400, "Invalid Content-Length");
    if (chunked && length != none)
        return fail_(400, "Conflicting body framing");
    const auto contentType = headers.find("content-type");
    const bool isStreamed =
        limits_.streamMultipart && contentType != none && zn::http::isMultipartForm(contentType->second.view());
    maxBodyBytes_ =
        isStreamed && limits_.maxStreamedBodyBytes > 0 ? limits_.maxStreamedBodyBytes : limits_.maxBodyBytes;
    if (bodyRemaining_ > maxBodyBytes_)
        return fail_(413, "Body too large");
    current_->chunked = chunked;
    if (chunked)
        chunks_.emplace(chunkRules_());
    state_ = chunked ? State::ChunkSize : bodyRemaining_ > 0 ? State::FixedBody : State::Complete;
    if (state_ == State::Complete)
        return true;
    isBodyRefused_ = headCheck_ && !headCheck_(*current_);
    if (isBodyRefused_)
        return fail_(403, "Refused");
    return !isStreamed || beginMultipart_(contentType->second.view());
}

bool ZnHttpParser_::expectsContinue() const {
    const bool isInFrontOfBody =
        (state_ == State::FixedBody || state_ == State::ChunkSize) && bodyBytes_ == 0 && buffer_.isEmpty();
    if (!isInFrontOfBody || current_->httpVersion != "HTTP/1.1")
        return false;
    const auto expect = current_->headers.find("expect");
    return expect != current_->headers.end() && containsToken(expect->second.view(), "100-continue");
}

bool ZnHttpParser_::beginMultipart_(std::string_view contentType) {
    ZnString boundary;
    ZnString errorText;
    if (!zn::http::parseBoundary(contentType, &boundary, &errorText))
        return fail_(400, std::move(errorText));
    if (!multipart_)
        multipart_ = std::make_unique<ZnHttpMultipartStream_>();
    if (!multipart_->begin(boundary, limits_, limits_.multipartTempDir, &errorText))
        return fail_(500, std::move(errorText));
    multipartActive_ = true;
    return true;
}

/// Digits only: a sign, a list or a number of another notation would leave it open where the body ends.
bool ZnHttpParser_::parseContentLength_(std::string_view text) {
    constexpr std::uint64_t kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    std::uint64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return false;
        const std::uint64_t digit = static_cast<std::uint64_t>(c - '0');
        if (value > (kMax - digit) / 10)
            return false;
        value = value * 10 + digit;
    }
    bodyRemaining_ = value;
    return !text.empty();
}

/// Adds to the body. False: its parts are malformed.
bool ZnHttpParser_::takeBody_(std::string_view bytes) {
    bodyBytes_ += bytes.size();
    ZnString errorText;
    if (!multipartActive_)
        current_->body.append(bytes);
    else if (!multipart_->feed(bytes, &errorText))
        return fail_(400, std::move(errorText));
    return true;
}

bool ZnHttpParser_::onFixedBody_(std::string_view* input) {
    if (input->empty())
        return false;
    if (!multipartActive_ && current_->body.isNull())
        current_->body.reserve(static_cast<std::size_t>(std::min(bodyRemaining_, kTrustedBodyBytes)));
    const std::string_view bytes =
        input->substr(0, static_cast<std::size_t>(std::min<std::uint64_t>(bodyRemaining_, input->size())));
    input->remove_prefix(bytes.size());
    bodyRemaining_ -= bytes.size();
    return takeBody_(bytes) && bodyRemaining_ == 0 && finishBody_();
}

bool ZnHttpParser_::finishBody_() {
    ZnString errorText;
    if (multipartActive_ && !multipart_->finish(*current_, &errorText))
        return fail_(400, std::move(errorText));
    multipartActive_ = false;
    state_ = State::Complete;
    return true;
}

ZnHttpChunkDecoder_::Rules ZnHttpParser_::chunkRules_() const {
    ZnHttpChunkDecoder_::Rules rules;
    rules.strictGrammar = limits_.strictGrammar;
    rules.maxLineBytes = limits_.maxRequestLineBytes;
    rules.maxChunkBytes = limits_.maxChunkBytes;
    rules.maxBodyBytes = maxBodyBytes_;
    rules.maxTrailerBytes = limits_.maxHeaderBytes - headerBytes_;
    return rules;
}

bool ZnHttpParser_::onChunks_(std::string_view* input) {
    using Step = ZnHttpChunkDecoder_::Step;
    Step step;
    do {
        std::string_view bytes;
        step = chunks_->next(input, &bytes);
        state_ = stateOf(chunks_->state());
        if (step == Step::Data && !takeBody_(bytes))
            return false;
    } while (step == Step::Data && !input->empty());
    if (step == Step::Failed)
        return failChunks_();
    return step == Step::End && finishBody_();
}

bool ZnHttpParser_::failChunks_() {
    using Fault = ZnHttpChunkDecoder_::Fault;
    switch (chunks_->fault()) {
    case Fault::None: break;
    case Fault::SizeLineTooLong: return fail_(400, "Chunk size line too long");
    case Fault::InvalidSize: return fail_(400, "Invalid chunk size");
    case Fault::ChunkTooLarge: return fail_(413, "Chunk too large");
    case Fault::BodyTooLarge: return fail_(413, "Body too large");
    case Fault::MissingLineEnd: return fail_(400, "Malformed chunk delimiter");
    case Fault::TrailersTooLarge: return fail_(431, "Trailers too large");
    case Fault::MalformedTrailer: return fail_(400, "Malformed trailer");
    }
    return false;
}

bool ZnHttpParser_::commit_(ZnList<RequestRef>& out) {
    out.append(std::move(current_));
    current_.reset();
    if (out.size() > limits_.maxPipelinedRequests)
        return fail_(400, "Too many pipelined requests");
    headerBytes_ = headerCount_ = bodyBytes_ = bodyRemaining_ = 0;
    chunks_.reset();
    state_ = State::RequestLine;
    return true;
}
