#include "core/io/ZnSslTrust_.h"

#include "core/fs/ZnPath.h"
#include "core/io/ZnSslSessions_.h"
#include "core/platform/ZnDirPlatform.h"
#include "core/platform/ZnSharedLibrary.h"
#include "core/types/ZnMutex.h"

#include <algorithm>
#include <cstdlib>

namespace {

/// Time stamps of files can be this coarse.
constexpr long long kStampResolutionNs = 2'000'000'000LL;

constexpr const char* kBundleFiles[] = {"certs/ca-bundle.pem", "certs/ca-bundle.crt", "certs/cacert.pem",
                                        "certs/cert.pem",      "ssl/cert.pem",        "ca-bundle.pem",
                                        "ca-bundle.crt",       "cacert.pem",          "cert.pem"};
constexpr const char* kBundleDirectories[] = {"certs", "ssl/certs"};

ZnString& fallbackCaFile() {
    static ZnString path;
    return path;
}

ZnString& fallbackCaDir() {
    static ZnString path;
    return path;
}

ZnString environment(const char* name) {
    return name == nullptr ? ZnString() : ZnString(std::getenv(name));
}

/// OpenSSL looks for certificates in a directory under such names: the hash of the subject, and a number.
bool isHashedName(std::string_view name) {
    const auto isHex = [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); };
    return name.size() >= 10 && name[8] == '.' && std::all_of(name.begin(), name.begin() + 8, isHex);
}

ZnString withSlashes(ZnString path) {
    path = withForwardSlashes(std::move(path));
    return path.isEmpty() || path.endsWith("/") ? path : path + "/";
}

/// `names` below the program's directory and below the current one, by name first.
std::vector<ZnString> candidatePaths(const char* const* begin, const char* const* end, const ZnString& programRoot,
                                     const ZnString& currentRoot) {
    std::vector<ZnString> paths;
    for (; begin != end; ++begin) {
        if (!programRoot.isEmpty())
            paths.push_back(programRoot + *begin);
        if (!currentRoot.isEmpty() && currentRoot != programRoot)
            paths.push_back(currentRoot + *begin);
    }
    return paths;
}

/// Where the sources of one discovery are to be looked for. Everything here is cheap to find out.
struct Places_ {
    ZnString defaultFile; // OpenSSL's own; empty when it does not tell
    ZnString defaultDir;
    ZnString environmentFile;
    ZnString environmentDir;
    std::vector<ZnString> bundleFiles;
    std::vector<ZnString> bundleDirectories;
    bool areComplete = false; // false: OpenSSL reads something that is not known here

    explicit Places_(const ZnOpenSslApi_& api)
        : environmentFile(environment("ZN_SSL_CA_FILE")), environmentDir(environment("ZN_SSL_CA_DIR")) {
        static const ZnString programRoot = withSlashes(programDirectory());
        const ZnString currentRoot = withSlashes(znDirPlatform()->currentPath());
        bundleFiles = candidatePaths(std::begin(kBundleFiles), std::end(kBundleFiles), programRoot, currentRoot);
        bundleDirectories =
            candidatePaths(std::begin(kBundleDirectories), std::end(kBundleDirectories), programRoot, currentRoot);
        areComplete = api.X509_get_default_cert_file != nullptr && api.X509_get_default_cert_dir != nullptr &&
                      api.X509_get_default_cert_file_env != nullptr && api.X509_get_default_cert_dir_env != nullptr;
        if (!areComplete)
            return;
        defaultFile = environment(api.X509_get_default_cert_file_env());
        if (defaultFile.isEmpty())
            defaultFile = api.X509_get_default_cert_file();
        defaultDir = environment(api.X509_get_default_cert_dir_env());
        if (defaultDir.isEmpty())
            defaultDir = api.X509_get_default_cert_dir();
    }

    std::vector<ZnString> settings() const {
        std::vector<ZnString> all = {defaultFile,     defaultDir,      fallbackCaFile(),
                                     fallbackCaDir(), environmentFile, environmentDir};
        all.insert(all.end(), bundleFiles.begin(), bundleFiles.end());
        return all;
    }
};

/// Gathers the trusted roots of one context from every source there is.
class Discovery_ {
public:
    Discovery_(const ZnOpenSslApi_& api, SSL_CTX* context, const Places_& places, ZnSslTrustSources_* sources)
        : api_(api), context_(context), places_(places), sources_(*sources) {}

    bool run(ZnString* errorText) {
        // Sources add up: finding one does not stop the search.
        const bool hasDefaults = loadDefaults_();
        const bool hasSystemStores = loadSystemStores_();
        const bool hasFallbacks = loadFallbacks_();
        if (hasDefaults || hasSystemStores || hasFallbacks)
            return true;
        *errorText = "No trusted CA certificates available";
        if (!details_.isEmpty())
            *errorText += " (" + details_ + ")";
        return false;
    }

private:
    bool loadDefaults_() {
        if (api_.SSL_CTX_set_default_verify_paths == nullptr)
            return note_("openssl-defaults", " unavailable");
        sources_.addPath(places_.defaultFile);
        for (const std::string_view rest = places_.defaultDir.view(); const ZnString& directory : splitList_(rest))
            sources_.addHashedDirectory(directory);
        const bool isReadable = ZnFileIdentity::of(places_.defaultFile).kind != ZnFileIdentity::Kind::Pipe;
        if (isReadable && api_.SSL_CTX_set_default_verify_paths(context_) == 1)
            return note_("openssl-defaults");
        api_.clearErrors();
        return note_("openssl-defaults", " failed");
    }

    /// This platform has no certificate stores beside OpenSSL's default paths.
    bool loadSystemStores_() { return note_("windows-system-store", " unavailable"); }

    bool loadFallbacks_() {
        bool hasAny = false;
        hasAny |= tryLocation_(fallbackCaFile(), {}, "fallback-ca-file");
        hasAny |= tryLocation_({}, fallbackCaDir(), "fallback-ca-dir");
        hasAny |= tryLocation_(places_.environmentFile, {}, "env ZN_SSL_CA_FILE");
        hasAny |= tryLocation_({}, places_.environmentDir, "env ZN_SSL_CA_DIR");
        for (const ZnString& path : places_.bundleFiles)
            hasAny |= tryLocation_(path, {}, "bundle:" + path);
        for (const ZnString& path : places_.bundleDirectories)
            hasAny |= tryLocation_({}, path, "bundle-dir:" + path);
        return hasAny;
    }

    bool tryLocation_(const ZnString& file, const ZnString& directory, const ZnString& label) {
        const ZnString& path = file.isEmpty() ? directory : file;
        if (path.isEmpty())
            return false;
        sources_.addPath(path);
        const ZnFileIdentity::Kind kind = ZnFileIdentity::of(path).kind;
        const bool isDirectory = kind == ZnFileIdentity::Kind::Directory;
        if (kind == ZnFileIdentity::Kind::Missing || isDirectory != file.isEmpty())
            return false;
        if (isDirectory)
            sources_.addHashedDirectory(path);
        if (api_.SSL_CTX_load_verify_locations == nullptr)
            return note_(label, " unavailable");
        const bool isReadable = kind != ZnFileIdentity::Kind::Pipe;
        if (isReadable && api_.SSL_CTX_load_verify_locations(context_, file.isEmpty() ? nullptr : file.data(),
                                                             directory.isEmpty() ? nullptr : directory.data()) == 1)
            return note_(label);
        api_.clearErrors();
        return note_(label, " failed");
    }

    static std::vector<ZnString> splitList_(std::string_view rest) {
        std::vector<ZnString> pieces;
        while (!rest.empty()) {
            const std::size_t end = std::min(rest.find(':'), rest.size());
            if (end > 0)
                pieces.emplace_back(rest.substr(0, end));
            rest.remove_prefix(std::min(end + 1, rest.size()));
        }
        return pieces;
    }

    /// Notes how a source went; a `failure` gives false.
    bool note_(const ZnString& label, const char* failure = nullptr) {
        if (!details_.isEmpty())
            details_ += "; ";
        details_ += label + failure;
        return failure == nullptr;
    }

    const ZnOpenSslApi_& api_;
    SSL_CTX* const context_;
    const Places_& places_;
    ZnSslTrustSources_& sources_;
    ZnString details_;
};

bool loadCaFile(const ZnOpenSslApi_& api, SSL_CTX* context, const ZnString& caFile, ZnSslTrustSources_* sources,
                ZnString* errorText) {
    sources->addPath(caFile);
    const ZnFileIdentity::Kind kind = ZnFileIdentity::of(caFile).kind;
    *errorText = "Failed to load CA file: " + caFile;
    if (kind == ZnFileIdentity::Kind::Missing || kind == ZnFileIdentity::Kind::Directory) {
        *errorText += " (file not found)";
        return false;
    }
    const bool isLoaded = kind != ZnFileIdentity::Kind::Pipe && api.SSL_CTX_load_verify_locations != nullptr &&
                          api.SSL_CTX_load_verify_locations(context, caFile.data(), nullptr) == 1;
    if (isLoaded)
        errorText->clear();
    api.clearErrors();
    return isLoaded;
}

using Context_ = std::shared_ptr<const ZnSslContextHandle_>;

/// Counts the certificates of a context. Its functions are those of the libcrypto that libssl itself uses.
class CertificateCounter_ {
public:
    explicit CertificateCounter_(const ZnOpenSslApi_& api) : storeOf_(api.SSL_CTX_get_cert_store) {
        bind_(api, "X509_STORE_lock", &lock_);
        bind_(api, "X509_STORE_unlock", &unlock_);
        bind_(api, "X509_STORE_get0_objects", &objectsOf_);
        bind_(api, "OPENSSL_sk_num", &sizeOf_);
    }

    /// -1 when OpenSSL does not tell.
    int count(SSL_CTX* context) const {
        if (!storeOf_ || !lock_ || !unlock_ || !objectsOf_ || !sizeOf_)
            return -1;
        X509_STORE* store = storeOf_(context);
        lock_(store); // a handshake on another thread may be about to add one
        const int certificateCount = sizeOf_(reinterpret_cast<const OPENSSL_STACK*>(objectsOf_(store)));
        unlock_(store);
        return certificateCount;
    }

private:
    template <typename Function>
    static void bind_(const ZnOpenSslApi_& api, const char* name, Function* function) {
        *function = reinterpret_cast<Function>(ZnSharedLibrary::symbol(api.sslLibrary, name));
    }

    decltype(&::SSL_CTX_get_cert_store) storeOf_;
    decltype(&::X509_STORE_lock) lock_ = nullptr;
    decltype(&::X509_STORE_unlock) unlock_ = nullptr;
    decltype(&::X509_STORE_get0_objects) objectsOf_ = nullptr;
    decltype(&::OPENSSL_sk_num) sizeOf_ = nullptr;
};

int certificateCount(const ZnOpenSslApi_& api, const Context_& context) {
    static const CertificateCounter_ counter(api);
    return counter.count(context->get());
}

struct Kept_ {
    ZnString caFile;
    Context_ context;
    ZnSslTrustSources_ sources;
    int builtCount; // of certificates; what is more has been read from a directory since

    bool isUpToDate(const ZnOpenSslApi_& api) const {
        const int count = certificateCount(api, context);
        return sources.areUnchanged(count < 0 || count != builtCount);
    }
};

ZnMutex keptLock; // leaf lock but for OpenSSL's own
bool keepsContexts ZN_GUARDED_BY(keptLock) = true;
/// Newest last. Never destroyed: OpenSSL tears itself down at the end of the process, before or after.
std::vector<Kept_>& kept() ZN_REQUIRES(keptLock) {
    static auto* const contexts = new std::vector<Kept_>;
    return *contexts;
}

Context_ findKept(const ZnOpenSslApi_& api, const ZnString& caFile, const ZnSslTrustSources_& wanted) {
    ZnMutexLocker lock(keptLock);
    std::vector<Kept_>& all = kept();
    const auto found = std::find_if(all.begin(), all.end(), [&](const Kept_& entry) {
        return entry.caFile == caFile && entry.sources.hasSameSettings(wanted);
    });
    if (found == all.end())
        return nullptr;
    if (found->isUpToDate(api))
        return found->context;
    all.erase(found);
    return nullptr;
}

void keep(const ZnOpenSslApi_& api, const ZnString& caFile, const Context_& context, ZnSslTrustSources_ sources) {
    if (!sources.areSettled())
        return;
    ZnMutexLocker lock(keptLock);
    if (!keepsContexts)
        return;
    std::vector<Kept_>& all = kept();
    std::erase_if(all, [&](const Kept_& entry) { return entry.caFile == caFile; });
    if (all.size() >= ZnSslTrust_::kMaxKeptContexts)
        all.erase(all.begin());
    all.push_back({caFile, context, std::move(sources), certificateCount(api, context)});
}

/// Null when OpenSSL has no memory left.
Context_ newContext(const ZnOpenSslApi_& api) {
    SSL_CTX* context = api.SSL_CTX_new(api.TLS_client_method());
    if (context == nullptr)
        return nullptr;
    api.SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    return std::make_shared<const ZnSslContextHandle_>(api, context);
}

} // namespace

void ZnSslTrustSources_::addPath(const ZnString& path) {
    if (!path.isEmpty())
        paths_.push_back({path, ZnFileIdentity::of(path)});
}

void ZnSslTrustSources_::addHashedDirectory(const ZnString& path) {
    addPath(path);
    const ZnString root = path.endsWith("/") ? path : path + "/";
    for (const ZnString& name : znDirPlatform()->entryList(path, ZnDirPlatform::kFiles)) {
        if (isHashedName(name.view()))
            hashedFiles_.push_back({root + name, ZnFileIdentity::of(root + name)});
    }
}

bool ZnSslTrustSources_::areUnchanged(bool withHashedFiles) const {
    return areUnchanged_(paths_) && (!withHashedFiles || areUnchanged_(hashedFiles_));
}

bool ZnSslTrustSources_::areUnchanged_(const std::vector<Path_>& paths) {
    return std::all_of(paths.begin(), paths.end(),
                       [](const Path_& entry) { return ZnFileIdentity::of(entry.path) == entry.identity; });
}

bool ZnSslTrustSources_::areSettled() const {
    const auto isSettled = [this](const Path_& entry) {
        return entry.identity.statusNs < builtNs_ - kStampResolutionNs;
    };
    return std::all_of(paths_.begin(), paths_.end(), isSettled) &&
           std::all_of(hashedFiles_.begin(), hashedFiles_.end(), isSettled);
}

std::shared_ptr<const ZnSslContextHandle_> ZnSslTrust_::clientContext(const ZnOpenSslApi_& api, const ZnString& caFile,
                                                                      ZnString* errorText) {
    const Places_ places(api);
    ZnSslTrustSources_ sources;
    if (caFile.isEmpty()) {
        for (const ZnString& setting : places.settings())
            sources.addSetting(setting);
    }
    if (Context_ keptContext = findKept(api, caFile, sources))
        return keptContext;
    Context_ context = newContext(api);
    if (!context) {
        *errorText = "SSL_CTX_new failed";
        return nullptr;
    }
    const bool hasTrust = caFile.isEmpty() ? Discovery_(api, context->get(), places, &sources).run(errorText)
                                           : loadCaFile(api, context->get(), caFile, &sources, errorText);
    if (!hasTrust)
        return nullptr;
    api.applyModes(context->get());
    ZnSslSessions_::prepare(api, context->get());
    if (places.areComplete || !caFile.isEmpty())
        keep(api, caFile, context, std::move(sources));
    return context;
}

void ZnSslTrust_::setFallbackCaFile(const ZnString& path) {
    fallbackCaFile() = path;
}

void ZnSslTrust_::setFallbackCaDir(const ZnString& path) {
    fallbackCaDir() = path;
}

void ZnSslTrust_::setKeepsContexts(bool keeps) {
    ZnMutexLocker lock(keptLock);
    keepsContexts = keeps;
    kept().clear();
}
