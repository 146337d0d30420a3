// UDP objects from the script: create, register, send, close.
#include "lua_fixture.h"

namespace {

class UdpTest : public SocketTest {
protected:
    void SetUp() override {
        SocketTest::SetUp();
        // A registered socket `c` (the copy udp_connect returns for `u`) and a peer socket.
        LUA_OK(R"(
            o = opts({ type = 2 })
            u = ws.new("udp")
            created_status = status_of(u)
            c = ws.udp_connect(u, o)
            fd = fd_of(u)
            peer, peer_port = peer_open()
        )");
    }
};

}  // namespace

// Every datagram comes from the object's own socket; only the low 16 bits of
// the port count; the text ends at its first zero byte.
TEST_F(UdpTest, ConnectRegistersTheObjectAndSendsGoOutAsText) {
    LUA_OK(R"(
        assert(created_status == -1 and status_of(u) == 2 and status_of(c) == 2 and c ~= u and fd_of(c) == fd)
        local reg = debug.getregistry()
        assert(reg["sockfd-" .. fd] == o and reg["udata-" .. fd] == u, "the object passed in, not the copy")
        local from
        for _, s in ipairs({ { "abc", 0, 3, "abc" }, { "ab\0cd", 0, 2, "ab" }, { "", 0, 0, "" }, { 42, 0, 2, "42" },
                             { "hi", 65536, 2, "hi" }, { "lo", -3 * 65536, 2, "lo" }, { "f", 0.9, 1, "f" } }) do
          assert(ws.udp_sendto(c, s[1], "127.0.0.1", peer_port + s[2]) == s[3], s[4])
          local got, port = peer_recv(peer)
          from = from or port
          assert(got == s[4] and port == from, s[4])
        end
    )");
    EXPECT_EQ(socktbl[0], global_number("fd"));
    EXPECT_EQ(socktbl[1], 0);
    EXPECT_EQ(events(), "open") << "no callbacks on successful sends";
}

TEST_F(UdpTest, RefusedSends) {
    expose("set_status", [](lua_State* L) { return check_udp_client(L, 1)->status = int32_t(luaL_checkinteger(L, 2)), 0; });
    LUA_OK(R"(
        for _, args in ipairs({ { {}, "127.0.0.1" }, { "x", {} }, { "x", "not an address" } }) do
          assert(ws.udp_sendto(c, args[1], args[2], peer_port) == -1, "refused quietly")
        end
        assert(ws.udp_sendto(c, "x") == -1)
        fresh = ws.udp_new()
        debug.getregistry()["sockfd-" .. fd_of(fresh)] = o
        assert(ws.udp_sendto(fresh, "x", "127.0.0.1", peer_port) == -1, "never connected")
        set_status(u, 0)
        assert(ws.udp_sendto(c, "x", "127.0.0.1", peer_port) == -1, "the registered record is closed")
        assert(peer_recv(peer, 0.1) == nil, "nothing was sent")
    )");
    EXPECT_THAT(events(), MatchesRegex("open(\\|error:[0-9]+:Socket has been closed!){2}"));
    EXPECT_THAT(run("ws.udp_sendto(ws.udp_new(), 'x', '127.0.0.1', 9)"), HasSubstr("attempt to index"))
        << "without an options table the callback lookup fails";
}

TEST_F(UdpTest, CloseReportsAndLeavesOtherCopiesAsTheyWere) {
    LUA_OK(R"(
        ws.udp_close(c)
        assert(not fd_is_open(fd))
        assert(fd_of(c) == -1 and status_of(c) == 2, "status is not changed by a close")
        assert(fd_of(u) == fd and status_of(u) == 2, "the registered copy keeps its values")
        assert(ws.udp_sendto(c, "x", "127.0.0.1", peer_port) == -1, "descriptor -1: nothing registered")
        assert(ws.udp_sendto(u, "x", "127.0.0.1", peer_port) == -1, "the system refuses the closed descriptor")
    )");
    EXPECT_EQ(events(), "open|close:User do close") << "neither send makes a callback";
    EXPECT_EQ(socktbl[0], 0);
    EXPECT_THAT(run("ws.udp_close(c)"), HasSubstr("attempt to index a nil value"));
}

TEST_F(UdpTest, FullSocketTableReportsAndClosesTheNewSocket) {
    for (int slot = 1; slot < SOCKET_TABLE_SIZE; ++slot)
        socktbl[slot] = 100000 + slot;  // numbers no real descriptor has here
    LUA_OK(R"(
        clear_events()
        local late = ws.udp_new()
        local fd = fd_of(late)
        assert(select("#", ws.udp_connect(late, o)) == 0, "no object returned")
        assert(not fd_is_open(fd) and status_of(late) == -1)
        assert(debug.getregistry()["sockfd-" .. fd] == o, "registry entries stay")
        assert(ws.udp_sendto(late, "x", "127.0.0.1", peer_port) == -1)
    )");
    EXPECT_THAT(events(), MatchesRegex("error:[0-9]+:socktbl is full now\\|error:[0-9]+:Socket has been closed!"));
}

// Regression: udp_connect copied its record after on_open although the
// registry entry (its last reference) could be dropped and collected there.
TEST_F(UdpTest, RecordsStayValidWhenCallbacksDropEveryReference) {
    LUA_OK(R"(
        local reg = debug.getregistry()
        local function forget()
            for key in pairs(reg) do
                if type(key) == "string" and key:match("^udata%-") then reg[key] = nil end
            end
            collectgarbage("collect")
        end
        u, c, closes = nil, nil, 0
        local o = { type = 2, on_open = forget, on_close = function() closes = closes + 1; forget() end }
        local copy = ws.udp_connect(ws.udp_new(), o)
        assert(status_of(copy) == 2 and fd_is_open(fd_of(copy)))
        ws.udp_close(ws.udp_connect(ws.udp_new(), o))
        assert(closes == 1)
    )");
}
