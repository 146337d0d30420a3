#include "lua_fixture.h"

#include <sys/stat.h>

#include <cmath>
#include <fstream>
#include <sstream>

#include "tcp.h"

void LuaTest::SetUp() {
    std::fill(std::begin(socktbl), std::end(socktbl), 0);
    L = luaL_newstate();
    ASSERT_NE(L, nullptr);
    luaL_openlibs(L);
    lua_getglobal(L, "package");
    lua_getfield(L, -1, "preload");
    lua_pushcfunction(L, luaopen_ws_client);
    lua_setfield(L, -2, "ws_client");
    lua_settop(L, 0);
    ASSERT_EQ(run("ws = require('ws_client'); unpack = unpack or table.unpack"), "");
}

void LuaTest::TearDown() {
    lua_close(L);
    std::fill(std::begin(socktbl), std::end(socktbl), 0);
    debug_log_set_path("NULL");
}

std::string LuaTest::run(const std::string& code) {
    lua_settop(L, 0);
    const bool ok = luaL_loadbuffer(L, code.data(), code.size(), "snippet") == 0 && lua_pcall(L, 0, 0, 0) == 0;
    const char* message = ok ? "" : lua_tostring(L, -1);
    std::string result = message != nullptr ? message : "(non-string error)";
    lua_settop(L, 0);
    return result;
}

void LuaTest::expose(const char* name, lua_CFunction function) { lua_pushcfunction(L, function), lua_setglobal(L, name); }

std::string LuaTest::global_string(const char* name) {
    lua_getglobal(L, name);
    size_t length = 0;
    const char* text = lua_tolstring(L, -1, &length);
    std::string result = text != nullptr ? std::string(text, length) : "(nil)";
    lua_pop(L, 1);
    return result;
}

double LuaTest::global_number(const char* name) {
    lua_getglobal(L, name);
    const double value = lua_tonumber(L, -1);
    lua_pop(L, 1);
    return value;
}

// Whole values as integers: from 5.3 on, 3.0 prints and keys tables as "3.0".
static int push(lua_State* L, lua_Number value) {
    if (value == std::trunc(value) && std::fabs(value) < 0x1p53)
        return lua_pushinteger(L, static_cast<lua_Integer>(value)), 1;
    return lua_pushnumber(L, value), 1;
}

void LuaTest::set_global(const char* name, double value) { push(L, value), lua_setglobal(L, name); }

void LuaTest::set_global(const char* name, const std::string& value) {
    lua_pushlstring(L, value.data(), value.size()), lua_setglobal(L, name);
}

// ---- SocketTest ----

namespace {

sock_header* record_arg(lua_State* L) {
    luaL_checktype(L, 1, LUA_TUSERDATA);
    return static_cast<sock_header*>(lua_touserdata(L, 1));
}

int arg(lua_State* L, int index) { return static_cast<int>(luaL_checkinteger(L, index)); }

int peer_recv(lua_State* L) {
    const int fd = arg(L, 1);
    static char buffer[65536];
    sockaddr_in from{};
    socklen_t length = sizeof from;
    const auto wait = std::chrono::milliseconds(static_cast<int>(luaL_optnumber(L, 2, 2) * 1000));
    const ssize_t got = !peers::wait_readable(fd, wait) ? -1 : recvfrom(fd, buffer, sizeof buffer, 0,
                                                                       reinterpret_cast<sockaddr*>(&from), &length);
    if (got < 0)
        return 0;
    lua_pushlstring(L, buffer, static_cast<size_t>(got));
    return push(L, ntohs(from.sin_port)) + 1;
}

const luaL_Reg socket_probes[] = {
    {"fd_of", [](lua_State* L) { return push(L, record_arg(L)->sockfd); }},
    {"status_of", [](lua_State* L) { return push(L, record_arg(L)->status); }},
    {"copy_tcp", [](lua_State* L) {
         const tcp_record record = *check_tcp_client(L, 1);
         return push_record_copy(L, record, METATABLE_TCP), 1;
     }},
    {"recv_tcp", [](lua_State* L) {
         int err = 0;
         if (!peers::wait_readable(arg(L, 1)))
             return luaL_error(L, "descriptor not readable");
         return push(L, tcp_recv(L, arg(L, 1), &err)), push(L, err) + 1;
     }},
    {"bind_loopback", [](lua_State* L) { return push(L, peers::bind_loopback(record_arg(L)->sockfd)); }},
    {"peer_open", [](lua_State* L) {
         const int fd = socket(AF_INET, SOCK_DGRAM, 0);
         push(L, fd);
         return push(L, peers::bind_loopback(fd)) + 1;
     }},
    {"peer_send", [](lua_State* L) {
         const sockaddr_in to = peers::loopback(static_cast<uint16_t>(arg(L, 2)));
         size_t length = 0;
         const char* data = luaL_checklstring(L, 3, &length);
         return push(L, double(sendto(arg(L, 1), data, length, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to)));
     }},
    {"peer_recv", peer_recv},
    {"wait_readable", [](lua_State* L) { return lua_pushboolean(L, peers::wait_readable(arg(L, 1))), 1; }},
    {"tls_sessions", [](lua_State* L) { return push(L, static_cast<lua_Number>(tls_live_count())); }},
    {"fd_is_open", [](lua_State* L) { return lua_pushboolean(L, fcntl(arg(L, 1), F_GETFD) != -1), 1; }},
    {"close_fd", [](lua_State* L) { return close(arg(L, 1)), 0; }},
    {"now", [](lua_State* L) {
         return push(L, std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count());
     }},
};

}  // namespace

void SocketTest::SetUp() {
    first_free_fd_ = open("/dev/null", O_RDONLY);
    close(first_free_fd_);
    LuaTest::SetUp();
    for (const luaL_Reg& probe : socket_probes)
        expose(probe.name, probe.func);
    LUA_OK(R"(
        local events_ = {}
        function note(text) events_[#events_ + 1] = text end
        function clear_events() events_ = {} end
        function events() return table.concat(events_, "|") end
        function opts(t)
          t.on_open = t.on_open or function() note("open") end
          t.on_message = t.on_message or function(data, from, p) message, from_, port_ = data, from, p; note("message") end
          t.on_error = t.on_error or function(e, text) note("error:" .. e .. ":" .. text) end
          t.on_close = t.on_close or function(reason) note("close:" .. reason) end
          return t
        end
        function tcp_opts(port, ...)  -- then the fields of each table given
          local t = { type = 1, ip = "127.0.0.1", port = port, crt = "", prikey = "", is_secure = 0 }
          for _, extra in ipairs({ ... }) do for k, v in pairs(extra) do t[k] = v end end
          return opts(t)
        end
        function deadline(seconds, also)
          local t0 = now()
          return function()
            if also then also() end
            if now() - t0 > seconds then timed_out = true; ws.loop_stop() end
          end
        end
    )");
}

void SocketTest::TearDown() {
    LuaTest::TearDown();
    // What the test left open (module objects and peers), so that the tests
    // of one process do not run out of descriptors.
    for (int fd = first_free_fd_; fd < first_free_fd_ + 4096; ++fd) {
        struct stat status {};
        if (fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode))
            close(fd);
    }
}

std::string file_text(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

std::string SocketTest::events() {
    return run("events_text = events()").empty() ? global_string("events_text") : "(events failed)";
}
