// Calls into the script: find the callback in the socket's options table and
// run it in protected mode.
//
// Keeping a record alive across callbacks, the one rule: a record is valid
// while its object is reachable, and a callback may drop every reference the
// script holds and replace the registry entries. So C code that still uses a
// record after a callback keeps the record's object on its own Lua stack for
// that span (an argument of the binding, or the value a lookup pushed), and
// every callback below restores the stack to the height it found, never
// lower. Nothing else anchors records.
#include "callbacks.h"

#include "tools.h"

#define LOG_UNIT "callbacks"

void get_cb(lua_State* L, int32_t fd, const char* name) {
    const registry_key key = sockfd_key(fd);
    lua_getfield(L, LUA_REGISTRYINDEX, key.text);  // options table (or nil)
    lua_getfield(L, -1, name);                       // raises on nil, by design
}

// The protected call of a callback looked up under `name`, with its `args`
// arguments above it. Its failure is ignored, as every callback's is, but an
// error the callback raised goes to the debug log; an absent callback (nil)
// stays silent.
static void call_callback(lua_State* L, int args, const char* name) {
    const bool present = !lua_isnil(L, -args - 1);
    if (lua_pcall(L, args, 0, 0) != 0 && present) {
        const char* text = lua_tostring(L, -1);
        WS_LOG("%s raised an error: %s\n", name, text != nullptr ? text : "(error object is not a string)");
    }
}

void error_callback(lua_State* L, int32_t fd, int errnum, const char* message) {
    (void)errnum;  // the script always sees errno as it is now
    if (fd == 0)
        return;  // descriptor 0 never belongs to the module
    const int height = lua_gettop(L);
    get_cb(L, fd, "on_error");
    lua_pushinteger(L, errno);
    lua_pushstring(L, message);
    call_callback(L, 2, "on_error");
    lua_settop(L, height);
}

void connect_callback(lua_State* L, int32_t fd) {
    const int height = lua_gettop(L);
    get_cb(L, fd, "on_open");
    call_callback(L, 0, "on_open");
    lua_settop(L, height);
}

void tcp_connect_callback(lua_State* L, const tcp_record* record) { connect_callback(L, record->sockfd); }

void close_callback(lua_State* L, int32_t fd, const char* reason) {
    const int height = lua_gettop(L);
    get_cb(L, fd, "on_close");
    lua_pushstring(L, reason);
    call_callback(L, 1, "on_close");
    lua_settop(L, height);
}

void receive_callback(lua_State* L, int32_t fd, const char* data, const char* from, int port) {
    const int height = lua_gettop(L);
    get_cb(L, fd, "on_message");
    lua_pushstring(L, data);
    lua_pushstring(L, from);  // null pushes nil
    lua_pushinteger(L, port);
    call_callback(L, 3, "on_message");
    lua_settop(L, height);
}

void open_callback_protocol(lua_State* L, int32_t fd, const char* protocol, std::size_t length) {
    const int height = lua_gettop(L);
    get_cb(L, fd, "on_open");
    if (length == 0)
        lua_pushnil(L);
    else
        lua_pushlstring(L, protocol, length);
    call_callback(L, 1, "on_open");
    lua_settop(L, height);
}

void message_callback(lua_State* L, int32_t fd, const void* data, std::size_t length, const char* kind) {
    const int height = lua_gettop(L);
    get_cb(L, fd, "on_message");
    lua_pushlstring(L, static_cast<const char*>(data), length);
    lua_pushstring(L, kind);
    call_callback(L, 2, "on_message");
    lua_settop(L, height);
}

void close_callback_coded(lua_State* L, int32_t fd, const char* reason, int code, const char* peer_reason,
                          std::size_t peer_length) {
    const int height = lua_gettop(L);
    get_cb(L, fd, "on_close");
    lua_pushstring(L, reason);
    lua_pushinteger(L, code);
    if (peer_reason == nullptr)
        lua_pushnil(L);
    else
        lua_pushlstring(L, peer_reason, peer_length);
    call_callback(L, 3, "on_close");
    lua_settop(L, height);
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
