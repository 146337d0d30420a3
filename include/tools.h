// Registry lookups shared by the socket kinds.
#pragma once

#include <lua.hpp>

#include "ws_client.h"

// "sockfd-%d" / "udata-%d" formatted with a descriptor.
struct registry_key {
    char text[32];
};
registry_key sockfd_key(int32_t fd);
registry_key udata_key(int32_t fd);

// registry[key] = top value; pops it.
void registry_store_top(lua_State* L, const registry_key& key);

// Pushes the object registered under fd's udata key (nil when none).
void get_udata_by_sockfd(lua_State* L, int32_t fd);

// Mark the record registered under fd's udata key closed (status 0); the
// entry itself is kept. Leaves the stack as it was.
void ws_udata_close(lua_State* L, int32_t fd);
void tcp_udata_close(lua_State* L, int32_t fd);
void udp_udata_close(lua_State* L, int32_t fd);

// ---- TLS session ownership ----
// Records are copied byte for byte, so several records may hold the same
// TLS handles. Every context a record gets is entered in a module-wide table
// under a serial that is never reused, together with the session made on it
// later. A record's handles are valid only while its serial is live;
// releasing frees the session and the context once and retires the serial.

// Enters ctx (owned from now on) and returns its new serial (never 0).
uint64_t tls_adopt(SSL_CTX* ctx);
// The live entry `serial` also owns ssl from now on.
void tls_adopt_session(uint64_t serial, SSL* ssl);
bool tls_live(uint64_t serial);
// Frees the entry's session, then its context; nothing when not live.
void tls_release(uint64_t serial);
// Entries still live (for diagnostics and tests).
std::size_t tls_live_count();

// The record's session, or null when it has none or its serial was retired.
template <typename Record>
SSL* tls_session(const Record& record) {
    return tls_live(record.tls_serial) ? record.ssl : nullptr;
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

// ---- TLS session set-up ----
// Init (library set-up and a context; the TCP variant loads the client
// certificate chain and key) before the TCP connect, connect (a session on
// the connected descriptor and a blocking handshake) after it. 0 or -1; the
// handles made so far stay with the record for its close to free. No peer
// verification, no server name.
int wss_ssl_init(ws_record* record);
int wss_ssl_connect(ws_record* record);
int tcp_ssl_init(tcp_record* record);
int tcp_ssl_connect(tcp_record* record);
