// TLS set-up and the TLS TCP client against `openssl s_server`, and the
// ownership of TLS handles shared by byte-for-byte copies of a record.
#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include "peers/tcp_peer.h"
#include "tcp_fixture.h"

using ::testing::AnyOf;
using ::testing::HasSubstr;
using namespace std::chrono_literals;

namespace {

peers::certificates* certs = nullptr;

int pause_ms(lua_State* L) {
    std::this_thread::sleep_for(std::chrono::milliseconds(luaL_checkinteger(L, 1)));
    return 0;
}


class TlsTest : public TcpTest {
protected:
    static void SetUpTestSuite() { certs = new peers::certificates; }
    static void TearDownTestSuite() {
        delete certs;
        certs = nullptr;
    }

    std::filesystem::path log_file;

    void SetUp() override {
        TcpTest::SetUp();
        log_file = certs->dir / ("debug-" + std::to_string(getpid()) + ".log");
        std::filesystem::remove(log_file);
        for (auto [name, path] : {std::pair{"client_crt", certs->client_crt}, std::pair{"client_key", certs->client_key},
                                  std::pair{"other_key", certs->other_key}, std::pair{"log_path", log_file}}) {
            lua_pushstring(L, path.c_str());
            lua_setglobal(L, name);
        }
        LUA_OK(R"(
            function tls_opts(port, extra)
              local t = opts(port, { is_secure = 1, crt = client_crt, prikey = client_key })
              for k, v in pairs(extra or {}) do t[k] = v end
              return t
            end
        )");
        expose("pause_ms", pause_ms);
        baseline_sessions = tls_live_count();
    }
    void TearDown() override {
        EXPECT_EQ(tls_live_count(), baseline_sessions) << "every TLS session is freed once closed";
        TcpTest::TearDown();
    }
    std::string log_text() const {
        std::ifstream in(log_file);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    std::size_t baseline_sessions = 0;
};

int connect_loopback(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd == -1 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1)
        return -1;
    return fd;
}

}  // namespace

TEST_F(TlsTest, ClientCertificateSessionSendsAndReceives) {
    peers::tls_server server(*certs, true);
    set_port("port", server.port());
    LUA_OK(R"(
        conn = ws.tcp_connect(ws.tcp_new(), tls_opts(port))
        sent = ws.tcp_send(conn, "hello tls\n")
        n, err = recv_tcp(tcp_fd(conn))
        sessions = tls_sessions()
        ws.tcp_close(conn)
    )");
    EXPECT_EQ(global_number("sent"), 10);
    EXPECT_EQ(global_number("n"), 10);  // one TLS read, delivered raw
    EXPECT_EQ(global_string("message"), "slt olleh\n");
    EXPECT_EQ(global_number("sessions"), static_cast<double>(baseline_sessions + 1));
    EXPECT_EQ(events(), "open|message|close:User do close");
    const std::string printed = server.stop();
    EXPECT_THAT(printed, HasSubstr("CN = client")) << "the server saw the client certificate";
}

TEST_F(TlsTest, InitFailuresAreReportedBeforeAnyConnect) {
    // A refused port: a connect attempt would report its own text instead.
    set_port("port", peers::closed_port());
    LUA_OK(R"(
        ws.set_debug(log_path)
        r1 = ws.tcp_connect(ws.tcp_new(), tls_opts(port, { crt = "" }))
        r2 = ws.tcp_connect(ws.tcp_new(), tls_opts(port, { prikey = "" }))
        r3 = ws.tcp_connect(ws.tcp_new(), tls_opts(port, { prikey = other_key }))
        ws.set_debug("NULL")
    )");
    EXPECT_THAT(events(), ::testing::MatchesRegex("(error:[0-9]+:ssl init fail\\|close:ssl init fail\\|?){3}"));
    const std::string log = log_text();
    EXPECT_THAT(log, HasSubstr("File: tools, Function: tcp_ssl_init, Line: "));
    EXPECT_THAT(log, HasSubstr("]: SSL loading private key error\n"));
    EXPECT_THAT(log, HasSubstr("]: error loading private key\n"));  // empty and mismatched key
    std::size_t key_errors = 0;
    for (std::size_t at = log.find("error loading private key"); at != std::string::npos;
         at = log.find("error loading private key", at + 1))
        ++key_errors;
    EXPECT_EQ(key_errors, 2u);
    EXPECT_THAT(log, HasSubstr("]: ssl init fail\n"));
    EXPECT_THAT(log, ::testing::Not(HasSubstr("Connection refused")));
}

TEST_F(TlsTest, PlainServerMakesTheHandshakeFail) {
    peers::tcp_peer plain([](int fd) { peers::send_all(fd, "HTTP/1.0 400 Bad Request\r\n\r\n"); });
    set_port("port", plain.port());
    LUA_OK(R"(
        ws.set_debug(log_path)
        result = ws.tcp_connect(ws.tcp_new(), tls_opts(port))
        ws.set_debug("NULL")
    )");
    EXPECT_THAT(events(), ::testing::MatchesRegex("error:[0-9]+:ssl_connect_fail\\|close:ssl_connect_fail"));
    EXPECT_EQ(global_string("result"), "(nil)");
    EXPECT_THAT(log_text(), HasSubstr("]: fail to connect ssl\n"));
}

TEST_F(TlsTest, WriteToAVanishedServerFailsWithoutSigpipe) {
    ASSERT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
    auto server = std::make_unique<peers::tls_server>(*certs, true);
    set_port("port", server->port());
    LUA_OK("conn = ws.tcp_connect(ws.tcp_new(), tls_opts(port)); fd = tcp_fd(conn)");
    server->stop();
    const int fd = static_cast<int>(global_number("fd"));
    ASSERT_TRUE(peers::wait_readable(fd));  // the server's end has arrived
    // The first write may still be taken by the system; the peer answers it
    // with a reset, after which writes fail (a plain write would raise SIGPIPE).
    LUA_OK(R"(
        results = {}
        for i = 1, 50 do
          local r = ws.tcp_send(conn, "ping\n")
          results[#results + 1] = r
          if r == -1 then break end
          pause_ms(20)
        end
        last = results[#results]
        st = tcp_status(conn)
    )");
    EXPECT_EQ(global_number("last"), -1);
    EXPECT_THAT(events(), AnyOf(HasSubstr(std::string(":") + std::strerror(EPIPE) + "|close:send fail"),
                                HasSubstr(std::string(":") + std::strerror(ECONNRESET) + "|close:send fail")));
    EXPECT_EQ(global_number("st"), TCP_STATUS_CLOSED);
}

TEST_F(TlsTest, WebSocketPairNegotiatesWithoutAClientCertificate) {
    peers::tls_server server(*certs, false);
    ws_record record{};
    record.sockfd = connect_loopback(server.port());
    ASSERT_NE(record.sockfd, -1);
    ASSERT_EQ(wss_ssl_init(&record), 0);
    ASSERT_NE(record.ssl_ctx, nullptr);
    ASSERT_EQ(wss_ssl_connect(&record), 0);
    ASSERT_EQ(SSL_write(tls_session(record), "abc\n", 4), 4);
    char reply[16] = {};
    EXPECT_EQ(SSL_read(tls_session(record), reply, sizeof reply - 1), 4);
    EXPECT_STREQ(reply, "cba\n");
    tls_release_record(record);
    close(record.sockfd);
    EXPECT_THAT(server.stop(), ::testing::Not(HasSubstr("CN = client")));
}

// Closing any copy frees the session once; every other copy is then closed:
// it neither frees again nor touches the descriptor number, which a new
// connection may already have. All orders, under ASan in the second run.
TEST_F(TlsTest, EveryCloseOrderOfCopiesFreesTheSessionOnce) {
    peers::tls_server server(*certs, true);
    set_port("port", server.port());
    std::vector<int> order = {0, 1, 2};
    do {
        SCOPED_TRACE(::testing::Message() << order[0] << order[1] << order[2]);
        lua_pushinteger(L, order[0] + 1);
        lua_setglobal(L, "first");
        lua_pushinteger(L, order[1] + 1);
        lua_setglobal(L, "second");
        lua_pushinteger(L, order[2] + 1);
        lua_setglobal(L, "third");
        LUA_OK(R"(
            events = {}
            local conn = ws.tcp_connect(ws.tcp_new(), tls_opts(port))
            copies = { conn, copy_tcp(conn), copy_tcp(conn) }
            old_fd = tcp_fd(conn)
            ws.tcp_close(copies[first])
            live_after_first = tls_sessions()
            -- a new connection gets the same descriptor number
            newer = ws.tcp_connect(ws.tcp_new(), tls_opts(port, { on_close = function(r) note("newer:" .. r) end }))
            new_fd = tcp_fd(newer)
            ok2, e2 = pcall(ws.tcp_close, copies[second])
            ok3, e3 = pcall(ws.tcp_send, copies[third], "x")
            ok4, e4 = pcall(ws.tcp_close, copies[third])
            echoed = ws.tcp_send(newer, "still here\n")
            n = recv_tcp(new_fd)
            reply = message
            ws.tcp_close(newer)
            copies = nil
            collectgarbage("collect")
        )");
        EXPECT_EQ(global_number("live_after_first"), static_cast<double>(baseline_sessions));
        EXPECT_EQ(global_number("old_fd"), global_number("new_fd"));
        for (const char* failed : {"e2", "e4"})
            EXPECT_THAT(global_string(failed), HasSubstr("attempt to index")) << failed << " acts on a closed copy";
        EXPECT_EQ(global_string("e3"), "-1") << "a send on a settled copy is refused quietly";
        EXPECT_EQ(global_string("reply"), "ereh llits\n") << "the new connection was not disturbed";
        EXPECT_EQ(events(), "open|close:User do close|open|message|newer:User do close");
        EXPECT_EQ(tls_live_count(), baseline_sessions);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(TlsOwnership, SerialsAreNeverReusedAndReleaseIsOnce) {
    const std::size_t before = tls_live_count();
    SSL_CTX* first_ctx = SSL_CTX_new(TLS_method());
    SSL_CTX* second_ctx = SSL_CTX_new(TLS_method());
    ASSERT_NE(first_ctx, nullptr);
    ASSERT_NE(second_ctx, nullptr);
    const uint64_t first = tls_adopt(first_ctx);
    SSL* session = SSL_new(first_ctx);
    tls_adopt_session(first, session);
    const uint64_t second = tls_adopt(second_ctx);
    EXPECT_NE(first, 0u);
    EXPECT_GT(second, first);
    EXPECT_TRUE(tls_live(first));
    EXPECT_FALSE(tls_live(0));
    tls_release(first);
    tls_release(first);  // ASan: a second release frees nothing
    EXPECT_FALSE(tls_live(first));
    EXPECT_TRUE(tls_live(second));
    SSL_CTX* third_ctx = SSL_CTX_new(TLS_method());
    const uint64_t third = tls_adopt(third_ctx);
    EXPECT_NE(third, first);
    EXPECT_GT(third, second);

    tcp_record stale{};
    stale.sockfd = 42;
    stale.tls_serial = first;
    stale.ssl = session;  // dangling on purpose: must never be used
    EXPECT_EQ(tls_session(stale), nullptr);
    EXPECT_TRUE(tls_settle_stale_copy(stale));
    EXPECT_EQ(stale.sockfd, -1);
    EXPECT_EQ(stale.ssl, nullptr);
    tls_release(second);
    tls_release(third);
    EXPECT_EQ(tls_live_count(), before);
}
