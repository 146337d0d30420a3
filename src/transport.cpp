// Plain-or-TLS stream reads and writes.
#include "transport.h"

#include <sys/time.h>

#include <cerrno>

#ifdef lua_h
#error "the transport must stay free of the interpreter"
#endif

namespace {

// The wait bound set on fd in the direction `option`. Asked only after a
// failed or short call, never on the way of a successful one; keeps errno.
bool bounded(int fd, int option) {
    const int kept = errno;
    timeval wait{};
    socklen_t length = sizeof wait;
    const bool set = getsockopt(fd, SOL_SOCKET, option, &wait, &length) == 0 && (wait.tv_sec != 0 || wait.tv_usec != 0);
    errno = kept;
    return set;
}

}  // namespace

void stream_note_timeout(int fd, int option) {
    // the socket is blocking: EAGAIN can only be the bound running out
    if ((errno == EAGAIN || errno == EWOULDBLOCK) && bounded(fd, option))
        errno = ETIMEDOUT;
}

int stream_bound_waits(int fd, double seconds) {
    // plain conversions (no libm on the device): seconds >= 0 here, so the
    // cast truncates
    const double capped = seconds < 1e9 ? seconds : 1e9;
    const auto whole = static_cast<time_t>(capped);
    timeval wait{whole, static_cast<suseconds_t>((capped - static_cast<double>(whole)) * 1e6)};
    if (wait.tv_sec == 0 && wait.tv_usec == 0)
        wait.tv_usec = 1;  // a zero timeval would mean no bound at all
    if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait) != 0 ||
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait) != 0)
        return -1;
    return 0;
}

long stream_read(int fd, tls_session* tls, void* into, std::size_t size) {
    if (size == 0)
        return 0;
    const long got = tls != nullptr ? tls_read(tls, into, size) : static_cast<long>(recv(fd, into, size, 0));
    if (got >= 0)
        return got;
    stream_note_timeout(fd, SO_RCVTIMEO);
    return -1;
}

long stream_write(int fd, tls_session* tls, const void* bytes, std::size_t size) {
    const long sent =
        tls != nullptr ? tls_write(tls, bytes, size) : static_cast<long>(send(fd, bytes, size, MSG_NOSIGNAL));
    if (sent < 0) {
        stream_note_timeout(fd, SO_SNDTIMEO);
        return -1;
    }
    // A blocking send returns short only when cut off: by the bound, when
    // there is one (a signal otherwise, as designed).
    if (static_cast<std::size_t>(sent) < size && tls == nullptr && bounded(fd, SO_SNDTIMEO)) {
        errno = ETIMEDOUT;
        return -1;
    }
    return sent;
}
