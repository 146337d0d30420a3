// Registry lookups shared by the socket kinds, the kind of a descriptor, and
// the close by descriptor.
#pragma once

#include <lua.hpp>

#include <cstdint>

#include "ws_client.h"

// "sockfd-<fd>" / "udata-<fd>": the registry keys of a descriptor's options
// table and record.
struct registry_key {
    char text[32];
};
registry_key sockfd_key(int32_t fd);
registry_key udata_key(int32_t fd);

// registry[key] = top value; pops it.
void registry_store_top(lua_State* L, const registry_key& key);

// Pushes the object registered under fd's udata key (nil when none).
void get_udata_by_sockfd(lua_State* L, int32_t fd);
// The same push; the record's shared header when the value is a socket
// record block, null otherwise. The value stays on the stack.
const sock_header* push_registered(lua_State* L, int32_t fd);

// Mark the record registered under fd's udata key closed (status 0); the
// entry itself is kept. Leaves the stack as it was.
void ws_udata_close(lua_State* L, int32_t fd);
void tcp_udata_close(lua_State* L, int32_t fd);
void udp_udata_close(lua_State* L, int32_t fd);

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

// Kind code from the `type` field of fd's options table. Leaves the options
// table and the field on the stack. No options table: the interpreter's
// indexing error; `type` missing or not a number: an argument error.
int32_t get_sock_type(lua_State* L, int32_t fd);

// Closes the socket registered for fd through its kind's close, which calls
// on_close(reason). Unknown kinds, and objects that are not of the kind the
// options table names, are left alone.
void do_close(lua_State* L, int32_t fd, const char* reason);
