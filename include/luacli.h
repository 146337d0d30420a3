// Module entry, object checks, option readers and the socket table.
#pragma once

#include "lua_api.h"

#include <cstring>

#include "ws_client.h"

constexpr int SOCKET_TABLE_SIZE = 1024;

// Open descriptors the main loop waits on, packed from slot 0; 0 = free.
extern int32_t socktbl[SOCKET_TABLE_SIZE];

// Slot index of fd (added, or already present), -1 when the table is full.
int sock_add(int32_t fd);
// 1 when fd was found and removed (the slots after it move down), else -1.
int sock_rem(int32_t fd);

ws_record* check_ws_client(lua_State* L, int index);
udp_record* check_udp_client(lua_State* L, int index);
tcp_record* check_tcp_client(lua_State* L, int index);

// Read options-table field `key` (table at `index` once the key is pushed).
// A text longer than 199 characters raises an argument error naming the key.
void get_tbl_str(lua_State* L, int index, const char* key, char (&dst)[TEXT_FIELD_SIZE]);
void get_tbl_num(lua_State* L, int index, const char* key, int32_t* out);

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

extern "C" int luaopen_ws_client(lua_State* L);
