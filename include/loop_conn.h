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
    bool peer_closed;         // in: the end of the stream was read
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
