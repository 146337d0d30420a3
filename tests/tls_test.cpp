// TLS set-up and the TLS TCP client against `openssl s_server`, and the
// ownership of TLS handles shared by byte-for-byte copies of a record.
#include <signal.h>

#include <memory>

#include "lua_fixture.h"

namespace {

const peers::certificates& certs() {  // made once, removed at exit
    static const peers::certificates made;
    return made;
}

class TlsTest : public SocketTest {
protected:
    std::filesystem::path log_file;
    std::size_t baseline_sessions = 0;

    void SetUp() override {
        SocketTest::SetUp();
        log_file = certs().dir / "debug.log";
        std::filesystem::remove(log_file);
        set_global("certs", certs().dir.string() + "/");
        LUA_OK(R"(function tls_opts(port, extra)
            return tcp_opts(port, { is_secure = 1, crt = certs .. "client.crt", prikey = certs .. "client.key" }, extra)
        end)");
        baseline_sessions = tls_live_count();
        set_global("baseline", static_cast<double>(baseline_sessions));
    }
    void TearDown() override {
        EXPECT_EQ(tls_live_count(), baseline_sessions) << "every TLS session is freed once closed";
        SocketTest::TearDown();
    }
};

}  // namespace

TEST_F(TlsTest, ClientCertificateSessionSendsAndReceives) {
    peers::tls_server server(certs());
    set_global("port", server.port);
    LUA_OK(R"(
        conn = ws.tcp_connect(ws.tcp_new(), tls_opts(port))
        assert(ws.tcp_send(conn, "hello tls\n") == 10)
        assert(recv_tcp(fd_of(conn)) == 10, "one TLS read, delivered raw")
        sessions = tls_sessions()
        ws.tcp_close(conn)
    )");
    EXPECT_EQ(global_string("message"), "slt olleh\n");
    EXPECT_EQ(global_number("sessions"), static_cast<double>(baseline_sessions + 1));
    EXPECT_EQ(events(), "open|message|close:User do close");
    EXPECT_THAT(server.stop(), HasSubstr("CN = client")) << "the server saw the client certificate";
}

// Missing, empty and mismatched keys fail before any connect (the port is
// refused: a connect would report its own text); a plain server fails the handshake.
TEST_F(TlsTest, InitAndHandshakeFailuresHaveTheirTexts) {
    peers::script_peer refused({});
    set_global("port", refused.port);
    LUA_OK(R"(
        ws.set_debug(certs .. "debug.log")
        for _, extra in ipairs({ { crt = "" }, { prikey = "" }, { prikey = certs .. "other.key" } }) do
          assert(ws.tcp_connect(ws.tcp_new(), tls_opts(port, extra)) == nil)
        end
    )");
    EXPECT_THAT(events(), MatchesRegex("(error:[0-9]+:ssl init fail\\|close:ssl init fail\\|?){3}"));
    const std::string log = file_text(log_file);
    EXPECT_THAT(log, HasSubstr("File: tools, Function: tcp_ssl_init, Line: "));
    EXPECT_THAT(log, HasSubstr("]: SSL loading private key error\n"));
    EXPECT_THAT(log, HasSubstr("]: error loading private key\n"));
    EXPECT_THAT(log, HasSubstr("]: ssl init fail\n"));
    EXPECT_THAT(log, Not(HasSubstr("Connection refused")));

    peers::script_peer plain({{peers::step::send, "HTTP/1.0 400 Bad Request\r\n\r\n"}});
    set_global("port", plain.port);
    LUA_OK("clear_events(); assert(ws.tcp_connect(ws.tcp_new(), tls_opts(port)) == nil)");
    EXPECT_THAT(events(), MatchesRegex("error:[0-9]+:ssl_connect_fail\\|close:ssl_connect_fail"));
    EXPECT_THAT(file_text(log_file), HasSubstr("]: fail to connect ssl\n"));
}

TEST_F(TlsTest, WriteToAVanishedServerFailsWithoutSigpipe) {
    ASSERT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
    auto server = std::make_unique<peers::tls_server>(certs());
    set_global("port", server->port);
    LUA_OK("conn = ws.tcp_connect(ws.tcp_new(), tls_opts(port)); fd = fd_of(conn)");
    server->stop();
    ASSERT_TRUE(peers::wait_readable(static_cast<int>(global_number("fd"))));  // the server's end has arrived
    // The first write may still be taken by the system; the peer answers it
    // with a reset, after which writes fail (a plain write would raise SIGPIPE).
    LUA_OK(R"(
        for i = 1, 50 do
          last = ws.tcp_send(conn, "ping\n")
          if last == -1 then break end
          ws.sleep(0.02)
        end
        assert(last == -1 and status_of(conn) == 0)
    )");
    EXPECT_THAT(events(), MatchesRegex("open\\|error:[0-9]+:(" + std::string(std::strerror(ECONNRESET)) + "|" +
                                       std::strerror(EPIPE) + ")\\|close:send fail"));
}

// Closing a copy frees the session once; the other copies are then closed:
// they neither free again nor touch the descriptor number, which a new
// connection already has (ASan checks the frees in the second run).
TEST_F(TlsTest, CopiesShareOneSessionFreedOnceAndLeaveAReusedDescriptorAlone) {
    peers::tls_server server(certs());
    set_global("port", server.port);
    LUA_OK(R"(
        local conn = ws.tcp_connect(ws.tcp_new(), tls_opts(port))
        copies = { conn, copy_tcp(conn), copy_tcp(conn) }
        old_fd = fd_of(conn)
        ws.tcp_close(copies[2])
        assert(tls_sessions() == baseline)
        newer = ws.tcp_connect(ws.tcp_new(), tls_opts(port, { on_close = function(r) note("newer:" .. r) end }))
        assert(fd_of(newer) == old_fd, "a new connection gets the same descriptor number")
        ok1, e1 = pcall(ws.tcp_close, copies[1])
        assert(ws.tcp_send(copies[3], "x") == -1, "a send on a settled copy is refused quietly")
        ok3, e3 = pcall(ws.tcp_close, copies[3])
        assert(ws.tcp_send(newer, "still here\n") == 11 and recv_tcp(old_fd) == 11)
        ws.tcp_close(newer)
        copies = nil
        collectgarbage("collect")
    )");
    EXPECT_THAT(global_string("e1"), HasSubstr("attempt to index"));
    EXPECT_THAT(global_string("e3"), HasSubstr("attempt to index"));
    EXPECT_EQ(global_string("message"), "ereh llits\n") << "the new connection was not disturbed";
    EXPECT_EQ(events(), "open|close:User do close|open|message|newer:User do close");
}

// A copy whose serial was retired never sees the freed session again; serials
// are not reused, and a second release frees nothing (ASan).
TEST(TlsOwnership, RetiredSerialHidesTheSessionAndSettlesTheCopy) {
    tls_context* ctx = tls_context_new();
    ASSERT_NE(ctx, nullptr);
    tcp_record stale{};
    stale.sockfd = 42;
    stale.tls_serial = tls_adopt(ctx);
    stale.ssl = tls_session_new(ctx);
    tls_adopt_session(stale.tls_serial, stale.ssl);
    tls_release(stale.tls_serial);
    tls_release(stale.tls_serial);
    EXPECT_EQ(live_session(stale), nullptr);  // stale.ssl dangles on purpose
    const uint64_t next = tls_adopt(tls_context_new());
    EXPECT_GT(next, stale.tls_serial);
    tls_release(next);
    EXPECT_TRUE(tls_settle_stale_copy(stale));
    EXPECT_EQ(stale.sockfd, -1);
    EXPECT_EQ(stale.ssl, nullptr);
}
