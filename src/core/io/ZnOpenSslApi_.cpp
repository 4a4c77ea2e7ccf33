#include "core/io/ZnOpenSslApi_.h"

#include "core/platform/ZnSharedLibrary.h"

#include <cstdlib>

namespace {

constexpr const char* kSslNames[] = {"libssl.so.3", "libssl.so.1.1", "libssl.so"};
constexpr const char* kCryptoNames[] = {"libcrypto.so.3", "libcrypto.so.1.1", "libcrypto.so"};

/// Put in front of a name as it is: a directory must end in "/".
const ZnString& environmentPrefix() {
    static const ZnString prefix(std::getenv("ZN_SSL_PATH"));
    return prefix;
}

/// The first that loads; a newer name wins wherever its file lies.
template <std::size_t count>
void* loadFirst(const char* const (&names)[count]) {
    for (const char* name : names) {
        if (void* library = ZnSharedLibrary::load(name))
            return library;
        if (environmentPrefix().isEmpty())
            continue;
        if (void* library = ZnSharedLibrary::load(environmentPrefix() + name))
            return library;
    }
    return nullptr;
}

} // namespace

ZnOpenSslApi_& ZnOpenSslApi_::instance() {
    static ZnOpenSslApi_ api;
    return api;
}

bool ZnOpenSslApi_::ensureLoaded(ZnString* errorText) {
    if (loaded.load(std::memory_order_acquire))
        return true;
    ZnMutexLocker lock(loadLock_);
    if (loaded.load(std::memory_order_relaxed))
        return true;
    sslLibrary = loadFirst(kSslNames);
    cryptoLibrary = loadFirst(kCryptoNames);
    if (sslLibrary == nullptr || cryptoLibrary == nullptr) {
        *errorText = "Unable to load OpenSSL (searched PATH and fallbacks)";
        return false;
    }
    if (!bindSymbols_()) {
        *errorText = "Missing required OpenSSL symbols";
        return false;
    }
    if (OPENSSL_init_ssl != nullptr)
        OPENSSL_init_ssl(0, nullptr);
    loaded.store(true, std::memory_order_release);
    return true;
}

bool ZnOpenSslApi_::bindSymbols_() {
    // What libssl itself uses comes first: with another libcrypto in the process, the error queue would be a wrong one.
    const auto find = [this](void* library, const char* name) {
        void* symbol = ZnSharedLibrary::symbol(sslLibrary, name);
        return symbol != nullptr ? symbol : ZnSharedLibrary::symbol(library, name);
    };
    bool isComplete = true;
#define ZN_OPENSSL_BIND(name, library, isRequired)                                                                     \
    name = reinterpret_cast<decltype(name)>(find(library##Library, #name));                                            \
    isComplete = isComplete && (name != nullptr || !(isRequired));
    ZN_OPENSSL_SYMBOLS(ZN_OPENSSL_BIND)
#undef ZN_OPENSSL_BIND
    return isComplete;
}

void ZnOpenSslApi_::applyModes(SSL_CTX* context) const {
    if (SSL_CTX_ctrl == nullptr)
        return;
    // A write takes what fits, and is repeated from a buffer that may have moved. Idle connections keep no memory.
    constexpr long kModes =
        SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS;
    SSL_CTX_ctrl(context, SSL_CTRL_MODE, kModes, nullptr);
    // Else one SSL_read would go on for as long as a peer sends key updates, and so stop the loop.
    SSL_CTX_ctrl(context, SSL_CTRL_CLEAR_MODE, SSL_MODE_AUTO_RETRY, nullptr);
    // One system call brings a record's head and body, and the records behind it.
    SSL_CTX_ctrl(context, SSL_CTRL_SET_READ_AHEAD, 1, nullptr);
    SSL_CTX_ctrl(context, SSL_CTRL_SET_MIN_PROTO_VERSION, TLS1_2_VERSION, nullptr);
    // Clients that come again have a ticket; sessions of the others would only use up memory.
    SSL_CTX_ctrl(context, SSL_CTRL_SET_SESS_CACHE_MODE, SSL_SESS_CACHE_OFF, nullptr);
}
