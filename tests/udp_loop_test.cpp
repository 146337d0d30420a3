// UDP objects and the event loop, with real datagrams on 127.0.0.1.

#include "lua_fixture.h"

namespace {

// A registered UDP socket `name` on loopback (port: name_port) whose messages go to `got`.
std::string udp_socket(const std::string& name, const std::string& extra = "") {
    return name + " = ws.udp_connect(ws.udp_new(), { type = 2, on_message = function(data, from, port) got[#got + 1] = { '" +
           name + "', data, from, port } " + extra + " end }); " + name + "_port = bind_loopback(" + name + ")\n";
}

}  // namespace

// Text up to its zero byte, to the low 16 bits of the port, arrives with its
// sender; refused sends report only where the socket counts as closed.
TEST_F(SocketTest, UdpSendReceiveRefuseAndClose) {
    expose("set_status", [](lua_State* L) { return static_cast<int*>(lua_touserdata(L, 1))[2] = int(lua_tointeger(L, 2)), 0; });
    EXPECT_THAT(run("ws.udp_sendto(ws.udp_new(), 'x', '127.0.0.1', 9)"), HasSubstr("attempt to index"));
    LUA_OK("got = {}\n" + udp_socket("a") + udp_socket("b") + R"(
        for _, s in ipairs({ { "abc", 0, 3 }, { "ab\0cd", 0, 2 }, { 42, 65536, 2 } }) do
          assert(ws.udp_sendto(a, s[1], "127.0.0.1", b_port + s[2]) == s[3], s[1])
        end
        assert(ws.udp_sendto(b, "hi", "127.0.0.1", a_port) == 2)
        ws.loop_start(deadline(5, function() if #got == 4 then ws.loop_stop() end end), 1, 0)
        for i, g in ipairs(got) do got[i] = table.concat(g, ":") end
        table.sort(got)
        assert(table.concat(got, " ") == ("a:hi:127.0.0.1:%d b:42:127.0.0.1:%d b:ab:127.0.0.1:%d b:abc:127.0.0.1:%d"):format(
            b_port, a_port, a_port, a_port), table.concat(got, " "))
        o = opts({ type = 2 })
        u = ws.new("udp")
        debug.getregistry()["sockfd-" .. fd_of(u)] = o
        assert(status_of(u) == -1 and ws.udp_sendto(u, "x", "127.0.0.1", a_port) == -1, "never connected")
        c = ws.udp_connect(u, o)
        fd = fd_of(c)
        assert(c ~= u and fd_of(u) == fd and status_of(c) == 2 and debug.getregistry()["udata-" .. fd] == u)
        assert(ws.udp_sendto(c, "x", {}, a_port) == -1)
        set_status(u, 0)
        assert(ws.udp_sendto(c, "x", "127.0.0.1", a_port) == -1, "the registered record is closed")
        ws.udp_close(c)
        assert(not fd_is_open(fd) and fd_of(c) == -1 and fd_of(u) == fd and ws.udp_sendto(c, "x", "127.0.0.1", 9) == -1)
    )");
    EXPECT_THAT(events(), MatchesRegex("error:[0-9]+:Socket has been closed!\\|open\\|"
                                       "error:[0-9]+:Socket has been closed!\\|close:User do close"));
    EXPECT_EQ(socktbl[2], 0);
    EXPECT_THAT(run("ws.udp_close(c)"), HasSubstr("attempt to index a nil value"));
}

// A socket closed in on_message leaves its slot to the next one, which waits
// for the next pass; loop_stop there ends the loop after the pass.
TEST_F(SocketTest, LoopTimerAndClosesInsideOnMessage) {
    LUA_OK(R"(
        calls, nargs = 0, 0  -- calls per tick, without arguments; loop_stop ends the loop after the pass
        ws.loop_start(function(...) calls, nargs = calls + 1, nargs + select("#", ...); ws.loop_stop() end, "3", 0)
        assert(calls == 3 and nargs == 0, calls)
        calls, t0 = 0, now()
        ws.loop_start(function() calls = calls + 1; if now() - t0 > 2.5 then ws.loop_stop() end end, 1, 1)
        assert(calls == 3, calls)
        got = {}
    )");
    LUA_OK(udp_socket("A", "ws.udp_close(A); error('script failure')") + udp_socket("B", "ws.loop_stop()") +
           udp_socket("C", "ws.loop_stop()") + R"(
        for _, port in ipairs({ A_port, B_port, C_port }) do ws.udp_sendto(C, "x", "127.0.0.1", port) end
        ws.loop_start(function() error("not stopped in time") end, 1, 1)
        assert(#got == 2 and got[1][1] .. got[2][1] == "AC")
    )");
    EXPECT_THAT(run("ws.loop_start(function() error('from periodic') end, 1, 0)"), HasSubstr("from periodic"));
}

// 1024 sockets: the sets must hold descriptors above 1023; the 1025th is refused.
TEST_F(SocketTest, LoopServesAFullTableAbove1023) {
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit raised = saved;
    raised.rlim_cur = std::min<rlim_t>(4096, raised.rlim_max);
    if (raised.rlim_cur < 1500)
        GTEST_SKIP() << "descriptor limit too low";
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    const std::string result = run(R"(
        local sockets, upper = {}
        for i = 1, 1025 do sockets[i] = ws.udp_connect(ws.udp_new(), opts({ type = 2 })) end
        assert(events():find("|error:%d+:socktbl is full now$"), "the 1025th is refused")
        assert(fd_of(sockets[1024]) > 1023, fd_of(sockets[1024]))
        for i = 1, 1023 do if fd_of(sockets[i]) % 64 >= 32 then upper = sockets[i] end end  -- upper half of a set word
        for _, s in ipairs({ upper, sockets[1024] }) do ws.udp_sendto(sockets[1], "x", "127.0.0.1", bind_loopback(s)) end
        ws.loop_start(deadline(5, function() if select(2, events():gsub("message", "")) == 2 then ws.loop_stop() end end), 1, 0)
        assert(not timed_out)
    )");
    EXPECT_EQ(result, "");
    SocketTest::TearDown();  // closes the sockets before the limit goes back down
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    SocketTest::SetUp();
}

// Only a registered object of the kind the options table names is closed; it
// stays alive through on_close even when that drops its last reference.
TEST_F(SocketTest, CloseByDescriptorFollowsTheRegisteredKind) {
    expose("close_by_fd", [](lua_State* L) { return do_close(L, int32_t(luaL_checkinteger(L, 1)), "gone"), 0; });
    LUA_OK(R"(
        local reg = debug.getregistry()
        o = opts({ type = 2 })
        u = ws.udp_new()
        c = ws.udp_connect(u, o)
        fd = fd_of(u)
        for _, kind in ipairs({ 3, 7, 0, 1 }) do o.type = kind; close_by_fd(fd) end
        o.type = 2
        assert(fd_is_open(fd))
        o.on_close = function(r) note("close:" .. r); reg["udata-" .. fd] = nil; u = nil; collectgarbage() end
        close_by_fd(fd)
        assert(fd_of(c) == fd and not fd_is_open(fd))
    )");
    EXPECT_EQ(events(), "open|close:gone");
    EXPECT_EQ(socktbl[0], 0);
}
