#include "lua_fixture.h"

#include <sys/stat.h>

#include <cmath>

namespace {

sock_header* record_arg(lua_State* L) { return luaL_checktype(L, 1, LUA_TUSERDATA), static_cast<sock_header*>(lua_touserdata(L, 1)); }
int arg(lua_State* L, int index) { return static_cast<int>(luaL_checkinteger(L, index)); }
// Whole values as integers: from 5.3 on, 3.0 prints and keys tables as "3.0".
int push(lua_State* L, lua_Number value) {
    if (value == std::trunc(value) && std::fabs(value) < 0x1p53)
        return lua_pushinteger(L, static_cast<lua_Integer>(value)), 1;
    return lua_pushnumber(L, value), 1;
}

const luaL_Reg probes[] = {
    {"fd_of", [](lua_State* L) { return push(L, record_arg(L)->sockfd); }},
    {"status_of", [](lua_State* L) { return push(L, record_arg(L)->status); }},
    {"copy_of", [](lua_State* L) {
         const void* from = record_arg(L);
         std::memcpy(lua_newuserdata(L, lua_api_rawlen(L, 1)), from, lua_api_rawlen(L, 1));
         lua_getmetatable(L, 1);
         return lua_setmetatable(L, -2), 1;
     }},
    {"recv_tcp", [](lua_State* L) {
         int err = 0;
         luaL_argcheck(L, peers::wait_readable(arg(L, 1)), 1, "not readable");
         return push(L, tcp_recv(L, arg(L, 1), &err)), push(L, err) + 1;
     }},
    {"bind_loopback", [](lua_State* L) { return push(L, peers::bind_loopback(record_arg(L)->sockfd)); }},
    {"watched", [](lua_State* L) { return lua_pushboolean(L, std::count(socktbl, socktbl + SOCKET_TABLE_SIZE, arg(L, 1))), 1; }},
    {"tls_sessions", [](lua_State* L) { return push(L, static_cast<lua_Number>(tls_live_count())); }},
    {"fd_is_open", [](lua_State* L) { return lua_pushboolean(L, fcntl(arg(L, 1), F_GETFD) != -1), 1; }},
    // what the descriptor refers to (its inode), nil when closed: a peer thread
    // may take a freed number at any time
    {"fd_file", [](lua_State* L) {
         struct stat st {};
         return fstat(arg(L, 1), &st) == 0 ? push(L, static_cast<double>(st.st_ino)) : (lua_pushnil(L), 1);
     }},
    {"blocking", [](lua_State* L) { return lua_pushboolean(L, (fcntl(arg(L, 1), F_GETFL) & O_NONBLOCK) == 0), 1; }},
    {"now", [](lua_State* L) {
         return push(L, std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count());
     }},
};

constexpr const char* kHelpers = R"(
    package.preload.ws_client = open_ws_client
    ws = require("ws_client")
    unpack = unpack or table.unpack
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
    function tcp_opts(port, ...)
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
)";

}  // namespace

void SocketTest::SetUp() {
    first_free_fd_ = open("/dev/null", O_RDONLY);
    close(first_free_fd_);
    std::fill(std::begin(socktbl), std::end(socktbl), 0);
    L = luaL_newstate();
    luaL_openlibs(L);
    expose("open_ws_client", luaopen_ws_client);
    for (const luaL_Reg& probe : probes)
        expose(probe.name, probe.func);
    LUA_OK(kHelpers);
}

void SocketTest::TearDown() {
    lua_close(L);
    debug_log_set_path("NULL");
    // What the test left open, so that one process does not run out of descriptors.
    for (int fd = first_free_fd_; fd < first_free_fd_ + 4096; ++fd) {
        struct stat status {};
        if (fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode))
            close(fd);
    }
}

std::string SocketTest::run(const std::string& code, bool result) {
    lua_settop(L, 0);
    const bool ok = luaL_loadbuffer(L, code.data(), code.size(), "snippet") == 0 && lua_pcall(L, 0, 1, 0) == 0;
    const char* text = ok && !result ? "" : lua_tostring(L, -1);
    std::string out = text != nullptr ? text : "(not text)";
    lua_settop(L, 0);
    return out;
}
