// State of loop-driven connections: queues and their writes.
#include "loop_conn.h"

#include <time.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "net.h"
#include "transport.h"

#ifdef lua_h
#error "the loop-driven connection state must stay free of the interpreter"
#endif

int64_t monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for this clock
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

loop_conn* loop_conn_new() { return static_cast<loop_conn*>(std::calloc(1, sizeof(loop_conn))); }

void loop_conn_free(void* state) {
    auto* conn = static_cast<loop_conn*>(state);
    if (conn == nullptr)
        return;
    resolve_free(conn->query);
    connect_release(conn->setup);
    byte_queue_reset(conn->out);
    byte_queue_reset(conn->in);
    std::free(conn);
}

void byte_queue_reset(byte_queue& queue) {
    std::free(queue.bytes);
    queue = byte_queue{};
}

bool byte_queue_push(byte_queue& queue, const void* bytes, std::size_t size, std::size_t limit) {
    const std::size_t pending = byte_queue_pending(queue);
    if (size == 0)
        return true;
    if (size > limit || pending > limit - size)
        return false;
    if (queue.written > 0 && queue.written == queue.length)
        queue.length = queue.written = 0;  // drained: start over at the front
    if (queue.length + size > queue.capacity) {
        // move the unwritten bytes to the front, then grow to the need
        if (queue.written > 0)
            std::memmove(queue.bytes, queue.bytes + queue.written, pending);
        queue.length = pending;
        queue.written = 0;
        std::size_t wanted = queue.capacity == 0 ? 4096 : queue.capacity;
        while (wanted < pending + size)
            wanted *= 2;
        if (wanted > queue.capacity) {
            void* grown = std::realloc(queue.bytes, wanted);
            if (grown == nullptr)
                return false;
            queue.bytes = static_cast<char*>(grown);
            queue.capacity = wanted;
        }
    }
    std::memcpy(queue.bytes + queue.length, bytes, size);
    queue.length += size;
    return true;
}

int byte_queue_flush(byte_queue& queue, int fd, tls_session* tls) {
    while (queue.written < queue.length) {
        const long sent = stream_write(fd, tls, queue.bytes + queue.written, queue.length - queue.written);
        if (sent == -1)
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? 0 : -1;
        queue.written += static_cast<std::size_t>(sent);
    }
    queue.length = queue.written = 0;
    return 1;
}

// ---- the set-up ----

namespace {

constexpr connect_outcome waiting{connect_outcome::again, wait_for::read, 0, nullptr, nullptr, nullptr, nullptr};

// The failure of the step at `phase`, with errno `error`.
connect_outcome failure_at(const loop_conn& conn, int error) {
    errno = error;
    if (conn.query != nullptr && conn.query->state != resolve_state::done)
        return connect_failed(conn.texts->resolve, conn.texts->resolve);
    switch (conn.setup.phase) {
    case connect_phase::tcp:
        return connect_failed(nullptr, nullptr);
    case connect_phase::tls:
        return connect_failed(conn.setup.texts->tls_message, conn.setup.texts->tls_reason, nullptr,
                              "ssl_connect_fail\n");
    default:
        return connect_failed(nullptr, "handshake fail", "do handshake fail\n");
    }
}

// A socket of the next address's family in place of fd, its connect
// started: again (wait to write), next (connected at once), or failed when
// no address is left.
connect_outcome start_next_address(loop_conn& conn) {
    connect_state& c = conn.setup;
    int error = ECONNREFUSED;
    while (conn.next_address < conn.query->count) {
        const resolved_address& to = conn.query->addresses[conn.next_address++];
        c.phase = connect_phase::tcp;
        c.started = false;
        if (adopt_family(c.fd, to.address.ss_family, SOCK_STREAM, true) == -1) {
            error = errno;
            continue;
        }
        const int started = connect_start_address(c.fd, reinterpret_cast<const sockaddr*>(&to.address), to.length);
        if (started == -1) {
            error = errno;
            continue;
        }
        c.started = true;
        return started == 1 ? connect_outcome{connect_outcome::again, wait_for::write, 0, nullptr, nullptr, nullptr,
                                              nullptr}
                            : connect_outcome{connect_outcome::next, wait_for::write, 0, nullptr, nullptr, nullptr,
                                              nullptr};
    }
    return failure_at(conn, error);
}

// Phases from here; a TCP connect that fails moves on to the next address.
connect_outcome advance_phases(loop_conn& conn) {
    for (;;) {
        const connect_outcome outcome = connect_advance(conn.setup);
        if (outcome.what != connect_outcome::failed || conn.setup.phase != connect_phase::tcp ||
            conn.next_address >= conn.query->count)
            return outcome;
        const connect_outcome next = start_next_address(conn);
        if (next.what != connect_outcome::next)
            return next;
    }
}

void settle(conn_entry& entry, const loop_conn& conn, const connect_outcome& outcome) {
    entry.phase = outcome.what == connect_outcome::opened ? connect_phase::open : conn.setup.phase;
    entry.wants = outcome.what != connect_outcome::again || conn.query->state != resolve_state::done ? conn_wait::none
                  : outcome.wait == wait_for::write                                                 ? conn_wait::write
                                                                                                     : conn_wait::read;
    entry.deadline_ms = outcome.what == connect_outcome::again ? conn.setup_deadline_ms : 0;
}

connect_outcome step(loop_conn& conn, int64_t now_ms) {
    if (conn.failed)
        return conn.failure;
    if (conn.setup_deadline_ms != 0 && now_ms >= conn.setup_deadline_ms)
        return failure_at(conn, ETIMEDOUT);
    if (conn.query->state == resolve_state::pending)
        return waiting;
    if (conn.query->state == resolve_state::failed)
        return failure_at(conn, conn.query->error);
    if (!conn.setup.started && conn.setup.phase == connect_phase::tcp) {
        const connect_outcome started = start_next_address(conn);
        if (started.what != connect_outcome::next)
            return started;
    }
    return advance_phases(conn);
}

}  // namespace

bool setup_begin(loop_conn& conn, conn_entry& entry, const char* host, uint16_t port, int64_t timeout_ms,
                 const setup_texts* texts) {
    conn.texts = texts;
    conn.setup_deadline_ms = timeout_ms > 0 ? monotonic_ms() + timeout_ms : 0;
    // the resolver needs a bound of its own when the set-up has none
    conn.query = resolve_start(host, port, timeout_ms > 0 ? static_cast<int>(timeout_ms) : 30000);
    if (conn.query == nullptr)
        return false;
    entry.phase = connect_phase::tcp;
    entry.wants = conn_wait::none;
    // a name known at once starts at the loop's first pass
    entry.deadline_ms = conn.query->state == resolve_state::pending ? conn.setup_deadline_ms : 1;
    return true;
}

void setup_fail_later(loop_conn& conn, conn_entry& entry, const connect_outcome& failure) {
    conn.failure = failure;
    conn.failed = true;
    entry.wants = conn_wait::none;
    entry.deadline_ms = 1;  // long passed: the next pass steps it
}

connect_outcome setup_advance(loop_conn& conn, conn_entry& entry, int64_t now_ms) {
    const connect_outcome outcome = step(conn, now_ms);
    if (!conn.failed)
        settle(entry, conn, outcome);
    return outcome;
}

// ---- sends ----

queued_send loop_send(loop_conn& conn, conn_entry& entry, int fd, tls_session* tls, const void* bytes,
                      std::size_t size) {
    // accepted whole or not at all: nothing goes out unless the rest could wait
    if (size > conn.max_queue || byte_queue_pending(conn.out) > conn.max_queue - size)
        return queued_send::full;
    std::size_t sent = 0;
    if (byte_queue_pending(conn.out) == 0) {
        const long written = stream_write(fd, tls, bytes, size);
        if (written == -1 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            return queued_send::failed;
        sent = written > 0 ? static_cast<std::size_t>(written) : 0;
        if (sent == size)
            return queued_send::written;
    }
    // a TLS write that would block has taken the bytes it will write: they
    // are passed again, whole, when the socket drains
    if (tls != nullptr)
        sent = 0;
    if (!byte_queue_push(conn.out, static_cast<const char*>(bytes) + sent, size - sent, conn.max_queue) &&
        (errno = ENOMEM))
        return sent == 0 ? queued_send::full : queued_send::failed;  // out of memory half-way
    entry.wants = conn_wait::write;
    return queued_send::queued;
}

int loop_drain(loop_conn& conn, conn_entry& entry, int fd, tls_session* tls) {
    const int drained = byte_queue_flush(conn.out, fd, tls);
    entry.wants = drained == 0 ? conn_wait::write : conn_wait::none;
    return drained;
}

loop_conn* loop_conn_attach(int fd) {
    loop_conn* conn = loop_conn_new();
    if (conn == nullptr)
        return nullptr;
    if (conn_open(fd) == 0 || !conn_set_loop_state(fd, conn, loop_conn_free)) {
        conn_drop(fd);
        loop_conn_free(conn);
        return nullptr;
    }
    return conn;
}
