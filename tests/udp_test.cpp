// UDP objects from the script: create, register, send, close.
#include <gmock/gmock.h>



#include "udp_fixture.h"

using ::testing::HasSubstr;

namespace {

class UdpTest : public UdpLuaTest {
protected:
    void SetUp() override {
        UdpLuaTest::SetUp();
        // A registered socket `c` (copy returned by udp_connect of `u`) whose
        // callbacks record into `events`, and a peer socket.
        LUA_OK(R"(
            events = {}
            local function record(name) return function(...) events[#events + 1] = { name, ... } end end
            opts = { type = 2, on_open = record("open"), on_error = record("error"),
                     on_close = record("close"), on_message = record("message") }
            u = ws.udp_new()
            c = ws.udp_connect(u, opts)
            peer, peer_port = peer_open()
        )");
    }
};

TEST_F(UdpTest, NewCreatesAndConnectRegistersAndReturnsACopy) {
    LUA_OK(R"(
        local fresh = ws.new("udp")
        assert(getmetatable(fresh) == debug.getregistry()["{SOCKET_UDP}"])
        assert(kind_of(fresh) == 2 and status_of(fresh) == -1 and fd_is_open(fd_of(fresh)))
        assert(#events == 1 and events[1][1] == "open")
        assert(c ~= u and fd_of(c) == fd_of(u) and status_of(c) == 2 and status_of(u) == 2 and kind_of(c) == 2)
        local reg = debug.getregistry()
        assert(reg["sockfd-" .. fd_of(u)] == opts, "options table registered")
        assert(reg["udata-" .. fd_of(u)] == u, "the object passed in is registered, not the copy")
        registered_fd = fd_of(u)
    )");
    EXPECT_EQ(socktbl[0], static_cast<int32_t>(global_number("registered_fd")));
    EXPECT_EQ(socktbl[1], 0);
}

TEST_F(UdpTest, SendsTextUpToItsFirstZeroToAnyPort) {
    LUA_OK(R"(
        assert(ws.udp_sendto(c, "abc", "127.0.0.1", peer_port) == 3)
        local data, from_port = peer_recv(peer)
        assert(data == "abc", tostring(data))
        assert(from_port == local_port(c), "datagram comes from the object's socket")

        assert(ws.udp_sendto(c, "ab\0cd", "127.0.0.1", peer_port) == 2)
        assert(peer_recv(peer) == "ab")
        assert(ws.udp_sendto(c, "", "127.0.0.1", peer_port) == 0)
        assert(peer_recv(peer) == "", "an empty text is an empty datagram")
        assert(ws.udp_sendto(c, 42, "127.0.0.1", peer_port) == 2)
        assert(peer_recv(peer) == "42")

        -- only the low 16 bits of the port count
        assert(ws.udp_sendto(c, "hi", "127.0.0.1", peer_port + 65536) == 2)
        assert(peer_recv(peer) == "hi")
        assert(ws.udp_sendto(c, "lo", "127.0.0.1", peer_port - 3 * 65536) == 2)
        assert(peer_recv(peer) == "lo")
        assert(ws.udp_sendto(c, "f", "127.0.0.1", peer_port + 0.9) == 1, "fractions truncate")
        assert(peer_recv(peer) == "f")
        assert(#events == 1, "no callbacks on successful sends")
    )");
}

TEST_F(UdpTest, Port70000ReachesPort4464) {
    if (run("p4464 = peer_open(4464)") != "")
        GTEST_SKIP() << "port 4464 is in use on this machine";
    LUA_OK(R"(
        assert(ws.udp_sendto(c, "wrapped", "127.0.0.1", 70000) == 7)
        assert(peer_recv(p4464) == "wrapped")
    )");
}

TEST_F(UdpTest, RefusesNonTextArgumentsWithoutSending) {
    LUA_OK(R"(
        assert(ws.udp_sendto(c, {}, "127.0.0.1", peer_port) == -1)
        assert(ws.udp_sendto(c, nil, "127.0.0.1", peer_port) == -1)
        assert(ws.udp_sendto(c, "x", nil, peer_port) == -1)
        assert(ws.udp_sendto(c, "x") == -1)
        assert(peer_recv(peer, 0.1) == nil, "nothing was sent")
        assert(ws.udp_sendto(c, "x", "not an address", peer_port) == -1, "all-ones address is refused by the system")
        assert(#events == 1, "refusals make no callback")
    )");
}

TEST_F(UdpTest, SendOnNeverConnectedSocketIsRefusedAsClosed) {
    LUA_OK(R"(
        local fresh = ws.udp_new()
        debug.getregistry()["sockfd-" .. fd_of(fresh)] = opts
        assert(ws.udp_sendto(fresh, "x", "127.0.0.1", peer_port) == -1)
        local last = events[#events]
        assert(last[1] == "error" and type(last[2]) == "number" and last[3] == "Socket has been closed!")
        assert(peer_recv(peer, 0.1) == nil)
        lonely = ws.udp_new()
    )");
    EXPECT_THAT(run("ws.udp_sendto(lonely, 'x', '127.0.0.1', peer_port)"), HasSubstr("attempt to index"))
        << "without an options table the callback lookup fails";
}

TEST_F(UdpTest, SendIsRefusedWhenTheRegisteredRecordIsMarkedClosed) {
    LUA_OK(R"(
        set_status(u, 0)
        assert(ws.udp_sendto(c, "x", "127.0.0.1", peer_port) == -1)
        assert(events[2][1] == "error" and events[2][3] == "Socket has been closed!")
        assert(peer_recv(peer, 0.1) == nil)
    )");
}

TEST_F(UdpTest, CloseReportsAndLeavesOtherCopiesAsTheyWere) {
    LUA_OK(R"(
        local fd = fd_of(c)
        ws.udp_close(c)
        assert(events[2][1] == "close" and events[2][2] == "User do close")
        assert(not fd_is_open(fd))
        assert(fd_of(c) == -1 and status_of(c) == 2, "status is not changed by a close")
        assert(fd_of(u) == fd and status_of(u) == 2, "the registered copy keeps its values")

        -- the closed copy: no record registered under -1, refused quietly
        assert(ws.udp_sendto(c, "x", "127.0.0.1", peer_port) == -1)
        -- the registered copy passes both tests; the system refuses the closed descriptor
        assert(ws.udp_sendto(u, "x", "127.0.0.1", peer_port) == -1)
        assert(#events == 2, "neither send makes a callback")
        assert(peer_recv(peer, 0.1) == nil)
    )");
    EXPECT_EQ(socktbl[0], 0) << "the descriptor left the socket table";
    EXPECT_THAT(run("ws.udp_close(c)"), HasSubstr("attempt to index a nil value"))
        << "the second close looks up on_close under descriptor -1";
}

TEST_F(UdpTest, FullSocketTableReportsAndClosesTheNewSocket) {
    LUA_OK("ws.udp_close(c)");
    for (int slot = 0; slot < SOCKET_TABLE_SIZE; ++slot)
        socktbl[slot] = 100000 + slot;  // numbers no real descriptor has here
    LUA_OK(R"(
        events = {}
        local late = ws.udp_new()
        local fd = fd_of(late)
        assert(select("#", ws.udp_connect(late, opts)) == 0, "no object returned")
        assert(#events == 1 and events[1][1] == "error" and events[1][3] == "socktbl is full now")
        assert(not fd_is_open(fd) and status_of(late) == -1)
        assert(debug.getregistry()["sockfd-" .. fd] == opts, "registry entries stay")
        assert(ws.udp_sendto(late, "x", "127.0.0.1", peer_port) == -1)
        assert(events[2][1] == "error" and events[2][3] == "Socket has been closed!")
    )");
    EXPECT_EQ(socktbl[SOCKET_TABLE_SIZE - 1], 100000 + SOCKET_TABLE_SIZE - 1);
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
        closes = 0
        local o = { type = 2, on_open = forget, on_close = function() closes = closes + 1; forget() end }
        local copy = ws.udp_connect(ws.udp_new(), o)
        assert(status_of(copy) == 2 and fd_is_open(fd_of(copy)))
        ws.udp_close(ws.udp_connect(ws.udp_new(), o))
        collectgarbage("collect")
        assert(closes == 1)
    )");
}

}  // namespace
