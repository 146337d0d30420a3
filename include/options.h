// Reading the options table a script passes to a connect: the designed keys
// (read as they always were) and the opt-in keys, one row each.
#pragma once

#include "lua_api.h"

#include <cstdint>

#include "ws_client.h"

// Read options-table field `key` (table at `index` once the key is pushed).
// A text longer than 199 characters raises an argument error naming the key.
void get_tbl_str(lua_State* L, int index, const char* key, char (&dst)[TEXT_FIELD_SIZE]);
void get_tbl_num(lua_State* L, int index, const char* key, int32_t* out);

// The opt-in keys of a stream socket, from the options table on top: a
// missing key leaves its protection off; a present one must have the right
// type (and io_timeout be 0 or more) or raises an argument error naming it.
// `tcp`: also the TCP-only keys (host, connect_timeout). The keys of a
// loop-driven connection other than `nonblocking` itself raise an argument
// error without nonblocking = true.
void read_guard(lua_State* L, stream_guard& guard, bool tcp);

// Standard mode (rfc6455 = true), per connection; see docs/api.md.
constexpr double WS_MAX_QUEUE_DEFAULT = 4194304;  // bytes waiting to be written
constexpr double WS_CLOSE_TIMEOUT_DEFAULT = 5;    // seconds
struct standard_options {
    bool on;                   // rfc6455
    double max_message;        // bytes
    double max_queue;          // bytes
    double close_timeout;      // seconds
    double ping_interval;      // seconds; 0: no keepalive
    double pong_timeout;       // seconds; 0: none
    char protocols[512];       // offered, "a, b"; "" none
    char headers[2048];        // extra request lines, "Name: value\r\n" each
};
// rfc6455 from the options table on top (a boolean when present) and, when
// it is true, the other standard keys (defaults for the missing ones). A
// value of the wrong type, a number out of range, a protocol that is no
// token, a header with CR, LF or a zero byte (or a name that is no token),
// or lists too long for the request raise an argument error naming the key.
void read_standard(lua_State* L, standard_options& options);
