// The state of a connection the loop drives (options key `nonblocking`):
// its set-up (name, addresses, connect phases), the bytes its socket could
// not take yet, and what the plain TCP receive collected so far. Kept beside
// the connection's conn_table entry (conn_loop_state) and freed with it.
// Lua-free.
#pragma once

#include <cstddef>
#include <cstdint>

#include "connect_machine.h"
#include "resolve.h"
#include "tls.h"

// Bytes written in order as the socket drains; sized to the need.
struct byte_queue {
    char* bytes;
    std::size_t length;    // queued, from the start of `bytes`
    std::size_t written;   // of `length`, already gone
    std::size_t capacity;
};

struct loop_conn {
    connect_state setup;
    resolve_query* query;     // the host name while it resolves; null otherwise
    std::size_t next_address; // of query->addresses, the next to try
    int64_t setup_deadline_ms;
    std::size_t max_queue;    // bytes the queue may hold
    byte_queue out;
    byte_queue in;            // plain TCP: collected until the peer closes
    std::size_t collected;    // in: bytes read, zero bytes and all
    const struct setup_texts* texts;
    connect_outcome failure;  // what failed before the first step
    bool failed;
};

// Monotonic milliseconds.
int64_t monotonic_ms();

// A zero-filled state; null when out of memory.
loop_conn* loop_conn_new();
// Frees the state and everything it holds (the release hook of conn_entry).
void loop_conn_free(void* state);

// Appends `size` bytes; false (nothing appended) when the queue would then
// hold more than `limit` unwritten bytes, or out of memory.
bool byte_queue_push(byte_queue& queue, const void* bytes, std::size_t size, std::size_t limit);
// Unwritten bytes.
inline std::size_t byte_queue_pending(const byte_queue& queue) { return queue.length - queue.written; }
// Writes what the socket takes: 1 all written (the queue is empty again), 0
// some left (it would block), -1 failed (errno).
int byte_queue_flush(byte_queue& queue, int fd, tls_session* tls);
// Empties the queue and frees its bytes.
void byte_queue_reset(byte_queue& queue);

#include "conn_table.h"

// ---- the set-up ----

// The texts a failed set-up reports, by where it failed.
struct setup_texts {
    const char* resolve;  // the name did not resolve (on_error and on_close)
};

// Starts the set-up of `conn` (its `setup` filled as for connect_advance,
// fd and texts included, but no address): resolves `host` for `port`, bound
// with the rest of the set-up by `timeout_ms` (0: no bound of its own).
// False when out of memory.
bool setup_begin(loop_conn& conn, conn_entry& entry, const char* host, uint16_t port, int64_t timeout_ms,
                 const setup_texts* texts);
// A failure found before the first step (a wrong URL, no TLS context): the
// loop reports it at its next pass.
void setup_fail_later(loop_conn& conn, conn_entry& entry, const connect_outcome& failure);
// One step at the loop's call: name, then each address in turn (a socket of
// its family in place of fd), then the connect phases. Keeps entry.phase,
// wants and deadline_ms up to date. again while it waits; opened; failed
// (with the texts of the step that failed; ETIMEDOUT past the deadline).
connect_outcome setup_advance(loop_conn& conn, conn_entry& entry, int64_t now_ms);

// ---- sends ----

enum class queued_send : uint8_t { written, queued, full, failed };
// Writes `size` bytes now, or as much as the socket takes with the rest
// queued (all queued behind bytes already waiting); full when the queue
// cannot take them (nothing written), failed on a write error (errno).
queued_send loop_send(loop_conn& conn, conn_entry& entry, int fd, tls_session* tls, const void* bytes,
                      std::size_t size);
// The loop's call for an open connection that waits to write: 1 drained, 0
// more to write, -1 failed (errno). Keeps entry.wants up to date.
int loop_drain(loop_conn& conn, conn_entry& entry, int fd, tls_session* tls);
// A loop-driven connection's state made and attached to a fresh entry for
// fd; null when out of memory.
loop_conn* loop_conn_attach(int fd);
