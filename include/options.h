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
