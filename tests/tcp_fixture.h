// An interpreter with the module plus test-only functions for TCP objects:
// reading the receive path directly, a record's descriptor and status, and
// byte-for-byte copies of a record. Scripts build options tables with
// opts(port, extra) whose callbacks append to `events`.
#pragma once

#include <poll.h>

#include <string>

#include "lua_fixture.h"
#include "tcp.h"
#include "tools.h"

namespace tcp_testing {

// recv_tcp(fd) -> result, err: waits (at most 5 s) for fd to be readable and
// runs the receive path on it, as the main loop does.
inline int recv_tcp(lua_State* L) {
    const auto fd = static_cast<int32_t>(luaL_checkinteger(L, 1));
    pollfd watched{fd, POLLIN, 0};
    if (poll(&watched, 1, 5000) != 1)
        return luaL_error(L, "descriptor %d not readable", fd);
    int err = 0;
    const int32_t result = tcp_recv(L, fd, &err);
    lua_pushinteger(L, result);
    lua_pushinteger(L, err);
    return 2;
}

inline int tcp_fd(lua_State* L) {
    lua_pushinteger(L, check_tcp_client(L, 1)->sockfd);
    return 1;
}

inline int tcp_status(lua_State* L) {
    lua_pushinteger(L, check_tcp_client(L, 1)->status);
    return 1;
}

inline int copy_tcp(lua_State* L) {
    const tcp_record record = *check_tcp_client(L, 1);
    push_record_copy(L, record, METATABLE_TCP);
    return 1;
}

inline int tls_sessions(lua_State* L) {
    lua_pushinteger(L, static_cast<lua_Integer>(tls_live_count()));
    return 1;
}

}  // namespace tcp_testing

class TcpTest : public LuaTest {
protected:
    void SetUp() override {
        LuaTest::SetUp();
        expose("recv_tcp", tcp_testing::recv_tcp);
        expose("tcp_fd", tcp_testing::tcp_fd);
        expose("tcp_status", tcp_testing::tcp_status);
        expose("copy_tcp", tcp_testing::copy_tcp);
        expose("tls_sessions", tcp_testing::tls_sessions);
        ASSERT_EQ(run(R"(
            events = {}
            function note(text) events[#events + 1] = text end
            function opts(port, extra)
              local t = { type = 1, ip = "127.0.0.1", port = port, crt = "", prikey = "", is_secure = 0,
                on_open = function() note("open") end,
                on_message = function(data, from, p) message, from_, port_ = data, from, p; note("message") end,
                on_error = function(e, text) note("error:" .. e .. ":" .. text) end,
                on_close = function(reason) note("close:" .. reason) end }
              for k, v in pairs(extra or {}) do t[k] = v end
              return t
            end
            function log() return table.concat(events, "|") end
        )"),
                  "");
    }

    std::string events() { return run("result_ = log()").empty() ? global_string("result_") : "(log failed)"; }
    void set_port(const char* name, uint16_t port) {
        lua_pushinteger(L, port);
        lua_setglobal(L, name);
    }
};
