#pragma once

#include "core/io/ZnSslLocalCredential.h"
#include "core/io/ZnSslTrust_.h"
#include "core/types/ZnList.h"
#include "core/types/ZnMap.h"

#include <memory>
#include <vector>

/// The certificates of a TLS server, one SSL_CTX each, chosen by the name that the client asks for.
///
/// Thread: any, once loaded: it is only read.
/// Owner: ZnSslServerContext, which the listener shares with the connections that began on it.
class ZnSslServerCertificates_ {
public:
    /// Loads every credential that has both paths. The last one marked isDefault is the default, or else the first.
    /// Null with the reason in `*errorText`.
    static std::unique_ptr<const ZnSslServerCertificates_> load(const ZnList<ZnSslLocalCredential>& credentials,
                                                                ZnString* errorText);

    explicit ZnSslServerCertificates_(const ZnOpenSslApi_& api) : api_(api) {}
    ZnSslServerCertificates_(const ZnSslServerCertificates_&) = delete;
    ZnSslServerCertificates_& operator=(const ZnSslServerCertificates_&) = delete;

    const ZnOpenSslApi_& api() const noexcept { return api_; }
    /// The context that a new connection starts on. Its callback uses this object: keep both for the connection.
    SSL_CTX* defaultContext() const noexcept { return defaultContext_; }

private:
    bool add_(const ZnSslLocalCredential& credential, ZnString* errorText);
    std::unique_ptr<ZnSslContextHandle_> loadServerCertificate_(const ZnSslLocalCredential& credential,
                                                                ZnString* errorText) const;
    bool loadCertificate_(SSL_CTX* context, const ZnString& path) const;
    bool installServerNames_(ZnString* errorText);
    static int onServerName_(SSL* ssl, int* alert, void* certificates);

    const ZnOpenSslApi_& api_;
    std::vector<std::unique_ptr<ZnSslContextHandle_>> contexts_;
    SSL_CTX* defaultContext_ = nullptr;     // one of contexts_
    ZnMap<ZnString, SSL_CTX*> sniContexts_; // by normalized host name; each one of contexts_
};
