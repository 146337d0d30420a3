// Per-connection state beside the socket records, by descriptor. Records
// are copied byte for byte, so what belongs to one connection and must not be
// copied (the phase of a connect the loop drives, what it waits for and until
// when, the session of another framing) lives here, each entry under a
// serial that is never reused: a descriptor taken over by a new connection
// never sees the old one's state. Lua-free.
#pragma once

#include <cstddef>
#include <cstdint>

#include "connect_machine.h"

enum class conn_wait : uint8_t { none, read, write };

// How a connection of another framing ended, as its session tells it: what
// on_close reports beside the reason.
struct conn_ending {
    bool peer_closed;   // a close frame came: `reason` is the peer's
    uint16_t code;      // the peer's, the one sent on a failure, else 1006
    uint8_t reason_size;
    char reason[123];   // a close frame's longest reason
};

struct conn_entry {
    uint64_t serial;           // names the connection; 0: the slot is free
    connect_phase phase;       // open once connected
    conn_wait wants;           // what the loop waits for on the descriptor, besides reading
    int64_t deadline_ms;       // monotonic milliseconds the wait may last until; 0: none
    void* session;             // another framing's state, owned by the entry; null: none
    void (*release)(void* session);  // frees `session` when the entry goes
    // Tells how `session`'s connection ended; null: a session that reports no code.
    void (*ending)(const void* session, conn_ending* end);
};

// A fresh entry for fd (an old one is released first); its serial, or 0
// when fd is negative or the table cannot grow.
uint64_t conn_open(int fd);
// The entry of fd when it still belongs to connection `serial`; else null.
conn_entry* conn_find(int fd, uint64_t serial);
// Releases fd's entry, whatever connection it belongs to (the descriptor is
// being closed): its session through the release hook.
void conn_drop(int fd);
// fd's end as its entry's session tells it (taken before the entry goes):
// false, nothing written, when fd has no entry or its session tells none.
bool conn_ended(int fd, conn_ending* end);
// What the loop waits for on fd besides reading: none when fd has no entry.
conn_wait conn_wants(int fd);
// The entry of fd when one is in use; else null.
conn_entry* conn_at(int fd);
// The lowest descriptor above `after` with an entry in use; -1 when none.
int conn_next(int after);
// A loop-driven connection's own state (set-up, queues), kept beside fd's
// entry and freed through `release` with it. Null when none.
void* conn_loop_state(int fd);
// Gives fd's entry (which must be in use) `state`; false otherwise.
bool conn_set_loop_state(int fd, void* state, void (*release)(void* state));
// Entries in use (for diagnostics and tests).
std::size_t conn_count();
