// The connect of a WebSocket or TCP record as phases: TCP connect, TLS
// handshake, send upgrade, read upgrade, open. Each phase is a step that
// returns an outcome and reports nothing; the caller reports a failure once
// (on_error, the close). With a blocking descriptor the steps wait as the
// designed connect always did (connect time-out, the TLS library's own
// waits, 5 s for the answer or io_timeout when set); otherwise a step that cannot go on says what
// the descriptor must become, for a loop to wait on. Lua-free.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "fdset.h"
#include "handshake.h"
#include "heap_buffer.h"
#include "ws_client.h"

struct ws_upgrade;  // ws_upgrade.h

enum class connect_phase : uint8_t { tcp, tls, send_upgrade, read_upgrade, open };

struct connect_outcome {
    enum kind : uint8_t { again, next, opened, failed } what;
    wait_for wait;           // again: readable or writable
    int error;               // failed: the errno on_error gets
    const char* message;     // failed: on_error's text; null: the text of `error`
    const char* reason;      // failed: on_close's reason; null: the text of errno after on_error
    const char* log_before;  // failed: the caller's log line before the report, or null
    const char* log_after;   // failed: the caller's log line after the close, or null
};

// The texts a TLS failure reports; they differ between the kinds.
struct connect_texts {
    const char* tls_message;
    const char* tls_reason;
};

// One connect. Zero-fill, then set what the caller knows (fd, address,
// timeout, the record, texts; host and path for a WebSocket).
struct connect_state {
    connect_phase phase;
    bool blocking;  // the descriptor blocks: the steps wait as designed
    bool started;   // the phase's first half is done (connect under way, session made)
    int fd;
    int32_t timeout;  // seconds the TCP connect may take; 0: a plain connect
    sockaddr_in address;
    ws_record* ws;  // the record connecting: one of the two
    tcp_record* tcp;
    const connect_texts* texts;
    char host[TEXT_FIELD_SIZE];
    char path[TEXT_FIELD_SIZE];
    // the upgrade
    // Designed: host and path are record-sized, the request always fits.
    // Standard mode: the caller writes it (extra header lines included).
    char request[4096];
    std::size_t request_length;
    std::size_t sent;
    heap_buffer answer;  // the answer's bytes so far (taken by the read phase)
    std::size_t have;
    answer_scan scan;
    std::size_t answer_used;  // opened: the answer's length
    ws_upgrade* upgrade;      // standard mode: the request is written and the answer read whole; null: designed
};

// Runs steps from c.phase until one waits (again), fails or the connection
// is open. On a blocking descriptor (c.blocking) it never returns again.
connect_outcome connect_advance(connect_state& c);

// The designed connect: the steps on the blocking descriptor, waits and all.
connect_outcome connect_blocking(connect_state& c);

// What came after the upgrade answer in its reads (frames), once open.
std::span<const char> connect_leftover(const connect_state& c);
// Gives back what the connect holds (the answer); the leftover goes with it.
void connect_release(connect_state& c);

// A failed outcome (errno saved now) with the texts given.
connect_outcome connect_failed(const char* message, const char* reason, const char* log_before = nullptr,
                               const char* log_after = nullptr);
