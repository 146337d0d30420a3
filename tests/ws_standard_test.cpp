// Standard mode (rfc6455 = true) against crafted-byte peers: what real
// servers do not do on their own.
#include "lua_fixture.h"

namespace {

std::string frame(uint8_t first, std::string_view payload) { return peers::server_frame(first, payload); }
const std::string kHead = "HTTP/1.1 101 OK\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: {accept}\r\n";
const std::string kAnswer = kHead + "\r\n";

constexpr const char* kHelpers = R"(
    function sopts(port, extra)  -- events as open:<protocol>, <kind>:<data>, error:<text>, close:<reason>:<code>:<peer reason>
        local o = opts({ url = 'ws://127.0.0.1:' .. port .. '/p?q=1', port = 1, timeout = 3, type = 0, crt = '',
            prikey = '', rfc6455 = true, protocols = { 'mqtt', 'v2' }, headers = { Authorization = 'Bearer t' },
            on_open = function(p) note('open:' .. tostring(p)) end,
            on_message = function(d, k) note(k .. ':' .. d:gsub('%z', '0') .. (c and '' or ' (no object yet)')) end,
            on_error = function(e, text) note('error:' .. text) end,
            on_close = function(r, code, pr) note('close:' .. r .. ':' .. tostring(code) .. ':' .. tostring(pr)); ws.loop_stop() end })
        for k, v in pairs(extra or {}) do o[k] = v end
        return o
    end
)";

class WsStandardTest : public SocketTest {
protected:
    void SetUp() override {
        SocketTest::SetUp();
        LUA_OK(kHelpers);
    }
    // Connects, runs `then` and the loop (5 s at most); the events. Set up by
    // the loop (`nb`): `then` runs at the first timer call after on_open.
    std::string exchange(const peers::script_peer& peer, const std::string& then, const std::string& extra = "{}",
                         bool nb = false) {
        const std::string connect = "clear_events(); opened, c = false, nil; o = sopts(" + std::to_string(peer.port) + ", " + extra +
                                    ")\nif nb then local open = o.on_open; o.nonblocking, o.on_open = true, function(p) opened = true; open(p) end end"
                                    "\nc = ws.ws_connect(ws.ws_new(), o)\n";
        EXPECT_EQ(run("nb = " + std::string(nb ? "true\n" : "false\n") + connect +
                      (nb ? "ws.loop_start(deadline(5, function() if opened then opened = false; " + then + " end end), 1, 0)"
                          : "if c then " + then + " ws.loop_start(deadline(5), 1, 0) end")), "");
        return events();
    }
    // The client's frames after the request, as "<first byte hex>:<payload>".
    static std::string sent(peers::script_peer& peer) {
        std::string out;
        const std::string& seen = peer.transcript();
        for (const auto& [head, payload] : peers::client_frames(seen.substr(std::min(seen.find("\r\n\r\n") + 4, seen.size()))))
            out += (out.empty() ? "" : "|") + std::to_string(static_cast<uint8_t>(head[0])) + ":" + payload;
        return out;
    }
};

}  // namespace

TEST_F(WsStandardTest, OpeningHandshakeRows) {
    const std::string fail = "error:[^|]*\\|close:handshake fail:nil:nil";
    const std::tuple<std::vector<step>, std::string> rows[] = {  // peer, events
        {{{step::upgrade, kAnswer + frame(0x81, "first")}, {step::drain}}, "open:nil\\|text:first"},
        {{{step::upgrade, kHead}, {step::send, "\r"}, {step::send, "\n" + frame(0x82, std::string("a\0b", 3))}, {step::drain}},
         "open:nil\\|binary:a0b"},
        {{{step::upgrade, "HTTP/1.1 101 Switching\r\nupgrade: WebSocket\r\nconnection: keep-alive, upgrade\r\n"
                          "sec-websocket-accept: {accept}\r\nSEC-WEBSOCKET-PROTOCOL: v2\r\n\r\n"}, {step::drain}}, "open:v2"},
        {{{step::upgrade, kHead + "Sec-WebSocket-Protocol: other\r\n\r\n"}}, fail},
        {{{step::upgrade, kHead + "Sec-WebSocket-Extensions: permessage-deflate\r\n\r\n"}}, fail},
        {{{step::upgrade, "HTTP/1.1 101 OK\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: x\r\n\r\n"}}, fail},
        {{{step::upgrade, "HTTP/1.1 101 OK\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: {accept}\r\n\r\n"}}, fail},
        {{{step::upgrade, "HTTP/1.1 200 OK\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: {accept}\r\n\r\n"}}, fail},
        {{{step::upgrade, kHead}}, fail},  // the blank line never comes
    };
    for (const bool nb : {false, true})
    for (const auto& [steps, expected] : rows) {
        peers::script_peer peer(steps);
        // blocking: the frames that came with the answer wait for the loop, which holds the object
        EXPECT_THAT(exchange(peer, "if not nb then ws.loop_start(deadline(0.3), 1, 0) end ws.ws_close(c, 1000) do return end",
                             "{ close_timeout = 0 }", nb),
                    MatchesRegex(expected + "(\\|close:User do close:1006:nil)?")) << expected << (nb ? " nonblocking" : "");
        const std::string& seen = peer.transcript();
        EXPECT_EQ(seen.substr(0, seen.find("Sec-WebSocket-Key")),
                  "GET /p?q=1 HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(peer.port) +
                      "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n");
        EXPECT_THAT(seen, HasSubstr("\r\nSec-WebSocket-Version: 13\r\nSec-WebSocket-Protocol: mqtt, v2\r\n"
                                    "Authorization: Bearer t\r\n\r\n"));
    }
}

// Frames cut anywhere, pings answered with their payload, closes with codes
// both ways; failures send their code and end this connection alone.
TEST_F(WsStandardTest, FramesAndClosesRows) {
    const std::string split = frame(0x81, std::string(300, 's')), ping = frame(0x89, "abcd");
    const std::tuple<std::vector<step>, std::string, std::string, std::string, std::string> rows[] = {
        // peer after the upgrade, script, options, events, client frames (first byte:payload)
        {{{step::send, split.substr(0, 1)}, {step::send, split.substr(1, 3)}, {step::send, split.substr(4) + ping.substr(0, 3)},
          {step::send, ping.substr(3) + frame(0x01, "he") + frame(0x89, "") + frame(0x80, "llo")},
          {step::send, frame(0x88, "\x0f\xa1" "bye")}, {step::drain}},
         "", "{}", "text:s{300}\\|text:hello\\|close:closed by server:4001:bye", "138:abcd|138:|136:\x0f\xa1"},
        {{{step::read, "", 21}, {step::send, frame(0x88, "\x0f\xa2" "ok")}}, "ws.ws_close(c, 4002, 'done')", "{}",
         "close:User do close:4002:ok", "136:\x0f\xa2" "done"},
        {{{step::send, frame(0x88, "")}, {step::drain}}, "", "{}", "close:closed by server:1005:", "136:"},
        {{{step::send, frame(0xc1, "x")}, {step::drain}}, "", "{}",
         "error:protocol error \\(1002\\)\\|close:protocol error \\(1002\\):1002:nil", "136:\x03\xea"},
        {{{step::send, frame(0x81, "\xc3\x28")}, {step::drain}}, "", "{}", "error:invalid UTF-8 \\(1007\\)\\|close:[^|]*:1007:nil", "136:\x03\xef"},
        {{{step::send, frame(0x82, "12345678901")}, {step::drain}}, "", "{ max_message = 10 }",
         "error:message too big \\(1009\\)\\|close:[^|]*:1009:nil", "136:\x03\xf1"},
        {{{step::read, "", 9}, {step::send, frame(0x81, "x")}}, "", "{}", "text:x\\|error:[^|]*\\|close:[^|]*:1006:nil", ""},
        {{{step::drain}}, "", "{ ping_interval = 0.2, pong_timeout = 0.3 }",
         "error:pong timeout\\|close:pong timeout:1006:nil", "137:"},
        {{{step::drain}}, "ws.ws_close(c)", "{ close_timeout = 0.2 }", "close:User do close:1006:nil", "136:\x03\xe8"},
    };
    for (const bool nb : {false, true})
    for (const auto& [steps, script, extra, expected, frames] : rows) {
        std::vector<step> all{{step::upgrade, kAnswer}};
        all.insert(all.end(), steps.begin(), steps.end());
        peers::script_peer peer(all);
        LUA_OK("other = ws.udp_new(); ws.udp_connect(other, opts({ type = 2 }))");
        EXPECT_THAT(exchange(peer, "ws.ws_send(c, 'a\\0b', 'binary') " + script, extra, nb),
                    MatchesRegex("open:nil\\|" + expected)) << expected << nb;
        EXPECT_EQ(sent(peer), "130:" + std::string("a\0b", 3) + (frames.empty() ? "" : "|") + frames) << expected << nb;
        EXPECT_EQ(eval("watched(fd_of(other)) and not watched(fd_of(c)) and not timed_out"), "true") << expected << nb;
    }
}

// A send the socket cannot take is queued whole and written as it drains;
// past max_queue a send is refused and the connection stays usable.
TEST_F(WsStandardTest, QueueBoundAndDrain) {
    const std::size_t big = 32u << 20;
    peers::script_peer peer({{step::upgrade, kAnswer}, {step::send, frame(0x81, "go")}, {step::read, "", big + 14},
                             {step::send, frame(0x81, "drained")}, {step::read, "", 13},
                             {step::send, frame(0x88, "\x03\xe8")}, {step::drain}});
    EXPECT_EQ(exchange(peer, "note(ws.ws_send(c, string.rep('b', " + std::to_string(big) + "), 'binary') .. ' ' .. "
                       "ws.ws_send(c, 'x'))", "{ max_queue = 1000, on_message = function(d, k) note(k .. ':' .. d) "
                       "if d == 'drained' then note(ws.ws_send(c, 'last ok', 'ping')) end end }"),
              "open:nil|error:send queue full|33554432 0|text:go|text:drained|7|close:closed by server:1000:");
    const std::string& seen = peer.transcript();
    const std::size_t request = seen.find("\r\n\r\n") + 4;
    ASSERT_EQ(seen.size(), request + big + 14 + 13 + 8);
    EXPECT_EQ(seen.substr(request, 2), "\x82\xff");
    EXPECT_EQ(seen.substr(seen.size() - 21, 2), "\x89\x87");
}

TEST_F(WsStandardTest, OptionErrorsNameTheKey) {
    const std::pair<std::string, std::string> rows[] = {
        {"rfc6455 = 1", "field 'rfc6455': boolean expected, got number"},
        {"headers = { ['X-A'] = 'a\\r\\nB: b' }", "field 'headers': a name that is no token, or CR, LF or a zero byte"},
        {"headers = { ['X A'] = 'a' }", "field 'headers': a name that is no token"},
        {"headers = { HOST = 'b' }", "field 'headers': Host, Upgrade, Connection and Sec-WebSocket-* are the handshake's own"},
        {"headers = { ['sec-websocket-extensions'] = 'x' }", "the handshake's own"},
        {"protocols = { 'a b' }", "field 'protocols': tokens expected"},
        {"max_message = 0", "field 'max_message': a number of 1 or more expected"},
        {"ping_interval = 'x'", "field 'ping_interval': number expected, got string"},
    };
    for (const auto& [extra, message] : rows)
        EXPECT_THAT(run("ws.ws_connect(ws.ws_new(), sopts(1, { " + extra + " }))"), HasSubstr(message)) << extra;
}

// An IPv6 literal is connected over IPv6 (nothing listens: refused), not resolved as a name.
TEST_F(WsStandardTest, Ipv6LiteralIsConnected) {
    LUA_OK("note(select('#', ws.ws_connect(ws.ws_new(), sopts(1, { url = 'ws://[::1]:1/' }))))");
    EXPECT_EQ(events(), "error:" + std::string(std::strerror(ECONNREFUSED)) + "|close:" + std::strerror(ECONNREFUSED) + ":nil:nil|0");
}

// Regression: a connection that never sent nor received was never pinged.
TEST_F(WsStandardTest, IdleConnectionIsPinged) {
    peers::script_peer peer({{step::upgrade, kAnswer}, {step::drain}});
    EXPECT_EQ(exchange(peer, "", "{ ping_interval = 0.2, pong_timeout = 0.2 }"),
              "open:nil|error:pong timeout|close:pong timeout:1006:nil");
    EXPECT_EQ(sent(peer), "137:");
}
