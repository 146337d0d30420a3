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

timeval bound_wait(double seconds) {
    // plain conversions (no libm on the device): seconds >= 0 here, so the
    // cast truncates
    const double capped = seconds < 1e9 ? seconds : 1e9;
    const auto whole = static_cast<time_t>(capped);
    timeval wait{whole, static_cast<suseconds_t>((capped - static_cast<double>(whole)) * 1e6)};
    if (wait.tv_sec == 0 && wait.tv_usec == 0)
        wait.tv_usec = 1;  // a zero timeval would mean no bound at all
    return wait;
}

int stream_bound_waits(int fd, double seconds) {
    const timeval wait = bound_wait(seconds);
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

namespace {

// The first read asks for this much at least (a page); what fills it is
// continued.
constexpr std::size_t kFirstRead = 4096;

// A read that never waits: plain bytes already received, or decrypted bytes
// the session holds. 0 when there are none.
long read_ready(int fd, tls_session* tls, void* into, std::size_t size) {
    if (tls == nullptr)
        return static_cast<long>(recv(fd, into, size, MSG_DONTWAIT));
    const std::size_t pending = tls_pending(tls);
    return pending == 0 ? 0 : tls_read(tls, into, pending < size ? pending : size);
}

}  // namespace

long stream_read_grow(int fd, tls_session* tls, heap_buffer& buffer, std::size_t at, std::size_t room) {
    const std::size_t held = buffer.capacity > at ? buffer.capacity - at : 0;
    std::size_t ask = held > kFirstRead ? held : kFirstRead;
    ask = ask < room ? ask : room;
    if (!heap_grow(buffer, at + ask))
        return -1;
    const long first = stream_read(fd, tls, buffer.bytes + at, ask);
    if (first < 0 || static_cast<std::size_t>(first) < ask || ask == room)
        return first;
    const int kept = errno;
    std::size_t total = static_cast<std::size_t>(first);
    while (total < room) {
        ask = total < room - total ? total : room - total;  // doubles what is held
        if (!heap_grow(buffer, at + total + ask))
            break;
        const long more = read_ready(fd, tls, buffer.bytes + at + total, ask);
        if (more <= 0)
            break;
        total += static_cast<std::size_t>(more);
        if (static_cast<std::size_t>(more) < ask)
            break;
    }
    errno = kept;
    return static_cast<long>(total);
}
