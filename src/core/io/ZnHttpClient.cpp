#include "core/io/ZnHttpClient.h"

#include "core/io/ZnSslSocket.h"
#include "core/io/http1/ZnHttpClientRequest_.h"
#include "core/io/http1/ZnHttpKeepAlive_.h"
#include "core/io/http1/ZnHttpResponseReader_.h"
#include "core/io/http1/ZnHttpWireText_.h"
#include "core/object/ZnAlive.h"
#include "core/types/ZnLogger.h"

#include <utility>

namespace {

constexpr const char* kCategory = "zn.core.io.znhttpclient";
constexpr int kNotKept = 0;

} // namespace

ZnHttpClient::ZnHttpClient(ZnObject* parent)
    : ZnObject(parent),
      request_(std::make_unique<ZnHttpClientRequest_>()),
      reader_(std::make_unique<ZnHttpResponseReader_>()) {}

ZnHttpClient::~ZnHttpClient() {
    abort();
}

bool ZnHttpClient::setHeader(const ZnString& name, const ZnString& value) {
    ZnString trimmedName = name.trimmed();
    if (!zn::http::wire::isToken(trimmedName.view()) || !zn::http::wire::isSafeLineText(value.view()))
        return false;
    request_->headers.insert(std::move(trimmedName), value);
    return true;
}

void ZnHttpClient::setBodyObserver(BodyObserver observer) {
    observer_ = std::make_shared<const BodyObserver>(std::move(observer));
}

void ZnHttpClient::setConnectionPool(ZnHttpConnectionPool* pool, const ZnString& partition) {
    pool_ = pool;
    partition_ = partition;
}

// --- the request

bool ZnHttpClient::isUsableUrl(const ZnString& url) {
    ZnHttpUrl_ parsed;
    return ZnHttpUrl_::parse(url.view(), &parsed);
}

bool ZnHttpClient::request(int method, const ZnString& url, ZnByteArray body, const ZnString& contentType) {
    ZnHttpUrl_ parsed;
    if (!ZnHttpUrl_::parse(url.view(), &parsed)) {
        errorOccurred(kUrlNotAccepted);
        return false;
    }
    abort();
    failureDetail_.clear();
    request_->method = method;
    request_->url = std::move(parsed);
    request_->body = std::move(body);
    request_->contentType = contentType;
    request_->keepsConnection = pool_ && !request_->hasHeader("connection");
    reader_->begin({.isHeadRequest = method == Head,
                    .statusFraming = statusFraming_ || pool_,
                    .maxHeadBytes = kMaxHeadBytes,
                    .maxBodyBytes = maxResponseBytes_});
    if (!zn::http::wire::isSafeLineText(request_->contentType.view())) {
        ZN_LOG_ERROR(kCategory, "ZnHttpClient::request") << "[ZnHttpClient] invalid content type";
        fail_(kConnectNotBegun);
        return false;
    }
    return takeKept_() || open_();
}

/// Sends the request over a connection that was kept; may emit.
bool ZnHttpClient::takeKept_() {
    socket_ = request_->keepsConnection ? pool_->take(key_(), this) : nullptr;
    isKept_ = socket_ != nullptr;
    if (!isKept_)
        return false;
    watch_();
    send_();
    return true;
}

/// On a new connection.
bool ZnHttpClient::open_() {
    isKept_ = false;
    socket_ = request_->url.useTls ? createTlsSocket_() : new ZnTcpSocket(this);
    watch_();
    const ZnAlive alive(this, requestSerial_);
    const bool hasBegun = connectSocket_();
    if (!alive)
        return hasBegun; // aborted, or ended by a signal of its own
    if (!hasBegun)
        fail_(kConnectNotBegun);
    return hasBegun;
}

ZnTcpSocket* ZnHttpClient::createTlsSocket_() {
    auto* socket = new ZnSslSocket(this);
    socket->setPeerHostName(request_->url.host);
    if (!caFile_.isEmpty())
        socket->setCaFile(caFile_);
    if (request_->keepsConnection)
        socket->setSessions_(pool_->sessions(key_()));
    return socket;
}

void ZnHttpClient::watch_() {
    if (request_->url.useTls) {
        socket_->connect(&ZnSslSocket::sslErrors, this, [this](const ZnList<ZnString>& errors) {
            if (errors.isEmpty())
                return;
            failureDetail_ = errors.first();
            ZN_LOG_ERROR(kCategory, "ZnHttpClient::request") << "[ZnHttpClient] TLS error: " << errors.first();
        });
    }
    socket_->connect(&ZnAbstractSocket::errorOccurred, this, &ZnHttpClient::onSocketError_);
    socket_->connect(&ZnAbstractSocket::disconnected, this, &ZnHttpClient::onDisconnected_);
    socket_->connect(&ZnIODevice::readyRead, this, &ZnHttpClient::onReadyRead_);
    // With TLS it comes after the handshake.
    socket_->connect(&ZnAbstractSocket::connected, this, &ZnHttpClient::send_);
}

/// May park and emit.
bool ZnHttpClient::connectSocket_() {
    if (request_->url.useTls)
        return static_cast<ZnSslSocket*>(socket_)->connectToHostEncrypted(request_->url.host, request_->url.port);
    return socket_->connectToHost(request_->url.host, request_->url.port);
}

ZnHttpConnectionPool::Key ZnHttpClient::key_() const {
    return {request_->url.useTls, request_->url.host, request_->url.port, request_->url.useTls ? caFile_ : ZnString(),
            partition_};
}

/// May emit.
void ZnHttpClient::send_() {
    ZnString head = std::exchange(request_->isRepeated, false) ? ZnString() : request_->head();
    requestBytes_ = head.size() + request_->body.size();
    const ZnAlive alive(this, requestSerial_);
    const bool isAccepted = socket_->writeGathered(std::move(head), std::move(request_->body)); // may emit
    if (alive && !isAccepted)
        fail_(kWriteFailed);
}

// --- the response

void ZnHttpClient::onReadyRead_() {
    // One buffer serves all clients of the thread: nothing parks between the read and the last use of its bytes.
    static thread_local char buffer[16 * 1024];
    const ZnAlive alive(this, requestSerial_);
    while (alive) {
        const std::size_t gotBytes = socket_->readInto(buffer, sizeof(buffer)); // may emit
        if (gotBytes == 0 || !alive)
            return;
        takeBytes_({buffer, gotBytes});
    }
}

void ZnHttpClient::takeBytes_(std::string_view bytes) {
    using Outcome = ZnHttpResponseReader_::Outcome;
    const std::size_t seenBytes = reader_->response().body.size();
    const Outcome outcome = reader_->feed(bytes);
    const ZnAlive alive(this, requestSerial_);
    const bool isEnough = observeBody_(seenBytes);
    if (!alive)
        return;
    if (outcome == Outcome::Complete)
        finish_(keepMs_());
    else if (isEnough)
        finish_(kNotKept);
    else if (outcome == Outcome::InvalidChunkSize)
        fail_(kInvalidChunkSize);
    else if (outcome == Outcome::InvalidChunkEnd)
        fail_(kInvalidChunkEnd);
    else if (outcome == Outcome::TooLarge)
        fail_(kResponseTooLarge);
}

/// Shows the observer what the body has grown by, also before a failure. Returns whether that is enough.
bool ZnHttpClient::observeBody_(std::size_t seenBytes) const {
    const std::shared_ptr<const BodyObserver> observer = observer_; // it may delete the client
    const ZnHttpClientResponse_& response = reader_->response();
    return observer && response.body.size() > seenBytes &&
           (*observer)(response.headers, response.body.view().substr(seenBytes));
}

void ZnHttpClient::onDisconnected_() {
    if (reader_->endsWithConnection())
        finish_(kNotKept);
    else
        fail_(kClosedEarly);
}

void ZnHttpClient::onSocketError_(int code) {
    if (!isKept_ || !repeat_())
        fail_(code);
}

/// What has not left, nobody can have acted on: the request goes out again, as it was written, over a new connection.
/// When any of it has, only the caller can know whether it may be sent twice.
bool ZnHttpClient::repeat_() {
    ZnByteArray unsent = socket_->takeUnsent();
    if (unsent.size() != requestBytes_)
        return false;
    dropSocket_();
    request_->body = std::move(unsent);
    request_->isRepeated = true;
    open_();
    return true;
}

// --- the end

/// For how long the connection may be kept after a response that is whole.
int ZnHttpClient::keepMs_() const {
    // Who answers before the request was there may be in doubt about its end.
    if (!pool_ || !request_->keepsConnection || socket_->hasPendingWrites() || !reader_->endsBeyondDoubt())
        return kNotKept;
    return zn::http::keepAliveMs(reader_->response().rawHeaders.view(), request_->method == Head, pool_->maxIdleMs());
}

void ZnHttpClient::finish_(int keepMs) {
    const auto result = std::make_shared<ZnHttpClientResponse_>(reader_->takeResponse());
    if (keepMs > kNotKept)
        pool_->put(key_(), letGoOfSocket_(), keepMs);
    else
        dropSocket_();
    reader_->begin({});
    result_ = result;
    finished(result->body); // a slot may delete the client; the next slot still needs the body
}

void ZnHttpClient::fail_(int code) {
    dropSocket_();
    reader_->begin({});
    errorOccurred(code);
}

void ZnHttpClient::abort() {
    dropSocket_();
    reader_->begin({});
    request_->body.release();
    request_->isRepeated = false;
    result_.reset();
}

/// Closes the connection at once, which also ends a name look-up that is under way.
void ZnHttpClient::dropSocket_() {
    ZnTcpSocket* socket = letGoOfSocket_();
    if (socket == nullptr)
        return;
    socket->close();
    socket->deleteLater();
}

/// The request is over.
ZnTcpSocket* ZnHttpClient::letGoOfSocket_() {
    ++requestSerial_;
    if (socket_ != nullptr)
        socket_->disconnectAll();
    return std::exchange(socket_, nullptr);
}

const ZnHttpClientResponse_& ZnHttpClient::resultOrNone_() const noexcept {
    static const ZnHttpClientResponse_ kNone;
    return result_ ? *result_ : kNone;
}

int ZnHttpClient::statusCode() const noexcept {
    return resultOrNone_().statusCode;
}

const ZnString& ZnHttpClient::reasonPhrase() const noexcept {
    return resultOrNone_().reasonPhrase;
}

const ZnByteArray& ZnHttpClient::body() const noexcept {
    return resultOrNone_().body;
}

const ZnString& ZnHttpClient::rawHeaders() const noexcept {
    return resultOrNone_().rawHeaders;
}

const ZnMap<ZnString, ZnString>& ZnHttpClient::responseHeaders() const noexcept {
    return resultOrNone_().headers;
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
