#pragma once

#include "core/io/ZnOpenSslApi_.h"
#include "core/platform/ZnFileIdentity.h"
#include "core/types/ZnString.h"

#include <memory>
#include <string>
#include <vector>

/// One SSL_CTX, freed with the last one that holds it.
class ZnSslContextHandle_ {
public:
    ZnSslContextHandle_(const ZnOpenSslApi_& api, SSL_CTX* context) noexcept : api_(api), context_(context) {}
    ~ZnSslContextHandle_() {
        if (context_ != nullptr && api_.SSL_CTX_free != nullptr)
            api_.SSL_CTX_free(context_);
    }
    ZnSslContextHandle_(const ZnSslContextHandle_&) = delete;
    ZnSslContextHandle_& operator=(const ZnSslContextHandle_&) = delete;

    SSL_CTX* get() const noexcept { return context_; }

private:
    const ZnOpenSslApi_& api_;
    SSL_CTX* const context_;
};

/// What the trusted roots of a context were read from: environment, files, directories.
class ZnSslTrustSources_ {
public:
    ZnSslTrustSources_() : builtNs_(ZnFileIdentity::stampNowNs()) {}

    /// Notes a value of the environment (or any other setting) on which the sources depend.
    void addSetting(const ZnString& value) { settings_.push_back(value); }
    /// Notes the present state of `path`. Call it before the path is read, so that a change in between shows.
    void addPath(const ZnString& path);
    /// As addPath, with the certificates that OpenSSL may take from the directory later on, one by one.
    void addHashedDirectory(const ZnString& path);

    /// Whether every path is as it was. Certificates in directories are looked at if asked for only: as long as OpenSSL
    /// has read none of them, it will find their present state by itself.
    bool areUnchanged(bool withHashedFiles) const;
    bool hasSameSettings(const ZnSslTrustSources_& other) const { return settings_ == other.settings_; }
    /// False while a source is so new that a further change could leave it with the same time stamp.
    bool areSettled() const;

private:
    struct Path_ {
        ZnString path;
        ZnFileIdentity identity;
    };

    static bool areUnchanged_(const std::vector<Path_>& paths);

    long long builtNs_;
    std::vector<ZnString> settings_;
    std::vector<Path_> paths_;
    std::vector<Path_> hashedFiles_;
};

/// Contexts of TLS clients: peer verification on, trusted roots in place.
///
/// Thread: any. A context is shared by the connections that trust the same sources, as long as these are unchanged:
/// reading the bundles takes tens of milliseconds. Only memory that has been used is kept, for at most
/// kMaxKeptContexts contexts.
namespace ZnSslTrust_ {
constexpr std::size_t kMaxKeptContexts = 64;

/// The context that trusts the certificates of `caFile` alone, or, without one, those of every source that can be
/// found. Null with the reason in `*errorText`.
std::shared_ptr<const ZnSslContextHandle_> clientContext(const ZnOpenSslApi_& api, const ZnString& caFile,
                                                         ZnString* errorText);
/// Two more sources for the whole process. Set before the first connection.
void setFallbackCaFile(const ZnString& path);
void setFallbackCaDir(const ZnString& path);
/// Whether contexts are kept (the default). For measurements.
void setKeepsContexts(bool keepsContexts);
} // namespace ZnSslTrust_
