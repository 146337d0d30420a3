// The TCP client, plain and over TLS, against peers on 127.0.0.1.

#include "lua_fixture.h"

namespace {

// appended left to right: GCC 12 at -O3 misreads "(" + std::string(...) (-Wrestrict)
const std::string kReset = std::string("(") + std::strerror(ECONNRESET) + "|" + std::strerror(EPIPE) + ")";

class TcpTest : public SocketTest {
protected:
    void SetUp() override {
        SocketTest::SetUp();
        static const peers::certificates certs;  // made once, removed at exit
        LUA_OK("certs = " + quoted(certs.dir.string() + "/") + "\nfunction tls_opts(port, extra) return tcp_opts("
               "port, { is_secure = 1, crt = certs .. 'client.crt', prikey = certs .. 'client.key' }, extra) end");
    }
    void TearDown() override {
        EXPECT_EQ(tls_live_count(), 0u) << "every TLS session is freed once closed";
        SocketTest::TearDown();
    }
    // Connects `conn` to a peer playing `steps`, then runs `snippet`; what the client sent.
    std::string with_peer(std::vector<step> steps, const std::string& snippet, double port_offset = 0) {
        peers::script_peer peer(std::move(steps));
        EXPECT_EQ(run("conn = ws.tcp_connect(ws.tcp_new(), tcp_opts(" + std::to_string(peer.port + port_offset) +
                      "))\n" + snippet), "");
        return peer.transcript();
    }
};

}  // namespace

// on_open comes before the connect returns the registered object; the port counts
// modulo 65536 and truncates (as 5.1 reads numbers, on every version); closing a
// copy marks the registered object closed.
TEST_F(TcpTest, ConnectSendAndClose) {
    EXPECT_THAT(run("ws.tcp_send(ws.tcp_new(), 'x')"), HasSubstr("attempt to index")) << "never connected";
    const std::string sent = with_peer({{step::read, "", 6}}, R"(
        fd = fd_of(conn); file = fd_file(fd)
        assert(rawequal(debug.getregistry()["udata-" .. fd], conn) and status_of(conn) == 2 and events() == "open")
        assert(ws.tcp_send(conn, "ab\0cd") == 2 and ws.tcp_send(conn, 12.5) == 4)
        copy = copy_of(conn)
        ws.tcp_close(copy)
        assert(ws.tcp_send(conn, "x") == -1 and ws.tcp_send(copy, "x") == -1 and status_of(conn) == 0)
        assert(fd_of(copy) == -1 and fd_file(fd) ~= file)
    )", 65536.9);
    EXPECT_EQ(sent, "ab12.5");
    EXPECT_THAT(events(), MatchesRegex("open\\|close:User do close\\|error:[0-9]+:Socket has been closed!"));
    EXPECT_EQ(socktbl[0], 0);
    EXPECT_THAT(run("ws.tcp_close(copy)"), HasSubstr("attempt to index"));
    ASSERT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL) << "the host's default disposition stays in force";
    with_peer({{step::reset}}, "recv_tcp(fd_of(conn)); assert(ws.tcp_send(conn, 'x') == -1 and status_of(conn) == 0)");
    EXPECT_THAT(events(), MatchesRegex(".*\\|open\\|error:[0-9]+:" + kReset + "\\|close:send fail"));
}

// Refused; a name (not resolved); TLS without a usable key or to a plain server.
TEST_F(TcpTest, FailedConnectsReportErrorThenClose) {
    peers::script_peer refused({}), plain({{step::send, "HTTP/1.0 400 Bad Request\r\n\r\n"}});
    const std::string port = std::to_string(refused.port);
    LUA_OK("assert(ws.tcp_connect(ws.tcp_new(), tcp_opts(" + port + ")) == nil)\n"
           "ws.tcp_connect(ws.tcp_new(), tcp_opts(80, { ip = 'localhost' }))\n"
           "for _, k in ipairs({ 'crt', 'prikey' }) do ws.tcp_connect(ws.tcp_new(), tls_opts(" + port + ", { [k] = '' })) end\n"
           "ws.tcp_connect(ws.tcp_new(), tls_opts(" + port + ", { prikey = certs .. 'other.key' }))\n"
           "ws.tcp_connect(ws.tcp_new(), tls_opts(" + std::to_string(plain.port) + "))");
    EXPECT_THAT(events(), MatchesRegex("error:111:Connection refused\\|close:Connection refused\\|error:101:Network is "
                                       "unreachable\\|close:Network is unreachable(\\|error:[0-9]+:ssl init fail\\|close:"
                                       "ssl init fail){3}\\|error:[0-9]+:ssl_connect_fail\\|close:ssl_connect_fail"));
    EXPECT_THAT(run("ws.tcp_connect(ws.tcp_new(), tcp_opts(80, { ip = string.rep('1', 200) }))"),
                HasSubstr("field 'ip' is longer than 199 characters"));
    std::fill(std::begin(socktbl), std::end(socktbl), 100000);
    with_peer({{step::drain}}, "assert(conn == nil)");
    EXPECT_THAT(events(), MatchesRegex(".*\\|error:[0-9]+:socktbl is full now"));
}

// A chunked response decoded, raw fallbacks, a text cut at its zero byte; every byte counts.
TEST_F(TcpTest, ReceiveDecodesChunkedOrPassesRawText) {
    const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n";
    const std::pair<std::string, std::string> cases[] = {  // reply, message ("": raw)
        {head + "\r\n5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n", head + "hello world\r\n"},
        {head + "\r\n5\r\nhello\r\n6\r\n worldXX0\r\n\r\n", head + "hello\r\n"},
        {head + "\r\n5\r\nhelloXX6\r\n world\r\n0\r\n\r\n", ""},
    };
    for (const auto& [reply, message] : cases) {
        with_peer({{step::send, reply}}, "n = recv_tcp(fd_of(conn)); ws.tcp_close(conn)");
        EXPECT_EQ(eval("message"), message.empty() ? reply : message);
        EXPECT_EQ(num("n"), static_cast<double>(reply.size()));
    }
    with_peer({{step::send, std::string("ab\0cd", 5)}, {step::send, "ef"}}, "n = recv_tcp(fd_of(conn))");
    EXPECT_EQ(eval("message .. n"), "abef7") << "the next read overwrites what followed the zero byte";
}

// Closing one of three copies frees the session once; the others neither free
// again nor touch the descriptor number a new connection took. s_server -rev
// answers lines reversed; writes to it once killed fail without SIGPIPE.
// TLS 1.3 is negotiated exactly where the library has it.
TEST_F(TcpTest, TlsCopiesShareOneSession) {
    LUA_OK(WS_CLIENT_TLS13 ? "tls13 = true" : "tls13 = false");
    LUA_OK(R"lua(
        local server = io.popen("cd " .. certs .. " && echo $$ && exec timeout 30 openssl s_server -accept 127.0.0.1:0 " ..
                                "-rev -cert server.crt -key server.key -Verify 1 -CAfile client.crt </dev/null 2>&1")
        local pid, line = server:read("*l")
        repeat line = server:read("*l") until not line or line:match("^ACCEPT")
        local port = tonumber(line:match(":(%d+)"))
        local conn = ws.tcp_connect(ws.tcp_new(), tls_opts(port))
        copies = { conn, copy_of(conn), copy_of(conn) }
        old_fd = fd_of(conn)
        assert(tls_sessions() == 1)
        ws.tcp_close(copies[2])
        assert(tls_sessions() == 0)
        newer = ws.tcp_connect(ws.tcp_new(), tls_opts(port))
        assert(fd_of(newer) == old_fd, "a new connection gets the same descriptor number")
        assert(not pcall(ws.tcp_close, copies[1]) and ws.tcp_send(copies[3], "x") == -1)
        assert(ws.tcp_send(newer, "still here\n") == 11 and recv_tcp(old_fd) == 11 and message == "ereh llits\n")
        clear_events()
        os.execute("kill " .. pid)
        local said = server:read("*a")
        assert(said:find("CN = client"), "the server saw the client certificate")
        assert((said:find("Protocol version: TLSv1.3", 1, true) ~= nil) == tls13, "TLS 1.3 where the library has it")
        for i = 1, 50 do
          last = ws.tcp_send(newer, "ping\n")
          if last == -1 then break end
          ws.sleep(0.02)
        end
        assert(last == -1 and status_of(newer) == 0)
    )lua");
    EXPECT_THAT(events(), MatchesRegex("error:[0-9]+:" + kReset + "\\|close:send fail"));
}
