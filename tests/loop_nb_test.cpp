// Connections the loop drives (nonblocking = true): set-ups that stall or fail
// while the loop goes on, queued sends, IPv6 and names.
#include <arpa/inet.h>
#include <netinet/in.h>

#include "lua_fixture.h"
#include "loop_conn.h"
#include "resolve.h"

using namespace std::chrono_literals;

namespace {

// A listener on 127.0.0.1 (or ::1) that never accepts; `full`: its backlog
// taken, so that a connect's SYN goes unanswered.
int silent_listener(uint16_t* port, bool full = false, bool v6 = false) {
    const int fd = socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
    sockaddr_in6 address{AF_INET6, 0, 0, in6addr_loopback, 0};
    socklen_t length = sizeof address;
    if (v6 ? bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 : peers::bind_loopback(fd) < 0)
        return -1;
    listen(fd, full ? 0 : 8);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    *port = ntohs(address.sin6_port);  // the same place in either family
    const sockaddr_in to = peers::loopback(*port);
    for (int filler = 0; full && filler < 3; ++filler)
        connect(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0), reinterpret_cast<const sockaddr*>(&to), sizeof to);
    return fd;
}

// What the accepted connection sent until it went quiet for 0.3 s (or closed).
std::string accept_and_read(int listener) {
    std::string got;
    const int fd = peers::wait_readable(listener, 2000ms) ? accept(listener, nullptr, nullptr) : -1;
    char chunk[65536];
    for (ssize_t n; fd >= 0 && peers::wait_readable(fd, 300ms) && (n = recv(fd, chunk, sizeof chunk, 0)) > 0;)
        got.append(chunk, static_cast<std::size_t>(n));
    return close(fd), got;
}

// peers/dns_peer.py answering `answers` ("NAME DELAY ADDRESS...") on a run-time port.
struct dns_peer {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    int port = peers::bind_loopback(fd);
    FILE* input;
    explicit dns_peer(const std::string& answers)
        : input(popen(("exec python3 " DNS_PEER " " + std::to_string(fd) + " " + answers).c_str(), "w")) {
        setenv("WS_CLIENT_DNS_SERVER", ("127.0.0.1:" + std::to_string(port)).c_str(), 1);
    }
    ~dns_peer() { unsetenv("WS_CLIENT_DNS_SERVER"), pclose(input), close(fd); }
};

// Runs `connect` (a statement on `ws`), then the loop for `seconds` at
// interval 0 with a UDP exchange on the side: events, then timer calls,
// datagrams and the longest gap between two timer calls.
constexpr const char* kLoopWithTraffic = R"(
    local u = ws.udp_connect(ws.udp_new(), { type = 2, on_message = function() datagrams = datagrams + 1 end })
    local up = bind_loopback(u)
    ticks, datagrams, gap = 0, 0, 0
    %s
    note("returned")
    local start, last = now(), now()
    ws.loop_start(function()
      ticks, gap, last = ticks + 1, math.max(gap, now() - last), now()
      ws.udp_sendto(u, "x", "127.0.0.1", up)
      if now() - start > %g then ws.loop_stop() end
    end, 1, 0)
    ws.udp_close(u)
)";

}  // namespace

// A stalled or failing set-up reports from the loop, at its bound, with the
// texts of the step that failed; the loop meanwhile keeps its timer and
// serves another socket.
TEST_F(SocketTest, NonblockingSetUpsStallOrFailWithoutStallingTheLoop) {
    const bool cares = std::strcmp(resolve_backend(), "c-ares") == 0;
    dns_peer never("stall.test -1 127.0.0.1");
    const char* ws = "ws.ws_connect(ws.ws_new(), opts{ type = 0, url = '%s', port = %d, timeout = 1, crt = '', prikey = '', nonblocking = true })";
    const char* standard = "ws.ws_connect(ws.ws_new(), opts{ type = 0, url = '%s', port = %d, timeout = 1, crt = '', prikey = '', nonblocking = true, rfc6455 = true })";
    const char* tcp = "ws.tcp_connect(ws.tcp_new(), tcp_opts(%d, { nonblocking = true, connect_timeout = 1 %s }))";
    const std::string close_ws_text = "ws.ws_close(" + std::string(ws) + ")", close_tcp_text = "ws.tcp_close(" + std::string(tcp) + ")",
                      send_standard_text = "note('sent ' .. ws.ws_send(" + std::string(standard) + ", 'x', 'binary'))";
    const char *close_ws = close_ws_text.c_str(), *close_tcp = close_tcp_text.c_str(), *send_standard = send_standard_text.c_str();
    const std::tuple<const char*, const char*, int, std::string> rows[] = {  // connect, URL or host key, listener, events
        {ws, "ws://127.0.0.1/x", 2, "returned|error:110:Connection timed out|close:Connection timed out"},
        {ws, "wss://127.0.0.1/x", 1, "returned|error:110:ssl connect fail!|close:ssl_connect_fail"},
        {ws, "ws://127.0.0.1/x", 1, "returned|error:110:Connection timed out|close:handshake fail"},
        {ws, "ws://stall.test/x", 1, "returned|error:110:domain name resolution fail, get server ip fail!|close:domain name resolution fail, get server ip fail!"},
        {ws, "ws://127.0.0.1/x", 0, "returned|error:111:Connection refused|close:Connection refused"},
        {send_standard, "ws://127.0.0.1/x", 1, "error:107:connection is being set up|sent 0|returned|error:110:Connection timed out|close:handshake fail"},
        {tcp, "", 2, "returned|error:110:Connection timed out|close:Connection timed out"},
        {tcp, ", is_secure = 1, crt = 'none', prikey = 'none'", 1, "returned|error:2:ssl init fail|close:ssl init fail"},
        {tcp, ", host = 'stall.test'", 1, "returned|error:110:domain name resolution fail, get server ip fail!|close:domain name resolution fail, get server ip fail!"},
        {tcp, "", 0, "returned|error:111:Connection refused|close:Connection refused"},
        {close_ws, "ws://127.0.0.1/x", 1, "close:User do close|returned"},  // nothing sent, nothing later
        {close_tcp, "", 2, "close:User do close|returned"}};
    for (const auto& [connect, text, listener, expected] : rows) {
        if (!cares && std::strstr(text, "stall.test") != nullptr)
            continue;  // a blocking getaddrinfo() cannot be pointed at the peer
        uint16_t port = 0;
        const int fd = silent_listener(&port, listener == 2);
        if (listener == 0)
            close(fd);
        char statement[512], code[2048];
        connect != tcp && connect != close_tcp ? std::snprintf(statement, sizeof statement, connect, text, port)
                      : std::snprintf(statement, sizeof statement, connect, port, text);
        std::snprintf(code, sizeof code, kLoopWithTraffic, statement, 1.4);
        run("clear_events()");
        LUA_OK(code);
        EXPECT_EQ(events(), expected) << statement;
        EXPECT_GT(num("ticks"), 100) << statement;  // interval 0: a pass every 2 ms or less
        EXPECT_GT(num("datagrams"), 50) << statement;
        EXPECT_LT(num("gap"), 0.5) << statement;  // generous: a stall here lasts a whole second
        close(fd);
    }
}

// A slow reader gets every accepted send whole and in order; a send the queue
// cannot take is refused whole (0, on_error) and the connection stays usable;
// nothing is sent while the set-up runs.
TEST_F(SocketTest, NonblockingSendsQueueInOrderBoundedByMaxQueue) {
    expose("queued", [](lua_State* L) {
        const auto* conn = static_cast<const loop_conn*>(conn_loop_state(static_cast<int>(luaL_checkinteger(L, 1))));
        return lua_pushinteger(L, conn != nullptr ? static_cast<lua_Integer>(byte_queue_pending(conn->out)) : -1), 1;
    });
    uint16_t port = 0;
    const int listener = silent_listener(&port), window = 65536;  // a small window: the socket takes little
    setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
    std::string received;
    std::thread reader([&] { std::this_thread::sleep_for(700ms), received = accept_and_read(listener); });
    LUA_OK("accepted, i, most = {}, 1, 0; t = ws.tcp_new(); ws.tcp_connect(t, tcp_opts(" + std::to_string(port) + R"(, {
        nonblocking = true, max_queue = 3000000, on_open = function() for _ = 1, 12 do send_next() end end }))
      function send_next()
        local size = i == 18 and 3000001 or 1048576
        if ws.tcp_send(t, string.rep(string.char(64 + i), size)) == size then accepted[#accepted + 1] = string.char(64 + i) .. size end
        i = i + 1
      end
      note("early " .. ws.tcp_send(t, "early"))
      ws.loop_start(deadline(8, function()
        most = math.max(most, queued(fd_of(t)))
        if i > 12 and i <= 24 and queued(fd_of(t)) < 1000000 then send_next() end
        if i == 25 then note("last " .. ws.tcp_send(t, "Z")); accepted[#accepted + 1], i = "Z1", 26 end
        if i == 26 and queued(fd_of(t)) == 0 then ws.tcp_close(t); ws.loop_stop() end
      end), 1, 0)
      accepted = table.concat(accepted, " "))");
    reader.join();
    std::string runs;  // the bytes as "A1048576 B1048576 ..."
    for (std::size_t at = 0, end; at < received.size(); at = end)
        end = std::min(received.find_first_not_of(received[at], at), received.size()),
        runs += (runs.empty() ? "" : " ") + received.substr(at, 1) + std::to_string(end - at);
    EXPECT_EQ(runs, eval("accepted"));
    EXPECT_THAT(eval("accepted"), HasSubstr("Q1048576 S1048576 T1048576"));  // R, past max_queue, refused whole
    EXPECT_LE(num("most"), 3000000);
    EXPECT_THAT(events(), MatchesRegex("error:107:connection is being set up\\|early 0(\\|error:105:send queue full)+\\|last 1\\|close:User do close"));
    close(listener);
}

// IPv6 literals and names, for each kind: every address tried in turn.
TEST_F(SocketTest, NonblockingIpv6AndNames) {
    if (uint16_t port = 0; close(silent_listener(&port, false, true)) != 0)
        GTEST_SKIP() << "no IPv6 loopback (::1) on this machine";
    uint16_t v6_port = 0, v4_port = 0, ws_port = 0;
    uint16_t std_port = 0;
    const int v6 = silent_listener(&v6_port, false, true), v4 = silent_listener(&v4_port), ws6 = silent_listener(&ws_port, false, true),
              std6 = silent_listener(&std_port, false, true);
    const bool cares = std::strcmp(resolve_backend(), "c-ares") == 0;
    dns_peer late("peer.test 0.3 ::1 127.0.0.1");  // ::1 has nothing on v4_port: refused, then 127.0.0.1
    LUA_OK("function tcp(host, port, text) local t = ws.tcp_new(); ws.tcp_connect(t, tcp_opts(port, { nonblocking = true, host = host, on_open = function() note('open ' .. host); ws.tcp_send(t, text) end })) end\n"
           "tcp('::1', " + std::to_string(v6_port) + ", 'six') tcp('localhost', " + std::to_string(v4_port) + ", 'name')" +
           (cares ? " tcp('peer.test', " + std::to_string(v4_port) + ", 'peer')" : std::string()) +
           "\nw = ws.ws_connect(ws.ws_new(), opts{ type = 0, url = 'ws://[::1]:" + std::to_string(ws_port) + "/p6', port = 1, timeout = 2, crt = '', prikey = '', nonblocking = true })"
           "\ns = ws.ws_connect(ws.ws_new(), opts{ type = 0, url = 'ws://[::1]:" + std::to_string(std_port) + "/s6', port = 1, timeout = 2, crt = '', prikey = '', nonblocking = true, rfc6455 = true })"
           "\nlocal start = now(); ws.loop_start(deadline(5, function() if now() - start > 0.3 and select(2, events():gsub('open', '')) == " +
           (cares ? "3" : "2") + " then ws.loop_stop() end end), 1, 0)");
    EXPECT_THAT(events(), MatchesRegex(cares ? "(open (::1|localhost|peer.test)\\|?){3}" : "(open (::1|localhost)\\|?){2}"));
    EXPECT_EQ(accept_and_read(v6), "six");
    EXPECT_THAT(accept_and_read(v4) + "," + accept_and_read(v4), MatchesRegex(cares ? "name,peer|peer,name" : "name,"));
    EXPECT_THAT(accept_and_read(ws6), MatchesRegex("GET /p6 HTTP/1.1\r\nHost: \\[::1\\]:[0-9]+\r\n(.|\r|\n)*"));
    EXPECT_THAT(accept_and_read(std6), MatchesRegex("GET /s6 HTTP/1.1\r\nHost: \\[::1\\]:[0-9]+\r\nUpgrade: websocket\r\n(.|\r|\n)*Version: 13\r\n\r\n"));
    // UDP: a dual-stack socket sends to either family and names senders as text
    const int e6 = socket(AF_INET6, SOCK_DGRAM, 0), e4 = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in6 at6{AF_INET6, 0, 0, in6addr_loopback, 0};
    socklen_t length = sizeof at6;
    bind(e6, reinterpret_cast<sockaddr*>(&at6), length), getsockname(e6, reinterpret_cast<sockaddr*>(&at6), &length);
    const int e4_port = peers::bind_loopback(e4);
    LUA_OK("got = {}; u = ws.udp_connect(ws.udp_new(), { type = 2, ipv6 = true, on_message = function(d, from, p) got[#got + 1] = d .. ' ' .. from .. ' ' .. p end })"
           "; sent = ws.udp_sendto(u, 'a', '::1', " + std::to_string(ntohs(at6.sin6_port)) + ") .. ws.udp_sendto(u, 'b', '127.0.0.1', " +
           std::to_string(e4_port) + ") .. ws.udp_sendto(u, 'c', 'localhost', 9)");
    EXPECT_EQ(eval("sent"), "11-1");
    for (int echo : {e6, e4}) {
        char byte = 0;
        sockaddr_storage from{};
        socklen_t size = sizeof from;
        ASSERT_TRUE(peers::wait_readable(echo));
        recvfrom(echo, &byte, 1, 0, reinterpret_cast<sockaddr*>(&from), &size);
        sendto(echo, &byte, 1, 0, reinterpret_cast<sockaddr*>(&from), size);
    }
    LUA_OK("ws.loop_start(deadline(0.5), 1, 0); table.sort(got); got = table.concat(got, ',')");
    EXPECT_EQ(eval("got"), "a ::1 " + std::to_string(ntohs(at6.sin6_port)) + ",b 127.0.0.1 " + std::to_string(e4_port));
    if (cares) {  // the standard mode's own connect resolves names to IPv6 too
        uint16_t named_port = 0;
        const int named6 = silent_listener(&named_port, false, true);
        std::string request;  // read, then the connection closed: the handshake fails at once
        std::thread reader([&] { request = accept_and_read(named6); });
        LUA_OK("clear_events(); ws.ws_connect(ws.ws_new(), opts{ type = 0, url = 'ws://peer.test:" + std::to_string(named_port) +
               "/b6', port = 1, timeout = 2, crt = '', prikey = '', rfc6455 = true })");
        reader.join();
        EXPECT_THAT(events(), MatchesRegex("error:[^|]*\\|close:handshake fail"));
        EXPECT_THAT(request, ::testing::StartsWith("GET /b6 HTTP/1.1\r\nHost: peer.test:"));
        close(named6);
    }
    for (int fd : {v6, v4, ws6, std6, e6, e4})
        close(fd);
}

// The plain receive collects across passes and delivers once the peer has
// closed, as the designed receive does; then the close is reported.
TEST_F(SocketTest, NonblockingPlainReceiveDeliversWhenThePeerCloses) {
    peers::script_peer peer({{step::send, "hel"}, {step::send, "lo\0x"}, {step::send, " world"}});
    LUA_OK("ws.tcp_connect(ws.tcp_new(), tcp_opts(" + std::to_string(peer.port) + ", { nonblocking = true }))"
           "; ws.loop_start(deadline(3, function() if events():find('close') then ws.loop_stop() end end), 1, 0)");
    EXPECT_THAT(events(), MatchesRegex("open\\|message\\|error:[0-9]+:[^|]*\\|close:.*"));
    EXPECT_EQ(eval("message"), "hello world");
}

// A TLS set-up and exchange driven by the loop; the server's session tickets
// (TLS 1.3) are read between data without being taken for a failure.
TEST_F(SocketTest, NonblockingTlsExchange) {
    static const peers::certificates certs;
    LUA_OK("certs = " + quoted(certs.dir.string() + "/") + R"lua(
        local server = io.popen("cd " .. certs .. " && echo $$ && exec timeout 20 openssl s_server -accept 127.0.0.1:0 " ..
                                "-rev -cert server.crt -key server.key </dev/null 2>&1")
        local pid, line = server:read("*l")
        repeat line = server:read("*l") until not line or line:match("^ACCEPT")
        local t = ws.tcp_new()
        ws.tcp_connect(t, tcp_opts(tonumber(line:match(":(%d+)")), { nonblocking = true, is_secure = 1, crt = certs .. 'client.crt',
          prikey = certs .. 'client.key', on_open = function() note("open " .. ws.tcp_send(t, "olleh\n")) end }))
        ws.loop_start(deadline(5, function() if message then ws.tcp_close(t); ws.loop_stop() end end), 1, 0)
        os.execute("kill " .. pid)
        server:close())lua");
    EXPECT_EQ(events(), "open 6|message|close:User do close");
    EXPECT_EQ(eval("message"), "hello\n");
    EXPECT_EQ(tls_live_count(), 0u);
}

// The designed dialect over a loop-driven connection: upgrade, a message each
// way, the close through the object ws_connect returned.
TEST_F(SocketTest, NonblockingWebSocketExchange) {
    peers::script_peer peer({{step::upgrade}, {step::send, peers::server_frame(0x81, "hi")}, {step::read, "", 8}});
    LUA_OK("w = ws.ws_connect(ws.ws_new(), opts{ type = 0, url = 'ws://127.0.0.1/chat', port = " + std::to_string(peer.port) +
           ", timeout = 2, crt = '', prikey = '', nonblocking = true, on_message = function(d) note(d .. ' ' .. ws.ws_send(w, 'ok')) end })"
           "; ws.loop_start(deadline(3, function() if events():find('hi') then ws.ws_close(w); ws.loop_stop() end end), 1, 0)");
    EXPECT_EQ(events(), "open|hi 2|close:User do close");
    const std::string& sent = peer.transcript();
    EXPECT_THAT(sent, ::testing::StartsWith("GET /chat HTTP/1.1\r\nHost: 127.0.0.1\r\n"));
    const auto frames = peers::client_frames(std::string_view(sent).substr(sent.find("\r\n\r\n") + 4));
    ASSERT_FALSE(frames.empty());
    EXPECT_EQ(frames[0].second, "ok");
}

// Deadlines wake the loop early without moving the timer: with interval 3
// and set-ups timing out at 0.5 s steps, the periodic function first runs at
// the first wake-up with less than a whole second left, 2 to 3 s in (the timer
// restarted at each wake-up would put it at 5.5 s).
TEST_F(SocketTest, NonblockingDeadlinesKeepTheTimer) {
    uint16_t port = 0;
    const int full = silent_listener(&port, true);
    LUA_OK("for i = 1, 5 do ws.tcp_connect(ws.tcp_new(), tcp_opts(" + std::to_string(port) + ", { nonblocking = true, connect_timeout = i / 2 })) end"
           "; local start = now(); ws.loop_start(function() first = now() - start; ws.loop_stop() end, 1, 3)");
    EXPECT_EQ(eval("select(2, events():gsub('error:110:Connection timed out|close:Connection timed out', ''))"), "5");
    EXPECT_GT(num("first"), 1.95);
    EXPECT_LT(num("first"), 4.0);
    close(full);
}
