// One read and one write for a stream socket, plain or through its TLS
// session. Lua-free.
//
// The contract, for both kinds: the byte count; 0 at the end of the stream
// (a read into no room returns 0 without a call); -1 on failure with errno as
// the failing system call left it. A TLS failure that is no system call's
// leaves errno alone (callers that act on errno clear it first); the TLS
// error queue is cleared before each call. Plain writes never raise SIGPIPE
// (a reset peer gives EPIPE), nor do TLS writes (see tls.h).
//
// Opt-in wait bound (options key io_timeout): stream_bound_waits gives each
// blocking read and write on the descriptor, the TLS library's own included,
// at most that long to wait. One that runs out fails with ETIMEDOUT; a write
// cut short by it fails too (-1, ETIMEDOUT), since the stream is broken
// then. Without the bound nothing here changes.
#pragma once

#include <sys/socket.h>
#include <sys/time.h>

#include <cstddef>

#include "heap_buffer.h"
#include "tls.h"

// `tls` null: plain recv/send on fd; otherwise the session (bound to fd).
long stream_read(int fd, tls_session* tls, void* into, std::size_t size);
long stream_write(int fd, tls_session* tls, const void* bytes, std::size_t size);

// One read of at most `room` bytes into `buffer` at offset `at`, returning
// what one read into a room that large returns, with the buffer grown only
// to what came: a read that fills the buffer is followed by reads that do not
// wait, for bytes already there (decrypted bytes on TLS, where one read
// returns one record). errno as the first read left it; -1 with ENOMEM when
// the buffer cannot grow.
long stream_read_grow(int fd, tls_session* tls, heap_buffer& buffer, std::size_t at, std::size_t room);

// Bounds every blocking wait of a read or write on fd to `seconds` (> 0;
// SO_RCVTIMEO/SO_SNDTIMEO, set once: no cost per call). 0 or -1 (errno).
int stream_bound_waits(int fd, double seconds);
// `seconds` (> 0) as the wait bound the socket gets: capped at 1e9 s, and
// never the zero that would mean no bound.
timeval bound_wait(double seconds);
// For a call on fd that failed outside the two above (the TLS handshake): a
// bounded wait that ran out turns errno from EAGAIN into ETIMEDOUT.
void stream_note_timeout(int fd, int option = SO_RCVTIMEO);
