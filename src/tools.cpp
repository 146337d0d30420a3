// Registry lookups, object checks and the kind of a descriptor.
#include "tools.h"

#include <cstring>
#include <iterator>

#define LOG_UNIT "tools"

// ---- registry ----

// prefix and decimal descriptor, as "%s%d" would write them (no formatting
// on the per-message path)
template <std::size_t N>
static registry_key make_key(const char (&prefix)[N], int32_t fd) {
    registry_key key;
    std::memcpy(key.text, prefix, N - 1);
    char* at = key.text + N - 1;
    uint32_t magnitude = static_cast<uint32_t>(fd);
    if (fd < 0) {
        *at++ = '-';
        magnitude = 0u - magnitude;
    }
    char digits[10];
    int count = 0;
    do {
        digits[count++] = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    while (count > 0)
        *at++ = digits[--count];
    *at = '\0';
    return key;
}
static_assert(sizeof "udata--2147483648" <= sizeof(registry_key::text));
static_assert(sizeof "sockfd--2147483648" <= sizeof(registry_key::text));

registry_key sockfd_key(int32_t fd) { return make_key("sockfd-", fd); }
registry_key udata_key(int32_t fd) { return make_key("udata-", fd); }

void registry_store_top(lua_State* L, const registry_key& key) {
    lua_pushstring(L, key.text);
    lua_insert(L, -2);
    lua_settable(L, LUA_REGISTRYINDEX);
}

void get_udata_by_sockfd(lua_State* L, int32_t fd) {
    const registry_key key = udata_key(fd);
    lua_getfield(L, LUA_REGISTRYINDEX, key.text);
}

const sock_header* push_registered(lua_State* L, int32_t fd) {
    get_udata_by_sockfd(L, fd);
    if (lua_type(L, -1) != LUA_TUSERDATA || lua_api_rawlen(L, -1) < sizeof(sock_header))
        return nullptr;
    return static_cast<const sock_header*>(lua_touserdata(L, -1));
}

// The three kinds share one implementation: only the status field is touched.
static void udata_mark_closed(lua_State* L, int32_t fd) {
    const registry_key key = udata_key(fd);
    lua_getfield(L, LUA_REGISTRYINDEX, key.text);
    if (lua_type(L, -1) == LUA_TUSERDATA)
        static_cast<sock_header*>(lua_touserdata(L, -1))->status = 0;
    registry_store_top(L, key);  // stored back under the same key
}

void ws_udata_close(lua_State* L, int32_t fd) { udata_mark_closed(L, fd); }
void tcp_udata_close(lua_State* L, int32_t fd) { udata_mark_closed(L, fd); }
void udp_udata_close(lua_State* L, int32_t fd) { udata_mark_closed(L, fd); }

// ---- kind and close by descriptor ----

int32_t get_sock_type(lua_State* L, int32_t fd) {
    const registry_key key = sockfd_key(fd);
    lua_getfield(L, LUA_REGISTRYINDEX, key.text);
    lua_getfield(L, -1, "type");  // raises on a missing options table
    if (!lua_isnumber(L, -1))       // the argument error the check gives, naming the key
        luaL_argerror(L, -1, lua_pushfstring(L, "field 'type': number expected, got %s", luaL_typename(L, -1)));
    const int32_t type = number_to_int32(luaL_checknumber(L, -1));
    WS_LOG("type is %d\n", type);
    return type;
}

static bool has_metatable(lua_State* L, int index, const char* name) {
    if (!lua_getmetatable(L, index))
        return false;
    luaL_getmetatable(L, name);
    const bool same = lua_rawequal(L, -1, -2) != 0;
    lua_pop(L, 2);
    return same;
}

void* registered_record(lua_State* L, int32_t fd, int32_t* kind) {
    *kind = get_sock_type(L, fd);
    get_udata_by_sockfd(L, fd);
    void* record = lua_touserdata(L, -1);
    if (record == nullptr || *kind < 0 || *kind >= static_cast<int32_t>(std::size(KIND_METATABLES)))
        return nullptr;
    return has_metatable(L, -1, KIND_METATABLES[*kind]) ? record : nullptr;
}

// ---- objects ----

ws_record* check_ws_client(lua_State* L, int index) {
    void* block = luaL_checkudata(L, index, METATABLE_WS);
    luaL_argcheck(L, block != nullptr, 1, "`METATABLE_WS' expected`");
    return static_cast<ws_record*>(block);
}

udp_record* check_udp_client(lua_State* L, int index) {
    void* block = luaL_checkudata(L, index, METATABLE_UDP);
    luaL_argcheck(L, block != nullptr, 1, "`METATABLE_UDP' expected`");
    return static_cast<udp_record*>(block);
}

tcp_record* check_tcp_client(lua_State* L, int index) {
    void* block = luaL_checkudata(L, index, METATABLE_TCP);
    luaL_argcheck(L, block != nullptr, 1, "`METATABLE_TCP' expected`");
    return static_cast<tcp_record*>(block);
}

void stackDump(lua_State*) {}

void* new_record_block(lua_State* L, std::size_t size, const char* metatable) {
    void* block = lua_newuserdata(L, size);
    std::memset(block, 0, size);
    luaL_getmetatable(L, metatable);
    lua_setmetatable(L, -2);
    return block;
}
