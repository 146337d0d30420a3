// The TLS seam over mbedTLS 2.28 (TLS 1.2) or 3.6 (TLS 1.2 and 1.3). The
// only unit that sees mbedTLS's types; what differs between the two versions
// is in one section below. A context is a client configuration with its
// certificate and key; a session is an mbedTLS connection on a descriptor.
// Results and errno follow the seam's contract as the OpenSSL unit gives it,
// so that the callers see the same counts, ends of stream and error numbers
// whichever library is in.
#include "tls.h"

#include <mbedtls/asn1.h>
#include <mbedtls/ctr_drbg.h>
#include <mbedtls/entropy.h>
#include <mbedtls/error.h>
#include <mbedtls/net_sockets.h>
#include <mbedtls/oid.h>
#include <mbedtls/pk.h>
#include <mbedtls/ssl.h>
#include <mbedtls/version.h>
#include <mbedtls/x509_crt.h>
#if MBEDTLS_VERSION_MAJOR >= 3
#include <psa/crypto.h>
#endif
#include <arpa/inet.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#ifdef lua_h
#error "the TLS layer must stay free of the interpreter"
#endif

struct tls_context {
    mbedtls_ssl_config config;
    mbedtls_x509_crt chain;
    mbedtls_pk_context key;
    mbedtls_x509_crt ca;  // opt-in verification: the trusted certificates
    bool has_chain;
};

struct tls_session {
    mbedtls_ssl_context ssl;
    int fd;
    bool broken;  // the stream ended without a close-notify or failed: no more writes
    // A record cut short by a full socket: mbedTLS must be called again with
    // the same length, which it then reports written whole.
    std::size_t pending_write;
    // Opt-in: what the server's certificate must match; address_size 4 or 16
    // when it is an address literal (then in `address`), 0 for a DNS name.
    char identity[256];
    unsigned char address[16];
    std::size_t address_size;
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

// ---- what differs between mbedTLS 2.28 and 3.6 ----
#if MBEDTLS_VERSION_MAJOR >= 3
// TLS 1.3 runs its key exchange through PSA, which has a generator of its
// own: set up once, and again in a forked child so that it never repeats the
// parent's numbers (3.6.1 sets PSA up in the handshake, 3.6.6 reseeds it
// after a fork: 3.6.0 does neither).
int start_crypto(bool forked) {
    if (forked)
        mbedtls_psa_crypto_free();
    return psa_crypto_init() == PSA_SUCCESS ? 0 : MBEDTLS_ERR_SSL_HW_ACCEL_FAILED;
}
int parse_key(mbedtls_pk_context* key, const char* file) {
    return mbedtls_pk_parse_keyfile(key, file, nullptr, mbedtls_ctr_drbg_random, &shared_random->drbg);
}
int check_pair(const mbedtls_pk_context* public_key, const mbedtls_pk_context* key) {
    return mbedtls_pk_check_pair(public_key, key, mbedtls_ctr_drbg_random, &shared_random->drbg);
}
// A TLS 1.3 server may send a ticket at any time after the handshake; the
// read that met it has nothing for the caller yet and is made again (3.6.0
// reports tickets; later versions drop them unless asked to).
bool read_again(int code) { return code == MBEDTLS_ERR_SSL_RECEIVED_NEW_SESSION_TICKET; }
// No name until one is sent: the identity check is the seam's own
// (check_identity), and 3.6 verifies no chain unless told there is none.
int expect_no_name(mbedtls_ssl_context* ssl) { return mbedtls_ssl_set_hostname(ssl, nullptr); }
#else
int start_crypto(bool) { return 0; }
int parse_key(mbedtls_pk_context* key, const char* file) { return mbedtls_pk_parse_keyfile(key, file, nullptr); }
int check_pair(const mbedtls_pk_context* public_key, const mbedtls_pk_context* key) {
    return mbedtls_pk_check_pair(public_key, key);
}
bool read_again(int) { return false; }
int expect_no_name(mbedtls_ssl_context*) { return 0; }
#endif

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
    const int started = seeded == 0 ? start_crypto(shared_random->seeded_in != 0) : seeded;
    if (started != 0) {
        note_failure(started);
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

// ---- the server's identity ----
// The library checks only the name it also sends as SNI, and never an
// address; the seam checks its own identity, sent or not, here.

// A DNS name pattern of the certificate against `name`, case aside; "*." as
// the whole leftmost label stands for exactly one label, and not under a
// single-label suffix.
bool name_matches(const unsigned char* pattern, std::size_t length, const char* name) {
    const std::size_t name_length = std::strlen(name);
    const char* text = reinterpret_cast<const char*>(pattern);
    if (length == name_length && strncasecmp(text, name, length) == 0)
        return true;
    if (length < 4 || text[0] != '*' || text[1] != '.' || std::memchr(text + 2, '.', length - 2) == nullptr)
        return false;
    const char* dot = std::strchr(name, '.');
    return dot != nullptr && dot != name && static_cast<std::size_t>(name + name_length - dot) == length - 1 &&
           strncasecmp(dot, text + 1, length - 1) == 0;
}

// Walks the subjectAltName extension of the raw extensions (mbedTLS 2.28
// keeps none of its addresses): 1 when an entry matches, 0 when none does,
// -1 when a name is wanted and the certificate lists no DNS name (or has no
// such extension, or one that does not parse).
int alt_names_match(const mbedtls_x509_crt* crt, const tls_session* session) {
    unsigned char* p = crt->v3_ext.p;
    const unsigned char* end = p + crt->v3_ext.len;
    std::size_t length = 0;
    if (p == nullptr || mbedtls_asn1_get_tag(&p, end, &length, MBEDTLS_ASN1_CONSTRUCTED | MBEDTLS_ASN1_SEQUENCE) != 0)
        return session->address_size != 0 ? 0 : -1;
    end = p + length;
    while (p < end) {
        if (mbedtls_asn1_get_tag(&p, end, &length, MBEDTLS_ASN1_CONSTRUCTED | MBEDTLS_ASN1_SEQUENCE) != 0)
            break;
        const unsigned char* next = p + length;
        std::size_t oid_size = 0;
        if (mbedtls_asn1_get_tag(&p, next, &oid_size, MBEDTLS_ASN1_OID) != 0)
            break;
        const bool alt_names = oid_size == MBEDTLS_OID_SIZE(MBEDTLS_OID_SUBJECT_ALT_NAME) &&
                               std::memcmp(p, MBEDTLS_OID_SUBJECT_ALT_NAME, oid_size) == 0;
        p += oid_size;
        if (!alt_names) {
            p = const_cast<unsigned char*>(next);
            continue;
        }
        int critical = 0;
        if (p < next && *p == MBEDTLS_ASN1_BOOLEAN && mbedtls_asn1_get_bool(&p, next, &critical) != 0)
            break;
        if (mbedtls_asn1_get_tag(&p, next, &length, MBEDTLS_ASN1_OCTET_STRING) != 0 ||
            mbedtls_asn1_get_tag(&p, next, &length, MBEDTLS_ASN1_CONSTRUCTED | MBEDTLS_ASN1_SEQUENCE) != 0)
            break;
        const unsigned char* names_end = p + length;
        bool has_dns = false;
        while (p < names_end) {
            const unsigned char tag = *p++;
            if (mbedtls_asn1_get_len(&p, names_end, &length) != 0)
                break;
            if (tag == (MBEDTLS_ASN1_CONTEXT_SPECIFIC | 7) && session->address_size != 0 &&
                length == session->address_size && std::memcmp(p, session->address, length) == 0)
                return 1;
            if (tag == (MBEDTLS_ASN1_CONTEXT_SPECIFIC | MBEDTLS_X509_SAN_DNS_NAME) && session->address_size == 0) {
                has_dns = true;
                if (name_matches(p, length, session->identity))
                    return 1;
            }
            p += length;
        }
        return has_dns || session->address_size != 0 ? 0 : -1;
    }
    return session->address_size != 0 ? 0 : -1;
}

bool identity_matches(const mbedtls_x509_crt* crt, const tls_session* session) {
    const int by_alt_names = alt_names_match(crt, session);
    if (by_alt_names >= 0)
        return by_alt_names == 1;
    // no DNS name listed: the common name(s), as other clients do
    for (const mbedtls_x509_name* entry = &crt->subject; entry != nullptr; entry = entry->next)
        if (MBEDTLS_OID_CMP(MBEDTLS_OID_AT_CN, &entry->oid) == 0 &&
            name_matches(entry->val.p, entry->val.len, session->identity))
            return true;
    return false;
}

// Called for each certificate of the chain; the server's own (depth 0)
// gets the identity's verdict in place of the library's check of the SNI
// name, if any.
int check_identity(void* context, mbedtls_x509_crt* crt, int depth, uint32_t* flags) {
    if (depth != 0)
        return 0;
    *flags &= ~static_cast<uint32_t>(MBEDTLS_X509_BADCERT_CN_MISMATCH);
    if (!identity_matches(crt, static_cast<const tls_session*>(context)))
        *flags |= MBEDTLS_X509_BADCERT_CN_MISMATCH;
    return 0;
}

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
    mbedtls_x509_crt_init(&context->ca);
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
    int result = parse_key(&context->key, key_file);
    // A key of the certificate's type must be its pair; one of another type
    // is taken as it is and fails in the handshake, as with the other
    // libraries.
    if (result == 0 && context->has_chain &&
        mbedtls_pk_can_do(&context->chain.pk, mbedtls_pk_get_type(&context->key)))
        result = check_pair(&context->chain.pk, &context->key);
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
    mbedtls_x509_crt_free(&context->ca);
    std::free(context);
}

int tls_context_verify(tls_context* context, const char* ca_file, const char* ca_dir) {
    // The file must hold a certificate that parses (others in it that do
    // not are skipped). The directory is read whole, every file in it, not by
    // hashed names; one that does not open or holds none adds nothing, and
    // the handshake finds no trusted CA, as OpenSSL's lookup there would.
    if (ca_file != nullptr) {
        const int parsed = mbedtls_x509_crt_parse_file(&context->ca, ca_file);
        if (parsed < 0 || context->ca.raw.p == nullptr) {
            note_failure(parsed < 0 ? parsed : MBEDTLS_ERR_X509_CERT_UNKNOWN_FORMAT);
            return -1;
        }
    }
    if (ca_dir != nullptr)
        mbedtls_x509_crt_parse_path(&context->ca, ca_dir);
    mbedtls_ssl_conf_ca_chain(&context->config, &context->ca, nullptr);
    mbedtls_ssl_conf_authmode(&context->config, MBEDTLS_SSL_VERIFY_REQUIRED);
    return 0;
}

tls_session* tls_session_new(tls_context* context) {
    auto* session = static_cast<tls_session*>(std::calloc(1, sizeof(tls_session)));
    if (session == nullptr) {
        note_failure(MBEDTLS_ERR_SSL_ALLOC_FAILED);
        return nullptr;
    }
    session->fd = -1;
    mbedtls_ssl_init(&session->ssl);
    int made = mbedtls_ssl_setup(&session->ssl, &context->config);
    if (made == 0)
        made = expect_no_name(&session->ssl);
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

int tls_session_send_name(tls_session* session, const char* name) {
    // Also the name the library checks when verifying: check_identity
    // replaces that check by the identity's.
    const int set = mbedtls_ssl_set_hostname(&session->ssl, name);
    note_failure(set);
    return set == 0 ? 0 : -1;
}

int tls_session_expect_identity(tls_session* session, const char* identity) {
    const std::size_t length = std::strlen(identity);
    if (length == 0 || length >= sizeof session->identity) {
        note_failure(MBEDTLS_ERR_SSL_BAD_INPUT_DATA);
        return -1;
    }
    std::memcpy(session->identity, identity, length + 1);
    session->address_size = inet_pton(AF_INET, identity, session->address) == 1    ? 4
                            : inet_pton(AF_INET6, identity, session->address) == 1 ? 16
                                                                                   : 0;
    mbedtls_ssl_set_verify(&session->ssl, check_identity, session);
    return 0;
}

const char* tls_verify_result(const tls_session* session) {
    const uint32_t flags = mbedtls_ssl_get_verify_result(&session->ssl);
    if (flags == 0 || flags == UINT32_MAX)  // all well, or no certificate was looked at
        return "ok";
    // one line per reason, joined as one
    static char lines[512];
    static char text[512];
    if (mbedtls_x509_crt_verify_info(lines, sizeof lines, "", flags) < 0)
        return "certificate refused";
    std::size_t at = 0;
    for (const char* c = lines; *c != '\0' && at + 3 < sizeof text; ++c) {
        if (*c != '\n')
            text[at++] = *c;
        else if (c[1] != '\0')
            text[at++] = ';', text[at++] = ' ';
    }
    text[at] = '\0';
    return text;
}

tls_progress tls_session_step(tls_session* session) {
    // errno is the socket's when the socket failed (or its bound ran out),
    // else 0, as OpenSSL leaves it (it clears errno before its socket calls):
    // a refused certificate reaches on_error with the same number on either
    // library.
    const int result = mbedtls_ssl_handshake(&session->ssl);
    if (result != MBEDTLS_ERR_SSL_WANT_READ && result != MBEDTLS_ERR_SSL_WANT_WRITE &&
        result != MBEDTLS_ERR_NET_RECV_FAILED && result != MBEDTLS_ERR_NET_SEND_FAILED)
        errno = 0;
    note_failure(result);
    if (result == 0)
        return tls_progress::done;
    if (result == MBEDTLS_ERR_SSL_WANT_READ)
        return tls_progress::want_read;
    return result == MBEDTLS_ERR_SSL_WANT_WRITE ? tls_progress::want_write : tls_progress::failed;
}

void tls_session_free(tls_session* session) {
    if (session == nullptr)
        return;
    mbedtls_ssl_free(&session->ssl);  // sends nothing: no close-notify
    std::free(session);
}

long tls_read(tls_session* session, void* into, std::size_t size) {
    last_error[0] = '\0';
    int got = 0;
    do
        got = mbedtls_ssl_read(&session->ssl, static_cast<unsigned char*>(into), static_cast<std::size_t>(clamp(size)));
    while (read_again(got));
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
        const std::size_t ask = session->pending_write != 0 ? std::min(session->pending_write, total - done) : total - done;
        const int written = mbedtls_ssl_write(&session->ssl, from + done, ask);
        if (written == MBEDTLS_ERR_SSL_WANT_WRITE) {
            session->pending_write = ask;
            // on a non-blocking socket what went out is a short write; a
            // blocking one was cut off (signal or io_timeout): a failure
            const int saved_errno = errno;
            const int flags = fcntl(session->fd, F_GETFL);
            errno = saved_errno;
            if (done > 0 && flags != -1 && (flags & O_NONBLOCK) != 0)
                return static_cast<long>(done);
        }
        if (written <= 0) {
            note_failure(written);
            return -1;
        }
        session->pending_write = 0;
        done += static_cast<std::size_t>(written);
    }
    return static_cast<long>(done);
}

std::size_t tls_pending(const tls_session* session) { return mbedtls_ssl_get_bytes_avail(&session->ssl); }

const char* tls_error_text() { return last_error; }
