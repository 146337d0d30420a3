// The TLS seam over OpenSSL. The only unit that sees OpenSSL's types: a
// tls_context is an SSL_CTX, a tls_session an SSL.
#include "tls.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <arpa/inet.h>
#include <sys/socket.h>

#include <climits>
#include <cstdint>
#include <cstring>

#ifdef lua_h
#error "the TLS layer must stay free of the interpreter"
#endif

namespace {

SSL_CTX* ctx_of(tls_context* context) { return reinterpret_cast<SSL_CTX*>(context); }
SSL* ssl_of(tls_session* session) { return reinterpret_cast<SSL*>(session); }
const SSL* ssl_of(const tls_session* session) { return reinterpret_cast<const SSL*>(session); }

int clamp(std::size_t size) { return size > INT_MAX ? INT_MAX : static_cast<int>(size); }

char last_error[256] = "";

// Keeps the text of the failure just seen and empties the queue, which
// nothing else reads: it must not pile up.
void note_failure() {
    const unsigned long code = ERR_peek_last_error();
    if (code != 0)
        ERR_error_string_n(code, last_error, sizeof last_error);
    else
        last_error[0] = '\0';
    ERR_clear_error();
}

// ---- socket layer without SIGPIPE ----
// Writes go through send(MSG_NOSIGNAL) so that a reset peer yields EPIPE on
// the write instead of a signal that would kill the host process.

int bio_descriptor(BIO* bio) { return static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(bio))); }

int nosignal_write(BIO* bio, const char* data, int length) {
    const ssize_t written = send(bio_descriptor(bio), data, static_cast<std::size_t>(length), MSG_NOSIGNAL);
    BIO_clear_retry_flags(bio);
    if (written < 0 && BIO_sock_should_retry(-1))
        BIO_set_retry_write(bio);
    return static_cast<int>(written);
}

int socket_read(BIO* bio, char* out, int length) {
    const ssize_t got = recv(bio_descriptor(bio), out, static_cast<std::size_t>(length), 0);
    BIO_clear_retry_flags(bio);
    if (got == 0)
        BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
    else if (got < 0 && BIO_sock_should_retry(-1))
        BIO_set_retry_read(bio);
    return static_cast<int>(got);
}

int socket_puts(BIO* bio, const char* text) { return nosignal_write(bio, text, static_cast<int>(std::strlen(text))); }

long socket_ctrl(BIO* bio, int command, long, void* out) {
    switch (command) {
    case BIO_C_GET_FD:
        if (out != nullptr)
            *static_cast<int*>(out) = bio_descriptor(bio);
        return bio_descriptor(bio);
    case BIO_CTRL_FLUSH:
        return 1;
    case BIO_CTRL_EOF:
        return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0 ? 1 : 0;
    default:
        return 0;
    }
}

// Made on first use and kept for the life of the process.
BIO_METHOD* nosignal_method = nullptr;

const BIO_METHOD* nosignal_socket_method() {
    if (nosignal_method != nullptr)
        return nosignal_method;
    BIO_METHOD* made =
        BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR, "socket without SIGPIPE");
    if (made != nullptr &&
        (BIO_meth_set_write(made, nosignal_write) != 1 || BIO_meth_set_read(made, socket_read) != 1 ||
         BIO_meth_set_puts(made, socket_puts) != 1 || BIO_meth_set_ctrl(made, socket_ctrl) != 1)) {
        BIO_meth_free(made);
        made = nullptr;
    }
    nosignal_method = made;
    return made;
}

}  // namespace

tls_context* tls_context_new() {
    SSL_library_init();
    OPENSSL_add_all_algorithms_noconf();
    SSL_load_error_strings();
    SSL_CTX* ctx = SSL_CTX_new(SSLv23_method());
    if (ctx == nullptr)
        note_failure();
    return reinterpret_cast<tls_context*>(ctx);
}

int tls_context_use_chain(tls_context* context, const char* chain_file) {
    if (SSL_CTX_use_certificate_chain_file(ctx_of(context), chain_file) == 1)
        return 0;
    note_failure();
    return -1;
}

int tls_context_use_key(tls_context* context, const char* key_file) {
    if (SSL_CTX_use_PrivateKey_file(ctx_of(context), key_file, SSL_FILETYPE_PEM) == 1)
        return 0;
    note_failure();
    return -1;
}

void tls_context_free(tls_context* context) { SSL_CTX_free(ctx_of(context)); }

int tls_context_verify(tls_context* context, const char* ca_file, const char* ca_dir) {
    if (SSL_CTX_load_verify_locations(ctx_of(context), ca_file, ca_dir) != 1) {
        note_failure();
        return -1;
    }
    SSL_CTX_set_verify(ctx_of(context), SSL_VERIFY_PEER, nullptr);
    return 0;
}

tls_session* tls_session_new(tls_context* context) {
    SSL* ssl = SSL_new(ctx_of(context));
    if (ssl == nullptr)
        note_failure();
    else  // a queued write is passed again from wherever its queue has moved
        SSL_set_mode(ssl, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    return reinterpret_cast<tls_session*>(ssl);
}

int tls_session_bind(tls_session* session, int fd) {
    const BIO_METHOD* method = nosignal_socket_method();
    BIO* bio = method != nullptr ? BIO_new(method) : nullptr;
    if (bio == nullptr) {
        note_failure();
        return -1;
    }
    BIO_set_data(bio, reinterpret_cast<void*>(static_cast<intptr_t>(fd)));
    BIO_set_init(bio, 1);
    SSL_set_bio(ssl_of(session), bio, bio);  // one reference, owned by the session
    return 0;
}

int tls_session_send_name(tls_session* session, const char* name) {
    if (SSL_set_tlsext_host_name(ssl_of(session), name) == 1)
        return 0;
    note_failure();
    return -1;
}

int tls_session_expect_identity(tls_session* session, const char* identity) {
    unsigned char address[sizeof(in6_addr)];
    const bool literal =
        inet_pton(AF_INET, identity, address) == 1 || inet_pton(AF_INET6, identity, address) == 1;
    // set1_host would take an address literal for a name and never match it
    const int done = literal ? X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl_of(session)), identity)
                             : SSL_set1_host(ssl_of(session), identity);
    if (done == 1)
        return 0;
    note_failure();
    return -1;
}

const char* tls_verify_result(const tls_session* session) {
    return X509_verify_cert_error_string(SSL_get_verify_result(ssl_of(session)));
}

tls_progress tls_session_step(tls_session* session) {
    ERR_clear_error();
    const int result = SSL_connect(ssl_of(session));
    if (result > 0)
        return tls_progress::done;
    const int kept = errno;
    const int reason = SSL_get_error(ssl_of(session), result);
    note_failure();
    errno = kept;
    if (reason == SSL_ERROR_WANT_READ)
        return tls_progress::want_read;
    return reason == SSL_ERROR_WANT_WRITE ? tls_progress::want_write : tls_progress::failed;
}

void tls_session_free(tls_session* session) { SSL_free(ssl_of(session)); }

// A call on a non-blocking socket that must wait (a record other than data
// was read, or the socket is full) says so as a system call would: EAGAIN.
// Blocking sockets never get here but through their own EAGAIN.
static void would_block(tls_session* session, int result) {
    const int reason = SSL_get_error(ssl_of(session), result);
    if (reason == SSL_ERROR_WANT_READ || reason == SSL_ERROR_WANT_WRITE)
        errno = EAGAIN;
}

long tls_read(tls_session* session, void* into, std::size_t size) {
    ERR_clear_error();
    const int got = SSL_read(ssl_of(session), into, clamp(size));
    if (got < 0)
        would_block(session, got);
    return got < 0 ? -1 : got;
}

long tls_write(tls_session* session, const void* bytes, std::size_t size) {
    ERR_clear_error();
    const int written = SSL_write(ssl_of(session), bytes, clamp(size));
    if (written < 0)
        would_block(session, written);
    return written < 0 ? -1 : written;
}

std::size_t tls_pending(const tls_session* session) {
    const int pending = SSL_pending(ssl_of(session));
    return pending > 0 ? static_cast<std::size_t>(pending) : 0;
}

const char* tls_error_text() { return last_error; }
