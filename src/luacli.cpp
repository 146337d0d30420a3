// The module's face towards the interpreter: entry point, function table and
// the script bindings.
#include "luacli.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>
#include <utility>

#include "callbacks.h"
#include "main_loop.h"
#include "options.h"
#include "socket_table.h"
#include "tcp.h"
#include "tools.h"
#include "udp.h"
#include "ws_connect.h"
#include "ws_standard.h"

#define LOG_UNIT "luacli"

// ---- WebSocket ----

static int ws_new(lua_State* L) {
    WS_LOG("new websocket\n");
    auto* record = static_cast<ws_record*>(new_record_block(L, sizeof(ws_record), METATABLE_WS));
    if (ws_init(L, record, 0) == nullptr)
        lua_pushnil(L);  // the block is left to the collector
    record->sock_type = SOCK_TYPE_WS;
    WS_LOG(">>> ws sockfd is %d\n", record->sockfd);
    return 1;
}

static int ws_connect(lua_State* L) {
    ws_record* record = check_ws_client(L, 1);
    get_tbl_str(L, -2, "url", record->url);
    WS_LOG(">>url is %s\n\n", record->url);
    get_tbl_str(L, -2, "crt", record->crt);
    WS_LOG(">>crt is %s\n\n", record->crt);
    get_tbl_str(L, -2, "prikey", record->prikey);
    WS_LOG(">>prikey is %s\n\n", record->prikey);
    get_tbl_num(L, -2, "port", &record->port);
    WS_LOG(">>port is %d\n\n", record->port);
    get_tbl_num(L, -2, "timeout", &record->timeout);
    WS_LOG(">>timeout is %d\n\n", record->timeout);
    read_guard(L, record->guard, false);
    standard_options standard;
    read_standard(L, standard);
    const int32_t fd = record->sockfd;
    // A closed object has no descriptor to register under.
    luaL_argcheck(L, fd != -1, 1, "socket has been closed");
    registry_store_top(L, sockfd_key(fd));  // the options table, last argument
    lua_pushvalue(L, 1);
    registry_store_top(L, udata_key(fd));
    // The object stays at 1 until the record's last use (callbacks.cpp): the
    // registry entry is replaced below.
    lua_settop(L, 1);
    if (standard.on && record->guard.nonblocking)
        return ws_standard_connect_loop(L, record, standard);
    if (standard.on)
        return ws_standard_connect(L, record, standard);
    if (record->guard.nonblocking)
        return ws_connect_loop(L, record);
    if (do_new_connect(L, record) == -1)
        return 0;
    return ws_opened(L, record);
}

static int ws_do_send(lua_State* L) {
    ws_record* record = check_ws_client(L, 1);
    if (ws_standard_at(record->sockfd) || ws_standard_setting_up(record->sockfd))
        return ws_standard_send(L, record);
    const int last = lua_gettop(L);
    const char* data = lua_tolstring(L, last, nullptr);  // numbers are converted
    luaL_argcheck(L, data != nullptr, last, "string expected");
    WS_LOG("data from lua is %s\n", data);
    // Text semantics: the frame carries the bytes before the first zero byte.
    const std::size_t length = std::strlen(data);
    luaL_argcheck(L, length <= WS_MAX_TEXT_LENGTH, last, "text longer than 1048562 bytes");
    const int sent = ws_send(L, record, data, length);
    lua_pushinteger(L, sent);
    return 1;
}

static int lua_close_ws(lua_State* L) {
    auto* record = static_cast<ws_record*>(luaL_checkudata(L, 1, METATABLE_WS));
    if (record == nullptr || ws_close_served(L, record))
        return 0;
    if (ws_standard_at(record->sockfd)) {
        ws_standard_close(L, record);
        return 0;
    }
    ws_send_close(L, record);  // argument 1 keeps the record through both (callbacks.cpp)
    ws_do_close(L, record, "User do close");
    WS_LOG("WS closed here\n");
    return 0;
}

// ---- UDP ----

static int udp_new(lua_State* L) {
    auto* record = static_cast<udp_record*>(new_record_block(L, sizeof(udp_record), METATABLE_UDP));
    if (udp_init(L, record) == nullptr)
        lua_pushnil(L);  // the block is left to the collector
    record->sock_type = SOCK_TYPE_UDP;
    WS_LOG(">>> udp sockfd is %d\n", record->sockfd);
    record->status = UDP_STATUS_CREATED;
    return 1;
}

static int udp_do_connect(lua_State* L) {
    udp_record* record = check_udp_client(L, 1);
    luaL_checkany(L, 2);  // the options table, last
    if (lua_istable(L, -1))
        lua_getfield(L, -1, "ipv6");  // opt-in: a dual-stack socket
    else
        lua_pushnil(L);
    luaL_argcheck(L, lua_isnil(L, -1) || lua_isboolean(L, -1), lua_gettop(L) - 1, "field 'ipv6': boolean expected");
    const bool ipv6 = lua_toboolean(L, -1);
    lua_pop(L, 1);
    // A second reference to the object at the bottom keeps the record on the
    // stack through on_open (callbacks.cpp); the value below the options
    // table is what gets registered.
    lua_pushvalue(L, 1);
    lua_insert(L, 1);
    const int32_t fd = record->sockfd;
    registry_store_top(L, sockfd_key(fd));  // options table
    registry_store_top(L, udata_key(fd));   // the value below it: the object
    if (ipv6 && udp_use_ipv6(fd) == -1) {
        error_callback(L, fd, errno, "ipv6 socket fail");
        close(fd);
        return 0;
    }
    if (sock_add(fd) == -1) {
        error_callback(L, fd, errno, "socktbl is full now");
        close(fd);
        return 0;
    }
    record->status = UDP_STATUS_OPEN;
    connect_callback(L, fd);
    push_record_copy(L, *record, METATABLE_UDP);
    WS_LOG("::::::::::::::::::::::::\n");
    return 1;
}

static int udp_do_sendto(lua_State* L) {
    udp_record* record = check_udp_client(L, 1);
    const char* data = lua_tolstring(L, 2, nullptr);  // null unless text or a number
    const char* ip = lua_tolstring(L, 3, nullptr);
    const int32_t port = number_to_int32(lua_tonumber(L, 4));
    const int sent = udp_send_to(L, record, data, ip, port);
    lua_pushinteger(L, sent);
    return 1;
}

static int lua_close_udp(lua_State* L) {
    auto* record = static_cast<udp_record*>(luaL_checkudata(L, 1, METATABLE_UDP));
    // Argument 1 keeps the record alive while on_close runs (callbacks.cpp).
    udp_do_close(L, record, "User do close");
    return 0;
}

// ---- loop control and sleep ----

static int start_main_loop(lua_State* L) {
    WS_LOG("come in start_main_loop\n");
    luaL_checkany(L, 3);  // the three arguments are taken from the top
    const int32_t interval_sec = number_to_int32(luaL_checknumber(L, -1));
    const int32_t calls_per_tick = number_to_int32(luaL_checknumber(L, -2));
    lua_pop(L, 2);
    lua_setfield(L, LUA_REGISTRYINDEX, "main_loop");  // not checked: fails when first called
    lua_pushnumber(L, 1);
    lua_setfield(L, LUA_REGISTRYINDEX, "loop_ctl");
    WS_LOG("%d, %d\n\n", interval_sec, calls_per_tick);
    main_loop(L, calls_per_tick, interval_sec);
    return 0;
}

static int loop_stop(lua_State* L) {
    WS_LOG("come in function loop_stop\n");
    lua_pushnumber(L, 0);
    lua_setfield(L, LUA_REGISTRYINDEX, "loop_ctl");
    return 0;
}

static int timeout_lua_sleep(lua_State* L) {
    const lua_Number seconds = luaL_checknumber(L, 1);
    if (!(seconds >= 0))
        return 0;  // negative or NaN: nothing to sleep
    constexpr double longest = static_cast<double>(std::numeric_limits<std::time_t>::max() / 2);
    timespec wanted{};
    if (seconds >= longest) {
        wanted.tv_sec = static_cast<std::time_t>(longest);
    } else {
        // conversions truncate toward zero: no trunc(), which is in libm on 32-bit targets
        wanted.tv_sec = static_cast<std::time_t>(seconds);
        const double nanoseconds = (seconds - static_cast<double>(wanted.tv_sec)) * 1e9;
        wanted.tv_nsec = nanoseconds > 999999999.0 ? 999999999L : static_cast<long>(nanoseconds);
    }
    timespec remaining{};
    // a signal does not shorten the sleep: the remaining time is slept
    while (nanosleep(&wanted, &remaining) != 0 && errno == EINTR)
        wanted = remaining;
    return 0;
}

// ---- TCP bindings ----

static int tcp_new(lua_State* L) {
    auto* record = static_cast<tcp_record*>(new_record_block(L, sizeof(tcp_record), METATABLE_TCP));
    if (tcp_init(L, record) == nullptr)
        lua_pushnil(L);  // the object stays below; the script gets nil
    record->sock_type = SOCK_TYPE_TCP;
    WS_LOG(">>> tcp sockfd is %d\n", record->sockfd);
    return 1;
}

// `host` given where `ip` is not (the options table on top).
static bool host_in_place_of_ip(lua_State* L) {
    lua_getfield(L, -1, "ip");
    lua_getfield(L, -2, "host");
    const bool replaced = lua_isnil(L, -2) && !lua_isnil(L, -1);
    lua_pop(L, 2);
    return replaced;
}

static int tcp_connect(lua_State* L) {
    tcp_record* record = check_tcp_client(L, 1);
    get_tbl_num(L, -2, "port", &record->port);
    WS_LOG("port %d\n", record->port);
    if (!host_in_place_of_ip(L))
        get_tbl_str(L, -2, "ip", record->ip);
    WS_LOG("ip %s\n", record->ip);
    get_tbl_str(L, -2, "crt", record->crt);
    WS_LOG("crt %s\n", record->crt);
    get_tbl_str(L, -2, "prikey", record->prikey);
    WS_LOG("prikey %s\n", record->prikey);
    get_tbl_num(L, -2, "is_secure", &record->is_secure);
    WS_LOG("is_secure %d\n", record->is_secure);
    read_guard(L, record->guard, true);
    registry_store_top(L, sockfd_key(record->sockfd));  // the options table
    if (record->guard.nonblocking)
        return tcp_connect_loop(L, record);

    if (do_tcp_connect(L, record) == -1) {
        lua_pushnil(L);
        return 1;
    }
    return tcp_opened(L, record);
}

static int tcp_do_send(lua_State* L) {
    WS_LOG("TCP Do send...\n");
    tcp_record* record = check_tcp_client(L, 1);
    const char* data = luaL_checklstring(L, 2, nullptr);  // numbers become their text
    const int32_t result = tcp_send(L, record, data);
    lua_pushinteger(L, result);
    return 1;
}

static int lua_close_tcp(lua_State* L) {
    auto* record = static_cast<tcp_record*>(luaL_checkudata(L, 1, METATABLE_TCP));
    if (record != nullptr)
        tcp_do_close(L, record, "User do close");
    return 0;
}

// ---- creation by kind name ----

// `new` is a keyword here, hence the longer name.
static int new_by_kind(lua_State* L) {
    const char* kind = luaL_checklstring(L, 1, nullptr);
    if (std::strcmp(kind, "tcp") == 0)
        return tcp_new(L);
    if (std::strcmp(kind, "udp") == 0)
        return udp_new(L);
    return ws_new(L);  // "websocket" and anything else: WebSocket is the default
}

// ---- debug log ----

static int debug_file(lua_State* L) {
    const char* path = luaL_checklstring(L, 1, nullptr);
    if (!debug_log_set_path(path))
        return luaL_argerror(L, 1, "path too long");
    lua_pop(L, 1);
    return 0;
}

// ---- registration ----

static const luaL_Reg R[] = {
    {"new", new_by_kind},
    {"ws_new", ws_new},
    {"udp_new", udp_new},
    {"tcp_new", tcp_new},
    {"ws_connect", ws_connect},
    {"udp_connect", udp_do_connect},
    {"tcp_connect", tcp_connect},
    {"ws_send", ws_do_send},
    {"tcp_send", tcp_do_send},
    {"udp_sendto", udp_do_sendto},
    {"udp_close", lua_close_udp},
    {"ws_close", lua_close_ws},
    {"tcp_close", lua_close_tcp},
    {"loop_start", start_main_loop},
    {"loop_stop", loop_stop},
    {"sleep", timeout_lua_sleep},
    {"set_debug", debug_file},
    {nullptr, nullptr},
};

extern "C" __attribute__((visibility("default"))) int luaopen_ws_client(lua_State* L) {
    lua_checkstack(L, 2);
    WS_LOG("come in open\n");
    lua_api_newmetatable(L, METATABLE_WS);
    lua_api_newmetatable(L, METATABLE_UDP);
    lua_api_newmetatable(L, METATABLE_TCP);
    lua_pop(L, 3);  // scripts only ever see the module table
    lua_api_openlib(L, "ws_client", R);
    return 1;
}
