// The WebSocket client through the script bindings and the loop, against
// scripted in-process peers and against python3-websockets (plain and TLS).
#include "lua_fixture.h"
#include "ws_connect.h"

namespace {

std::string text(std::string_view payload) { return peers::server_frame(0x81, payload); }

// Every report is noted in `events` as "what args;".
constexpr const char* kHelpers = R"(
    events = ''
    function note(...)
        local parts = { ... }
        for i = 1, select('#', ...) do parts[i] = tostring(parts[i]) end
        events = events .. table.concat(parts, ' ') .. ';'
    end
    function options(port, extra)
        local o = { url = 'ws://127.0.0.1/chat', crt = '', prikey = '', port = port, timeout = 3, type = 0,
            on_open = function() note('open') end,
            on_message = function(data, from, p) note('message', #data > 40 and '#' .. #data or data, from, p) end,
            on_error = function(e, text) note('error', text) end,
            on_close = function(reason) note('close', reason); ws.loop_stop() end }
        for k, v in pairs(extra or {}) do o[k] = v end
        return o
    end
    function open(port, extra) w = ws.ws_new(); return ws.ws_connect(w, options(port, extra)) end
    function run_loop(seconds)  -- until loop_stop, at most `seconds`
        timed_out = nil
        ws.loop_start(deadline(seconds), 1, 0)
        if timed_out then note('timeout') end
    end
)";

class WsTest : public SocketTest {
protected:
    void SetUp() override {
        SocketTest::SetUp();
        // the status of the record registered for a descriptor; whether the loop watches it
        expose("registry", [](lua_State* L) {
            const auto fd = static_cast<int32_t>(luaL_checkinteger(L, 1));
            get_udata_by_sockfd(L, fd);
            const auto* registered = static_cast<const sock_header*>(lua_touserdata(L, -1));
            lua_pushinteger(L, registered != nullptr ? registered->status : -9);
            lua_pushboolean(L, std::find(std::begin(socktbl), std::end(socktbl), fd) != std::end(socktbl));
            return 2;
        });
        LUA_OK(kHelpers);
    }
    std::string events() { return global_string("events"); }
    static std::string port(const peers::script_peer& peer) { return std::to_string(peer.port); }
};

}  // namespace

TEST(WsUrl, PrefixDecidesTheSchemeAndEverySlashSplits) {
    const std::tuple<const char*, int, const char*> rows[] = {  // url, is_secure, host|path or -1
        {"ws://example/chat", 0, "example|/chat"}, {"wssx://h/a/b?x=1", 1, "h|/a/b?x=1"}, {"ws://h", 0, "h|"},
        {"wsfoo/h//a//", 0, "h|/a"}, {"ws://user@h:8080/p", 0, "user@h:8080|/p"}, {"WS://h", -1, "h|"},
        {"http://h", -1, "h|"}, {"ws://", 0, "-1"}};
    for (const auto& [url, secure, split] : rows) {
        char copy[TEXT_FIELD_SIZE], host[TEXT_FIELD_SIZE] = "", path[TEXT_FIELD_SIZE] = "";
        EXPECT_EQ(is_secure(std::strcpy(copy, url)), secure) << url;
        EXPECT_EQ(get_host_path(copy, host, path) == -1 ? "-1" : std::string(host) + "|" + path, split) << url;
    }
}

TEST_F(WsTest, RequestAndFramesAreExactAndMasked) {
    peers::script_peer peer({{step::upgrade}, {step::drain}});
    LUA_OK("c = open(" + port(peer) + R"(, { url = 'ws://127.0.0.1' })  -- an empty path is sent as it is
        note(ws.ws_send(c, 'hello'), ws.ws_send(c, ''), ws.ws_send(c, 'ab\0cd'), ws.ws_send(c, 42),
             ws.ws_send(c, string.rep('x', 300)), ws.ws_send(c, string.rep('y', 70000)),
             ws.ws_send(c, string.rep('z', 1048562)))
        note(select(2, pcall(ws.ws_send, c, string.rep('z', 1048563))):match('text longer than 1048562 bytes'))
        note(select(2, pcall(ws.ws_send, c, {})):match('string expected'))
        ws.ws_close(c)
    )");
    EXPECT_EQ(events(), "open;5 0 2 2 300 70000 1048562;text longer than 1048562 bytes;string expected;"
                        "close User do close;");
    const std::string& seen = peer.transcript();
    const std::string key = seen.substr(std::min(seen.find("Key: ") + 5, seen.size()), 24);
    EXPECT_EQ(seen.substr(0, seen.find("\r\n\r\n") + 4),
              "GET  HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: " +
                  key + "\r\nSec-WebSocket-Protocol: echo\r\nSec-WebSocket-Version: 13\r\n\r\n");
    EXPECT_THAT(key, MatchesRegex("[A-Za-z0-9+/]{22}=="));
    // header bytes up to the key, less the 127 class's bytes 6-9 (not length)
    const std::pair<std::string, std::string> expected[] = {
        {"\x81\x85", "hello"}, {"\x81\x80", ""}, {"\x81\x82", "ab"}, {"\x81\x82", "42"},
        {"\x81\xfe\x01\x2c", std::string(300, 'x')},
        {std::string("\x81\xff\x70\x11\x01\x00", 6), std::string(70000, 'y')},
        {std::string("\x81\xff\xf2\xff\x0f\x00", 6), std::string(1048562, 'z')}, {"\x88\x80", ""}};
    const auto frames = peers::client_frames(seen.substr(seen.find("\r\n\r\n") + 4));
    ASSERT_EQ(frames.size(), std::size(expected));
    for (std::size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].first.substr(0, expected[i].first.size()), expected[i].first) << i;
        EXPECT_TRUE(frames[i].second == expected[i].second) << i;
    }
}

TEST_F(WsTest, ReceivedFramesFollowTheReadBoundaries) {
    const std::string split = text(std::string(1000, 's'));
    peers::script_peer peer({{step::upgrade},
                             {step::send, text("one") + text("two")},  // both, in order
                             {step::send, peers::server_frame(0x89, "ping data") + text("dropped")},
                             {step::read, "", 6},  // an empty pong
                             {step::send, split.substr(0, 302)}, {step::send, split.substr(302)},  // completed
                             {step::send, text(std::string(300, 'm'))}, {step::send, text(std::string(70000, 'l'))},
                             {step::send, std::string("\x81\x7f\0\0\0\0\0\0\0\x03" "abc", 13)},  // network order
                             {step::send, peers::server_frame(0x82, "binary")},  // dropped, as are the next two
                             {step::send, peers::server_frame(0x8a, "pong")},
                             {step::send, peers::server_frame(0xc1, "rsv")},
                             {step::send, std::string("\x81\x05" "ab\0cd", 7)}, {step::send, "XYZ"},  // a zero waits
                             // the cut header is parsed over zeros, counted by the doubled length
                             {step::send, text("a") + "\x81\x7f"},
                             {step::send, text("bye") + peers::server_frame(0x88, "\x03\xe8")},
                             {step::read, "", 6},  // an empty close
                             {step::drain}});
    LUA_OK("c = open(" + port(peer) + R"()
        local f = fd_of(c)
        run_loop(10)
        note(registry(f))  -- closed through the copy that is still connecting: left in the table
        ws.ws_close(c)
        note(registry(f))
    )");
    EXPECT_THAT(events(), MatchesRegex("open;message one nil -1;message two nil -1;message #1000 nil -1;"
                                       "message #300 nil -1;message #70000 nil -1;message abXYZ nil -1;"
                                       "message a nil -1;message  nil -1;message bye nil -1;error [^;]*;close [^;]*;"
                                       "0 true;error Socket has been closed!;close User do close;0 false;"));
    const auto frames = peers::client_frames(peer.transcript().substr(peer.transcript().find("\r\n\r\n") + 4));
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].first + frames[0].second, "\x8a\x80");
    EXPECT_EQ(frames[1].first + frames[1].second, "\x88\x80");
}

TEST_F(WsTest, TextLongerThanTheBufferEndsTheConnection) {
    peers::script_peer peer({{step::upgrade}, {step::send, text(std::string(1200000, 'q')).substr(0, 1100000)}});
    LUA_OK("c = open(" + port(peer) + ")\nrun_loop(10)");
    EXPECT_THAT(events(), MatchesRegex("open;error [^;]*;close [^;]*;"));
}

TEST_F(WsTest, FailedConnectsReportBothTextsAndReturnNothing) {
    const std::tuple<const char*, std::vector<step>, std::string> rows[] = {  // url, peer (none: refused), reports
        {"http://127.0.0.1/", {}, "error wrong websocket url!;close wrong websocket url!;"},
        {"ws://", {}, "error wrong websocket url!;close wrong websocket url!;"},
        {"ws://127.0.0.1:80/p", {}, "error domain name resolution fail, get server ip fail!;"
                                    "close domain name resolution fail, get server ip fail!;"},
        {"ws://127.0.0.1/", {}, "error Connection refused;close Connection refused;"},
        {"wss://127.0.0.1/", {{step::send, "HTTP/1.1 400 Bad\r\n\r\n"}, {step::drain}},
         "error ssl connect fail!;close ssl_connect_fail;"},
        {"ws://127.0.0.1/", {{step::upgrade, "HTTP/1.1 101 OK\r\nSec-WebSocket-Accept: A\r\n\r\n"}, {step::drain}},
         "error [^;]*;close handshake fail;"},
    };
    for (const auto& [url, steps, reports] : rows) {
        peers::script_peer peer(steps);
        LUA_OK("events = ''\nw = ws.ws_new()\nnote(select('#', ws.ws_connect(w, options(" + port(peer) + ", { url = '" +
               url + "' }))), fd_of(w), status_of(w))");
        EXPECT_THAT(events(), MatchesRegex(reports + "0 -1 0;")) << url;
    }
    LUA_OK("assert(tls_sessions() == 0)");
}

TEST_F(WsTest, FullSocketTableReportsWithoutCloseAndReturnsNil) {
    peers::script_peer peer({{step::upgrade}, {step::drain}});
    std::fill(std::begin(socktbl), std::end(socktbl), 100000);
    LUA_OK("local function count(...) return select('#', ...), ... end\nnote(count(open(" + port(peer) +
           ")))\nnote(status_of(w))");
    EXPECT_EQ(events(), "error socktbl is full now!;1 nil;2;");
}

TEST_F(WsTest, ConnectGivesThreeCopiesAndClosesFollowTheCopyUsed) {
    peers::script_peer peer({{step::upgrade}, {step::drain}});
    LUA_OK("local fresh = ws.new('websocket')\nws.ws_close(fresh)  -- never connected: closed quietly\n"
           "note(status_of(fresh), fd_of(fresh))\nc = open(" + std::to_string(peer.port + 65536) + R"(, {
            on_open = function() note('open', status_of(w), registry(fd_of(w))) end })  -- the port modulo 65536
        local f = fd_of(c)
        note(c ~= w and fd_of(w) == f, status_of(c), status_of(w), registry(f))
        ws.ws_close(c)
        note(fd_of(c), status_of(c), registry(f))
        ws.ws_close(c)  -- descriptor -1: nothing to report to
        note(ws.ws_send(c, 'x'), ws.ws_send(w, 'x'))
    )");
    EXPECT_EQ(events(), "3 -1;open 2 2 true;true 1 1 2 true;close User do close;-1 1 0 false;"
                        "error Socket has been closed!;-1 -1;");
}

TEST_F(WsTest, SendReportsNotWritablePollFailureAndWriteFailure) {
    peers::script_peer full({{step::upgrade}, {step::hold}}), reset({{step::upgrade}, {step::reset}});
    LUA_OK("c = open(" + port(full) + R"()
        local sends, result = 0
        repeat result, sends = ws.ws_send(c, string.rep('f', 4096)), sends + 1 until result ~= 4096 or sends > 1e5
        note(result, registry(fd_of(c)))  -- not writable: dropped, the connection stays
        close_fd(fd_of(c))  -- behind the module's back: the poll fails
        note(ws.ws_send(c, 'x'), ws.ws_send(c, 'x'))
        c = open()" + port(reset) + R"()
        wait_readable(fd_of(c))
        note(ws.ws_send(c, 'abc'), ws.ws_send(c, 'abc'))  -- a failed write still gives the length
    )");
    EXPECT_THAT(events(), MatchesRegex("open;error [^;]*;0 2 true;error Bad file descriptor;close Bad file descriptor;"
                                       "error Socket has been closed!;-1 -1;open;error Connection reset by peer;"
                                       "close Connection reset by peer;error Socket has been closed!;3 -1;"));
}

// Regression: records were used after a callback let the collector free them.
// ws_connect's across on_open, the receive path's when on_message closed and
// connected anew (replacing the registry entry), ws_close's across its report.
TEST_F(WsTest, RecordsSurviveCollectionInCallbacks) {
    peers::script_peer first({{step::upgrade}, {step::send, text("one") + text("two")}, {step::drain}});
    peers::script_peer second({{step::upgrade}, {step::send, text("end")}, {step::drain}});
    LUA_OK("second = " + port(second) + R"(
        hooks = { on_open = function() collectgarbage(); note('open') end,
                  on_error = function(e, text) collectgarbage(); note('error', text) end,
                  on_close = function(reason) collectgarbage(); note('close', reason) end,
                  on_message = function(data)
                      note('message', data)
                      if data ~= 'one' then return ws.loop_stop() end
                      ws.ws_close(c)
                      w2 = ws.ws_new()
                      c = ws.ws_connect(w2, options(second, hooks))
                      collectgarbage()
                  end }
        c = ws.ws_connect(ws.ws_new(), options()" + port(first) + R"(, hooks))
        run_loop(10)
        ws.ws_close(c)
        ws.ws_close((function() local other = w2; w2 = nil; return other end)())
    )");
    EXPECT_EQ(events(), "open;message one;close User do close;open;message end;close User do close;"
                        "error Socket has been closed!;close User do close;");
}

// Sequential echoes, then a ping and a close from the server; then both
// orders of closing a connection's two script copies (a TLS session is freed
// once, with the first).
TEST_F(WsTest, InteroperatesWithAnIndependentServerPlainAndOverTls) {
    for (const bool tls : {false, true}) {
        peers::echo_server server(tls);
        ASSERT_NE(server.port, 0);
        LUA_OK("events, port, tls = '', " + std::to_string(server.port) + ", " + (tls ? "true" : "false") + R"(
            url, base = tls and 'wss://127.0.0.1/' or 'ws://127.0.0.1/', tls_sessions()
            sizes, got = { 1, 125, 126, 4000, 65535 }, {}
            local function send_next()
                local size = sizes[#got + 1]
                ws.ws_send(c, size and string.rep(string.char(65 + #got), size) or 'please ping')
            end
            c = ws.ws_connect(ws.ws_new(), options(port, { url = url, on_message = function(data)
                got[#got + 1] = data
                if data == 'pong seen' then ws.ws_send(c, 'please close') else send_next() end
            end }))
            send_next()
            run_loop(20)
            for i, size in ipairs(sizes) do assert(got[i] == string.rep(string.char(64 + i), size), 'echo ' .. i) end
            note(got[#sizes + 1], #got, tls_sessions() - base)
            for _, first in ipairs({ 'c', 'w' }) do
                local copies = { c = open(port, { url = url }), w = w }
                note(tls_sessions() - base == (tls and 1 or 0))
                ws.ws_close(copies[first]); ws.ws_close(copies[first == 'c' and 'w' or 'c'])
                note(tls_sessions() - base)
            end
        )");
        const std::string second_close = tls ? "" : "error Socket has been closed!;close User do close;";
        EXPECT_THAT(events(), MatchesRegex("open;error [^;]*;close [^;]*;pong seen 6 0;"
                                           "(open;true;close User do close;" + second_close + "0;){2}"))
            << (tls ? "wss" : "ws");
    }
}
