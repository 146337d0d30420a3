// TLS sessions of the socket records: who owns them, and their set-up.
// Lua-free.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tls.h"
#include "ws_client.h"

// ---- ownership ----
// Records are copied byte for byte, so several records may hold the same
// TLS handles. Every context a record gets is entered in a module-wide table
// under a serial that is never reused, together with the session made on it
// later. A record's handles are valid only while its serial is live;
// releasing frees the session and the context once and retires the serial.

// Enters ctx (owned from now on) and returns its new serial; 0 (ctx freed)
// when the table cannot grow.
uint64_t tls_adopt(tls_context* ctx);
// The live entry `serial` also owns `session` from now on.
void tls_adopt_session(uint64_t serial, tls_session* session);
bool tls_live(uint64_t serial);
// Frees the entry's session, then its context; nothing when not live.
void tls_release(uint64_t serial);
// Entries still live (for diagnostics and tests).
std::size_t tls_live_count();

// The record's session, or null when it has none or its serial was retired.
template <typename Record>
tls_session* live_session(const Record& record) {
    return tls_live(record.tls_serial) ? record.ssl : nullptr;
}

// The session a record's stream goes through: null for a plain record (true);
// for a secure one its live session, or false when it is gone (released
// through another copy). Sets no errno: each caller says what a gone session
// means to it.
template <typename Record>
bool record_stream(const Record& record, tls_session** tls) {
    *tls = record.is_secure == 1 ? live_session(record) : nullptr;
    return record.is_secure != 1 || *tls != nullptr;
}

// Frees what the record's serial owns (once, whichever copy comes first)
// and clears the record's handles.
template <typename Record>
void tls_release_record(Record& record) {
    tls_release(record.tls_serial);
    record.ssl = nullptr;
    record.ssl_ctx = nullptr;
    record.tls_serial = 0;
}

// A copy whose session was released through another copy is a closed copy:
// the descriptor went with the session, and its number may already belong to
// another connection. Brings such a copy to its closed form (no handles,
// descriptor -1) and returns true; leaves any other record alone.
template <typename Record>
bool tls_settle_stale_copy(Record& record) {
    if (record.tls_serial == 0 || tls_live(record.tls_serial))
        return false;
    record.ssl = nullptr;
    record.ssl_ctx = nullptr;
    record.tls_serial = 0;
    record.sockfd = -1;
    return true;
}

// ---- set-up ----
// Init (library set-up and a context; the TCP variant loads the client
// certificate chain and key) before the TCP connect, connect (a session on
// the connected descriptor and a blocking handshake) after it. 0 or -1; the
// handles made so far stay with the record for its close to free. No peer
// verification, no server name, unless the record's guard asks for them:
// cafile/capath make init load the CA certificates (a failure to load fails
// init) and connect verify the chain and the identity (servername if set,
// else for wss the URL's host without a port, for TCP the dotted address);
// servername also goes out as SNI. A refused certificate fails connect like
// any failed handshake; the debug log says why.
int wss_ssl_init(ws_record* record);
int wss_ssl_connect(ws_record* record, const char* host);
int tcp_ssl_init(tcp_record* record);
int tcp_ssl_connect(tcp_record* record);
// Connect without the handshake, for a caller that steps it itself
// (tls_session_step on the record's live session). 0 or -1.
int wss_ssl_begin(ws_record* record, const char* host);
int tcp_ssl_begin(tcp_record* record);
