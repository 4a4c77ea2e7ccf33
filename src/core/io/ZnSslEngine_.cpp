#include "core/io/ZnSslEngine_.h"

#include "core/io/ZnSslServerCertificates_.h"
#include "core/io/ZnSslServerContext.h"
#include "core/platform/ZnSocketError.h"
#include "core/platform/ZnSocketHandle.h"

#include <algorithm>
#include <cerrno>
#include <limits>

namespace {

constexpr std::uint64_t kMaxSocketHandle = 0x7fffffff; // SSL_set_fd takes an int

int intSize(std::size_t byteCount) {
    return static_cast<int>(std::min<std::size_t>(byteCount, std::numeric_limits<int>::max()));
}

} // namespace

ZnSslEngine_::~ZnSslEngine_() {
    if (ssl_ != nullptr && api_->SSL_free != nullptr)
        api_->SSL_free(ssl_);
}

bool ZnSslEngine_::initClient(const ZnString& host, std::uint64_t socketHandle, const ZnString& caFile,
                              std::shared_ptr<ZnSslSessions_> sessions) {
    if (!bind_())
        return false;
    if (api_->TLS_client_method == nullptr)
        return fail_("OpenSSL TLS_client_method missing");
    if (host.isEmpty())
        return fail_("TLS peer hostname is required");
    if (api_->SSL_CTX_set_verify == nullptr)
        return fail_("SSL_CTX_set_verify missing");
    if (api_->SSL_set1_host == nullptr)
        return fail_("SSL_set1_host missing");
    clientContext_ = ZnSslTrust_::clientContext(*api_, caFile, &lastError_);
    if (!clientContext_)
        return false;
    ssl_ = api_->SSL_new(clientContext_->get());
    if (ssl_ == nullptr)
        return fail_("SSL_new failed");
    if (!attachSocket_(socketHandle))
        return false;
    if (api_->SSL_set1_host(ssl_, host.data()) != 1)
        return fail_("SSL_set1_host failed");
    // An address is verified like a name, but the extension is for names alone.
    const bool isName = ZnSocketAddress::fromNumeric(host, 0).family() == ZnSocketAddress::Family::None;
    if (api_->SSL_ctrl != nullptr && isName)
        api_->SSL_ctrl(ssl_, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, const_cast<char*>(host.data()));
    if (api_->SSL_set_connect_state != nullptr)
        api_->SSL_set_connect_state(ssl_);
    sessions_ = std::move(sessions);
    if (sessions_)
        sessions_->attach(*api_, clientContext_, ssl_);
    return true;
}

bool ZnSslEngine_::initServer(std::shared_ptr<const ZnSslServerContext> serverContext, std::uint64_t socketHandle) {
    SSL_CTX* const context = serverContext ? serverContext->certificates_().defaultContext() : nullptr;
    if (context == nullptr)
        return fail_("Null server SSL_CTX");
    if (!bind_())
        return false;
    if (api_->SSL_set_accept_state == nullptr)
        return fail_("SSL_set_accept_state not available");
    ssl_ = api_->SSL_new(context);
    if (ssl_ == nullptr)
        return fail_("SSL_new (server) failed");
    serverContext_ = std::move(serverContext);
    if (!attachSocket_(socketHandle))
        return false;
    api_->SSL_set_accept_state(ssl_);
    return true;
}

bool ZnSslEngine_::bind_() {
    ZnString errorText;
    if (!ZnOpenSslApi_::instance().ensureLoaded(&errorText))
        return fail_(errorText.isEmpty() ? ZnString("OpenSSL libraries not found") : errorText);
    api_ = &ZnOpenSslApi_::instance();
    return true;
}

bool ZnSslEngine_::attachSocket_(std::uint64_t socketHandle) {
    if (socketHandle > kMaxSocketHandle)
        return fail_("Socket handle out of range for SSL_set_fd");
    if (api_->SSL_set_fd(ssl_, static_cast<int>(socketHandle)) != 1)
        return fail_("SSL_set_fd failed");
    countParts_();
    return true;
}

/// One SSL_read goes through everything that OpenSSL holds already, which may be hundreds of key updates: how often it
/// has been called tells nothing of the work.
void ZnSslEngine_::countParts_() {
    if (api_->SSL_callback_ctrl == nullptr || api_->SSL_ctrl == nullptr)
        return;
    api_->SSL_ctrl(ssl_, SSL_CTRL_SET_MSG_CALLBACK_ARG, 0, this);
    api_->SSL_callback_ctrl(ssl_, SSL_CTRL_SET_MSG_CALLBACK, reinterpret_cast<void (*)()>(&ZnSslEngine_::onPart_));
}

void ZnSslEngine_::onPart_(int isWritten, int, int contentType, const void*, std::size_t, SSL*, void* engine) {
    if (isWritten == 0 && (contentType == SSL3_RT_HEADER || contentType == SSL3_RT_HANDSHAKE))
        ++static_cast<ZnSslEngine_*>(engine)->receivedPartCount_;
}

bool ZnSslEngine_::fail_(const ZnString& errorText) {
    lastError_ = errorText;
    return false;
}

ZnSslEngine_::Outcome ZnSslEngine_::handshake() {
    begin_();
    const Outcome outcome = classify_(api_->SSL_do_handshake(ssl_));
    partCountAtData_ = receivedPartCount_;
    if (outcome == Outcome::Failure && sessions_)
        sessions_->clear(); // whatever it was: the next one begins anew
    return outcome;
}

ZnSslEngine_::Outcome ZnSslEngine_::read(char* buffer, std::size_t capacity, std::size_t* byteCount) {
    begin_();
    const int result = api_->SSL_read(ssl_, buffer, intSize(capacity));
    *byteCount = result > 0 ? static_cast<std::size_t>(result) : 0;
    const bool isFlood = receivedPartCount_ - partCountAtData_ > kMaxPartsWithoutData;
    if (result > 0)
        partCountAtData_ = receivedPartCount_;
    const Outcome outcome = result > 0 ? Outcome::None : classify_(result);
    if (!isFlood || outcome == Outcome::Failure)
        return outcome;
    *byteCount = 0;
    fail_("too many messages of the protocol without data");
    return Outcome::Failure;
}

ZnSslEngine_::Outcome ZnSslEngine_::write(const char* bytes, std::size_t size, std::size_t* byteCount) {
    begin_();
    const int result = api_->SSL_write(ssl_, bytes, intSize(size));
    *byteCount = result > 0 ? static_cast<std::size_t>(result) : 0;
    return result > 0 ? Outcome::None : classify_(result);
}

void ZnSslEngine_::acceptEndWithoutAlert(bool accept) {
#if defined(SSL_OP_IGNORE_UNEXPECTED_EOF)
    const auto change = accept ? api_->SSL_set_options : api_->SSL_clear_options;
    if (change != nullptr)
        change(ssl_, SSL_OP_IGNORE_UNEXPECTED_EOF);
#endif
}

void ZnSslEngine_::shutdown() {
    if (ssl_ == nullptr)
        return;
    begin_();
    api_->SSL_shutdown(ssl_);
    api_->clearErrors();
}

/// errno is cleared as well: it tells a socket that had nothing more from a stop of OpenSSL's own.
void ZnSslEngine_::begin_() const {
    api_->clearErrors();
    errno = 0;
}

ZnSslEngine_::Outcome ZnSslEngine_::classify_(int result) {
    const int errnoValue = errno;
    const int code = api_->SSL_get_error(ssl_, result);
    socketWasDrained_ = errnoValue == EAGAIN;
    switch (code) {
    case SSL_ERROR_NONE: return result > 0 ? Outcome::None : Outcome::Failure;
    case SSL_ERROR_WANT_READ: return Outcome::WantRead;
    case SSL_ERROR_WANT_WRITE: return Outcome::WantWrite;
    case SSL_ERROR_ZERO_RETURN:
        // Behind the peer's close alert OpenSSL gives this for every failure of the socket as well.
        if (errnoValue == 0 || errnoValue == EAGAIN)
            return Outcome::Closed;
        break;
    default: break;
    }
    lastError_ = "SSL error code " + ZnString::number(code) +
                 " sys=" + ZnString::number(errnoValue == 0 ? 0 : ZnSocketError::fromErrno(errnoValue));
    const ZnString detail = sslDetail_();
    if (!detail.isEmpty())
        lastError_ += " " + detail;
    api_->clearErrors();
    return Outcome::Failure;
}

ZnString ZnSslEngine_::sslDetail_() const {
    ZnString detail;
    const long verifyCode = api_->SSL_get_verify_result != nullptr ? api_->SSL_get_verify_result(ssl_) : X509_V_OK;
    if (verifyCode != X509_V_OK) {
        detail += "verify=" + ZnString::number(static_cast<long long>(verifyCode));
        const char* text =
            api_->X509_verify_cert_error_string != nullptr ? api_->X509_verify_cert_error_string(verifyCode) : nullptr;
        if (text != nullptr)
            detail += ZnString(" (") + text + ")";
    }
    const unsigned long code = api_->ERR_get_error != nullptr ? api_->ERR_get_error() : 0;
    if (code == 0)
        return detail;
    detail += (detail.isEmpty() ? "openssl=" : " openssl=") + ZnString::number(static_cast<unsigned long long>(code));
    char text[256] = {};
    if (api_->ERR_error_string_n != nullptr)
        api_->ERR_error_string_n(code, text, sizeof(text));
    if (text[0] != '\0')
        detail += ZnString(" (") + text + ")";
    return detail;
}
