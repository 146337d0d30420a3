// Options readers. Logs under "luacli", where the readers have always logged.
#include "options.h"

#include <cstddef>
#include <cstring>

#include "tools.h"

#define LOG_UNIT "luacli"

namespace {

// A field of the wrong type (nil when missing): an argument error against the
// options table (just below the value) that names the field.
void field_error(lua_State* L, const char* key, const char* expected) {
    const char* got = luaL_typename(L, -1);
    const int table = lua_gettop(L) - 1;
    luaL_argerror(L, table, lua_pushfstring(L, "field '%s': %s expected, got %s", key, expected, got));
}

// One opt-in key: absent leaves the field as it is (zero, that is off).
struct option_row {
    const char* key;
    enum : uint8_t { text, seconds, boolean } kind;
    std::size_t offset;  // of the field in the record it fills
    bool tcp_only;
};

// Read in this order; a new key is one more row (and a reader for a new kind).
constexpr option_row guard_rows[] = {
    {"cafile", option_row::text, offsetof(stream_guard, cafile), false},
    {"capath", option_row::text, offsetof(stream_guard, capath), false},
    {"servername", option_row::text, offsetof(stream_guard, servername), false},
    {"io_timeout", option_row::seconds, offsetof(stream_guard, io_timeout), false},
    {"nonblocking", option_row::boolean, offsetof(stream_guard, nonblocking), false},
    {"max_queue", option_row::seconds, offsetof(stream_guard, max_queue), false},
    {"connect_timeout", option_row::seconds, offsetof(stream_guard, connect_timeout), true},
    {"host", option_row::text, offsetof(stream_guard, host), true},
};

// The value on top, 0 or more seconds (NaN refused).
double read_seconds(lua_State* L, const char* key) {
    if (!lua_isnumber(L, -1))
        field_error(L, key, "number");
    const double seconds = lua_tonumber(L, -1);
    if (!(seconds >= 0))
        luaL_argerror(L, lua_gettop(L) - 1,
                      lua_pushfstring(L, "field '%s': 0 or more seconds expected, got %f", key, seconds));
    return seconds;
}

// One row from the options table on top into `base`.
void read_row(lua_State* L, const option_row& row, char* base) {
    lua_getfield(L, -1, row.key);
    const bool absent = lua_isnil(L, -1);
    if (absent || row.kind == option_row::text)
        lua_pop(L, 1);
    if (absent)
        return;
    if (row.kind == option_row::text) {
        get_tbl_str(L, -2, row.key, *reinterpret_cast<char(*)[TEXT_FIELD_SIZE]>(base + row.offset));
        return;
    }
    if (row.kind == option_row::boolean) {
        if (!lua_isboolean(L, -1))
            field_error(L, row.key, "boolean");
        base[row.offset] = static_cast<char>(lua_toboolean(L, -1));
        lua_pop(L, 1);
        return;
    }
    const double seconds = read_seconds(L, row.key);
    std::memcpy(base + row.offset, &seconds, sizeof seconds);
    lua_pop(L, 1);
}

}  // namespace

void get_tbl_str(lua_State* L, int index, const char* key, char (&dst)[TEXT_FIELD_SIZE]) {
    lua_pushstring(L, key);
    lua_gettable(L, index);
    if (!lua_isstring(L, -1))  // numbers pass: the check converts them
        field_error(L, key, "string");
    const char* text = luaL_checklstring(L, -1, nullptr);
    const std::size_t length = std::strlen(text);  // copies stop at a zero byte
    if (length >= TEXT_FIELD_SIZE) {
        const int table = lua_gettop(L) - 1;
        luaL_argerror(L, table,
                      lua_pushfstring(L, "field '%s' is longer than %d characters", key,
                                      static_cast<int>(TEXT_FIELD_SIZE - 1)));
    }
    std::memcpy(dst, text, length + 1);
    lua_pop(L, 1);
}

void get_tbl_num(lua_State* L, int index, const char* key, int32_t* out) {
    lua_pushstring(L, key);
    lua_gettable(L, index);
    if (!lua_isnumber(L, -1))  // numeric texts pass: the check converts them
        field_error(L, key, "number");
    *out = number_to_int32(luaL_checknumber(L, -1));  // as 5.1 reads it on every version
    lua_pop(L, 1);
}

void read_guard(lua_State* L, stream_guard& guard, bool tcp) {
    guard = {};
    for (const option_row& row : guard_rows)
        if (tcp || !row.tcp_only)
            read_row(L, row, reinterpret_cast<char*>(&guard));
    const bool loop_keys = guard.max_queue > 0 || guard.connect_timeout > 0 || guard.host[0] != '\0';
    if (loop_keys && !guard.nonblocking)
        luaL_argerror(L, lua_gettop(L), "max_queue, connect_timeout and host need nonblocking = true");
    if (guard.cafile[0] != '\0' || guard.capath[0] != '\0' || guard.servername[0] != '\0' || guard.io_timeout > 0)
        WS_LOG("cafile '%s' capath '%s' servername '%s' io_timeout %g\n", guard.cafile, guard.capath,
               guard.servername, guard.io_timeout);
    if (guard.nonblocking)
        WS_LOG("nonblocking, max_queue %g connect_timeout %g host '%s'\n", guard.max_queue, guard.connect_timeout,
               guard.host);
}
