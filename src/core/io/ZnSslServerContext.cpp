#include "core/io/ZnSslServerContext.h"

#include "core/io/ZnSslServerCertificates_.h"

std::shared_ptr<const ZnSslServerContext>
ZnSslServerContext::buildServerContext_(const ZnList<ZnSslLocalCredential>& credentials, ZnString* errorText) {
    auto certificates = ZnSslServerCertificates_::load(credentials, errorText);
    return certificates ? std::make_shared<const ZnSslServerContext>(std::move(certificates)) : nullptr;
}

ZnSslServerContext::ZnSslServerContext(std::unique_ptr<const ZnSslServerCertificates_> certificates) noexcept
    : loaded_(std::move(certificates)) {}

ZnSslServerContext::~ZnSslServerContext() = default;
