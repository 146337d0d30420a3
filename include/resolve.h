// Host names to socket addresses for the select() loop. Lua-free.
//
// Built with c-ares (WS_CLIENT_CARES) a query runs in the loop: each pass
// adds its descriptors with resolve_watch, folds resolve_wait_ms into the
// select() time-out, and calls resolve_advance after select(); the query is
// pending until it is done or failed. Without c-ares, resolve_start calls
// getaddrinfo() and returns the query done or failed: the call blocks for as
// long as the C library's resolver takes (its resolv.conf timeout and
// attempts; `timeout_ms` cannot shorten it).
//
// With c-ares, WS_CLIENT_DNS_SERVER (read at every start) names the servers
// to ask instead of resolv.conf's, as c-ares writes them:
// "127.0.0.1:5353" or "[::1]:53,192.0.2.1". Without c-ares it is ignored.
//
// Address literals are answered at once, without a query, either way.
#pragma once

#include <sys/socket.h>
#include <time.h>

#include <cstddef>
#include <cstdint>

#include "fdset.h"

// Addresses kept per name; further ones are dropped.
constexpr std::size_t RESOLVE_MAX_ADDRESSES = 8;
// Sockets one query watches (one per name server it is asking); a socket past
// these goes unwatched, and the query then ends at its deadline at the latest.
constexpr std::size_t RESOLVE_MAX_SOCKETS = 4;

enum class resolve_state : uint8_t { pending, done, failed };

struct resolved_address {
    sockaddr_storage address;  // with the port
    socklen_t length;
};

// A plain record owned by the caller through its pointer; nothing in it has
// a destructor. The fields are for reading.
struct resolve_query {
    resolve_state state;
    int error;          // failed: errno-like (ENOENT no such name, ETIMEDOUT, EAGAIN
                        // server failure, EINVAL bad name, ENOMEM, EIO, ...)
    const char* text;   // failed: why, a static text
    std::size_t count;  // done: at least one
    resolved_address addresses[RESOLVE_MAX_ADDRESSES];  // in the order to try
    uint16_t port;
    timespec deadline;  // CLOCK_MONOTONIC
    void* channel;      // the c-ares channel while pending
    struct {
        int fd;
        bool read, write;
    } sockets[RESOLVE_MAX_SOCKETS];  // what the channel waits on
    std::size_t socket_count;
};

// "c-ares" or "getaddrinfo": what names go through in this build.
const char* resolve_backend();

// Starts resolving `name` (a host name, or an IPv4 or IPv6 literal, which is
// done at once) for `port`; a pending query fails with ETIMEDOUT once
// `timeout_ms` have passed. Addresses of both families, alternating
// families after the first in the resolver's order (IPv6 first where the
// host can reach it). Null when out of memory; free with resolve_free.
resolve_query* resolve_start(const char* name, uint16_t port, int timeout_ms);

// Adds the descriptors a pending query waits on to the loop's sets and
// raises *highest to the largest; false when a set cannot grow.
bool resolve_watch(const resolve_query& query, select_set& readers, select_set& writers, int* highest);

// Milliseconds until resolve_advance is due with nothing ready (0 when not
// pending).
long resolve_wait_ms(const resolve_query& query);

// After select(): reads and writes what is ready (null: nothing), handles
// time-outs. The query may then be done or failed.
void resolve_advance(resolve_query& query, const select_set* readable, const select_set* writable);

// Cancels a pending query and frees it; null is fine.
void resolve_free(resolve_query* query);
