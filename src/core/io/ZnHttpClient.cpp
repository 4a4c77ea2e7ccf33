#include "core/io/ZnHttpClient.h"

#include "core/io/ZnSslSocket.h"
#include "core/types/ZnJsonDocument.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <charconv>
#include <limits>

namespace {

constexpr const char* kCategory = "zn.core.io.znhttpclient";
constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kHeadEnd = "\r\n\r\n";
/// A chunk that says it is larger is taken for a mistake, as is a size line that does not end.
constexpr std::int64_t kMaxChunkBytes = std::int64_t(1) << 40;
constexpr std::size_t kMaxChunkLineBytes = 8192;
constexpr std::size_t kLoggedTextBytes = 64; // of what a peer sent; escaped, so that it stays on its line

const char* methodText(int method) {
    static constexpr const char* kTexts[] = {"GET", "HEAD", "POST", "PUT", "PATCH", "DELETE", "OPTIONS"};
    return method >= ZnHttpClient::Get && method <= ZnHttpClient::Options ? kTexts[method] : kTexts[0];
}

bool isTokenChar(char c) {
    const bool isAlnum = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    return isAlnum || (c != '\0' && std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos);
}

bool isToken(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isTokenChar);
}

/// With CR or LF a text could end its line and begin another one, or another request.
bool isSafeLineText(std::string_view text) {
    return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

/// Blanks and control characters would end the request line early.
bool isSafeUrlText(std::string_view text) {
    return std::none_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte <= 0x20 || byte == 0x7F;
    });
}

bool startsWithIgnoreCase(const ZnString& text, std::string_view prefix) {
    return text.size() >= prefix.size() && ZnString(text.view().substr(0, prefix.size())).equalsIgnoreCase(prefix);
}

void appendHeader(ZnString* head, std::string_view name, std::string_view value) {
    head->append(name).append(": ").append(value).append(kLineEnd);
}

/// Cuts the first piece, up to `separator` or the end, off the front of `*rest`.
std::string_view cutPiece(std::string_view* rest, std::string_view separator) {
    const std::size_t end = rest->find(separator);
    const std::string_view piece = rest->substr(0, end);
    rest->remove_prefix(end == std::string_view::npos ? rest->size() : end + separator.size());
    return piece;
}

/// -1 when `text` is no hexadecimal number up to kMaxChunkBytes.
std::int64_t parseChunkSize(std::string_view text) {
    std::int64_t size = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), size, 16);
    const bool isNumber = error == std::errc() && end == text.data() + text.size() && text.front() != '-';
    return isNumber && size <= kMaxChunkBytes ? size : -1;
}

} // namespace

ZnHttpClient::ZnHttpClient(ZnObject* parent) : ZnObject(parent) {}

ZnHttpClient::~ZnHttpClient() {
    abort();
}

bool ZnHttpClient::setHeader(const ZnString& name, const ZnString& value) {
    ZnString trimmedName = name.trimmed();
    if (!isToken(trimmedName.view()) || !isSafeLineText(value.view()))
        return false;
    requestHeaders_.insert(std::move(trimmedName), value);
    return true;
}

void ZnHttpClient::setBodyObserver(BodyObserver observer) {
    observer_ = std::make_shared<const BodyObserver>(std::move(observer));
}

// --- the request

bool ZnHttpClient::parseUrl_(const ZnString& url, Target_* target) {
    const bool isHttp = startsWithIgnoreCase(url, "http://");
    if (!isHttp && !startsWithIgnoreCase(url, "https://"))
        return false;
    target->scheme = isHttp ? "http" : "https";
    target->port = isHttp ? 80 : 443;
    const std::string_view rest = url.view().substr(isHttp ? 7 : 8);
    const std::size_t pathAt = std::min(rest.find('/'), rest.size());
    target->path = pathAt == rest.size() ? ZnString("/") : ZnString(rest.substr(pathAt));
    return isSafeUrlText(rest) && parseAuthority_(rest.substr(0, pathAt), target);
}

/// A name or an address, the latter in brackets if it is one of IPv6, and perhaps a port.
bool ZnHttpClient::parseAuthority_(std::string_view authority, Target_* target) {
    if (authority.find('@') != std::string_view::npos)
        return false; // user information: a password, which would end up wherever URLs are shown
    const bool isBracketed = authority.starts_with('[');
    const std::size_t hostAt = isBracketed ? 1 : 0;
    const std::size_t hostEnd = std::min(authority.find(isBracketed ? ']' : ':'), authority.size());
    target->host = ZnString(authority.substr(hostAt, hostEnd - hostAt));
    const std::string_view portText = authority.substr(std::min(hostEnd + hostAt, authority.size()));
    if (isBracketed) {
        const bool isAddress = ZnSocketAddress::fromNumeric(target->host, 0).family() == ZnSocketAddress::Family::IPv6;
        if (!isAddress || hostEnd == authority.size() || (!portText.empty() && !portText.starts_with(':')))
            return false;
    }
    if (!portText.empty()) {
        bool isNumber = false;
        const long long port =
            ZnString(portText.substr(1)).toLongLong(&isNumber); // says nothing about a text that is none
        if (!isNumber || port < 1 || port > std::numeric_limits<std::uint16_t>::max())
            return false;
        target->port = static_cast<std::uint16_t>(port);
    }
    return !target->host.isEmpty();
}

bool ZnHttpClient::request(int method, const ZnString& url, ZnByteArray body, const ZnString& contentType) {
    Target_ target;
    if (!parseUrl_(url, &target)) {
        errorOccurred(kUrlNotAccepted);
        return false;
    }
    abort();
    failureDetail_.clear();
    method_ = method;
    target_ = std::move(target);
    requestBody_ = std::move(body);
    contentType_ = contentType;
    socket_ = createSocket_();
    if (socket_ == nullptr) {
        fail_(kConnectNotBegun);
        return false;
    }
    state_ = State_::Connecting;
    const ZnPointer<ZnHttpClient> self(this);
    const unsigned serial = requestSerial_;
    const bool hasBegun = connectSocket_();
    if (!self || serial != requestSerial_)
        return hasBegun; // aborted, or ended by a signal of its own
    if (!hasBegun)
        fail_(kConnectNotBegun);
    return hasBegun;
}

/// Null, with the reason in the log, when there can be no connection.
ZnTcpSocket* ZnHttpClient::createSocket_() {
    if (!isSafeLineText(contentType_.view())) {
        ZN_LOG_ERROR(kCategory, "ZnHttpClient::request") << "[ZnHttpClient] invalid content type";
        return nullptr;
    }
    ZnTcpSocket* socket = target_.useTls() ? createTlsSocket_() : new ZnTcpSocket(this);
    socket->connect(&ZnAbstractSocket::errorOccurred, this, &ZnHttpClient::onSocketError_);
    socket->connect(&ZnAbstractSocket::disconnected, this, &ZnHttpClient::onDisconnected_);
    socket->connect(&ZnIODevice::readyRead, this, &ZnHttpClient::onReadyRead_);
    // With TLS it comes behind the handshake.
    socket->connect(&ZnAbstractSocket::connected, this, &ZnHttpClient::onConnected_);
    return socket;
}

ZnTcpSocket* ZnHttpClient::createTlsSocket_() {
    auto* socket = new ZnSslSocket(this);
    socket->setPeerHostName(target_.host);
    if (!caFile_.isEmpty())
        socket->setCaFile(caFile_);
    socket->connect(&ZnSslSocket::sslErrors, this, [this](const ZnList<ZnString>& errors) {
        if (errors.isEmpty())
            return;
        failureDetail_ = errors.first();
        ZN_LOG_ERROR(kCategory, "ZnHttpClient::request") << "[ZnHttpClient] TLS error: " << errors.first();
    });
    return socket;
}

/// May park and emit.
bool ZnHttpClient::connectSocket_() {
    if (target_.useTls())
        return static_cast<ZnSslSocket*>(socket_)->connectToHostEncrypted(target_.host, target_.port);
    return socket_->connectToHost(target_.host, target_.port);
}

void ZnHttpClient::onConnected_() {
    state_ = State_::ReadingHead;
    ZnString head = buildRequest_();
    const ZnPointer<ZnHttpClient> self(this);
    const unsigned serial = requestSerial_;
    const bool isAccepted = socket_->writeGathered(std::move(head), std::move(requestBody_)); // may emit
    if (self && serial == requestSerial_ && !isAccepted)
        fail_(kWriteFailed);
}

/// Everything of the request but its body.
ZnString ZnHttpClient::buildRequest_() const {
    ZnString head(methodText(method_));
    head.append(" ").append(target_.path.view()).append(" HTTP/1.1\r\n");
    if (!hasHeader_("host")) {
        ZnString host = target_.host.contains(":") ? "[" + target_.host + "]" : target_.host;
        if (target_.port != (target_.useTls() ? 443 : 80))
            host.append(":").append(ZnString::number(target_.port).view());
        appendHeader(&head, "Host", host.view());
    }
    for (const auto& [name, value] : requestHeaders_)
        appendHeader(&head, name.view(), value.view());
    if (!hasHeader_("connection"))
        appendHeader(&head, "Connection", "close");
    if (!hasHeader_("accept"))
        appendHeader(&head, "Accept", "*/*");
    if (!hasHeader_("user-agent"))
        appendHeader(&head, "User-Agent", "ZnHttpClient/1.0");
    appendContentHeaders_(&head);
    head.append(kLineEnd);
    return head;
}

void ZnHttpClient::appendContentHeaders_(ZnString* head) const {
    const bool expectsBody = method_ == Post || method_ == Put || method_ == Patch;
    if (!expectsBody && requestBody_.isEmpty())
        return;
    if (!hasHeader_("content-type"))
        appendHeader(head, "Content-Type", contentType_.isEmpty() ? "application/octet-stream" : contentType_.view());
    if (!hasHeader_("content-length"))
        appendHeader(head, "Content-Length",
                     ZnString::number(static_cast<unsigned long long>(requestBody_.size())).view());
}

bool ZnHttpClient::hasHeader_(std::string_view name) const {
    return std::any_of(requestHeaders_.begin(), requestHeaders_.end(),
                       [name](const auto& header) { return header.first.equalsIgnoreCase(name); });
}

// --- the response

void ZnHttpClient::onReadyRead_() {
    // One buffer serves all clients of the thread: nothing parks between the read and the last use of its bytes.
    static thread_local char buffer[16 * 1024];
    const ZnPointer<ZnHttpClient> self(this);
    const unsigned serial = requestSerial_;
    while (self && serial == requestSerial_) {
        const std::size_t gotBytes = socket_->readInto(buffer, sizeof(buffer)); // may emit
        if (gotBytes == 0 || !self || serial != requestSerial_)
            return;
        takeBytes_({buffer, gotBytes});
    }
}

void ZnHttpClient::takeBytes_(std::string_view bytes) {
    Progress_ progress;
    const std::size_t seenBytes = bodyBuffer_.size();
    if (rxBuffer_.isEmpty()) { // the usual case: a body goes straight to its place
        progress = processBuffer_(&bytes);
        rxBuffer_.append(bytes);
    } else {
        rxBuffer_.append(bytes);
        std::string_view rest = rxBuffer_.view();
        progress = processBuffer_(&rest);
        rxBuffer_.consumeFront(rxBuffer_.size() - rest.size());
    }
    if (isTooLarge_(progress))
        progress = Progress_::TooLarge;
    if (observer_ && !observeBody_(seenBytes, &progress))
        return;
    if (progress == Progress_::Finished)
        finish_();
    else if (progress == Progress_::InvalidChunkSize)
        fail_(kInvalidChunkSize);
    else if (progress == Progress_::InvalidChunkEnd)
        fail_(kInvalidChunkEnd);
    else if (progress == Progress_::TooLarge)
        fail_(kResponseTooLarge);
}

bool ZnHttpClient::isTooLarge_(Progress_ progress) const noexcept {
    const bool isHead = state_ == State_::ReadingHead && progress != Progress_::Finished;
    if (headBytes_ + (isHead ? rxBuffer_.size() : rawHead_.size()) > kMaxHeadBytes)
        return true;
    const std::int64_t announcedBytes = isWithoutBody_() ? 0 : contentLength_;
    const auto bodyBytes = static_cast<std::int64_t>(bodyBuffer_.size());
    return maxResponseBytes_ > 0 && std::max(bodyBytes, announcedBytes) > maxResponseBytes_;
}

/// Whatever its headers say.
bool ZnHttpClient::isWithoutBody_() const noexcept {
    const bool isEmptyStatus = rxStatus_ == 204 || rxStatus_ == 205 || rxStatus_ == 304;
    return method_ == Head || (statusFraming_ && isEmptyStatus);
}

/// Shows the observer what the body has grown by, also in front of a failure. False when the request is over.
bool ZnHttpClient::observeBody_(std::size_t seenBytes, Progress_* progress) {
    const std::string_view bytes = bodyBuffer_.view().substr(seenBytes);
    if (bytes.empty())
        return true;
    const std::shared_ptr<const BodyObserver> observer = observer_; // it may delete the client
    const ZnPointer<ZnHttpClient> self(this);
    const unsigned serial = requestSerial_;
    const bool isEnough = (*observer)(rxHeaders_, bytes);
    if (!self || serial != requestSerial_)
        return false;
    if (isEnough)
        *progress = Progress_::Finished;
    return true;
}

/// Takes as many steps as the input allows. Emits nothing.
ZnHttpClient::Progress_ ZnHttpClient::processBuffer_(std::string_view* input) {
    Progress_ progress = Progress_::GoOn;
    while (progress == Progress_::GoOn)
        progress = step_(input);
    return progress;
}

ZnHttpClient::Progress_ ZnHttpClient::step_(std::string_view* input) {
    switch (state_) {
    case State_::ReadingHead: return takeHead_(input);
    case State_::ReadingCounted: return takeCounted_(input);
    case State_::ReadingChunkSize: return takeChunkSize_(input);
    case State_::ReadingChunkData: return takeChunkData_(input);
    case State_::ReadingChunkEnd: return takeChunkEnd_(input);
    case State_::ReadingToClose: takeBody_(input, std::numeric_limits<std::int64_t>::max()); return Progress_::NeedMore;
    case State_::Idle:
    case State_::Connecting: break;
    }
    return Progress_::NeedMore;
}

ZnHttpClient::Progress_ ZnHttpClient::takeHead_(std::string_view* input) {
    std::size_t end = 0;
    if (!findEnd_(*input, kHeadEnd, &end))
        return Progress_::NeedMore;
    rawHead_ = ZnString(input->substr(0, end + kHeadEnd.size()));
    input->remove_prefix(rawHead_.size());
    parseHead_();
    constexpr int kSwitchingProtocols = 101; // is final: what follows is no HTTP
    if (statusFraming_ && rxStatus_ >= 100 && rxStatus_ <= 199 && rxStatus_ != kSwitchingProtocols) {
        headBytes_ += rawHead_.size();
        rxHeaders_.clear();
        return headBytes_ > kMaxHeadBytes ? Progress_::NeedMore : Progress_::GoOn; // too many: seen behind this step
    }
    if (isWithoutBody_() || contentLength_ == 0)
        return Progress_::Finished;
    state_ = chunked_ ? State_::ReadingChunkSize : contentLength_ < 0 ? State_::ReadingToClose : State_::ReadingCounted;
    return Progress_::GoOn;
}

ZnHttpClient::Progress_ ZnHttpClient::takeCounted_(std::string_view* input) {
    takeBody_(input, contentLength_ - bytesReceived_);
    return bytesReceived_ == contentLength_ ? Progress_::Finished : Progress_::NeedMore;
}

ZnHttpClient::Progress_ ZnHttpClient::takeChunkSize_(std::string_view* input) {
    std::size_t end = 0;
    const bool isWhole = findEnd_(*input, kLineEnd, &end);
    if (!isWhole && input->size() <= kMaxChunkLineBytes)
        return Progress_::NeedMore;
    std::string_view line = input->substr(0, isWhole ? end : kMaxChunkLineBytes);
    const std::string_view text = trimmedView(cutPiece(&line, ";"));
    chunkRemaining_ = isWhole ? parseChunkSize(text) : -1;
    if (chunkRemaining_ < 0) {
        ZN_LOG_ERROR(kCategory, "ZnHttpClient::processChunked_")
            << "[ZnHttpClient] invalid chunk size: " << escapeJsonString(text.substr(0, kLoggedTextBytes));
        return Progress_::InvalidChunkSize;
    }
    input->remove_prefix(end + kLineEnd.size());
    if (chunkRemaining_ == 0)
        return Progress_::Finished; // neither the trailer section nor the final line end is waited for
    state_ = State_::ReadingChunkData;
    return Progress_::GoOn;
}

ZnHttpClient::Progress_ ZnHttpClient::takeChunkData_(std::string_view* input) {
    const std::int64_t before = bytesReceived_;
    takeBody_(input, chunkRemaining_);
    chunkRemaining_ -= bytesReceived_ - before;
    if (chunkRemaining_ > 0)
        return Progress_::NeedMore;
    state_ = State_::ReadingChunkEnd;
    return Progress_::GoOn;
}

ZnHttpClient::Progress_ ZnHttpClient::takeChunkEnd_(std::string_view* input) {
    if (input->size() < kLineEnd.size())
        return Progress_::NeedMore;
    if (!input->starts_with(kLineEnd)) {
        ZN_LOG_ERROR(kCategory, "ZnHttpClient::processChunked_") << "[ZnHttpClient] missing CRLF after chunk";
        return Progress_::InvalidChunkEnd;
    }
    input->remove_prefix(kLineEnd.size());
    state_ = State_::ReadingChunkSize;
    return Progress_::GoOn;
}

void ZnHttpClient::takeBody_(std::string_view* input, std::int64_t maxBytes) {
    const auto takenBytes = std::min(static_cast<std::int64_t>(input->size()), maxBytes);
    bodyBuffer_.append(input->substr(0, static_cast<std::size_t>(takenBytes)));
    input->remove_prefix(static_cast<std::size_t>(takenBytes));
    bytesReceived_ += takenBytes;
}

/// Finds `mark` without looking twice at bytes that came earlier.
bool ZnHttpClient::findEnd_(std::string_view input, std::string_view mark, std::size_t* position) {
    *position = input.find(mark, scannedBytes_);
    const bool isFound = *position != std::string_view::npos;
    scannedBytes_ = isFound ? 0 : input.size() - std::min(input.size(), mark.size() - 1);
    return isFound;
}

void ZnHttpClient::parseHead_() {
    std::string_view rest = rawHead_.view();
    std::string_view line;
    while (line.empty() && !rest.empty())
        line = cutPiece(&rest, kLineEnd);
    parseStatusLine_(line);
    while (!rest.empty())
        parseHeaderLine_(cutPiece(&rest, kLineEnd));
    bool isNumber = false;
    contentLength_ = rxHeaders_.value("content-length").toLongLong(&isNumber);
    chunked_ = rxHeaders_.value("transfer-encoding").toLower().contains("chunked");
    if (!isNumber || contentLength_ < 0 || chunked_)
        contentLength_ = -1;
}

void ZnHttpClient::parseStatusLine_(std::string_view line) {
    cutPiece(&line, " ");
    bool isNumber = false;
    const long long status = ZnString(cutPiece(&line, " ")).toLongLong(&isNumber); // nothing of it goes to the log
    rxStatus_ = isNumber && status >= 0 && status <= 999 ? static_cast<int>(status) : 0;
    rxReason_ = ZnString(trimmedView(line));
}

void ZnHttpClient::parseHeaderLine_(std::string_view line) {
    if (line.find(':') == std::string_view::npos)
        return;
    const ZnString name = ZnString(trimmedView(cutPiece(&line, ":"))).toLower();
    rxHeaders_.insert(name, ZnString(trimmedView(line)));
}

void ZnHttpClient::onDisconnected_() {
    if (state_ == State_::ReadingToClose)
        finish_();
    else
        fail_(kClosedEarly);
}

// --- the end

void ZnHttpClient::finish_() {
    const auto result = std::make_shared<Result_>();
    result->statusCode = rxStatus_;
    result->reasonPhrase = std::move(rxReason_);
    result->body = std::move(bodyBuffer_);
    result->rawHeaders = std::move(rawHead_);
    result->responseHeaders = std::move(rxHeaders_);
    dropSocket_();
    resetResponse_();
    result_ = result;
    finished(result->body); // a slot may delete the client; the next slot still needs the body
}

void ZnHttpClient::fail_(int code) {
    dropSocket_();
    resetResponse_();
    errorOccurred(code);
}

void ZnHttpClient::abort() {
    dropSocket_();
    resetResponse_();
    requestBody_.release();
    result_.reset();
}

/// Closes the connection at once, which also ends a name look-up that is under way.
void ZnHttpClient::dropSocket_() {
    ++requestSerial_;
    state_ = State_::Idle;
    ZnAbstractSocket* socket = std::exchange(socket_, nullptr);
    if (socket == nullptr)
        return;
    socket->disconnectAll();
    socket->close();
    socket->deleteLater();
}

void ZnHttpClient::resetResponse_() {
    rxBuffer_.release();
    headBytes_ = 0;
    scannedBytes_ = 0;
    bodyBuffer_.release();
    bytesReceived_ = 0;
    rawHead_.clear();
    rxHeaders_.clear();
    rxStatus_ = 0;
    rxReason_.clear();
    contentLength_ = -1;
    chunked_ = false;
    chunkRemaining_ = 0;
}

const ZnHttpClient::Result_& ZnHttpClient::resultOrNone_() const noexcept {
    static const Result_ kNone;
    return result_ ? *result_ : kNone;
}

ZnByteArray ZnHttpClient::takeBody() {
    return result_ ? std::move(result_->body) : ZnByteArray();
}

void ZnHttpClient::finished(const ZnByteArray& body) {
    emitSignal(&ZnHttpClient::finished, body);
}

void ZnHttpClient::errorOccurred(int code) {
    emitSignal(&ZnHttpClient::errorOccurred, code);
}
