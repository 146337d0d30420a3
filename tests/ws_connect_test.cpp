// The WebSocket client through the script bindings and the loop, against
// in-process peers that check and craft the bytes on the wire, and against
// python3-websockets (plain and TLS).
#include <gmock/gmock.h>

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "peers/ws_peer.h"
#include "tools.h"
#include "udp_fixture.h"
#include "ws_connect.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using namespace std::chrono_literals;

namespace {

// ---- script helpers ----

ws_record* ws_arg(lua_State* L) { return check_ws_client(L, 1); }

int ws_fd(lua_State* L) {
    lua_pushinteger(L, ws_arg(L)->sockfd);
    return 1;
}

int ws_status(lua_State* L) {
    lua_pushinteger(L, ws_arg(L)->status);
    return 1;
}

// Status of the record registered for a descriptor, nil when none.
int registered_status(lua_State* L) {
    get_udata_by_sockfd(L, static_cast<int32_t>(luaL_checkinteger(L, 1)));
    if (lua_type(L, -1) != LUA_TUSERDATA)
        return 0;
    lua_pushinteger(L, static_cast<const sock_header*>(lua_touserdata(L, -1))->status);
    return 1;
}

int in_socktbl(lua_State* L) {
    const auto fd = static_cast<int32_t>(luaL_checkinteger(L, 1));
    bool found = false;
    for (int slot = 0; slot < SOCKET_TABLE_SIZE && socktbl[slot] != 0; ++slot)
        found = found || socktbl[slot] == fd;
    lua_pushboolean(L, found);
    return 1;
}

int tls_sessions(lua_State* L) {
    lua_pushinteger(L, static_cast<lua_Integer>(tls_live_count()));
    return 1;
}

int wait_readable_fd(lua_State* L) {
    lua_pushboolean(L, peers::wait_readable(static_cast<int>(luaL_checkinteger(L, 1)), 5000ms));
    return 1;
}

// The client's descriptor, so that an in-process peer can wait until the
// client has taken what was sent (each send then lands in its own read).
std::atomic<int> client_fd{-1};

int watch_fd(lua_State* L) {
    client_fd = static_cast<int>(luaL_checkinteger(L, 1));
    return 0;
}

// Sends `bytes` and returns once the client has read all of them: the peer's
// send queue is empty (the bytes reached the client) and then the client's
// receive queue is.
void send_and_wait_consumed(int peer_fd, const std::string& bytes) {
    peers::send_all(peer_fd, bytes);
    for (int waited = 0; waited < 5000; ++waited) {
        int unsent = 0;
        if (ioctl(peer_fd, SIOCOUTQ, &unsent) == 0 && unsent == 0)
            break;
        std::this_thread::sleep_for(1ms);
    }
    for (int waited = 0; waited < 5000; ++waited) {
        int queued = 0;
        if (ioctl(client_fd.load(), FIONREAD, &queued) != 0 || queued == 0)
            return;  // all read, or the client closed
        std::this_thread::sleep_for(1ms);
    }
}

// Answers the upgrade, then waits until the client has read the answer: the
// handshake's single read would swallow frames sent with it.
std::string accept_upgrade_alone(int fd) {
    const std::string request = peers::read_upgrade_request(fd);
    send_and_wait_consumed(fd, peers::upgrade_answer(peers::accept_value(peers::header_value(request, "Sec-WebSocket-Key"))));
    return request;
}

constexpr const char* kHelpers = R"(
    events = {}
    function note(...)
        local parts = {}
        for i = 1, select('#', ...) do parts[i] = tostring((select(i, ...))) end
        events[#events + 1] = table.concat(parts, ' ')
    end
    function options(port, extra)
        local o = { url = 'ws://127.0.0.1/chat', crt = '', prikey = '', port = port, timeout = 3, type = 0,
            on_open = function() note('open') end,
            on_message = function(data, from, p)
                note('message', #data > 40 and ('#' .. #data) or data, from, p)
                if data == 'end' then ws.loop_stop() end
            end,
            on_error = function(e, text) note('error', text) end,
            on_close = function(reason) note('close', reason) end }
        for k, v in pairs(extra or {}) do o[k] = v end
        return o
    end
    -- runs the loop until loop_stop or `seconds` passed
    function run_loop(seconds)
        local t0 = now()
        timed_out = false
        ws.loop_start(function() if now() - t0 > seconds then timed_out = true; ws.loop_stop() end end, 1, 0)
    end
    function count(...) return select('#', ...), ... end
    -- connects to the peer, watching the descriptor; the returned copy
    function open(port, extra)
        w = ws.ws_new()
        watch_fd(ws_fd(w))
        return ws.ws_connect(w, options(port, extra))
    end
)";

class WsTest : public UdpLuaTest {
protected:
    void SetUp() override {
        UdpLuaTest::SetUp();
        expose("ws_fd", ws_fd);
        expose("ws_status", ws_status);
        expose("registered_status", registered_status);
        expose("in_socktbl", in_socktbl);
        expose("tls_sessions", tls_sessions);
        expose("wait_readable_fd", wait_readable_fd);
        expose("watch_fd", watch_fd);
        LUA_OK(kHelpers);
    }

    std::vector<std::string> events() {
        std::vector<std::string> result;
        lua_getglobal(L, "events");
        for (int i = 1;; ++i) {
            lua_rawgeti(L, -1, i);
            if (lua_isnil(L, -1))
                break;
            result.emplace_back(lua_tostring(L, -1));
            lua_pop(L, 1);
        }
        lua_settop(L, 0);
        return result;
    }

    std::string port_text(const peers::tcp_peer& peer) { return std::to_string(peer.port()); }
};

bool is_empty_control(const peers::client_frame& frame, uint8_t first) {
    return frame.complete && frame.first == first && frame.masked && frame.length == 0 && frame.header.size() == 6;
}

}  // namespace

// ---- URLs ----

TEST(WsUrl, OnlyThePrefixDecidesTheScheme) {
    EXPECT_EQ(is_secure("wss://h/p"), 1);
    EXPECT_EQ(is_secure("wssx://h/p"), 1);
    EXPECT_EQ(is_secure("ws://h/p"), 0);
    EXPECT_EQ(is_secure("wsfoo/h"), 0);
    EXPECT_EQ(is_secure("WS://h"), -1);
    EXPECT_EQ(is_secure("http://h"), -1);
    EXPECT_EQ(is_secure(""), -1);
}

TEST(WsUrl, HostAndPathSplitAtEverySlash) {
    auto split = [](const char* url, int expected) {
        char copy[TEXT_FIELD_SIZE];
        std::strcpy(copy, url);
        char host[TEXT_FIELD_SIZE] = "stale";
        char path[TEXT_FIELD_SIZE] = "stale";
        EXPECT_EQ(get_host_path(copy, host, path), expected) << url;
        return std::string(host) + "|" + path;
    };
    EXPECT_EQ(split("ws://example/chat", 0), "example|/chat");
    EXPECT_EQ(split("wss://h/a/b?x=1", 0), "h|/a/b?x=1");
    EXPECT_EQ(split("ws://h", 0), "h|");
    EXPECT_EQ(split("ws://h/", 0), "h|");
    EXPECT_EQ(split("ws://h//a//", 0), "h|/a");
    EXPECT_EQ(split("ws://user@h:8080/p", 0), "user@h:8080|/p");
    EXPECT_EQ(split("ws://", -1), "|") << "no host piece";
    EXPECT_EQ(split("ws:", -1), "|");
    char url[] = "ws://hostname/long";
    char small[5];
    char path[TEXT_FIELD_SIZE];
    EXPECT_EQ(get_host_path(url, small, path), -1) << "host does not fit";
}

// ---- connection set-up ----

TEST_F(WsTest, ConnectGivesThreeCopiesAndOnOpenSeesConnecting) {
    peers::tcp_peer peer([](int fd) {
        peers::accept_upgrade(fd);
        peers::read_until_closed(fd);
    });
    // the port is used modulo 65536
    LUA_OK("c = open(" + std::to_string(peer.port() + 65536) + R"(, { on_open = function()
                note('open', ws_status(w), registered_status(ws_fd(w))) end })
        fd = ws_fd(c)
        assert(c ~= w and ws_fd(w) == fd)
        assert(ws_status(c) == 1 and ws_status(w) == 1)
        assert(registered_status(fd) == 2, 'the loop works on a copy taken while connecting')
        assert(in_socktbl(fd))
        ws.ws_close(c)
        assert(not in_socktbl(fd) and ws_fd(c) == -1 and ws_status(c) == 1)
        assert(registered_status(fd) == 0)
    )");
    EXPECT_THAT(events(), ElementsAre("open 2 2", "close User do close"));
}

TEST_F(WsTest, FailedConnectsReportBothTextsAndReturnNothing) {
    const std::string refused = std::to_string(peers::closed_port());
    LUA_OK(R"(
        function try(url, port)
            local w = ws.ws_new()
            local n = select('#', ws.ws_connect(w, options(port, { url = url })))
            assert(n == 0, url .. ' returned a value')
            assert(ws_status(w) == 0 and ws_fd(w) == -1, url)
            local ok, err = pcall(ws.ws_connect, w, options(port))
            assert(not ok and err:find('socket has been closed'), 'a closed object is not connected again')
        end
        try('http://127.0.0.1/', 1)
        try('WS://127.0.0.1/', 1)
        try('ws://', 1)
        try('ws://127.0.0.1:8080/p', 1)
        try('ws://127.0.0.1/', )" + refused + R"()
    )");
    EXPECT_THAT(events(), ElementsAre("error wrong websocket url!", "close wrong websocket url!",
                                      "error wrong websocket url!", "close wrong websocket url!",
                                      "error wrong websocket url!", "close wrong websocket url!",
                                      "error domain name resolution fail, get server ip fail!",
                                      "close domain name resolution fail, get server ip fail!",
                                      "error Connection refused", "close Connection refused"));
}

TEST_F(WsTest, HandshakeRefusalsCloseWithHandshakeFail) {
    // a wrong accept value, then the right value under a lower-case header name
    for (const bool lower_case : {false, true}) {
        peers::tcp_peer peer([lower_case](int fd) {
            const std::string request = peers::read_upgrade_request(fd);
            const std::string accept = peers::accept_value(peers::header_value(request, "Sec-WebSocket-Key"));
            peers::send_all(fd, lower_case ? peers::upgrade_answer(accept, "sec-websocket-accept")
                                           : peers::upgrade_answer("AAAAAAAAAAAAAAAAAAAAAAAAAAA="));
            peers::read_until_closed(fd);
        });
        LUA_OK("events = {}; assert(select('#', open(" + port_text(peer) + ")) == 0)");
        const auto seen = events();
        ASSERT_EQ(seen.size(), 2u);
        EXPECT_THAT(seen[0], StartsWith("error "));
        EXPECT_EQ(seen[1], "close handshake fail");
    }
}

TEST_F(WsTest, TlsFailureOnAPlainPeerIsReported) {
    peers::tcp_peer peer([](int fd) { peers::read_until_closed(fd, 200ms); });
    LUA_OK("assert(select('#', open(" + port_text(peer) + ", { url = 'wss://127.0.0.1/' })) == 0)");
    EXPECT_THAT(events(), ElementsAre("error ssl connect fail!", "close ssl_connect_fail"));
    LUA_OK("assert(tls_sessions() == 0)");
}

TEST_F(WsTest, FullSocketTableReportsWithoutCloseAndReturnsNil) {
    peers::tcp_peer peer([](int fd) {
        peers::accept_upgrade(fd);
        peers::read_until_closed(fd);
    });
    for (int slot = 0; slot < SOCKET_TABLE_SIZE; ++slot)
        socktbl[slot] = 100000 + slot;
    LUA_OK("n, value = count(open(" + port_text(peer) + "))" + R"(
        assert(n == 1 and value == nil)
        assert(not fd_is_open(ws_fd(w)), 'the descriptor is closed')
        assert(ws_status(w) == 2, 'nothing else is undone')
    )");
    EXPECT_THAT(events(), ElementsAre("error socktbl is full now!"));
}

TEST_F(WsTest, OptionErrorsRaise) {
    EXPECT_THAT(run("ws.ws_connect(ws.ws_new(), { url = 'ws://h/', prikey = '', port = 1, timeout = 0, type = 0 })"),
                HasSubstr("string expected"));
    EXPECT_THAT(run("ws.ws_connect(ws.ws_new(), { url = string.rep('a', 200), crt = '', prikey = '', port = 1, "
                    "timeout = 0, type = 0 })"),
                HasSubstr("url"));
    EXPECT_THAT(run("ws.ws_connect(ws.udp_new(), {})"), HasSubstr("{SOCKET_WS}"));
    EXPECT_TRUE(events().empty());
}

TEST_F(WsTest, NewByKindNameAndDefault) {
    LUA_OK(R"(
        for _, kind in ipairs({ 'websocket', 'anything' }) do
            local w = ws.new(kind)
            assert(ws_status(w) == 3 and ws_fd(w) > 0)
            local ok, err = pcall(ws.ws_send, w, 'x')
            assert(not ok and err:find('attempt to index'), 'never connected: the report finds nothing registered')
            local fd = ws_fd(w)
            ws.ws_close(w)  -- never connected: closes the descriptor quietly
            assert(not fd_is_open(fd))
        end
    )");
    EXPECT_TRUE(events().empty());
}

TEST_F(WsTest, SocketCreationFailureGivesNilWithoutCallback) {
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit none = saved;
    none.rlim_cur = 0;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::string result = run("created = ws.ws_new()");
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(result, "");
    EXPECT_EQ(global_string("created"), "(nil)");
}

// ---- bytes on the wire ----

TEST_F(WsTest, RequestAndFramesAreExactAndMasked) {
    std::string request;
    std::vector<peers::client_frame> frames;
    peers::tcp_peer peer([&](int fd) {
        request = peers::accept_upgrade(fd);
        for (int i = 0; i < 7; ++i)
            frames.push_back(peers::read_client_frame(fd));
    });
    LUA_OK("c = open(" + port_text(peer) + ")" + R"(
        results = { ws.ws_send(c, 'hello'), ws.ws_send(c, ''), ws.ws_send(c, 'ab\0cd'), ws.ws_send(c, 42),
                    ws.ws_send(c, string.rep('x', 300)), ws.ws_send(c, string.rep('y', 70000)) }
        ws.ws_close(c)
        assert(table.concat(results, ' ') == '5 0 2 2 300 70000', table.concat(results, ' '))
    )");
    peer.join();
    EXPECT_THAT(request, StartsWith("GET /chat HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\n"
                                    "Connection: Upgrade\r\nSec-WebSocket-Key: "));
    EXPECT_THAT(request, HasSubstr("==\r\nSec-WebSocket-Protocol: echo\r\nSec-WebSocket-Version: 13\r\n\r\n"));
    EXPECT_EQ(peers::header_value(request, "Sec-WebSocket-Key").size(), 24u);
    ASSERT_EQ(frames.size(), 7u);
    for (const auto& frame : frames) {
        EXPECT_TRUE(frame.complete && frame.masked);
    }
    EXPECT_EQ(frames[0].header.substr(0, 2), "\x81\x85");
    EXPECT_EQ(frames[0].payload, "hello");
    EXPECT_EQ(frames[1].header.size(), 6u);
    EXPECT_EQ(frames[1].length, 0u);
    EXPECT_EQ(frames[2].payload, "ab") << "cut at the zero byte";
    EXPECT_EQ(frames[3].payload, "42");
    EXPECT_EQ(frames[4].header.substr(0, 4), std::string("\x81\xfe\x01\x2c", 4));
    EXPECT_EQ(frames[4].payload, std::string(300, 'x'));
    EXPECT_EQ(frames[5].header.substr(0, 6), std::string("\x81\xff\x70\x11\x01\x00", 6))
        << "127 class: the length least significant byte first";
    EXPECT_EQ(frames[5].header.size(), 14u);
    EXPECT_EQ(frames[5].payload, std::string(70000, 'y'));
    EXPECT_TRUE(is_empty_control(frames[6], 0x88)) << "ws_close sends an empty close frame";
    EXPECT_THAT(events(), ElementsAre("open", "close User do close"));
}

TEST_F(WsTest, LongestTextIsSentAndLongerIsRefused) {
    peers::client_frame frame;
    peers::tcp_peer peer([&](int fd) {
        peers::accept_upgrade(fd);
        frame = peers::read_client_frame(fd);
        peers::read_until_closed(fd);
    });
    LUA_OK("c = open(" + port_text(peer) + ")" + R"(
        local ok, err = pcall(ws.ws_send, c, string.rep('z', 1048563))
        assert(not ok and err:find('text longer than 1048562 bytes'), err)
        ok, err = pcall(ws.ws_send, c, {})
        assert(not ok and err:find('string expected'), err)
        assert(ws.ws_send(c, string.rep('z', 1048562) .. '\0tail') == 1048562)
        ws.ws_close(c)
    )");
    peer.join();
    EXPECT_TRUE(frame.complete);
    EXPECT_EQ(frame.length, 1048562u);
    EXPECT_EQ(frame.payload, std::string(1048562, 'z'));
}

// ---- the receive path ----

TEST_F(WsTest, ReceivedFramesFollowTheReadBoundaries) {
    peers::client_frame pong;
    peers::tcp_peer peer([&](int fd) {
        using peers::send_all;
        using peers::text_frame;
        accept_upgrade_alone(fd);
        auto step = [&](const std::string& bytes) { send_and_wait_consumed(fd, bytes); };
        step(text_frame("one") + text_frame("two"));        // both, in order
        step(peers::server_frame(0x9, "ping data") + text_frame("after ping"));  // text dropped
        pong = peers::read_client_frame(fd);
        const std::string split = text_frame(std::string(1000, 's'));
        step(split.substr(0, 302));                          // completed by a further read
        step(split.substr(302));
        step(text_frame(std::string(300, 'm')));             // 16-bit length
        step(text_frame(std::string(70000, 'l')));           // 64-bit length, this client's byte order
        step(peers::server_frame(0x1, std::string(70000, 'n'), true, true));  // network order: rejected
        step(peers::server_frame(0x2, "binary"));            // dropped
        step(peers::server_frame(0xA, "pong"));              // dropped
        step("\xc1\x03" "rsv");                              // extension bit: malformed
        step("\x80\x03" "con");                              // continuation: malformed
        step("\x81");                                        // one byte, then the rest: lost
        step("\x05" "hello");
        step(text_frame("abc") + "\x81");                    // a lone first byte reads as an empty text
        step(std::string("\x81\x05" "ab\0cd", 7));           // a zero byte waits for more
        step("XYZ");
        send_all(fd, text_frame("end"));
        peers::read_until_closed(fd);
    });
    LUA_OK("c = open(" + port_text(peer) + ")\nrun_loop(10)\nassert(not timed_out)\nws.ws_close(c)");
    peer.join();
    EXPECT_TRUE(is_empty_control(pong, 0x8A)) << "a ping is answered with an empty pong";
    EXPECT_THAT(events(), ElementsAre("open", "message one nil -1", "message two nil -1", "message #1000 nil -1",
                                      "message #300 nil -1", "message #70000 nil -1", "message abc nil -1",
                                      "message  nil -1", "message abXYZ nil -1", "message end nil -1",
                                      "close User do close"));
}

TEST_F(WsTest, CloseFrameIsAnsweredAndEndsTheConnection) {
    peers::client_frame answer;
    peers::tcp_peer peer([&](int fd) {
        accept_upgrade_alone(fd);
        peers::send_all(fd, peers::text_frame("bye") + peers::server_frame(0x8, "\x03\xe8"));
        answer = peers::read_client_frame(fd);
        peers::read_until_closed(fd);
    });
    LUA_OK("c = open(" + port_text(peer) + R"(, { on_close = function(reason) note('close'); ws.loop_stop() end })
        fd = ws_fd(c)
        run_loop(10)
        assert(not timed_out)
        assert(registered_status(fd) == 0)
        assert(in_socktbl(fd), 'closed through the copy that is still connecting: left in the table')
        ws.ws_close(c)
        assert(not in_socktbl(fd))
    )");
    peer.join();
    EXPECT_TRUE(is_empty_control(answer, 0x88));
    const auto seen = events();
    ASSERT_EQ(seen.size(), 6u);
    EXPECT_EQ(seen[1], "message bye nil -1");
    EXPECT_THAT(seen[2], StartsWith("error "));
    EXPECT_EQ(seen[3], "close");
    EXPECT_EQ(seen[4], "error Socket has been closed!") << "the script's copy finds the connection closed";
    EXPECT_EQ(seen[5], "close");
}

TEST_F(WsTest, TextLargerThanTheBufferEndsTheConnection) {
    peers::tcp_peer peer([&](int fd) {
        accept_upgrade_alone(fd);
        // claims 1,200,000 bytes and sends more than the buffer holds
        std::string frame = "\x81\x7f";
        const uint64_t length = 1200000;
        for (int i = 0; i < 8; ++i)
            frame.push_back(static_cast<char>((length >> (8 * i)) & 0xff));
        peers::send_all(fd, frame + std::string(1100000, 'q'));
        peers::read_until_closed(fd);
    });
    LUA_OK("c = open(" + port_text(peer) + R"(, { on_close = function(reason) note('close'); ws.loop_stop() end })
        run_loop(10)
        assert(not timed_out)
        ws.ws_close(c)
    )");
    peer.join();
    const auto seen = events();
    ASSERT_GE(seen.size(), 3u);
    EXPECT_EQ(seen[0], "open");
    EXPECT_THAT(seen[1], StartsWith("error "));
    EXPECT_EQ(seen[2], "close") << "no message was delivered";
}

// ---- send failures ----

TEST_F(WsTest, SendReportsEachFailureAsDesigned) {
    std::atomic<bool> done{false};
    peers::tcp_peer peer([&](int fd) {
        peers::accept_upgrade(fd);  // then reads nothing
        for (int i = 0; i < 10000 && !done; ++i)
            std::this_thread::sleep_for(1ms);
    });
    LUA_OK("c = open(" + port_text(peer) + R"()
        local text = string.rep('f', 4096)
        local sends, result = 0, nil
        repeat
            result = ws.ws_send(c, text)
            sends = sends + 1
        until result ~= 4096 or sends > 200000
        assert(result == 0, 'a full socket is not writable: ' .. tostring(result))
        assert(in_socktbl(ws_fd(c)), 'the connection stays')
        note('full')
        -- a descriptor closed behind the module's back: the poll fails
        close_fd(ws_fd(c))
        assert(ws.ws_send(c, 'x') == -1)
        assert(ws.ws_send(c, 'x') == -1)
    )");
    done = true;
    peer.join();
    const auto seen = events();
    ASSERT_EQ(seen.size(), 6u);
    EXPECT_EQ(seen[0], "open");
    EXPECT_THAT(seen[1], StartsWith("error ")) << "the stale errno's text";
    EXPECT_EQ(seen[2], "full");
    EXPECT_EQ(seen[3], "error Bad file descriptor");
    EXPECT_EQ(seen[4], "close Bad file descriptor");
    EXPECT_EQ(seen[5], "error Socket has been closed!");
}

TEST_F(WsTest, WriteErrorReportsClosesAndStillReturnsTheLength) {
    peers::tcp_peer peer([](int fd) {
        peers::accept_upgrade(fd);
        peers::reset(fd);
    });
    LUA_OK("c = open(" + port_text(peer) + R"()
        assert(wait_readable_fd(ws_fd(c)))
        -- the first write after a reset fails at once; no SIGPIPE either way
        local result = ws.ws_send(c, 'abc')
        note('result', result)
        assert(ws.ws_send(c, 'abc') == -1)
    )");
    EXPECT_THAT(events(), ElementsAre("open", "error Connection reset by peer", "close Connection reset by peer",
                                      "result 3", "error Socket has been closed!"));
}

TEST_F(WsTest, ClosingTwiceIsSilentAndOtherCopiesSeeTheClose) {
    peers::tcp_peer peer([](int fd) {
        peers::accept_upgrade(fd);
        peers::read_until_closed(fd);
    });
    LUA_OK("c = open(" + port_text(peer) + R"()
        ws.ws_close(c)
        ws.ws_close(c)  -- descriptor -1: nothing to report to
        assert(ws.ws_send(c, 'x') == -1)
        note('copy')
        assert(ws.ws_send(w, 'x') == -1)
    )");
    EXPECT_THAT(events(), ElementsAre("open", "close User do close", "copy", "error Socket has been closed!"));
}

// ---- records kept alive across callbacks ----

// Regression: the record was written after on_open although the script kept
// no reference to it and the registry entry had been replaced by a copy.
TEST_F(WsTest, ConnectKeepsItsRecordThroughOnOpen) {
    peers::tcp_peer peer([](int fd) {
        peers::accept_upgrade(fd);
        peers::read_until_closed(fd);
    });
    LUA_OK("c = ws.ws_connect(ws.ws_new(), options(" + port_text(peer) + R"(, { on_open = function()
            collectgarbage('collect'); collectgarbage('collect'); note('open') end }))
        assert(ws_status(c) == 1)
        ws.ws_close(c)
    )");
    EXPECT_THAT(events(), ElementsAre("open", "close User do close"));
}

TEST_F(WsTest, CloseKeepsItsRecordThroughTheClosedReport) {
    peers::tcp_peer peer([](int fd) {
        peers::accept_upgrade(fd);
        peers::read_until_closed(fd);
    });
    LUA_OK("c = open(" + port_text(peer) + R"(, {
            on_error = function(e, text) collectgarbage('collect'); note('error', text) end,
            on_close = function(reason) collectgarbage('collect'); note('close', reason) end })
        ws.ws_close(c)
        -- the other copy, referenced by nothing but the call's own stack
        ws.ws_close((function() local other = w; w = nil; return other end)())
    )");
    EXPECT_THAT(events(), ElementsAre("open", "close User do close", "error Socket has been closed!",
                                      "close User do close"));
}

// Regression: on_message closed the connection and connected anew, which
// replaced the registry entry the receive path was still reading through.
TEST_F(WsTest, ReceivePathKeepsItsRecordWhenOnMessageReconnects) {
    peers::tcp_peer first([](int fd) {
        accept_upgrade_alone(fd);
        peers::send_all(fd, peers::text_frame("one") + peers::text_frame("two"));
        peers::read_until_closed(fd);
    });
    peers::tcp_peer second([](int fd) {
        accept_upgrade_alone(fd);
        peers::send_all(fd, peers::text_frame("end"));
        peers::read_until_closed(fd);
    });
    LUA_OK("second_port = " + port_text(second) + "\nc = open(" + port_text(first) + R"(, { on_message = function(data)
            note('message', data)
            if data == 'one' then
                ws.ws_close(c)
                c = nil
                w = nil
                local fresh = ws.ws_new()
                watch_fd(ws_fd(fresh))
                c = ws.ws_connect(fresh, options(second_port))
                collectgarbage('collect'); collectgarbage('collect')
            end
        end })
        run_loop(10)
        assert(not timed_out)
        ws.ws_close(c)
    )");
    EXPECT_THAT(events(), ElementsAre("open", "message one", "close User do close", "open", "message end nil -1",
                                      "close User do close"))
        << "what followed in the closed connection's read is dropped";
}

// ---- python3-websockets, plain and TLS ----

namespace {

// Sequential round trips (one message in flight, so every read holds one
// frame), then a ping from the server and a close from the server.
constexpr const char* kEchoExchange = R"(
    sizes = { 1, 125, 126, 4000, 65535 }
    got = {}
    local next_size = 1
    local function send_next()
        if next_size <= #sizes then
            assert(ws.ws_send(c, string.rep(string.char(64 + next_size), sizes[next_size])) == sizes[next_size])
            next_size = next_size + 1
        else
            ws.ws_send(c, 'please ping')
        end
    end
    c = ws.ws_connect(ws.ws_new(), options(port, { url = url,
        on_message = function(data)
            got[#got + 1] = data
            if data == 'pong seen' then ws.ws_send(c, 'please close') else send_next() end
        end,
        on_close = function(reason) note('close'); ws.loop_stop() end }))
    send_next()
    run_loop(20)
    assert(not timed_out, 'timed out after ' .. #got .. ' messages')
    for i, size in ipairs(sizes) do
        assert(got[i] == string.rep(string.char(64 + i), size), 'echo ' .. i)
    end
    assert(got[#sizes + 1] == 'pong seen' and #got == #sizes + 1)
    ws.ws_close(c)
)";

}  // namespace

TEST_F(WsTest, InteroperatesWithAnIndependentServer) {
    peers::echo_server server;
    ASSERT_NE(server.port(), 0);
    LUA_OK("port = " + std::to_string(server.port()) + "; url = 'ws://127.0.0.1/'");
    LUA_OK(kEchoExchange);
    const auto seen = events();
    ASSERT_EQ(seen.size(), 5u);
    EXPECT_THAT(seen[1], StartsWith("error ")) << "the server's close, reported by the loop";
    EXPECT_EQ(seen[2], "close");
}

TEST_F(WsTest, InteroperatesOverTlsAndFreesTheSessionOnce) {
    peers::certificates certs;
    peers::echo_server server(&certs.server_crt, &certs.server_key);
    ASSERT_NE(server.port(), 0);
    LUA_OK("port = " + std::to_string(server.port()) + "; url = 'wss://127.0.0.1/'; base = tls_sessions()");
    LUA_OK(kEchoExchange);
    LUA_OK("assert(tls_sessions() == base, 'released by the loop\\'s close')");
    // closing the copies of one connection in every order frees it once
    LUA_OK(R"(
        for _, order in ipairs({ { 'c', 'w' }, { 'w', 'c' } }) do
            local objects = {}
            objects.w = ws.ws_new()
            objects.c = ws.ws_connect(objects.w, options(port, { url = url }))
            assert(tls_sessions() == base + 1)
            ws.ws_close(objects[order[1]])
            assert(tls_sessions() == base)
            assert(ws.ws_send(objects[order[2]], 'late') == -1, 'a stale copy is closed')
            ws.ws_close(objects[order[2]])
            assert(ws_fd(objects[order[2]]) == -1)
        end
    )");
}
