/* A libssl that only pretends, for failures that the real one does not show: functions that FAKE_SSL_FAILS names give
   0. Objects are real memory, so that a leak checker misses none. */
#include <stdlib.h>
#include <string.h>

static int works(const char* name) {
    const char* failing = getenv("FAKE_SSL_FAILS");
    return failing == NULL || strstr(failing, name) == NULL;
}

#define MAKER(name) void* name(void) { return works(#name) ? malloc(1) : NULL; }
#define DELETER(name) void name(void* object) { free(object); }
#define NUMBER(name) long name(void) { return works(#name); }

MAKER(SSL_CTX_new) MAKER(SSL_new) DELETER(SSL_CTX_free) DELETER(SSL_free)
NUMBER(OPENSSL_init_ssl) NUMBER(TLS_client_method) NUMBER(TLS_server_method) NUMBER(SSL_CTX_set_verify)
NUMBER(SSL_CTX_set_default_verify_paths) NUMBER(SSL_CTX_load_verify_locations) NUMBER(SSL_CTX_get_cert_store)
NUMBER(SSL_set_fd) NUMBER(SSL_set1_host) NUMBER(SSL_ctrl) NUMBER(SSL_CTX_ctrl) NUMBER(SSL_CTX_callback_ctrl)
NUMBER(SSL_set_connect_state) NUMBER(SSL_set_accept_state) NUMBER(SSL_do_handshake) NUMBER(SSL_get_error)
NUMBER(SSL_read) NUMBER(SSL_write) NUMBER(SSL_shutdown) NUMBER(SSL_get_verify_result)
NUMBER(SSL_CTX_use_certificate_file) NUMBER(SSL_CTX_use_certificate_chain_file) NUMBER(SSL_CTX_use_PrivateKey_file)
NUMBER(SSL_CTX_check_private_key) NUMBER(SSL_CTX_set_default_passwd_cb) NUMBER(SSL_get_servername)
NUMBER(SSL_set_SSL_CTX)
