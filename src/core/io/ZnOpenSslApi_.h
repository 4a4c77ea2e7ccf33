#pragma once

#include "core/types/ZnMutex.h"
#include "core/types/ZnString.h"

#include <atomic>
#include <openssl/err.h>
#include <openssl/ssl.h>

/// The functions of OpenSSL that the TLS classes use: symbol, library, and whether TLS is impossible without it.
#define ZN_OPENSSL_SYMBOLS(X)                                                                                          \
    X(OPENSSL_init_ssl, ssl, false)                                                                                    \
    X(TLS_client_method, ssl, true)                                                                                    \
    X(SSL_CTX_new, ssl, true)                                                                                          \
    X(SSL_CTX_free, ssl, false)                                                                                        \
    X(SSL_CTX_set_verify, ssl, false)                                                                                  \
    X(SSL_CTX_set_default_verify_paths, ssl, false)                                                                    \
    X(SSL_CTX_load_verify_locations, ssl, false)                                                                       \
    X(SSL_new, ssl, true)                                                                                              \
    X(SSL_free, ssl, false)                                                                                            \
    X(SSL_set_fd, ssl, true)                                                                                           \
    X(SSL_set1_host, ssl, false)                                                                                       \
    X(SSL_ctrl, ssl, false)                                                                                            \
    X(SSL_callback_ctrl, ssl, false)                                                                                   \
    X(SSL_CTX_callback_ctrl, ssl, false)                                                                               \
    X(SSL_set_options, ssl, false)                                                                                     \
    X(SSL_clear_options, ssl, false)                                                                                   \
    X(SSL_set_connect_state, ssl, false)                                                                               \
    X(SSL_set_accept_state, ssl, false)                                                                                \
    X(SSL_do_handshake, ssl, true)                                                                                     \
    X(SSL_get_error, ssl, true)                                                                                        \
    X(SSL_read, ssl, true)                                                                                             \
    X(SSL_write, ssl, true)                                                                                            \
    X(SSL_shutdown, ssl, true)                                                                                         \
    X(TLS_server_method, ssl, false)                                                                                   \
    X(SSL_CTX_use_certificate_file, ssl, false)                                                                        \
    X(SSL_CTX_use_certificate_chain_file, ssl, false)                                                                  \
    X(SSL_CTX_use_PrivateKey_file, ssl, false)                                                                         \
    X(SSL_CTX_check_private_key, ssl, false)                                                                           \
    X(SSL_CTX_ctrl, ssl, false)                                                                                        \
    X(SSL_get_verify_result, ssl, false)                                                                               \
    X(ERR_get_error, crypto, false)                                                                                    \
    X(ERR_clear_error, crypto, false)                                                                                  \
    X(ERR_error_string_n, crypto, false)                                                                               \
    X(X509_verify_cert_error_string, crypto, false)                                                                    \
    X(SSL_CTX_get_cert_store, ssl, false)                                                                              \
    X(d2i_X509, crypto, false)                                                                                         \
    X(X509_STORE_add_cert, crypto, false)                                                                              \
    X(X509_free, crypto, false)                                                                                        \
    X(SSL_get_servername, ssl, false)                                                                                  \
    X(SSL_set_SSL_CTX, ssl, false)                                                                                     \
    X(SSL_has_pending, ssl, false)                                                                                     \
    X(SSL_get_SSL_CTX, ssl, false)                                                                                     \
    X(SSL_set_ex_data, ssl, false)                                                                                     \
    X(SSL_get_ex_data, ssl, false)                                                                                     \
    X(SSL_set_session, ssl, false)                                                                                     \
    X(SSL_SESSION_free, ssl, false)                                                                                    \
    X(SSL_SESSION_get_protocol_version, ssl, false)                                                                    \
    X(SSL_CTX_sess_set_new_cb, ssl, false)                                                                             \
    X(SSL_CTX_set_default_passwd_cb, ssl, false)                                                                       \
    X(X509_get_default_cert_file, crypto, false)                                                                       \
    X(X509_get_default_cert_dir, crypto, false)                                                                        \
    X(X509_get_default_cert_file_env, crypto, false)                                                                   \
    X(X509_get_default_cert_dir_env, crypto, false)

/// OpenSSL, bound at run time, so that the program runs (without TLS) where it is missing.
///
/// Thread: any. Once `loaded` the table does not change any more.
/// A function that is not required may be null: whoever calls it tests for that.
struct ZnOpenSslApi_ {
    static ZnOpenSslApi_& instance();

    /// Loads the libraries if that has not been done. Returns false with the reason in `*errorText`; the next call
    /// tries again.
    bool ensureLoaded(ZnString* errorText);
    /// Empties OpenSSL's error queue, so that a failure leaves nothing behind for the next one to report.
    void clearErrors() const {
        if (ERR_clear_error != nullptr)
            ERR_clear_error();
    }

    /// What every context of this system has: see the definition. Nothing without the function for it.
    void applyModes(SSL_CTX* context) const;

    void* sslLibrary = nullptr;
    void* cryptoLibrary = nullptr;
    std::atomic<bool> loaded{false}; // set last: pairs with the acquire in ensureLoaded

#define ZN_OPENSSL_ENTRY(name, library, isRequired) decltype(&::name) name = nullptr;
    ZN_OPENSSL_SYMBOLS(ZN_OPENSSL_ENTRY)
#undef ZN_OPENSSL_ENTRY

private:
    bool bindSymbols_();

    ZnMutex loadLock_; // leaf lock but for the dynamic linker's own
};
