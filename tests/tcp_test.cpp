// The TCP client against in-process peers on 127.0.0.1: connect and close,
// send, and the receive path with chunked decoding.
#include <gmock/gmock.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <future>
#include <vector>

#include "peers/tcp_peer.h"
#include "tcp_fixture.h"

using ::testing::AnyOf;
using ::testing::HasSubstr;
using namespace std::chrono_literals;

namespace {

const std::string kChunked73 =
    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n";

std::vector<int32_t> table_contents() {
    std::vector<int32_t> used;
    for (int32_t fd : socktbl) {
        if (fd == 0)
            break;
        used.push_back(fd);
    }
    return used;
}

// A peer that sends `reply` at once and closes.
peers::tcp_peer replying(std::string reply) {
    return peers::tcp_peer([reply = std::move(reply)](int fd) { peers::send_all(fd, reply); });
}

class TcpClientTest : public TcpTest {
protected:
    // Connects to a peer that answers `reply` and closes, reads one delivery
    // and returns what on_message got (or "(none)").
    std::string deliver(const std::string& reply, int* result = nullptr) {
        auto peer = replying(reply);
        set_port("port", peer.port());
        EXPECT_EQ(run(R"(
            message = nil
            conn = ws.tcp_connect(ws.tcp_new(), opts(port))
            n, err = recv_tcp(tcp_fd(conn))
            ws.tcp_close(conn)
        )"),
                  "");
        if (result != nullptr)
            *result = static_cast<int>(global_number("n"));
        return global_string("message");
    }
};

}  // namespace

// ---- connect and close ----

TEST_F(TcpClientTest, NewMakesBlockingCreatedObjectsAndNewByKindToo) {
    LUA_OK(R"(
        a, b = ws.tcp_new(), ws.new("tcp")
        mt_ok = getmetatable(a) == debug.getregistry()["{SOCKET_TCP}"] and getmetatable(b) == getmetatable(a)
        fa, fb, sa = tcp_fd(a), tcp_fd(b), tcp_status(a)
    )");
    lua_getglobal(L, "mt_ok");
    EXPECT_TRUE(lua_toboolean(L, -1));
    lua_pop(L, 1);
    EXPECT_EQ(global_number("sa"), TCP_STATUS_CREATED);
    for (const char* name : {"fa", "fb"}) {
        const int fd = static_cast<int>(global_number(name));
        ASSERT_GT(fd, 0);
        const int flags = fcntl(fd, F_GETFL);
        ASSERT_NE(flags, -1);
        EXPECT_EQ(flags & O_NONBLOCK, 0) << "socket must stay blocking";
        close(fd);
    }
}

TEST_F(TcpClientTest, ConnectOpensBeforeReturningTheRegisteredObject) {
    peers::tcp_peer peer([](int fd) { peers::read_until_closed(fd); });
    set_port("port", peer.port());
    LUA_OK(R"(
        obj = ws.tcp_new()
        local o = opts(port + 65536)  -- only the low 16 bits count
        o.on_open = function() note("open:" .. tostring(returned == nil)) end
        returned = ws.tcp_connect(obj, o)
        note("returned")
        same = rawequal(obj, returned) and rawequal(debug.getregistry()["udata-" .. tcp_fd(obj)], obj)
        status, fd = tcp_status(obj), tcp_fd(obj)
    )");
    EXPECT_EQ(events(), "open:true|returned");
    lua_getglobal(L, "same");
    EXPECT_TRUE(lua_toboolean(L, -1));
    lua_pop(L, 1);
    EXPECT_EQ(global_number("status"), TCP_STATUS_OPEN);
    const auto fd = static_cast<int32_t>(global_number("fd"));
    EXPECT_EQ(table_contents(), std::vector<int32_t>{fd});

    LUA_OK("ws.tcp_close(obj); after = tcp_status(obj); fd_after = tcp_fd(obj)");
    EXPECT_EQ(events(), "open:true|returned|close:User do close");
    EXPECT_EQ(global_number("after"), TCP_STATUS_CLOSED);  // marked through the registry
    EXPECT_EQ(global_number("fd_after"), -1);
    EXPECT_TRUE(table_contents().empty());
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "descriptor closed";

    // A second close looks on_close up under descriptor -1 and raises.
    EXPECT_THAT(run("ws.tcp_close(obj)"), HasSubstr("attempt to index"));
}

TEST_F(TcpClientTest, RefusedConnectionReportsErrorThenCloseAndReturnsNil) {
    set_port("port", peers::closed_port());
    // The object is only a temporary and on_error collects garbage: the
    // close that follows must still find its record alive (ASan checks).
    LUA_OK(R"(
        local o = opts(port)
        o.on_error = function(e, text) collectgarbage("collect"); note("error:" .. e .. ":" .. text) end
        o.on_close = function(reason) collectgarbage("collect"); note("close:" .. reason) end
        result = ws.tcp_connect(ws.tcp_new(), o)
    )");
    const std::string text = std::strerror(ECONNREFUSED);
    EXPECT_EQ(events(), "error:" + std::to_string(ECONNREFUSED) + ":" + text + "|close:" + text);
    EXPECT_EQ(global_string("result"), "(nil)");
    EXPECT_TRUE(table_contents().empty());

    // A failed object keeps status 1 (it was never registered) with
    // descriptor -1, so closing it again raises.
    LUA_OK("failed = ws.tcp_new(); ws.tcp_connect(failed, opts(port)); fd = tcp_fd(failed); st = tcp_status(failed)");
    EXPECT_EQ(global_number("fd"), -1);
    EXPECT_EQ(global_number("st"), TCP_STATUS_CONNECTING);
    EXPECT_THAT(run("ws.tcp_close(failed)"), HasSubstr("attempt to index"));
}

TEST_F(TcpClientTest, HostNameIsNotResolvedAndMissingTextOptionsRaise) {
    LUA_OK(R"(
        result = ws.tcp_connect(ws.tcp_new(), opts(80, { ip = "localhost" }))
    )");
    // The all-ones address: the system's own text, reported twice.
    const std::string log = events();
    const std::string text = log.substr(log.rfind(':') + 1);
    EXPECT_THAT(log, ::testing::MatchesRegex("error:[0-9]+:.*"));
    EXPECT_THAT(log, ::testing::EndsWith(":" + text + "|close:" + text));
    EXPECT_EQ(text, std::strerror(ENETUNREACH));
    EXPECT_EQ(global_string("result"), "(nil)");

    // crt and prikey are required even for plain TCP; nothing is registered.
    LUA_OK("obj = ws.tcp_new(); fd = tcp_fd(obj)");
    const std::string missing = run(R"(
        local o = opts(80); o.crt = nil
        ws.tcp_connect(obj, o)
    )");
    EXPECT_THAT(missing, HasSubstr("bad argument"));
    LUA_OK("registered = debug.getregistry()['sockfd-' .. fd]");
    EXPECT_EQ(global_string("registered"), "(nil)");
    close(static_cast<int>(global_number("fd")));
}

TEST_F(TcpClientTest, FullSocketTableReportsErrorOnlyAndClosesTheDescriptor) {
    peers::tcp_peer peer([](int fd) { peers::read_until_closed(fd, 2000ms); });
    set_port("port", peer.port());
    for (int i = 0; i < SOCKET_TABLE_SIZE; ++i)
        socktbl[i] = 100000 + i;
    LUA_OK("obj = ws.tcp_new(); fd = tcp_fd(obj); result = ws.tcp_connect(obj, opts(port)); st = tcp_status(obj)");
    EXPECT_THAT(events(), ::testing::MatchesRegex("error:[0-9]+:socktbl is full now"));
    EXPECT_EQ(global_string("result"), "(nil)");
    EXPECT_EQ(global_number("st"), TCP_STATUS_CONNECTING);
    EXPECT_EQ(fcntl(static_cast<int>(global_number("fd")), F_GETFD), -1);
    std::fill(std::begin(socktbl), std::end(socktbl), 0);
}

// on_close that reconnects gets the closed descriptor number back and
// replaces the registry entry that held the closing object; the close must
// still end on a live record (ASan checks).
TEST_F(TcpClientTest, OnCloseMayReconnectOnTheSameDescriptorAndCollect) {
    // The peers keep their ends open until the test is done, so that no
    // descriptor they free can take the closed number first.
    std::promise<void> done, first_accepted;
    std::shared_future<void> finished = done.get_future().share();
    peers::tcp_peer first([finished, &first_accepted](int fd) {
        first_accepted.set_value();
        peers::read_until_closed(fd, 3000ms);
        finished.wait_for(5s);
    });
    peers::tcp_peer second([finished](int fd) {
        peers::read_until_closed(fd, 3000ms);
        finished.wait_for(5s);
    });
    set_port("port1", first.port());
    set_port("port2", second.port());
    LUA_OK(R"(
        local o = opts(port1)
        o.on_close = function(reason)
          note("close:" .. reason)
          conn = ws.tcp_connect(ws.tcp_new(), opts(port2))
          collectgarbage("collect")
        end
        conn = ws.tcp_connect(ws.tcp_new(), o)
        old_fd = tcp_fd(conn)
    )");
    ASSERT_EQ(first_accepted.get_future().wait_for(5s), std::future_status::ready);
    // A snippet of its own: no stale register of the one above keeps the
    // first object alive.
    LUA_OK("ws.tcp_close(conn)");
    LUA_OK("new_fd = tcp_fd(conn); ws.tcp_close(conn)");
    EXPECT_EQ(events(), "open|close:User do close|open|close:User do close");
    EXPECT_EQ(global_number("old_fd"), global_number("new_fd"));
    done.set_value();
}

// ---- send ----

TEST_F(TcpClientTest, SendWritesTextUpToItsFirstZeroByte) {
    std::string received;
    peers::tcp_peer peer([&received](int fd) { received = peers::read_until_closed(fd); });
    set_port("port", peer.port());
    LUA_OK(R"(
        conn = ws.tcp_connect(ws.tcp_new(), opts(port))
        empty = ws.tcp_send(conn, "")
        cut = ws.tcp_send(conn, "ab\0cd")
        number = ws.tcp_send(conn, 12.5)
        ws.tcp_close(conn)
    )");
    peer.join();
    EXPECT_EQ(global_number("empty"), 0);
    EXPECT_EQ(global_number("cut"), 2);
    EXPECT_EQ(global_number("number"), 4);
    EXPECT_EQ(received, "ab12.5");
    EXPECT_EQ(events(), "open|close:User do close");
    EXPECT_THAT(run("ws.tcp_send(conn, {})"), HasSubstr("bad argument #2"));
}

TEST_F(TcpClientTest, SendOnClosedObjectsAndStaleCopies) {
    peers::tcp_peer peer([](int fd) { peers::read_until_closed(fd, 3000ms); });
    set_port("port", peer.port());
    // Never connected: nothing is registered under its descriptor, so the
    // report's lookup raises (as for a closed object below).
    EXPECT_THAT(run("fresh = ws.tcp_new(); ws.tcp_send(fresh, 'x')"), HasSubstr("attempt to index"));
    LUA_OK("close_fd = tcp_fd(fresh)");
    close(static_cast<int>(global_number("close_fd")));
    LUA_OK(R"(
        conn = ws.tcp_connect(ws.tcp_new(), opts(port))
        copy = copy_tcp(conn)
        ws.tcp_close(conn)
        events = {}
        stale = ws.tcp_send(copy, "x")  -- the object registered under its descriptor is the closed one
    )");
    EXPECT_EQ(global_number("stale"), -1);
    EXPECT_THAT(events(), ::testing::MatchesRegex("error:[0-9]+:Socket has been closed!"));
    // The closed object itself has descriptor -1, for which nothing is
    // registered: refused quietly, as UDP does.
    LUA_OK("events = {}; own = ws.tcp_send(conn, 'x')");
    EXPECT_EQ(global_number("own"), -1);
    EXPECT_EQ(events(), "");
}

TEST_F(TcpClientTest, SendToResetPeerReportsAndClosesWithoutSigpipe) {
    ASSERT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL) << "the host's default disposition stays in force";
    peers::tcp_peer peer([](int fd) { peers::reset(fd); });
    set_port("port", peer.port());
    LUA_OK("conn = ws.tcp_connect(ws.tcp_new(), opts(port)); fd = tcp_fd(conn)");
    peer.join();
    ASSERT_TRUE(peers::wait_readable(static_cast<int>(global_number("fd"))));  // the reset has arrived
    LUA_OK("first = ws.tcp_send(conn, 'after reset'); st = tcp_status(conn)");
    EXPECT_EQ(global_number("first"), -1);
    const std::string log = events();
    EXPECT_THAT(log, AnyOf(HasSubstr(std::string(":") + std::strerror(ECONNRESET) + "|close:send fail"),
                           HasSubstr(std::string(":") + std::strerror(EPIPE) + "|close:send fail")));
    EXPECT_EQ(global_number("st"), TCP_STATUS_CLOSED);
    EXPECT_TRUE(table_contents().empty());
}

// ---- receive ----

TEST_F(TcpClientTest, ChunkedResponseIsRebuiltAndCountedRaw) {
    int result = 0;
    EXPECT_EQ(deliver(kChunked73, &result), "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nhello world\r\n");
    EXPECT_EQ(result, 73);
    EXPECT_EQ(global_string("from_"), "");
    EXPECT_EQ(global_number("port_"), -1);
    EXPECT_EQ(events(), "open|message|close:User do close");
}

TEST_F(TcpClientTest, ChunkedVariantsDecodeOrFallBackAsDesigned) {
    const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n";
    const std::string g_data(16, 'g'), zz_data(595, 'z');
    struct variant {
        const char* name;
        std::string reply;
        std::string expected;
    } variants[] = {
        {"extension", head + "\r\n5;ext=1\r\nhello\r\n6\r\n world\r\n0\r\n\r\n", head + "hello world\r\n"},
        {"0x prefix", head + "\r\n0x5\r\nhello\r\n0\r\n\r\n", head + "hello\r\n"},
        {"g is 16", head + "\r\ng\r\n" + g_data + "\r\n0\r\n\r\n", head + g_data + "\r\n"},
        {"zz is 595", head + "\r\nzz\r\n" + zz_data + "\r\n0\r\n\r\n", head + zz_data + "\r\n"},
        {"bad first chunk", head + "\r\n5\r\nhelloXX6\r\n world\r\n0\r\n\r\n", ""},
        {"bad later chunk", head + "\r\n5\r\nhello\r\n6\r\n worldXX0\r\n\r\n", head + "hello\r\n"},
        {"final chunk only", head + "\r\n0\r\n\r\n", ""},
        {"no final chunk", head + "\r\n5\r\nhello\r\n", ""},
        {"X-Count: 10", head + "X-Count: 10\r\n\r\n5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n",
         head + "X-Count: 10\r\nhello\r\n"},
        {"lower case header", "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", ""},
        {"no blank line", head + "5\r\nhello\r\n", ""},
    };
    for (const variant& v : variants) {
        SCOPED_TRACE(v.name);
        int result = 0;
        const std::string expected = v.expected.empty() ? v.reply : v.expected;  // empty: raw delivery
        // The expected rebuilt form puts the header block (with its last
        // line break) before the body; the blank line is gone.
        EXPECT_EQ(deliver(v.reply, &result), expected);
        EXPECT_EQ(result, static_cast<int>(v.reply.size()));
    }
}

TEST_F(TcpClientTest, ZeroByteEndsTheTextButEveryByteCounts) {
    int result = 0;
    EXPECT_EQ(deliver(std::string("abc\0def", 7) + std::string(1000, 'x'), &result), "abc");
    EXPECT_EQ(result, 1007);
}

TEST_F(TcpClientTest, PeerClosingWithoutDataGivesZeroAndNoMessage) {
    peers::tcp_peer peer([](int) {});
    set_port("port", peer.port());
    LUA_OK("conn = ws.tcp_connect(ws.tcp_new(), opts(port)); n, err = recv_tcp(tcp_fd(conn)); ws.tcp_close(conn)");
    EXPECT_EQ(global_number("n"), 0);
    EXPECT_EQ(events(), "open|close:User do close");
}

TEST_F(TcpClientTest, ReceiveWaitsUntilThePeerEndsTheStream) {
    peers::tcp_peer peer([](int fd) {
        peers::send_all(fd, std::string(100, 'a'));
        std::this_thread::sleep_for(300ms);
        peers::send_all(fd, std::string(100, 'b'));
        std::this_thread::sleep_for(200ms);
    });
    set_port("port", peer.port());
    const auto start = std::chrono::steady_clock::now();
    LUA_OK("conn = ws.tcp_connect(ws.tcp_new(), opts(port)); n = recv_tcp(tcp_fd(conn)); ws.tcp_close(conn)");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 450ms);  // cannot be faster than the peer
    EXPECT_EQ(global_number("n"), 200);
    EXPECT_EQ(global_string("message"), std::string(100, 'a') + std::string(100, 'b'));
}

TEST_F(TcpClientTest, ResponseLargerThanTheBufferIsCutAtItsCapacity) {
    // 1.5 MiB: the read loop stops once less than 2048 bytes of room remain.
    const std::string big(3 * TCP_RECV_BUFFER_SIZE / 2, 'q');
    peers::tcp_peer peer([&big](int fd) { peers::send_all(fd, big); });
    set_port("port", peer.port());
    LUA_OK("conn = ws.tcp_connect(ws.tcp_new(), opts(port)); n = recv_tcp(tcp_fd(conn)); len = #message; ws.tcp_close(conn)");
    const double n = global_number("n");
    EXPECT_GT(n, static_cast<double>(TCP_RECV_BUFFER_SIZE - 2048));
    EXPECT_LT(n, static_cast<double>(TCP_RECV_BUFFER_SIZE));
    EXPECT_EQ(global_number("len"), n);
}

// ---- through the main loop ----

TEST_F(TcpClientTest, LoopDeliversTheResponseThenClosesOnEndOfStream) {
    std::string request;
    peers::tcp_peer peer([&request](int fd) {
        char buffer[256];
        const ssize_t got = recv(fd, buffer, sizeof buffer, 0);  // the request, then the answer
        if (got > 0)
            request.assign(buffer, static_cast<std::size_t>(got));
        peers::send_all(fd, kChunked73);
    });
    set_port("port", peer.port());
    LUA_OK(R"(
        local o = opts(port)
        o.on_close = function(reason) note("close:" .. reason); ws.loop_stop() end
        conn = ws.tcp_connect(ws.tcp_new(), o)
        fd = tcp_fd(conn)
        ws.tcp_send(conn, "GET / HTTP/1.1\r\n\r\n")
        local started = os.time()
        ws.loop_start(function() if os.time() - started > 5 then timed_out = true; ws.loop_stop() end end, 1, 0)
        st = tcp_status(conn)
    )");
    peer.join();
    EXPECT_EQ(request, "GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(global_string("timed_out"), "(nil)");
    EXPECT_EQ(global_string("message"), "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nhello world\r\n");
    // End of stream: on_error with errno and its text, then the close.
    EXPECT_THAT(events(), ::testing::MatchesRegex("open\\|message\\|error:[0-9]+:[^|]*\\|close:.*"));
    EXPECT_EQ(global_number("st"), TCP_STATUS_CLOSED);
    EXPECT_TRUE(table_contents().empty());
}
