// Shared definitions of the module: socket kind codes, status values and the
// three socket records. Every socket unit includes this header; it does not
// include lua.h, so the Lua-free core units can use it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "debug_log.h"

struct tls_context;  // see tls.h
struct tls_session;

// ---- kind codes (the script stores the same number under `type`) ----
constexpr int32_t SOCK_TYPE_WS = 0;
constexpr int32_t SOCK_TYPE_TCP = 1;
constexpr int32_t SOCK_TYPE_UDP = 2;

// ---- status values; WebSocket and TCP number connecting/open differently ----
constexpr int32_t WS_STATUS_CREATED = 3;
constexpr int32_t WS_STATUS_CONNECTING = 2;
constexpr int32_t WS_STATUS_OPEN = 1;
constexpr int32_t WS_STATUS_CLOSED = 0;

constexpr int32_t TCP_STATUS_CREATED = -1;
constexpr int32_t TCP_STATUS_CONNECTING = 1;
constexpr int32_t TCP_STATUS_OPEN = 2;
constexpr int32_t TCP_STATUS_CLOSED = 0;

constexpr int32_t UDP_STATUS_CREATED = -1;
constexpr int32_t UDP_STATUS_OPEN = 2;
constexpr int32_t UDP_STATUS_CLOSED = 0;

// fixed text fields hold 199 characters and a terminator
constexpr std::size_t TEXT_FIELD_SIZE = 200;

// metatable names; the braces are part of the names
constexpr const char* METATABLE_WS = "{SOCKET_WS}";
constexpr const char* METATABLE_UDP = "{SOCKET_UDP}";
constexpr const char* METATABLE_TCP = "{SOCKET_TCP}";
// indexed by kind code
constexpr const char* KIND_METATABLES[] = {METATABLE_WS, METATABLE_TCP, METATABLE_UDP};
static_assert(sizeof KIND_METATABLES / sizeof KIND_METATABLES[0] == SOCK_TYPE_UDP + 1);

// Opt-in protections of a stream socket, read from options keys the
// design does not use (cafile, capath, servername, io_timeout). All zero,
// that is off, unless the script sets the key; see docs/api.md.
struct stream_guard {
    char cafile[TEXT_FIELD_SIZE];      // CA bundle: verify the server's chain
    char capath[TEXT_FIELD_SIZE];      // hashed CA directory: the same
    char servername[TEXT_FIELD_SIZE];  // SNI, and the name the certificate must match
    double io_timeout;                 // seconds each blocking read/write may wait
    // a connection the loop drives (nonblocking): its set-up, sends, receives
    bool nonblocking;
    double connect_timeout;            // TCP: seconds the set-up may take; 0: no bound
    double max_queue;                  // bytes a send may leave queued; 0: the default
    char host[TEXT_FIELD_SIZE];        // TCP: a name or address in place of `ip`
    uint64_t loop_serial;              // the conn_table serial the loop drives it under
};

// ---- socket records ----
// All three begin with sock_type, sockfd, status so that code needing only
// those may read them through any record (see sock_header).
struct sock_header {
    int32_t sock_type;
    int32_t sockfd;
    int32_t status;
};

struct ws_record {
    int32_t sock_type;
    int32_t sockfd;
    int32_t status;
    int32_t is_secure;
    int32_t port;
    int32_t timeout;
    tls_session* ssl;
    tls_context* ssl_ctx;
    char url[TEXT_FIELD_SIZE];
    char crt[TEXT_FIELD_SIZE];
    char prikey[TEXT_FIELD_SIZE];
    char sec_ws_key[TEXT_FIELD_SIZE];
    char sec_ws_accept[TEXT_FIELD_SIZE];
    // Records are copied byte for byte and the copies share the TLS
    // handles; this serial names the TLS session the handles belong to so
    // that a stale copy can never free or use a session twice.
    uint64_t tls_serial;
    stream_guard guard;
};

struct tcp_record {
    int32_t sock_type;
    int32_t sockfd;
    int32_t status;
    int32_t is_secure;
    int32_t port;
    tls_session* ssl;
    tls_context* ssl_ctx;
    char ip[TEXT_FIELD_SIZE];
    char crt[TEXT_FIELD_SIZE];
    char prikey[TEXT_FIELD_SIZE];
    uint64_t tls_serial;  // as in ws_record
    stream_guard guard;
};

struct udp_record {
    int32_t sock_type;
    int32_t sockfd;
    int32_t status;
};

template <typename Record>
constexpr bool has_shared_prefix =
    std::is_standard_layout_v<Record> && offsetof(Record, sock_type) == offsetof(sock_header, sock_type) &&
    offsetof(Record, sockfd) == offsetof(sock_header, sockfd) &&
    offsetof(Record, status) == offsetof(sock_header, status);
static_assert(has_shared_prefix<ws_record>);
static_assert(has_shared_prefix<tcp_record>);
static_assert(has_shared_prefix<udp_record>);
