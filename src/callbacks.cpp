// Calls into the script: find the callback in the socket's options table and
// run it in protected mode.
#include "callbacks.h"

#include <cerrno>

#include "tools.h"

#define LOG_UNIT "callbacks"

void get_cb(lua_State* L, int32_t fd, const char* name) {
    const registry_key key = sockfd_key(fd);
    lua_getfield(L, LUA_REGISTRYINDEX, key.text);  // options table (or nil)
    lua_getfield(L, -1, name);                       // raises on nil, by design
}

void error_callback(lua_State* L, int32_t fd, int errnum, const char* message) {
    (void)errnum;  // the script always sees errno as it is now
    if (fd == 0)
        return;  // descriptor 0 never belongs to the module
    get_cb(L, fd, "on_error");
    lua_pushinteger(L, errno);
    lua_pushstring(L, message);
    lua_pcall(L, 2, 0, 0);
    lua_settop(L, 0);
}

void connect_callback(lua_State* L, int32_t fd) {
    get_cb(L, fd, "on_open");
    lua_pcall(L, 0, 0, 0);  // the options table stays below
}

void tcp_connect_callback(lua_State* L, const tcp_record* record) {
    get_cb(L, record->sockfd, "on_open");
    lua_pcall(L, 0, 0, 0);
}

void close_callback(lua_State* L, int32_t fd, const char* reason) {
    get_cb(L, fd, "on_close");
    lua_pushstring(L, reason);
    lua_pcall(L, 1, 0, 0);
    lua_settop(L, 0);
}

void receive_callback(lua_State* L, int32_t fd, const char* data, const char* from, int port) {
    get_cb(L, fd, "on_message");
    lua_pushstring(L, data);
    lua_pushstring(L, from);  // null pushes nil
    lua_pushinteger(L, port);
    lua_pcall(L, 3, 0, 0);
    lua_settop(L, 0);
}

bool has_options_table(lua_State* L, int32_t fd) {
    const registry_key key = sockfd_key(fd);
    lua_getfield(L, LUA_REGISTRYINDEX, key.text);
    const bool found = lua_istable(L, -1);
    lua_pop(L, 1);
    return found;
}

void closed_socket_callback(lua_State* L, int32_t fd, bool never_connected, bool registration_missing) {
    if (never_connected || !registration_missing || has_options_table(L, fd))
        error_callback(L, fd, -1, "Socket has been closed!");
}
