// The TLS seam over mbedTLS 2.28 (TLS 1.2). The only unit that sees mbedTLS's
// types. A context is a client configuration with its certificate and key; a
// session is an mbedTLS connection on a descriptor. Results and errno follow
// the seam's contract as the OpenSSL unit gives it, so that the callers see
// the same counts, ends of stream and error numbers whichever library is in.
#include "tls.h"

#include <mbedtls/ctr_drbg.h>
#include <mbedtls/entropy.h>
#include <mbedtls/error.h>
#include <mbedtls/net_sockets.h>
#include <mbedtls/pk.h>
#include <mbedtls/ssl.h>
#include <mbedtls/x509_crt.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#ifdef lua_h
#error "the TLS layer must stay free of the interpreter"
#endif

struct tls_context {
    mbedtls_ssl_config config;
    mbedtls_x509_crt chain;
    mbedtls_pk_context key;
    bool has_chain;
};

struct tls_session {
    mbedtls_ssl_context ssl;
    int fd;
    bool broken;  // the stream ended without a close-notify or failed: no more writes
};

namespace {

char last_error[256] = "";

// Keeps the library's text for the failure just seen; errno stays as the
// failing call left it.
void note_failure(int code) {
    const int saved_errno = errno;
    if (code < 0)
        mbedtls_strerror(code, last_error, sizeof last_error);
    else
        last_error[0] = '\0';
    errno = saved_errno;
}

// One random generator for every context, seeded on first use and kept for
// the life of the process: per-connection entropy state would cost memory
// for nothing (the module runs on one thread). A forked child reseeds, so
// that parent and child never draw the same numbers; a failed seeding is
// tried again with the next context.
struct random_source {
    mbedtls_entropy_context entropy;
    mbedtls_ctr_drbg_context drbg;
    pid_t seeded_in;  // 0: not seeded
};
random_source* shared_random = nullptr;

mbedtls_ctr_drbg_context* random_generator() {
    if (shared_random == nullptr) {
        shared_random = static_cast<random_source*>(std::calloc(1, sizeof(random_source)));
        if (shared_random == nullptr) {
            note_failure(MBEDTLS_ERR_SSL_ALLOC_FAILED);
            return nullptr;
        }
        mbedtls_entropy_init(&shared_random->entropy);
        mbedtls_ctr_drbg_init(&shared_random->drbg);
    }
    const pid_t self = getpid();
    if (shared_random->seeded_in == self)
        return &shared_random->drbg;
    static const unsigned char personal[] = "ws_client";
    const int seeded = shared_random->seeded_in == 0
                           ? mbedtls_ctr_drbg_seed(&shared_random->drbg, mbedtls_entropy_func,
                                                   &shared_random->entropy, personal, sizeof personal - 1)
                           : mbedtls_ctr_drbg_reseed(&shared_random->drbg, nullptr, 0);
    if (seeded != 0) {
        note_failure(seeded);
        return nullptr;
    }
    shared_random->seeded_in = self;
    return &shared_random->drbg;
}

// ---- socket layer without SIGPIPE ----
// A signal-interrupted or would-block call asks mbedTLS to come back, which
// the read and write below turn into -1 with errno as the call left it.

int socket_send(void* context, const unsigned char* bytes, std::size_t size) {
    const ssize_t sent = send(static_cast<tls_session*>(context)->fd, bytes, size, MSG_NOSIGNAL);
    if (sent >= 0)
        return static_cast<int>(sent);
    return errno == EINTR || errno == EAGAIN ? MBEDTLS_ERR_SSL_WANT_WRITE : MBEDTLS_ERR_NET_SEND_FAILED;
}

int socket_recv(void* context, unsigned char* into, std::size_t size) {
    const ssize_t got = recv(static_cast<tls_session*>(context)->fd, into, size, 0);
    if (got >= 0)
        return static_cast<int>(got);  // 0: the end of the stream, which mbedTLS reports as such
    return errno == EINTR || errno == EAGAIN ? MBEDTLS_ERR_SSL_WANT_READ : MBEDTLS_ERR_NET_RECV_FAILED;
}

int clamp(std::size_t size) { return size > INT_MAX ? INT_MAX : static_cast<int>(size); }

}  // namespace

tls_context* tls_context_new() {
    mbedtls_ctr_drbg_context* random = random_generator();
    if (random == nullptr)
        return nullptr;
    auto* context = static_cast<tls_context*>(std::calloc(1, sizeof(tls_context)));
    if (context == nullptr) {
        note_failure(MBEDTLS_ERR_SSL_ALLOC_FAILED);
        return nullptr;
    }
    mbedtls_ssl_config_init(&context->config);
    mbedtls_x509_crt_init(&context->chain);
    mbedtls_pk_init(&context->key);
    const int made = mbedtls_ssl_config_defaults(&context->config, MBEDTLS_SSL_IS_CLIENT,
                                                 MBEDTLS_SSL_TRANSPORT_STREAM, MBEDTLS_SSL_PRESET_DEFAULT);
    if (made != 0) {
        note_failure(made);
        tls_context_free(context);
        return nullptr;
    }
    // The server's certificate is accepted unchecked, as with the other libraries.
    mbedtls_ssl_conf_authmode(&context->config, MBEDTLS_SSL_VERIFY_NONE);
    mbedtls_ssl_conf_rng(&context->config, mbedtls_ctr_drbg_random, random);
    return context;
}

int tls_context_use_chain(tls_context* context, const char* chain_file) {
    // Every certificate in the file must parse: the first is the client's,
    // the rest its chain.
    mbedtls_x509_crt_free(&context->chain);
    mbedtls_x509_crt_init(&context->chain);
    context->has_chain = false;
    const int parsed = mbedtls_x509_crt_parse_file(&context->chain, chain_file);
    if (parsed != 0) {
        note_failure(parsed < 0 ? parsed : MBEDTLS_ERR_X509_INVALID_FORMAT);
        return -1;
    }
    context->has_chain = true;
    return 0;
}

int tls_context_use_key(tls_context* context, const char* key_file) {
    mbedtls_pk_free(&context->key);
    mbedtls_pk_init(&context->key);
    int result = mbedtls_pk_parse_keyfile(&context->key, key_file, nullptr);
    // A key of the certificate's type must be its pair; one of another type
    // is taken as it is and fails in the handshake, as with the other
    // libraries.
    if (result == 0 && context->has_chain &&
        mbedtls_pk_can_do(&context->chain.pk, mbedtls_pk_get_type(&context->key)))
        result = mbedtls_pk_check_pair(&context->chain.pk, &context->key);
    if (result == 0 && context->has_chain)
        result = mbedtls_ssl_conf_own_cert(&context->config, &context->chain, &context->key);
    if (result != 0) {
        note_failure(result);
        return -1;
    }
    return 0;
}

void tls_context_free(tls_context* context) {
    if (context == nullptr)
        return;
    mbedtls_ssl_config_free(&context->config);
    mbedtls_x509_crt_free(&context->chain);
    mbedtls_pk_free(&context->key);
    std::free(context);
}

tls_session* tls_session_new(tls_context* context) {
    auto* session = static_cast<tls_session*>(std::calloc(1, sizeof(tls_session)));
    if (session == nullptr) {
        note_failure(MBEDTLS_ERR_SSL_ALLOC_FAILED);
        return nullptr;
    }
    session->fd = -1;
    mbedtls_ssl_init(&session->ssl);
    const int made = mbedtls_ssl_setup(&session->ssl, &context->config);
    if (made != 0) {
        note_failure(made);
        tls_session_free(session);
        return nullptr;
    }
    return session;
}

int tls_session_bind(tls_session* session, int fd) {
    session->fd = fd;
    mbedtls_ssl_set_bio(&session->ssl, session, socket_send, socket_recv, nullptr);
    return 0;
}

int tls_session_connect(tls_session* session) {
    // One call on the blocking descriptor; an interrupted handshake fails,
    // as a blocking OpenSSL connect does.
    const int result = mbedtls_ssl_handshake(&session->ssl);
    note_failure(result);
    return result == 0 ? 0 : -1;
}

void tls_session_free(tls_session* session) {
    if (session == nullptr)
        return;
    mbedtls_ssl_free(&session->ssl);  // sends nothing: no close-notify
    std::free(session);
}

long tls_read(tls_session* session, void* into, std::size_t size) {
    last_error[0] = '\0';
    const int got = mbedtls_ssl_read(&session->ssl, static_cast<unsigned char*>(into), static_cast<std::size_t>(clamp(size)));
    // The end of the stream, with a close-notify or without (mbedTLS: 0),
    // reads as 0, as it does through OpenSSL. Without one, or after a
    // failure of the protocol (not of the socket), the session takes no more
    // writes, as OpenSSL's does not.
    if (got > 0 || size == 0 || got == MBEDTLS_ERR_SSL_PEER_CLOSE_NOTIFY)
        return got > 0 ? got : 0;
    if (got != MBEDTLS_ERR_SSL_WANT_READ && got != MBEDTLS_ERR_SSL_WANT_WRITE && got != MBEDTLS_ERR_NET_RECV_FAILED)
        session->broken = true;
    if (got == 0)
        return 0;
    note_failure(got);
    return -1;
}

long tls_write(tls_session* session, const void* bytes, std::size_t size) {
    last_error[0] = '\0';
    // mbedTLS writes one record per call; the seam writes the whole text, as
    // a blocking OpenSSL write does.
    if (session->broken && size > 0)
        return -1;
    const std::size_t total = static_cast<std::size_t>(clamp(size));
    const auto* from = static_cast<const unsigned char*>(bytes);
    std::size_t done = 0;
    while (done < total) {
        const int written = mbedtls_ssl_write(&session->ssl, from + done, total - done);
        if (written <= 0) {
            note_failure(written);
            return -1;
        }
        done += static_cast<std::size_t>(written);
    }
    return static_cast<long>(done);
}

std::size_t tls_pending(const tls_session* session) { return mbedtls_ssl_get_bytes_avail(&session->ssl); }

const char* tls_error_text() { return last_error; }
