// Options readers. Logs under "luacli", where the readers have always logged.
#include "options.h"

#include <cstddef>
#include <cstring>
#include <strings.h>

#include "tools.h"
#include "ws_message.h"

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
    lua_getfield(L, -1, "rfc6455");
    const bool standard = !tcp && lua_toboolean(L, -1) != 0;  // the standard mode has a max_queue of its own
    lua_pop(L, 1);
    const bool loop_keys = (guard.max_queue > 0 && !standard) || guard.connect_timeout > 0 || guard.host[0] != '\0';
    if (loop_keys && !guard.nonblocking)
        luaL_argerror(L, lua_gettop(L), "max_queue, connect_timeout and host need nonblocking = true");
    if (guard.cafile[0] != '\0' || guard.capath[0] != '\0' || guard.servername[0] != '\0' || guard.io_timeout > 0)
        WS_LOG("cafile '%s' capath '%s' servername '%s' io_timeout %g\n", guard.cafile, guard.capath,
               guard.servername, guard.io_timeout);
    if (guard.nonblocking)
        WS_LOG("nonblocking, max_queue %g connect_timeout %g host '%s'\n", guard.max_queue, guard.connect_timeout,
               guard.host);
}

// ---- standard mode ----
namespace {

bool is_token(const char* text, std::size_t length) {
    if (length == 0)
        return false;
    for (std::size_t i = 0; i < length; ++i) {
        const char c = text[i];
        const bool alnum = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (!alnum && (c == '\0' || std::strchr("!#$%&'*+-.^_`|~", c) == nullptr))
            return false;
    }
    return true;
}

// Host, Upgrade, Connection and Sec-WebSocket-*: the handshake writes its
// own, and a second one makes servers refuse it or answer with what the
// module cannot take (an extension).
bool written_by_handshake(const char* name, std::size_t length) {
    const auto is = [&](const char* own, bool prefix) {
        const std::size_t own_length = std::strlen(own);
        return (prefix ? length > own_length : length == own_length) && strncasecmp(name, own, own_length) == 0;
    };
    return is("host", false) || is("upgrade", false) || is("connection", false) || is("sec-websocket-", true);
}

// An argument error against the options table, which is just below the top.
[[noreturn]] void standard_error(lua_State* L, const char* key, const char* what) {
    luaL_argerror(L, lua_gettop(L) - 1, lua_pushfstring(L, "field '%s': %s", key, what));
    __builtin_unreachable();
}

// The number under `key` (absent: `fallback`), at least `least`.
double read_count(lua_State* L, const char* key, double fallback, double least) {
    lua_getfield(L, -1, key);
    double value = fallback;
    if (!lua_isnil(L, -1)) {
        if (lua_type(L, -1) != LUA_TNUMBER)
            field_error(L, key, "number");
        value = lua_tonumber(L, -1);
        if (!(value >= least) || value > 9007199254740992.0)
            standard_error(L, key, least > 0 ? "a number of 1 or more expected" : "0 or more expected");
    }
    lua_pop(L, 1);
    return value;
}

// Appends `length` bytes at `at` (kept terminated); false when out of room.
bool append(char* out, std::size_t size, std::size_t& at, const char* text, std::size_t length) {
    if (length >= size - at)
        return false;
    std::memcpy(out + at, text, length);
    at += length;
    out[at] = '\0';
    return true;
}

// protocols = {"a", "b"}: "a, b".
void read_protocols(lua_State* L, standard_options& o) {
    lua_getfield(L, -1, "protocols");
    if (!lua_isnil(L, -1) && !lua_istable(L, -1))
        field_error(L, "protocols", "table");
    std::size_t at = 0;
    for (int i = 1; lua_istable(L, -1); ++i) {
        lua_rawgeti(L, -1, i);
        if (lua_isnil(L, -1)) {
            lua_pop(L, 1);
            break;
        }
        std::size_t length = 0;
        const char* name = lua_type(L, -1) == LUA_TSTRING ? lua_tolstring(L, -1, &length) : nullptr;
        lua_pop(L, 1);
        if (name == nullptr || !is_token(name, length))
            standard_error(L, "protocols", "tokens expected");
        if ((at != 0 && !append(o.protocols, sizeof o.protocols, at, ", ", 2)) ||
            !append(o.protocols, sizeof o.protocols, at, name, length))
            standard_error(L, "protocols", "too long for the request");
    }
    lua_pop(L, 1);
}

// headers = {Name = "value"}: "Name: value\r\n" lines.
void read_headers(lua_State* L, standard_options& o) {
    lua_getfield(L, -1, "headers");
    if (!lua_isnil(L, -1) && !lua_istable(L, -1))
        field_error(L, "headers", "table");
    std::size_t at = 0;
    if (lua_istable(L, -1)) {
        lua_pushnil(L);
        while (lua_next(L, -2) != 0) {
            std::size_t name_length = 0, value_length = 0;
            const bool texts = lua_type(L, -2) == LUA_TSTRING && lua_type(L, -1) == LUA_TSTRING;
            const char* name = texts ? lua_tolstring(L, -2, &name_length) : nullptr;
            const char* value = texts ? lua_tolstring(L, -1, &value_length) : nullptr;
            lua_pop(L, 1);  // the key stays for lua_next
            if (!texts)
                standard_error(L, "headers", "text names and values expected");
            if (!is_token(name, name_length) || std::strcspn(value, "\r\n") != value_length)
                standard_error(L, "headers", "a name that is no token, or CR, LF or a zero byte");
            if (written_by_handshake(name, name_length))
                standard_error(L, "headers", "Host, Upgrade, Connection and Sec-WebSocket-* are the handshake's own");
            if (!append(o.headers, sizeof o.headers, at, name, name_length) ||
                !append(o.headers, sizeof o.headers, at, ": ", 2) ||
                !append(o.headers, sizeof o.headers, at, value, value_length) ||
                !append(o.headers, sizeof o.headers, at, "\r\n", 2))
                standard_error(L, "headers", "too long for the request");
        }
    }
    lua_pop(L, 1);
}

}  // namespace

void read_standard(lua_State* L, standard_options& o) {
    o = {};
    lua_getfield(L, -1, "rfc6455");
    if (!lua_isnil(L, -1) && !lua_isboolean(L, -1))
        field_error(L, "rfc6455", "boolean");
    o.on = lua_toboolean(L, -1) != 0;
    lua_pop(L, 1);
    if (!o.on)
        return;
    o.max_message = read_count(L, "max_message", static_cast<double>(WS_MAX_MESSAGE_DEFAULT), 1);
    o.max_queue = read_count(L, "max_queue", WS_MAX_QUEUE_DEFAULT, 0);
    o.close_timeout = read_count(L, "close_timeout", WS_CLOSE_TIMEOUT_DEFAULT, 0);
    o.ping_interval = read_count(L, "ping_interval", 0, 0);
    o.pong_timeout = read_count(L, "pong_timeout", o.ping_interval, 0);
    read_protocols(L, o);
    read_headers(L, o);
    WS_LOG("rfc6455 max_message %g max_queue %g close_timeout %g ping %g pong %g protocols '%s'\n", o.max_message,
           o.max_queue, o.close_timeout, o.ping_interval, o.pong_timeout, o.protocols);
}
