// Plain-or-TLS stream reads and writes.
#include "transport.h"

#include <sys/socket.h>

#ifdef lua_h
#error "the transport must stay free of the interpreter"
#endif

long stream_read(int fd, tls_session* tls, void* into, std::size_t size) {
    if (size == 0)
        return 0;
    if (tls != nullptr)
        return tls_read(tls, into, size);
    const ssize_t got = recv(fd, into, size, 0);
    return got < 0 ? -1 : static_cast<long>(got);
}

long stream_write(int fd, tls_session* tls, const void* bytes, std::size_t size) {
    if (tls != nullptr)
        return tls_write(tls, bytes, size);
    const ssize_t sent = send(fd, bytes, size, MSG_NOSIGNAL);
    return sent < 0 ? -1 : static_cast<long>(sent);
}
