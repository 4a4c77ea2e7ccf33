#include "core/io/ZnSslServerCertificates_.h"

namespace {

/// Host names are compared without case and without a dot at the end.
ZnString normalizedHostName(std::string_view name) {
    while (!name.empty() && std::string_view(". \t\r\n").find(name.back()) != std::string_view::npos)
        name.remove_suffix(1);
    return ZnString(name).toLower();
}

/// For a key that is protected by a pass phrase: OpenSSL would ask for it on the terminal, and wait.
int noPassPhrase(char*, int, int, void*) {
    return 0;
}

} // namespace

std::unique_ptr<const ZnSslServerCertificates_>
ZnSslServerCertificates_::load(const ZnList<ZnSslLocalCredential>& credentials, ZnString* errorText) {
    if (credentials.isEmpty()) {
        *errorText = "No TLS certificate configured";
        return nullptr;
    }
    ZnOpenSslApi_& api = ZnOpenSslApi_::instance();
    if (!api.ensureLoaded(errorText))
        return nullptr;
    if (api.TLS_server_method == nullptr) {
        *errorText = "TLS_server_method not available";
        return nullptr;
    }
    auto certificates = std::make_unique<ZnSslServerCertificates_>(api);
    for (const ZnSslLocalCredential& credential : credentials) {
        const bool isUsable = !credential.certificatePath.isEmpty() && !credential.privateKeyPath.isEmpty();
        if (isUsable && !certificates->add_(credential, errorText))
            return nullptr;
    }
    if (certificates->defaultContext_ == nullptr) {
        *errorText = "No valid TLS certificate configured";
        return nullptr;
    }
    if (!certificates->installServerNames_(errorText))
        return nullptr;
    return certificates;
}

bool ZnSslServerCertificates_::add_(const ZnSslLocalCredential& credential, ZnString* errorText) {
    std::unique_ptr<ZnSslContextHandle_> context = loadServerCertificate_(credential, errorText);
    api_.clearErrors();
    if (!context)
        return false;
    const ZnString name = normalizedHostName(credential.hostName.view());
    if (!name.isEmpty())
        sniContexts_.insert(name, context->get());
    if (defaultContext_ == nullptr || credential.isDefault)
        defaultContext_ = context->get();
    contexts_.push_back(std::move(context));
    return true;
}

std::unique_ptr<ZnSslContextHandle_>
ZnSslServerCertificates_::loadServerCertificate_(const ZnSslLocalCredential& credential, ZnString* errorText) const {
    auto context = std::make_unique<ZnSslContextHandle_>(api_, api_.SSL_CTX_new(api_.TLS_server_method()));
    if (context->get() == nullptr) {
        *errorText = "SSL_CTX_new (server) failed";
        return nullptr;
    }
    if (api_.SSL_CTX_set_default_passwd_cb != nullptr)
        api_.SSL_CTX_set_default_passwd_cb(context->get(), noPassPhrase);
    if (!loadCertificate_(context->get(), credential.certificatePath)) {
        *errorText = "Failed to load certificate: " + credential.certificatePath;
        return nullptr;
    }
    if (api_.SSL_CTX_use_PrivateKey_file == nullptr ||
        api_.SSL_CTX_use_PrivateKey_file(context->get(), credential.privateKeyPath.data(), SSL_FILETYPE_PEM) != 1) {
        *errorText = "Failed to load private key: " + credential.privateKeyPath;
        return nullptr;
    }
    if (api_.SSL_CTX_check_private_key != nullptr && api_.SSL_CTX_check_private_key(context->get()) != 1) {
        *errorText = "Private key does not match certificate";
        return nullptr;
    }
    api_.applyModes(context->get());
    return context;
}

/// The file with its chain, or with a certificate alone.
bool ZnSslServerCertificates_::loadCertificate_(SSL_CTX* context, const ZnString& path) const {
    if (api_.SSL_CTX_use_certificate_chain_file != nullptr &&
        api_.SSL_CTX_use_certificate_chain_file(context, path.data()) == 1)
        return true;
    api_.clearErrors();
    return api_.SSL_CTX_use_certificate_file != nullptr &&
           api_.SSL_CTX_use_certificate_file(context, path.data(), SSL_FILETYPE_PEM) == 1;
}

bool ZnSslServerCertificates_::installServerNames_(ZnString* errorText) {
    if (sniContexts_.isEmpty())
        return true;
    if (api_.SSL_CTX_callback_ctrl == nullptr || api_.SSL_get_servername == nullptr ||
        api_.SSL_set_SSL_CTX == nullptr) {
        *errorText = "OpenSSL SNI symbols are not available";
        return false;
    }
    const auto callback = reinterpret_cast<void (*)()>(&ZnSslServerCertificates_::onServerName_);
    if (api_.SSL_CTX_callback_ctrl(defaultContext_, SSL_CTRL_SET_TLSEXT_SERVERNAME_CB, callback) != 1) {
        *errorText = "Unable to install TLS SNI callback";
        return false;
    }
    if (api_.SSL_CTX_ctrl == nullptr ||
        api_.SSL_CTX_ctrl(defaultContext_, SSL_CTRL_SET_TLSEXT_SERVERNAME_ARG, 0, this) != 1) {
        *errorText = "Unable to install TLS SNI callback context";
        return false;
    }
    return true;
}

int ZnSslServerCertificates_::onServerName_(SSL* ssl, int*, void* certificates) {
    const auto* self = static_cast<const ZnSslServerCertificates_*>(certificates);
    if (self == nullptr)
        return SSL_TLSEXT_ERR_OK;
    const char* asked = self->api_.SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
    if (asked == nullptr)
        return SSL_TLSEXT_ERR_OK;
    const auto found = self->sniContexts_.find(normalizedHostName(asked));
    if (found != self->sniContexts_.end())
        self->api_.SSL_set_SSL_CTX(ssl, found->second);
    return SSL_TLSEXT_ERR_OK;
}
