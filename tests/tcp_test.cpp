// The TCP client against in-process peers on 127.0.0.1: connect and close,
// send, and the receive path with chunked decoding.
#include <signal.h>

#include "lua_fixture.h"
#include "tcp.h"

namespace {

const std::string kChunked73 =
    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n";

class TcpTest : public SocketTest {
protected:
    // Connects to `peer`, then runs `snippet` (conn is the connection); what the client sent.
    std::string with_peer(std::vector<step> steps, const std::string& snippet) {
        peers::script_peer peer(std::move(steps));
        set_global("port", peer.port);
        EXPECT_EQ(run("message = nil; conn = ws.tcp_connect(ws.tcp_new(), tcp_opts(port)); " + snippet), "");
        return peer.transcript();
    }
    // The receive path once on what a peer sends before it closes.
    void deliver(const std::string& reply) {
        with_peer({{step::send, reply}}, "n = recv_tcp(fd_of(conn)); ws.tcp_close(conn)");
    }
};

}  // namespace

TEST_F(TcpTest, ConnectOpensBeforeReturningTheRegisteredObjectAndCloseUndoesIt) {
    peers::script_peer peer(std::vector<step>{{step::drain}});
    set_global("port", peer.port);
    LUA_OK(R"(
        obj = ws.new("tcp")
        local o = tcp_opts(port + 65536)  -- only the low 16 bits count
        o.on_open = function() note("open:" .. tostring(returned == nil)) end
        returned = ws.tcp_connect(obj, o)
        note("returned")
        assert(rawequal(obj, returned) and rawequal(debug.getregistry()["udata-" .. fd_of(obj)], obj))
        fd = fd_of(obj)
        assert(status_of(obj) == 2)
    )");
    const int fd = static_cast<int>(global_number("fd"));
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << "socket must stay blocking";
    EXPECT_EQ(socktbl[0], fd);
    ASSERT_TRUE(peer.accepted()) << "before the close: accept() would take the closed number";
    LUA_OK("ws.tcp_close(obj); assert(status_of(obj) == 0 and fd_of(obj) == -1)");
    EXPECT_EQ(events(), "open:true|returned|close:User do close");
    EXPECT_EQ(socktbl[0], 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "descriptor closed";
    EXPECT_THAT(run("ws.tcp_close(obj)"), HasSubstr("attempt to index")) << "on_close looked up under -1";
}

// Refused, unreachable (a host name is not resolved: all ones) and a full
// socket table. The object is only a temporary and the callbacks collect
// garbage: the close after on_error must find its record alive (ASan checks).
TEST_F(TcpTest, FailedConnectsReportErrorThenCloseAndReturnNil) {
    peers::script_peer nothing({});
    set_global("port", nothing.port);
    LUA_OK(R"(
        local o = tcp_opts(port)
        o.on_error = function(e, text) collectgarbage("collect"); note("error:" .. e .. ":" .. text) end
        o.on_close = function(reason) collectgarbage("collect"); note("close:" .. reason) end
        assert(ws.tcp_connect(ws.tcp_new(), o) == nil)
        failed = ws.tcp_new()
        ws.tcp_connect(failed, tcp_opts(80, { ip = "localhost" }))
        assert(fd_of(failed) == -1 and status_of(failed) == 1, "never registered")
    )");
    const std::string refused = std::strerror(ECONNREFUSED), unreachable = std::strerror(ENETUNREACH);
    EXPECT_EQ(events(), "error:" + std::to_string(ECONNREFUSED) + ":" + refused + "|close:" + refused + "|error:" +
                            std::to_string(ENETUNREACH) + ":" + unreachable + "|close:" + unreachable);
    EXPECT_THAT(run("local o = tcp_opts(80); o.crt = nil; ws.tcp_connect(ws.tcp_new(), o)"),
                HasSubstr("bad argument")) << "crt is required even for plain TCP";
    for (int i = 0; i < SOCKET_TABLE_SIZE; ++i)
        socktbl[i] = 100000 + i;
    with_peer({{step::drain}}, "assert(conn == nil)");
    EXPECT_THAT(events(), MatchesRegex(".*\\|error:[0-9]+:socktbl is full now"));
}

// on_close that reconnects gets the closed descriptor number back and
// replaces the registry entry that held the closing object; the close must
// still end on a live record (ASan checks).
TEST_F(TcpTest, OnCloseMayReconnectOnTheSameDescriptorAndCollect) {
    // The peers keep their ends open until the test is done, so that no
    // descriptor they free can take the closed number first.
    peers::script_peer first(std::vector<step>{{step::hold}}), second(std::vector<step>{{step::hold}});
    set_global("port1", first.port);
    set_global("port2", second.port);
    LUA_OK(R"(
        local o = tcp_opts(port1)
        o.on_close = function(reason)
          note("close:" .. reason)
          conn = ws.tcp_connect(ws.tcp_new(), tcp_opts(port2))
          collectgarbage("collect")
        end
        conn = ws.tcp_connect(ws.tcp_new(), o)
        old_fd = fd_of(conn)
    )");
    ASSERT_TRUE(first.accepted());
    // A snippet of its own: no stale register of the one above keeps the first object alive.
    LUA_OK("ws.tcp_close(conn)");
    LUA_OK("assert(fd_of(conn) == old_fd); ws.tcp_close(conn)");
    EXPECT_EQ(events(), "open|close:User do close|open|close:User do close");
}

TEST_F(TcpTest, SendWritesTextUpToItsFirstZeroByteAndRefusesClosedCopies) {
    EXPECT_THAT(run("ws.tcp_send(ws.tcp_new(), 'x')"), HasSubstr("attempt to index")) << "never connected";
    const std::string received = with_peer({{step::drain}}, R"(
        assert(ws.tcp_send(conn, "") == 0 and ws.tcp_send(conn, "ab\0cd") == 2 and ws.tcp_send(conn, 12.5) == 4)
        copy = copy_tcp(conn)
        ws.tcp_close(copy)
        clear_events()
        assert(ws.tcp_send(conn, "x") == -1, "the registered object was marked closed")
        assert(ws.tcp_send(copy, "x") == -1, "descriptor -1: nothing registered, refused quietly")
    )");
    EXPECT_EQ(received, "ab12.5");
    EXPECT_THAT(events(), MatchesRegex("error:[0-9]+:Socket has been closed!"));
}

TEST_F(TcpTest, SendToResetPeerReportsAndClosesWithoutSigpipe) {
    ASSERT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL) << "the host's default disposition stays in force";
    with_peer({{step::reset}}, R"(
        recv_tcp(fd_of(conn))  -- waits for the reset
        assert(ws.tcp_send(conn, 'after reset') == -1 and status_of(conn) == 0)
    )");
    EXPECT_THAT(events(), MatchesRegex("open\\|error:[0-9]+:(" + std::string(std::strerror(ECONNRESET)) + "|" +
                                       std::strerror(EPIPE) + ")\\|close:send fail"));
}

// What on_message gets and tcp_recv returns: the 73-byte example, the raw
// fallbacks and a partial decode; every byte counts, the text ends at a zero.
TEST_F(TcpTest, ReceiveDecodesChunkedResponsesOrFallsBackToRawText) {
    const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n";
    const std::pair<std::string, std::string> cases[] = {  // reply, message ("": raw)
        {kChunked73, head + "hello world\r\n"},
        {head + "\r\n5\r\nhelloXX6\r\n world\r\n0\r\n\r\n", ""},
        {head + "\r\n5\r\nhello\r\n6\r\n worldXX0\r\n\r\n", head + "hello\r\n"},
        {head + "X-Count: 10\r\n\r\n5\r\nhello\r\n0\r\n\r\n", head + "X-Count: 10\r\nhello\r\n"},
        {"HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", ""},
        {head + "5\r\nhello\r\n", ""},
        {std::string("abc\0def", 7) + std::string(1000, 'x'), "abc"},
    };
    for (const auto& [reply, message] : cases) {
        SCOPED_TRACE(reply.substr(0, 60));
        deliver(reply);
        EXPECT_EQ(global_string("message"), message.empty() ? reply : message);
        EXPECT_EQ(global_number("n"), static_cast<double>(reply.size()));
    }
    LUA_OK("assert(from_ == '' and port_ == -1)");
    deliver("");
    EXPECT_EQ(global_number("n"), 0);
    EXPECT_EQ(global_string("message"), "(nil)") << "nothing delivered";
}

// Reads go on until the peer ends the stream, or less than 2048 bytes of room remain.
TEST_F(TcpTest, ReceiveReadsUntilThePeerEndsTheStreamOrTheBufferIsFull) {
    with_peer({{step::send, std::string(100, 'a')}, {step::send, std::string(100, 'b')}},
              "recv_tcp(fd_of(conn))");
    EXPECT_EQ(global_string("message"), std::string(100, 'a') + std::string(100, 'b'));
    deliver(std::string(3 * TCP_RECV_BUFFER_SIZE / 2, 'q'));
    const double n = global_number("n");
    EXPECT_GT(n, static_cast<double>(TCP_RECV_BUFFER_SIZE - 2048));
    EXPECT_LT(n, static_cast<double>(TCP_RECV_BUFFER_SIZE));
    EXPECT_EQ(static_cast<double>(global_string("message").size()), n);
}

TEST_F(TcpTest, LoopDeliversTheResponseThenClosesOnEndOfStream) {
    const std::string request = with_peer({{step::read, "", 18}, {step::send, kChunked73}}, R"(
        debug.getregistry()["sockfd-" .. fd_of(conn)].on_close = function(r) note("close:" .. r); ws.loop_stop() end
        ws.tcp_send(conn, "GET / HTTP/1.1\r\n\r\n")
        local started = now()
        ws.loop_start(function() assert(now() - started < 5, "timed out") end, 1, 0)
        assert(status_of(conn) == 0)
    )");
    EXPECT_EQ(request, "GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(global_string("message"), "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nhello world\r\n");
    // End of stream: on_error with errno and its text, then the close.
    EXPECT_THAT(events(), MatchesRegex("open\\|message\\|error:[0-9]+:[^|]*\\|close:.*"));
    EXPECT_EQ(socktbl[0], 0);
}
