#include "core/io/ZnHttpClient.h"

#include "core/io/ZnSslSocket.h"
#include "core/io/http1/ZnHttpClientRequest_.h"
#include "core/io/http1/ZnHttpResponseReader_.h"
#include "core/io/http1/ZnHttpWireText_.h"
#include "core/object/ZnAlive.h"
#include "core/types/ZnLogger.h"

#include <utility>

namespace {

constexpr const char* kCategory = "zn.core.io.znhttpclient";

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
    reader_->begin({.isHeadRequest = method == Head,
                    .statusFraming = statusFraming_,
                    .maxHeadBytes = kMaxHeadBytes,
                    .maxBodyBytes = maxResponseBytes_});
    socket_ = createSocket_();
    if (socket_ == nullptr) {
        fail_(kConnectNotBegun);
        return false;
    }
    const ZnAlive alive(this, requestSerial_);
    const bool hasBegun = connectSocket_();
    if (!alive)
        return hasBegun; // aborted, or ended by a signal of its own
    if (!hasBegun)
        fail_(kConnectNotBegun);
    return hasBegun;
}

/// Null, with the reason in the log, when there can be no connection.
ZnTcpSocket* ZnHttpClient::createSocket_() {
    if (!zn::http::wire::isSafeLineText(request_->contentType.view())) {
        ZN_LOG_ERROR(kCategory, "ZnHttpClient::request") << "[ZnHttpClient] invalid content type";
        return nullptr;
    }
    ZnTcpSocket* socket = request_->url.useTls ? createTlsSocket_() : new ZnTcpSocket(this);
    socket->connect(&ZnAbstractSocket::errorOccurred, this, &ZnHttpClient::onSocketError_);
    socket->connect(&ZnAbstractSocket::disconnected, this, &ZnHttpClient::onDisconnected_);
    socket->connect(&ZnIODevice::readyRead, this, &ZnHttpClient::onReadyRead_);
    // With TLS it comes after the handshake.
    socket->connect(&ZnAbstractSocket::connected, this, &ZnHttpClient::onConnected_);
    return socket;
}

ZnTcpSocket* ZnHttpClient::createTlsSocket_() {
    auto* socket = new ZnSslSocket(this);
    socket->setPeerHostName(request_->url.host);
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
    if (request_->url.useTls)
        return static_cast<ZnSslSocket*>(socket_)->connectToHostEncrypted(request_->url.host, request_->url.port);
    return socket_->connectToHost(request_->url.host, request_->url.port);
}

void ZnHttpClient::onConnected_() {
    ZnString head = request_->head();
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
    if (isEnough || outcome == Outcome::Complete)
        finish_();
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
        finish_();
    else
        fail_(kClosedEarly);
}

// --- the end

void ZnHttpClient::finish_() {
    const auto result = std::make_shared<ZnHttpClientResponse_>(reader_->takeResponse());
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
    result_.reset();
}

/// Closes the connection at once, which also ends a name look-up that is under way.
void ZnHttpClient::dropSocket_() {
    ++requestSerial_;
    ZnAbstractSocket* socket = std::exchange(socket_, nullptr);
    if (socket == nullptr)
        return;
    socket->disconnectAll();
    socket->close();
    socket->deleteLater();
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
