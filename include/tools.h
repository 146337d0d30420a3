// Registry lookups shared by the socket kinds.
#pragma once

#include "lua_api.h"
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/time.h>

#include <cstddef>
#include <span>

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

// ---- socket helpers ----

// A script number truncated toward zero to 32 bits. NaN reads as 0 and
// out-of-range values saturate (a plain cast would be undefined).
constexpr int32_t number_to_int32(double value) {
    if (!(value == value))
        return 0;
    if (value >= 2147483647.0)
        return 2147483647;
    if (value <= -2147483648.0)
        return -2147483647 - 1;
    return static_cast<int32_t>(value);
}

// Resolves `host` to dotted IPv4 text in `ip`; null when the name does not
// resolve or the text does not fit (16 characters always do).
char* get_ip(const char* host, std::span<char> ip);

// Kind code from the `type` field of fd's options table. Leaves the options
// table and the field on the stack. No options table: the interpreter's
// indexing error; `type` missing or not a number: an argument error.
int32_t get_sock_type(lua_State* L, int32_t fd);

// O_NONBLOCK on / off; 0, or -1 ("fcntl error" in the log).
int set_nonblocking(int fd);
int deactivate_nonblock(int fd);

// connect() that gives up after timeout_sec seconds (0: plain connect on the
// descriptor as it is). 0 connected, -1 failed with errno telling why
// (ETIMEDOUT on time-out). The blocking mode is restored on every path.
int connect_timeout(int fd, const sockaddr_in* address, int32_t timeout_sec);

// Closes the socket registered for fd through its kind's close, which calls
// on_close(reason). Unknown kinds, and objects that are not of the kind the
// options table names, are left alone.
void do_close(lua_State* L, int32_t fd, const char* reason);

// Keeps the value at `index` reachable until anchor_release: for a record
// that C code still uses after a callback (callbacks clear the stack, and the
// script may drop every other reference meanwhile).
int anchor_value(lua_State* L, int index);
void anchor_release(lua_State* L, int anchor);

// ---- descriptor sets for select() ----
// fd_set holds descriptors below FD_SETSIZE (1024) only, and FD_SET past its
// end writes out of bounds, while the socket table can hold descriptors far
// above that. Linux select() accepts longer sets in the same layout (nfds bits
// rounded up to whole longs), so every select() in this module uses these
// instead of fd_set/FD_SET:
//   - select_set: a bit array grown to the highest descriptor added, reused
//     from call to call. Keep one in static storage per use site (it owns heap
//     memory and has no destructor, so a Lua error unwinding past it loses
//     nothing), clear it, add descriptors, pass select_set_fds(set) to select.
//   - select_single: the common "wait on one descriptor" case (connect with
//     a time-out, the send path's writability poll, the handshake's wait).
struct select_set {
    unsigned long* words;
    std::size_t word_count;
};
// Clears every bit the set holds.
void select_set_clear(select_set& set);
// Adds fd, growing the set as needed; false when out of memory. Negative
// descriptors are never added (and do not fail).
bool select_set_add(select_set& set, int fd);
// False for descriptors beyond the set's size.
bool select_set_has(const select_set& set, int fd);
// The set as select() takes it; covers every descriptor added since the last
// clear.
fd_set* select_set_fds(select_set& set);

enum class wait_for { read, write };
// select(fd + 1, ...) with fd alone in the read or write set; returns what
// select() returns, errno as it left it. On Linux `timeout` then holds the
// time that remained, so a retry after EINTR keeps counting down.
int select_single(int fd, wait_for what, timeval* timeout);

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

// ---- WebSocket URLs ----

// 1 for a "wss" prefix, 0 for "ws", -1 otherwise (exact case; nothing after
// the prefix is looked at).
int is_secure(const char* url);

// Cuts `url` in place at every "/" (empty pieces vanish): the first piece is
// the scheme, the second the host (":port" and all, copied whole), every
// further piece is appended to `path` as "/piece". Both outputs are
// overwritten. 0, or -1 when there is no host piece or an output is too
// small (host and path are empty then).
int get_host_path(char* url, std::span<char> host, std::span<char> path);
