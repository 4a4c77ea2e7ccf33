#pragma once

#include "core/io/ZnSslLocalCredential.h"
#include "core/types/ZnList.h"
#include "core/types/ZnString.h"

#include <memory>

class ZnSslServerCertificates_;

/// The certificates of a TLS server, loaded.
///
/// Thread: any, once built: it is only read.
/// Owner: shared by the listener and the connections that began on it; a reload leaves it to the latter.
class ZnSslServerContext {
public:
    /// Loads every credential that has both paths. The last one marked isDefault is the default, or else the first.
    /// Null with the reason in `*errorText`.
    static std::shared_ptr<const ZnSslServerContext>
    buildServerContext_(const ZnList<ZnSslLocalCredential>& credentials, ZnString* errorText);

    explicit ZnSslServerContext(std::unique_ptr<const ZnSslServerCertificates_> certificates) noexcept;
    ~ZnSslServerContext();
    ZnSslServerContext(const ZnSslServerContext&) = delete;
    ZnSslServerContext& operator=(const ZnSslServerContext&) = delete;

    /// OpenSSL's side of it, for the connections.
    const ZnSslServerCertificates_& certificates_() const noexcept { return *loaded_; }

private:
    const std::unique_ptr<const ZnSslServerCertificates_> loaded_; // never null
};
