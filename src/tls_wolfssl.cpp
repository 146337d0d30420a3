// The TLS seam over wolfSSL's own interface. The only unit that sees
// wolfSSL's types: a tls_context is a WOLFSSL_CTX, a tls_session a WOLFSSL
// with its descriptor.
// Results and errno follow the seam's contract as the OpenSSL unit gives it,
// so that the callers see the same counts, ends of stream and error numbers
// whichever library is in.
#include "tls.h"

#include <wolfssl/options.h>  // first: the library's build settings
#include <wolfssl/openssl/evp.h>
#include <wolfssl/ssl.h>
#include <wolfssl/wolfcrypt/asn.h>
#include <wolfssl/wolfio.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifdef lua_h
#error "the TLS layer must stay free of the interpreter"
#endif

struct tls_session {
    WOLFSSL* ssl;
    int fd;
    bool broken;  // the stream ended without a close-notify or failed: no more writes
    int handshake_error;  // the library's code for a failed handshake, 0 if none
    bool timed_out;       // the last call's wait bound ran out (the library may call it a close)
    // Opt-in: the address (4 or 16 bytes) the server's certificate must list,
    // and whether it did not.
    unsigned char address[16];
    std::size_t address_size;
    bool address_refused;
};

namespace {

WOLFSSL_CTX* ctx_of(tls_context* context) { return reinterpret_cast<WOLFSSL_CTX*>(context); }

int clamp(std::size_t size) { return size > INT_MAX ? INT_MAX : static_cast<int>(size); }

char last_error[WOLFSSL_MAX_ERROR_SZ] = "";

// Keeps the library's text for the failure just seen; errno stays as the
// failing call left it.
void note_failure(int code) {
    const int saved_errno = errno;
    if (code != 0)
        wolfSSL_ERR_error_string_n(static_cast<unsigned long>(code), last_error, sizeof last_error);
    else
        last_error[0] = '\0';
    errno = saved_errno;
}

void note_session_failure(WOLFSSL* ssl, int result) { note_failure(wolfSSL_get_error(ssl, result)); }

// ---- socket layer without SIGPIPE ----
// The I/O context is the session. A signal-interrupted call asks wolfSSL to
// come back, which the read and write below turn into -1 with errno as the
// call left it; EAGAIN, the descriptor's wait bound (io_timeout) running out,
// fails the call with errno left at EAGAIN.

// EAGAIN on a blocking descriptor is its wait bound running out (noted);
// on a non-blocking one, the call is to come back when it is ready.
bool bound_ran_out(tls_session* session) {
    const int kept = errno;
    const int flags = fcntl(session->fd, F_GETFL);
    errno = kept;
    if (flags != -1 && (flags & O_NONBLOCK) != 0)
        return false;
    session->timed_out = true;
    return true;
}

int socket_send(WOLFSSL*, char* bytes, int size, void* context) {
    const ssize_t sent = send(static_cast<tls_session*>(context)->fd, bytes, static_cast<std::size_t>(size), MSG_NOSIGNAL);
    if (sent >= 0)
        return static_cast<int>(sent);
    switch (errno) {
    case EINTR:
        return WOLFSSL_CBIO_ERR_WANT_WRITE;
    case EAGAIN:  // on a blocking descriptor: its wait bound ran out
        return bound_ran_out(static_cast<tls_session*>(context)) ? WOLFSSL_CBIO_ERR_TIMEOUT
                                                                  : WOLFSSL_CBIO_ERR_WANT_WRITE;
    case ECONNRESET:
        return WOLFSSL_CBIO_ERR_CONN_RST;
    case EPIPE:
        return WOLFSSL_CBIO_ERR_CONN_CLOSE;
    default:
        return WOLFSSL_CBIO_ERR_GENERAL;
    }
}

int socket_recv(WOLFSSL*, char* into, int size, void* context) {
    const ssize_t got = recv(static_cast<tls_session*>(context)->fd, into, static_cast<std::size_t>(size), 0);
    if (got > 0)
        return static_cast<int>(got);
    if (got == 0)
        return WOLFSSL_CBIO_ERR_CONN_CLOSE;
    // A reset is a general failure here: wolfSSL reports its own reset code
    // as the end of the stream, which only the end of the stream may be.
    // A bound that ran out is no call to come back: the handshake would wait
    // again.
    if (errno == EAGAIN)
        return bound_ran_out(static_cast<tls_session*>(context)) ? WOLFSSL_CBIO_ERR_TIMEOUT
                                                                  : WOLFSSL_CBIO_ERR_WANT_READ;
    return errno == EINTR ? WOLFSSL_CBIO_ERR_WANT_READ : WOLFSSL_CBIO_ERR_GENERAL;
}

bool library_ready = false;

// Whether the context's key is its certificate's pair: a signature made with
// the key must verify with the certificate. The library's own check takes
// some mismatched elliptic-curve keys. Keys of another type than the
// certificate's are taken unchecked, as OpenSSL takes them.
bool is_certificate_pair(WOLFSSL_CTX* ctx) {
    WOLFSSL_X509* certificate = wolfSSL_CTX_get0_certificate(ctx);
    WOLFSSL_EVP_PKEY* key = wolfSSL_CTX_get0_privatekey(ctx);
    if (certificate == nullptr || key == nullptr)
        return true;  // nothing to compare yet
    WOLFSSL_EVP_PKEY* public_key = wolfSSL_X509_get_pubkey(certificate);
    if (public_key == nullptr)
        return false;
    if (wolfSSL_EVP_PKEY_base_id(public_key) != wolfSSL_EVP_PKEY_base_id(key)) {
        wolfSSL_EVP_PKEY_free(public_key);
        return true;
    }
    WOLFSSL_EVP_MD_CTX* sign = wolfSSL_EVP_MD_CTX_new();
    WOLFSSL_EVP_MD_CTX* verify = wolfSSL_EVP_MD_CTX_new();
    static const unsigned char probe[] = "key pair probe";
    unsigned char signature[1024];  // an RSA-8192 signature fits
    std::size_t length = sizeof signature;
    const bool paired =
        sign != nullptr && verify != nullptr &&
        wolfSSL_EVP_DigestSignInit(sign, nullptr, wolfSSL_EVP_sha256(), nullptr, key) == 1 &&
        wolfSSL_EVP_DigestSignUpdate(sign, probe, sizeof probe) == 1 &&
        wolfSSL_EVP_DigestSignFinal(sign, signature, &length) == 1 &&
        wolfSSL_EVP_DigestVerifyInit(verify, nullptr, wolfSSL_EVP_sha256(), nullptr, public_key) == 1 &&
        wolfSSL_EVP_DigestVerifyUpdate(verify, probe, sizeof probe) == 1 &&
        wolfSSL_EVP_DigestVerifyFinal(verify, signature, length) == 1;
    wolfSSL_EVP_MD_CTX_free(sign);
    wolfSSL_EVP_MD_CTX_free(verify);
    wolfSSL_EVP_PKEY_free(public_key);
    return paired;
}

// Whether the certificate lists the session's address among its IP
// addresses, compared as bytes: the library's own check compares texts, in
// which one IPv6 address has many spellings.
bool lists_address(WOLFSSL_X509* certificate, const tls_session* session) {
    auto* names = static_cast<WOLFSSL_GENERAL_NAMES*>(
        certificate != nullptr ? wolfSSL_X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr) : nullptr);
    bool found = false;
    for (int i = 0; names != nullptr && !found && i < wolfSSL_sk_GENERAL_NAME_num(names); ++i) {
        const WOLFSSL_GENERAL_NAME* name = wolfSSL_sk_GENERAL_NAME_value(names, i);
        const WOLFSSL_ASN1_STRING* address = name != nullptr && name->type == ASN_IP_TYPE ? name->d.iPAddress : nullptr;
        found = address != nullptr && address->data != nullptr &&
                static_cast<std::size_t>(address->length) == session->address_size &&
                std::memcmp(address->data, session->address, session->address_size) == 0;
    }
    wolfSSL_GENERAL_NAMES_free(names);
    return found;
}

// Called for each certificate of the chain (the library's verdict in
// `verified`); the server's own must also list the address.
int check_address(int verified, WOLFSSL_X509_STORE_CTX* store) {
    auto* session = static_cast<tls_session*>(store->userCtx);
    if (verified == 0 || wolfSSL_X509_STORE_CTX_get_error_depth(store) != 0 || session == nullptr ||
        session->address_size == 0)
        return verified;
    if (lists_address(wolfSSL_X509_STORE_CTX_get_current_cert(store), session))
        return 1;
    session->address_refused = true;
    return 0;
}

}  // namespace

tls_context* tls_context_new() {
    if (!library_ready) {
        const int started = wolfSSL_Init();
        if (started != WOLFSSL_SUCCESS) {
            note_failure(started);
            return nullptr;
        }
        library_ready = true;
    }
    WOLFSSL_CTX* ctx = wolfSSL_CTX_new(wolfSSLv23_client_method());
    if (ctx == nullptr) {
        note_failure(MEMORY_E);
        return nullptr;
    }
    // The server's certificate is accepted unchecked, as with the other
    // libraries (wolfSSL's clients verify by default).
    wolfSSL_CTX_set_verify(ctx, WOLFSSL_VERIFY_NONE, nullptr);
    wolfSSL_CTX_SetIORecv(ctx, socket_recv);
    wolfSSL_CTX_SetIOSend(ctx, socket_send);
    return reinterpret_cast<tls_context*>(ctx);
}

int tls_context_use_chain(tls_context* context, const char* chain_file) {
    const int loaded = wolfSSL_CTX_use_certificate_chain_file(ctx_of(context), chain_file);
    if (loaded == WOLFSSL_SUCCESS)
        return 0;
    note_failure(loaded);
    return -1;
}

int tls_context_use_key(tls_context* context, const char* key_file) {
    WOLFSSL_CTX* ctx = ctx_of(context);
    const int result = wolfSSL_CTX_use_PrivateKey_file(ctx, key_file, WOLFSSL_FILETYPE_PEM);
    if (result != WOLFSSL_SUCCESS) {
        note_failure(result);
        return -1;
    }
    // A key that is not the certificate's pair fails here, as with OpenSSL.
    if (!is_certificate_pair(ctx)) {
        note_failure(WOLFSSL_BAD_FILE);
        return -1;
    }
    return 0;
}

void tls_context_free(tls_context* context) { wolfSSL_CTX_free(ctx_of(context)); }

int tls_context_verify(tls_context* context, const char* ca_file, const char* ca_dir) {
    // The file must load. The directory is read whole, every file in it, not
    // by hashed names; files that hold no certificate are skipped, and a
    // directory that does not open adds nothing: the handshake then finds no
    // trusted CA, as OpenSSL's lookup there would.
    if (ca_file != nullptr) {
        const int loaded =
            wolfSSL_CTX_load_verify_locations_ex(ctx_of(context), ca_file, nullptr, WOLFSSL_LOAD_FLAG_NONE);
        if (loaded != WOLFSSL_SUCCESS) {
            note_failure(loaded);
            return -1;
        }
    }
    if (ca_dir != nullptr)
        wolfSSL_CTX_load_verify_locations_ex(ctx_of(context), nullptr, ca_dir, WOLFSSL_LOAD_FLAG_IGNORE_ERR);
    wolfSSL_CTX_set_verify(ctx_of(context), WOLFSSL_VERIFY_PEER, nullptr);
    return 0;
}

tls_session* tls_session_new(tls_context* context) {
    auto* session = static_cast<tls_session*>(std::calloc(1, sizeof(tls_session)));
    session->ssl = session != nullptr ? wolfSSL_new(ctx_of(context)) : nullptr;
    if (session == nullptr || session->ssl == nullptr) {
        note_failure(MEMORY_E);
        std::free(session);
        return nullptr;
    }
    session->fd = -1;
    return session;
}

int tls_session_bind(tls_session* session, int fd) {
    session->fd = fd;
    wolfSSL_SetIOReadCtx(session->ssl, session);
    wolfSSL_SetIOWriteCtx(session->ssl, session);
    return 0;
}

int tls_session_send_name(tls_session* session, const char* name) {
    const std::size_t length = std::strlen(name);
    const int set = length <= 0xFFFF ? wolfSSL_UseSNI(session->ssl, WOLFSSL_SNI_HOST_NAME, name, static_cast<word16>(length))
                                     : BAD_FUNC_ARG;
    if (set == WOLFSSL_SUCCESS)
        return 0;
    note_failure(set);
    return -1;
}

int tls_session_expect_identity(tls_session* session, const char* identity) {
    session->address_size = inet_pton(AF_INET, identity, session->address) == 1    ? 4
                            : inet_pton(AF_INET6, identity, session->address) == 1 ? 16
                                                                                   : 0;
    if (session->address_size != 0) {
        wolfSSL_SetCertCbCtx(session->ssl, session);
        wolfSSL_set_verify(session->ssl, WOLFSSL_VERIFY_PEER, check_address);
        return 0;
    }
    const int set = wolfSSL_check_domain_name(session->ssl, identity);
    if (set == WOLFSSL_SUCCESS)
        return 0;
    note_failure(set);
    return -1;
}

namespace {

// The chain's verdict in words: the library names few of these codes.
const char* chain_verdict(long code) {
    switch (code) {
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return "certificate not valid yet";
    case X509_V_ERR_CERT_HAS_EXPIRED:
        return "certificate has expired";
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        return "self-signed certificate not among the trusted CAs";
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
        return "no trusted CA issued the certificate";
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
        return "certificate signature does not verify";
    default:
        return wolfSSL_X509_verify_cert_error_string(code);
    }
}

}  // namespace

const char* tls_verify_result(const tls_session* session) {
    // The chain's verdict, with the handshake's failure in the library's
    // words; a refused name or address is the handshake's alone.
    const long result = wolfSSL_get_verify_result(session->ssl);
    const int failure = session->handshake_error;
    const bool refused_identity = failure == DOMAIN_NAME_MISMATCH || session->address_refused;
    if (result == 0 && !refused_identity)
        return "ok";
    static char text[256];
    const char* why = wolfSSL_ERR_reason_error_string(
        static_cast<unsigned long>(session->address_refused ? IPADDR_MISMATCH : failure));
    if (result == 0)
        return why;
    std::snprintf(text, sizeof text, "%s (%s)", chain_verdict(result), why != nullptr ? why : "");
    return text;
}

tls_progress tls_session_step(tls_session* session) {
    session->timed_out = false;
    const int result = wolfSSL_connect(session->ssl);
    if (result == WOLFSSL_SUCCESS)
        return tls_progress::done;
    const int kept = errno;
    session->handshake_error = wolfSSL_get_error(session->ssl, result);
    errno = session->timed_out ? EAGAIN : kept;
    note_failure(session->handshake_error);
    if (session->handshake_error == WOLFSSL_ERROR_WANT_READ)
        return tls_progress::want_read;
    return session->handshake_error == WOLFSSL_ERROR_WANT_WRITE ? tls_progress::want_write : tls_progress::failed;
}

void tls_session_free(tls_session* session) {
    if (session == nullptr)
        return;
    wolfSSL_free(session->ssl);  // no close-notify
    std::free(session);
}

long tls_read(tls_session* session, void* into, std::size_t size) {
    last_error[0] = '\0';
    if (size == 0)
        return 0;
    session->timed_out = false;
    const int got = wolfSSL_read(session->ssl, into, clamp(size));
    if (got > 0)
        return got;
    if (session->timed_out) {  // reported as the peer's close: it is not one
        note_failure(SOCKET_ERROR_E);
        errno = EAGAIN;
        return -1;
    }
    // The end of the stream, with a close-notify or without, reads as 0, as
    // it does through OpenSSL. Without one, or after a failure of the
    // protocol (not of the socket), the session takes no more writes, as
    // OpenSSL's does not.
    const int error = wolfSSL_get_error(session->ssl, got);
    if (error == WOLFSSL_ERROR_ZERO_RETURN)
        return 0;
    if (error != WOLFSSL_ERROR_WANT_READ && error != WOLFSSL_ERROR_WANT_WRITE && error != SOCKET_ERROR_E)
        session->broken = true;
    if (error == SOCKET_PEER_CLOSED_E)
        return 0;
    note_failure(error);
    return -1;
}

long tls_write(tls_session* session, const void* bytes, std::size_t size) {
    last_error[0] = '\0';
    if (size == 0)
        return 0;  // nothing is sent, as with OpenSSL
    if (session->broken)
        return -1;
    session->timed_out = false;
    const int written = wolfSSL_write(session->ssl, bytes, clamp(size));
    if (written > 0)
        return written;
    note_session_failure(session->ssl, written);
    if (session->timed_out)
        errno = EAGAIN;
    return -1;
}

std::size_t tls_pending(const tls_session* session) {
    const int pending = wolfSSL_pending(session->ssl);
    return pending > 0 ? static_cast<std::size_t>(pending) : 0;
}

const char* tls_error_text() { return last_error; }
