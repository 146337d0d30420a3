// The TLS operations the module uses, as one seam: the units call only these,
// and one unit implements them over a TLS library (src/tls_openssl.cpp,
// src/tls_mbedtls.cpp or src/tls_wolfssl.cpp).
// No library type appears outside that unit. Client side only. Peer
// verification and the server name are off unless asked for (the four
// operations marked "opt-in" below). Lua-free.
#pragma once

#include <cstddef>

struct tls_context;  // client configuration shared by the sessions made on it
struct tls_session;  // one connection's TLS state

// Library set-up (repeated on every call; cheap once done) and a new client
// context. Null on failure.
tls_context* tls_context_new();
// The client certificate chain / the private key (PEM files) for the
// context's sessions; 0, or -1 when the file does not load.
int tls_context_use_chain(tls_context* context, const char* chain_file);
int tls_context_use_key(tls_context* context, const char* key_file);
void tls_context_free(tls_context* context);

// Opt-in: the context's sessions verify the server's chain against the CA
// certificates in `ca_file` (a PEM bundle) and/or `ca_dir` (a directory of
// PEM files: looked up by hashed name, or read whole where the library has
// no such lookup); either may be null, not both. A handshake whose chain
// does not verify fails. 0, or -1 when the file does not load; a directory
// that does not open adds no CA (the handshake then fails).
int tls_context_verify(tls_context* context, const char* ca_file, const char* ca_dir);

// A session on the context; null on failure.
tls_session* tls_session_new(tls_context* context);
// Binds the session to a connected descriptor through a socket layer whose
// writes never raise SIGPIPE (a reset peer gives EPIPE); the process's signal
// disposition is left alone. 0 or -1.
int tls_session_bind(tls_session* session, int fd);
// Opt-in, before the handshake: `name` goes out as the server name (SNI) in
// the ClientHello. 0 or -1.
int tls_session_send_name(tls_session* session, const char* name);
// Opt-in, before the handshake, with verification on: the server's
// certificate must also match `identity`, an IPv4/IPv6 address literal
// (matched against its IP addresses) or else a DNS name (matched against its
// DNS names, wildcards as RFC 6125 allows; the common name only when it has
// none). A mismatch fails the handshake. 0 or -1.
int tls_session_expect_identity(tls_session* session, const char* identity);
// One step of the client handshake: done; or the descriptor must become
// readable / writable before the next step (a non-blocking descriptor; on a
// blocking one the library waited itself, and a want means the wait was cut
// short: a signal, or the io_timeout bound); or failed. On failure errno is
// the socket's when the socket failed (or its bound ran out: EAGAIN), else
// what the library left, 0 where OpenSSL would leave 0.
enum class tls_progress : unsigned char { done, want_read, want_write, failed };
tls_progress tls_session_step(tls_session* session);
// Frees the session. No close-notify is sent: the peer learns from the
// descriptor, which the caller closes.
void tls_session_free(tls_session* session);

// One read / one write of at most `size` bytes (clamped to INT_MAX): the
// count, 0 at the end of the stream, -1 on failure. The library's error
// queue is cleared before each call; errno is left as the underlying system
// calls left it (a failure that is no system call's leaves it alone).
long tls_read(tls_session* session, void* into, std::size_t size);
long tls_write(tls_session* session, const void* bytes, std::size_t size);
// Decrypted bytes a read would return without touching the descriptor.
std::size_t tls_pending(const tls_session* session);

// Opt-in: after a handshake on a verifying context, why the server's
// certificate was refused, in words ("ok" when it was not).
const char* tls_verify_result(const tls_session* session);

// The library's text for the most recent failure of the calls above (for
// the debug log); "" when there was none.
const char* tls_error_text();
