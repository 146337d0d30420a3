// Registry lookups shared by the socket kinds, object checks, record blocks
// and the kind of a descriptor. Includes no kind's header.
#pragma once

#include "lua_api.h"

#include <cstdint>
#include <cstring>
#include <type_traits>

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

// The record registered for fd when fd's options table names a kind and the
// registered block carries that kind's metatable (its kind in *kind); null
// otherwise. Leaves the options table, its `type` and the registered value
// on the stack; raises as get_sock_type does.
void* registered_record(lua_State* L, int32_t fd, int32_t* kind);

// Closes the socket registered for fd through its kind's close, which calls
// on_close(reason). Unknown kinds, and objects that are not of the kind the
// options table names, are left alone. (Defined with the kinds table.)
void do_close(lua_State* L, int32_t fd, const char* reason);

// ---- objects ----

ws_record* check_ws_client(lua_State* L, int index);
udp_record* check_udp_client(lua_State* L, int index);
tcp_record* check_tcp_client(lua_State* L, int index);

// Debugging hook called at interesting points; intentionally empty.
void stackDump(lua_State* L);

// Pushes a new user data block with `metatable`, zero-filled.
void* new_record_block(lua_State* L, std::size_t size, const char* metatable);

// Pushes a new object holding a byte-for-byte copy of `record`.
template <typename Record>
Record* push_record_copy(lua_State* L, const Record& record, const char* metatable) {
    static_assert(std::is_trivially_copyable_v<Record>);
    auto* copy = static_cast<Record*>(new_record_block(L, sizeof(Record), metatable));
    std::memcpy(copy, &record, sizeof(Record));
    return copy;
}
