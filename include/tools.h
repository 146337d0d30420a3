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
