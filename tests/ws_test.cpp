// The WebSocket client against scripted in-process peers.
#include <poll.h>

#include "connect_machine.h"
#include "lua_fixture.h"

namespace {

std::string text(std::string_view payload) { return peers::server_frame(0x81, payload); }

constexpr const char* kHelpers = R"(
    function wopts(port, extra)  -- messages noted as "message:<text or #length>"; the close stops the loop
        local o = opts({ url = 'ws://127.0.0.1/chat', crt = '', prikey = '', port = port, timeout = 3, type = 0,
            on_message = function(data) note('message:' .. (#data > 40 and '#' .. #data or data)) end,
            on_close = function(reason) note('close:' .. reason); ws.loop_stop() end })
        for k, v in pairs(extra or {}) do o[k] = v end
        return o
    end
    function open(port, extra) w = ws.ws_new(); return ws.ws_connect(w, wopts(port, extra)) end
    function registry(fd)  -- the registered record's status and whether the loop watches fd, as "status:watched"
        return status_of(debug.getregistry()["udata-" .. fd]) .. ":" .. tostring(watched(fd))
    end
)";

class WsTest : public SocketTest {
protected:
    void SetUp() override {
        SocketTest::SetUp();
        LUA_OK(kHelpers);
    }
    static std::string port(const peers::script_peer& peer) { return std::to_string(peer.port); }
};

}  // namespace

// The upgrade request and every frame byte for byte (127 class least significant byte first).
TEST_F(WsTest, RequestAndFramesAreExactAndMasked) {
    peers::script_peer peer({{step::upgrade}, {step::drain}});
    LUA_OK("c = ws.ws_connect(ws.ws_new(), wopts(" + port(peer) + R"(, { url = 'ws://127.0.0.1',
        on_open = function() collectgarbage('setpause', 0); collectgarbage('setstepmul', 1e6); collectgarbage() end }))
        -- only the module holds the object passed in; from on_open on, every allocation collects
        sent = table.concat({ ws.ws_send(c, 'hello'), ws.ws_send(c, 'ab\0cd'), ws.ws_send(c, 42),
            ws.ws_send(c, string.rep('x', 126)), ws.ws_send(c, string.rep('y', 70000)),
            ws.ws_send(c, string.rep('z', 1048562)) }, ' ')
        assert(select(2, pcall(ws.ws_send, c, string.rep('z', 1048563))):match('text longer than 1048562 bytes'))
        ws.ws_close(c)
    )");
    EXPECT_EQ(eval("sent"), "5 2 2 126 70000 1048562");
    const std::string& seen = peer.transcript();
    const std::string key = seen.substr(std::min(seen.find("Key: ") + 5, seen.size()), 24);
    EXPECT_EQ(seen.substr(0, seen.find("\r\n\r\n") + 4),
              "GET  HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: " +
                  key + "\r\nSec-WebSocket-Protocol: echo\r\nSec-WebSocket-Version: 13\r\n\r\n");
    const std::pair<std::string, std::string> expected[] = {  // header up to the key (127: bytes 0-5), payload
        {"\x81\x85", "hello"}, {"\x81\x82", "ab"}, {"\x81\x82", "42"}, {"\x81\xfe\x00\x7e", std::string(126, 'x')},
        {std::string("\x81\xff\x70\x11\x01\x00", 6), std::string(70000, 'y')},
        {std::string("\x81\xff\xf2\xff\x0f\x00", 6), std::string(1048562, 'z')}, {"\x88\x80", ""}};
    const auto frames = peers::client_frames(seen.substr(seen.find("\r\n\r\n") + 4));
    ASSERT_EQ(frames.size(), std::size(expected));
    for (std::size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].first.substr(0, expected[i].first.size()), expected[i].first) << i;
        EXPECT_TRUE(frames[i].second == expected[i].second) << i;
    }
}

// A ping gets an empty pong (the rest of its read is dropped), a close an empty
// close; a zero byte in a text waits for more; a close through the copy still
// connecting leaves the descriptor watched.
TEST_F(WsTest, ReceivedFramesFollowTheReadBoundaries) {
    const std::string split = text(std::string(1000, 's'));
    peers::script_peer peer({{step::upgrade}, {step::send, text("one") + text("two")},
                             {step::send, peers::server_frame(0x89, "ping data") + text("dropped")},
                             {step::read, "", 6}, {step::send, split.substr(0, 302)}, {step::send, split.substr(302)},
                             {step::send, text(std::string(70000, 'l'))},
                             {step::send, std::string("\x81\x7f\0\0\0\0\0\0\0\x03" "abc", 13)},
                             {step::send, peers::server_frame(0x82, "binary") + peers::server_frame(0xc1, "rsv")},
                             {step::send, std::string("\x81\x05" "ab\0cd", 7)}, {step::send, "XYZ"},
                             {step::send, text("bye") + peers::server_frame(0x88, "\x03\xe8")},
                             {step::read, "", 6}, {step::drain}});
    LUA_OK("c = open(" + port(peer) + R"()
        local f = fd_of(c)
        ws.loop_start(deadline(10), 1, 0)
        note(registry(f))
        ws.ws_close(c)
        note(registry(f))
        ws.ws_close(c)  -- descriptor -1: nothing to report to
    )");
    EXPECT_THAT(events(), MatchesRegex("open\\|message:one\\|message:two\\|message:#1000\\|message:#70000\\|"
                                       "message:abXYZ\\|message:bye\\|error:[^|]*\\|close:[^|]*\\|0:true\\|"
                                       "error:[0-9]+:Socket has been closed!\\|close:User do close\\|0:false"));
    const auto frames = peers::client_frames(peer.transcript().substr(peer.transcript().find("\r\n\r\n") + 4));
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].first + frames[0].second, "\x8a\x80");
    EXPECT_EQ(frames[1].first + frames[1].second, "\x88\x80");
}

// on_message replaces the registered copy and collects: the walk over the
// rest of the read still has its record (a use after free under the sanitizer).
TEST_F(WsTest, WalkKeepsItsRecordWhenOnMessageDropsIt) {
    peers::script_peer peer({{step::upgrade}, {step::send, text("one") + text("two")}, {step::drain}});
    LUA_OK("c = open(" + port(peer) + R"(, { on_message = function(d) note('message:' .. d)
        debug.getregistry()['udata-' .. fd_of(c)] = c; collectgarbage(); if d == 'two' then ws.loop_stop() end end })
        ws.loop_start(deadline(5), 1, 0))");
    EXPECT_EQ(events(), "open|message:one|message:two");
}

TEST_F(WsTest, TextLongerThanTheBufferEndsTheConnection) {
    peers::script_peer peer({{step::upgrade}, {step::send, text(std::string(1200000, 'q')).substr(0, 1100000)}});
    LUA_OK("c = open(" + port(peer) + ")\nws.loop_start(deadline(10), 1, 0)");
    EXPECT_THAT(events(), MatchesRegex("open\\|error:[^|]*\\|close:[^|]*"));
}

TEST_F(WsTest, FailedConnectsReportBothTextsAndReturnNothing) {
    const std::string kFail = "[^|]*\\|close:handshake fail";
    const std::tuple<std::string, std::vector<step>, std::string> rows[] = {  // url, peer (none: refused), reports
        {"http://127.0.0.1/", {}, "wrong websocket url!\\|close:wrong websocket url!"},
        {"ws://127.0.0.1:80/p", {}, "domain name resolution fail, get server ip fail!\\|"
                                    "close:domain name resolution fail, get server ip fail!"},
        {"ws://127.0.0.1/", {}, "Connection refused\\|close:Connection refused"},
        {"wss://127.0.0.1/", {{step::send, "HTTP/1.1 400 Bad\r\n\r\n"}, {step::drain}},
         "ssl connect fail!\\|close:ssl_connect_fail"},
        {"ws://127.0.0.1/", {{step::upgrade, "HTTP/1.1 101 OK\r\nSec-WebSocket-Accept: A\r\n\r\n"}}, kFail},
        {"ws://127.0.0.1/", {{step::upgrade, "HTTP/1.1 200 OK\r\nSec-WebSocket-Accept: {accept}\r\n\r\n"}}, kFail},
        {"ws://127.0.0.1/", {{step::upgrade, "HTTP/1.1 101 {accept}\r\nSec-WebSocket-Accept: A\r\n\r\n"}}, kFail},
        {"ws://127.0.0.1/", {{step::upgrade, "HTTP/1.1 101 Switching Protocols\r\n"}}, kFail},  // the rest is not awaited
    };
    for (const auto& [url, steps, reports] : rows) {
        peers::script_peer peer(steps);
        LUA_OK("clear_events(); w = ws.ws_new()\nnote(select('#', ws.ws_connect(w, wopts(" + port(peer) +
               ", { url = '" + url + "' }))) .. fd_of(w) .. status_of(w) .. tls_sessions())");
        EXPECT_THAT(events(), MatchesRegex("error:[0-9]+:" + reports + "\\|0-100")) << url;
    }
}

// ws_connect registers the object passed in, keeps a copy for the loop and returns
// a third; closes follow the copy used. The accept value may come anywhere after its name.
TEST_F(WsTest, ConnectGivesThreeCopiesAndClosesFollowTheCopyUsed) {
    peers::script_peer peer({{step::upgrade, "HTTP/1.1 101\r\nSec-WebSocket-Accept:\r\nX: {accept}\r\n\r\n"}, {step::drain}});
    peers::script_peer full({{step::upgrade}, {step::drain}});
    LUA_OK("local fresh = ws.new('websocket')\nws.ws_close(fresh)  -- never connected: closed quietly\n"
           "note(status_of(fresh) .. fd_of(fresh))\nc = open(" + std::to_string(peer.port + 65536) + R"(, {
            on_open = function() note('open:' .. status_of(w) .. registry(fd_of(w))) end })
        local f = fd_of(c)
        note(tostring(c ~= w and fd_of(w) == f and blocking(f)) .. status_of(c) .. status_of(w) .. registry(f))
        ws.ws_close(c)
        note(fd_of(c) .. status_of(c) .. registry(f))
        note(ws.ws_send(c, 'x') .. ws.ws_send(w, 'x'))
    )");
    EXPECT_THAT(events(), MatchesRegex("3-1\\|open:22:true\\|true112:true\\|close:User do close\\|-110:false\\|"
                                       "error:[0-9]+:Socket has been closed!\\|-1-1"));
    std::fill(std::begin(socktbl), std::end(socktbl), 100000);
    LUA_OK("clear_events(); local n, v = (function(...) return select('#', ...), ... end)(open(" + port(full) +
           "))\nnote(n .. tostring(v) .. status_of(w))");
    EXPECT_THAT(events(), MatchesRegex("error:[0-9]+:socktbl is full now!\\|1nil2"));
}

// Past the time-out, with a full accept queue (further SYNs are dropped).
TEST_F(WsTest, ConnectTimesOut) {
    uint16_t full = 0;
    const int listener = peers::listen_loopback(0, &full);
    LUA_OK("ws.tcp_connect(ws.tcp_new(), tcp_opts(" + std::to_string(full) + "))\nfor i = 1, 4 do if not "
           "events():find('timed out') then open(" + std::to_string(full) + ", { timeout = 1 }) end end");
    EXPECT_THAT(events(), MatchesRegex(".*\\|error:[0-9]+:" + std::string(std::strerror(ETIMEDOUT)) + "\\|close:.*"));
    close(listener);
}

// The connect phases on a non-blocking descriptor against peers that refuse,
// stall or answer in pieces: each outcome in turn (repeats joined), ending in
// opened, failed:<errno>@<phase> or stalled@<phase> (not ready for 300 ms).
// The blocking driver keeps what followed the answer in its one read.
TEST(ConnectMachine, PhasesWaitFailOrOpenAgainstPeers) {
    const std::string head = "HTTP/1.1 101 OK\r\nSec-WebSocket-Accept: {accept}\r\n";
    const std::tuple<bool, bool, std::vector<step>, std::string, std::string> rows[] = {  // tls, blocking, peer, trace, leftover
        {false, false, {}, "(write@tcp\\|)?failed:111@tcp", ""},
        {false, false, {{step::upgrade, head}, {step::send, "\r"}, {step::send, "\n\x81\x02hi"}, {step::drain}},
         "(write@tcp\\|)?(write@send\\|)?read@read\\|opened", "\x81\x02hi"},
        {false, false, {{step::upgrade, "HTTP/1.1 403 Forbidden\r\n\r\n"}}, "(write@tcp\\|)?(write@send\\|)?read@read\\|failed:[0-9]+@read", ""},
        {false, false, {{step::drain}}, "(write@tcp\\|)?(write@send\\|)?read@read\\|stalled@read", ""},
        {true, false, {{step::drain}}, "(write@tcp\\|)?read@tls\\|stalled@tls", ""},
        {true, false, {{step::send, "HTTP/1.0 400 Bad\r\n\r\n"}, {step::drain}}, "(write@tcp\\|)?(read@tls\\|)?failed:[0-9]+@tls", ""},
        {false, true, {{step::upgrade, head + "\r\n\x81\x02hi"}, {step::drain}}, "opened", "\x81\x02hi"},
        {false, true, {{step::upgrade, "HTTP/1.1 101\r\nX: " + std::string(40000, 'x') + "\r\n" + head.substr(17) + "\r\n"}, {step::drain}},
         "opened", ""},  // one read of the designed size takes it whole
    };
    const char* phases[] = {"tcp", "tls", "send", "read", "open"};
    const connect_texts texts{"tls", "tls"};
    for (const auto& [tls, blocking, steps, trace, leftover] : rows) {
        peers::script_peer peer(steps);
        ws_record ws{};
        ws.sockfd = socket(AF_INET, SOCK_STREAM | (blocking ? 0 : SOCK_NONBLOCK), 0);
        ws.is_secure = tls ? 1 : 0;
        ASSERT_TRUE(!tls || wss_ssl_init(&ws) == 0);
        connect_state c{};
        c.fd = ws.sockfd, c.address = peers::loopback(peer.port), c.ws = &ws, c.texts = &texts;
        std::strcpy(c.host, "127.0.0.1"), std::strcpy(c.path, "/");
        std::string seen;
        auto note = [&](const std::string& what) { seen += seen.ends_with(what) ? "" : (seen.empty() ? "" : "|") + what; };
        for (connect_outcome o{}; seen.find("ed") == std::string::npos;) {
            o = blocking ? connect_blocking(c) : connect_advance(c);
            const std::string at = phases[static_cast<int>(c.phase)];
            pollfd ready{c.fd, short(o.wait == wait_for::read ? POLLIN : POLLOUT), 0};
            if (o.what == connect_outcome::again)
                note((o.wait == wait_for::read ? "read@" : "write@") + at), note(poll(&ready, 1, 300) == 0 ? "stalled@" + at : "");
            else
                note(o.what == connect_outcome::opened ? "opened" : "failed:" + std::to_string(o.error) + "@" + at);
        }
        EXPECT_THAT(seen, MatchesRegex(trace)) << trace;
        const std::span<const char> rest = connect_leftover(c);
        EXPECT_EQ(std::string(rest.begin(), rest.end()), leftover) << trace;
        connect_release(c), tls_release_record(ws);
        close(ws.sockfd);
    }
}
