// One read and one write for a stream socket, plain or through its TLS
// session. Lua-free.
//
// The contract, for both kinds: the byte count; 0 at the end of the stream
// (a read into no room returns 0 without a call); -1 on failure with errno as
// the failing system call left it. A TLS failure that is no system call's
// leaves errno alone (callers that act on errno clear it first); the TLS
// error queue is cleared before each call. Plain writes never raise SIGPIPE
// (a reset peer gives EPIPE), nor do TLS writes (see tls.h).
#pragma once

#include <cstddef>

#include "tls.h"

// `tls` null: plain recv/send on fd; otherwise the session (bound to fd).
long stream_read(int fd, tls_session* tls, void* into, std::size_t size);
long stream_write(int fd, tls_session* tls, const void* bytes, std::size_t size);
