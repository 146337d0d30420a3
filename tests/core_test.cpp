// The Lua-free cores on crafted inputs: chunked decoding, the handshake's
// key and accept value, URL splitting; the socket table; the debug log; the
// send queue of a loop-driven connection.

#include "chunked.h"
#include "conn_table.h"
#include "connect_machine.h"
#include "handshake.h"
#include "loop_conn.h"
#include "lua_fixture.h"

TEST(Chunked, HexSizesAndDesignedDecodes) {
    for (const auto& [text, value] : {std::pair{"0X1f", 31}, {"1A;ext", 26}, {"g", 16}, {"ffffffff", -1}})
        EXPECT_EQ(htoi(text), value) << text;
    const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    const struct {
        std::string text;
        int complete;
        std::string body;
        std::size_t capacity = 1 << 20;
    } cases[] = {
        {head + "5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n", 1, "hello world"},
        {head + "7\r\nab0\r\n\r\n\r\n3\r\nxyz\r\n0\r\n\r\n", 0, "ab0\r\n\r\n"},  // the first final pattern ends it
        {head + "5\r\nhello\r\n0\r\nX-T: 1\r\n\r\n", 0, ""},                     // trailers: no final pattern
        {head + "5\r\nhello\n\n0\r\n\r\n", 0, ""},
        {head + "5\r\nhello\rX0\r\n\r\n", 0, ""},
        {head + "7fffffff\r\nabc\r\n0\r\n\r\n", 0, ""},
        {head + std::string(CHUNK_LINE_SPAN - 1, '1') + "\r\n0\r\n\r\n", 0, ""},  // line end past the span
        {head + "5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n", 0, "hello", 8},  // the body space bounds the writes
    };
    for (const auto& c : cases) {
        std::vector<char> body(c.capacity);
        std::size_t length = 0;
        EXPECT_EQ(de_chunked(c.text, body, &length), c.complete) << c.text;
        EXPECT_EQ(std::string(body.data(), length), c.body) << c.text;
    }
}

TEST(Handshake, AcceptAndKey) {
    char value[TEXT_FIELD_SIZE];
    sec_websocket_accept("dGhlIHNhbXBsZSBub25jZQ==", value);
    EXPECT_STREQ(value, "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");  // RFC 6455's example
    sec_websocket_key(value);
    EXPECT_THAT(value, MatchesRegex("[A-Za-z0-9+/]{22}=="));
    // RFC 3174's SHA-1 vectors (piece, times) and RFC 4648's Base64 vectors
    for (const auto& [piece, times, hex] : {std::tuple{"abc", 1, "a9993e364706816aba3e25717850c26c9cd0d89d"},
                                            {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", 1,
                                             "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
                                            {"a", 1000000, "34aa973cd4c4daa4f61eeb2bdbad27316534016f"}}) {
        std::string input, text;
        for (int i = 0; i < times; ++i)
            input += piece;
        uint8_t digest[SHA1_SIZE];
        sha1(input.data(), input.size(), digest);
        for (const uint8_t byte : digest)
            text += "0123456789abcdef"[byte >> 4], text += "0123456789abcdef"[byte & 15];
        EXPECT_EQ(text, hex) << piece;
    }
    for (const auto& [input, encoded] : {std::pair{"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}}) {
        char out[16];
        EXPECT_EQ(base64_encode(reinterpret_cast<const unsigned char*>(input), std::strlen(input), out),
                  static_cast<int>(std::strlen(encoded)));
        EXPECT_STREQ(out, encoded);
    }
}

TEST(Url, PrefixDecidesTheSchemeAndEverySlashSplits) {
    const std::string long_path = "/" + std::string(198, 'p');
    const std::tuple<std::string, int, std::string> rows[] = {  // url, is_secure, host|path or -1
        {"ws://example/chat", 0, "example|/chat"}, {"wssx://h/a/b?x=1", 1, "h|/a/b?x=1"}, {"ws://h", 0, "h|"},
        {"ws://user@h:8080//a//", 0, "user@h:8080|/a"}, {"WS://h", -1, "h|"}, {"ws://", 0, "-1"},
        {"ws://h" + long_path, 0, "h|" + long_path}, {"ws://h" + long_path + "p", 0, "-1"}};
    for (const auto& [url, secure, split] : rows) {
        char copy[400], host[TEXT_FIELD_SIZE] = "", path[TEXT_FIELD_SIZE] = "";
        EXPECT_EQ(is_secure(std::strcpy(copy, url.c_str())), secure) << url;
        EXPECT_EQ(get_host_path(copy, host, path) == -1 ? "-1" : std::string(host) + "|" + path, split) << url;
    }
}

TEST(SocketTable, AddIsIdempotentAndRemovalCloseUpTheGap) {
    std::fill(std::begin(socktbl), std::end(socktbl), 0);
    for (int32_t fd = 100; fd < 100 + SOCKET_TABLE_SIZE; ++fd)
        ASSERT_EQ(sock_add(fd), fd - 100);
    EXPECT_EQ(sock_add(150), 50);
    EXPECT_EQ(sock_add(5000), -1) << "full";
    EXPECT_EQ(sock_rem(100), 1);
    EXPECT_EQ(sock_rem(100), -1);
    EXPECT_EQ(socktbl[0], 101);
    EXPECT_EQ(socktbl[SOCKET_TABLE_SIZE - 2], 100 + SOCKET_TABLE_SIZE - 1);
    EXPECT_EQ(socktbl[SOCKET_TABLE_SIZE - 1], 0);
}

// Off by default; one line per call in the designed format; errno survives.
TEST_F(SocketTest, DebugLogBetweenSetDebugAndNULL) {
    LUA_OK("log = os.tmpname(); ws.set_debug(log)");
    setenv("TZ", "Missing/Zone", 1);  // as on a device without zone files: the time stamp sets errno
    errno = ECONNRESET;
    debug_log_write("tcp", "tcp_recv", 47, "n=%d\n", 3);
    EXPECT_EQ(errno, ECONNRESET);
    unsetenv("TZ");
    LUA_OK("ws.set_debug('NULL'); ws.udp_new()");
    EXPECT_THAT(eval("io.open(log):read('*a')"), MatchesRegex("\\[Time: [A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9:]{8} [0-9]{4}, "
                                             "File: tcp, Function: tcp_recv, Line: 00047\\]: n=3\n"));
    LUA_OK("os.remove(log)");
}

// The answer check: every row whole and cut in pieces of 1, 2, 3 bytes; the
// first decisive verdict and the count must not depend on the cuts. A
// complete answer ends at its blank line: what follows is frames.
TEST(Handshake, AnswerCheckCountsTheAnswerWholeOrInPieces) {
    const std::pair<std::string, const char*> rows[] = {  // answer ({a}: the expected value), verdict
        {"HTTP/1.1 101 Switching Protocols\r\nSec-WebSocket-Accept: {a}\r\n\r\n\x81\x02hi", "complete"},
        {"HTTP/1.1 101\r\nSec-WebSocket-Accept:\r\nX: {a}\r\n\r\n", "complete"},
        {"HTTP/1.1 101\r\nsec-websocket-accept: {a}\r\n\r\n", "refused"},
        {"HTTP/1.1 200 OK\r\nSec-WebSocket-Accept: {a}\r\n\r\n", "refused"},
        {"HTTP/1.1 101\r\n\r\nSec-WebSocket-Accept: {a}", "refused"},
        {"HTTP/1.1 101 {a}\r\nSec-WebSocket-Accept: x\r\n\r\n", "refused"},
        {std::string("HTTP/1.1 101\0\r\n\r\n", 17), "refused"},
        {"HTTP/1.1 101\r\nSec-WebSocket-Accept: {a}\r\n", "needs more"},
    };
    const char* names[] = {"complete", "needs more", "refused"};
    for (const auto& [row, verdict] : rows) {
        std::string answer = row;
        answer.replace(std::min(answer.find("{a}"), answer.size()), 3, "s3pPL");
        const std::size_t used = std::string(verdict) == "complete" ? answer.find("\r\n\r\n") + 4 : 0;
        for (const std::size_t piece : {answer.size(), std::size_t{1}, std::size_t{2}, std::size_t{3}}) {
            answer_scan scan{};
            answer_check check{answer_verdict::needs_more, 0};
            for (std::size_t have = 0; have < answer.size() && check.what == answer_verdict::needs_more;) {
                have = std::min(answer.size(), have + piece);
                check = check_upgrade_answer({answer.data(), have}, "s3pPL", scan);
            }
            EXPECT_STREQ(names[static_cast<int>(check.what)], verdict) << row << ", pieces of " << piece;
            EXPECT_EQ(check.used, used) << row << ", pieces of " << piece;
        }
    }
}

// A reused descriptor never finds the old connection's entry; a session goes
// through its release hook when its descriptor is dropped or reopened.
TEST(ConnTable, SerialGuardsAReusedDescriptor) {
    static int released = 0;
    void (*count)(void*) = [](void* counter) { ++*static_cast<int*>(counter); };
    const uint64_t first = conn_open(700);
    ASSERT_NE(conn_find(700, first), nullptr);
    *conn_find(700, first) = {first, connect_phase::tls, conn_wait::write, 0, &released, count, nullptr};
    EXPECT_EQ(conn_wants(700), conn_wait::write);
    const uint64_t second = conn_open(700);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(conn_find(700, first), nullptr);
    EXPECT_EQ(conn_wants(700), conn_wait::none);
    ASSERT_NE(conn_find(700, second), nullptr);
    conn_find(700, second)->session = &released, conn_find(700, second)->release = count;
    conn_drop(700);
    EXPECT_EQ(released, 2);
    EXPECT_EQ(conn_find(700, second), nullptr);
    EXPECT_EQ(conn_open(-1), 0u);
    EXPECT_EQ(conn_count(), 0u);
}

// A send made while bytes wait goes behind them even when the socket has room
// again, and the queue loses nothing when it moves its unwritten rest to the
// front to grow: the reader gets every send whole, in order.
TEST(SendQueue, LaterSendsWaitBehindQueuedBytes) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
    const int small = 4096;
    setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    std::string sent, got;
    const auto pattern = [&](std::size_t size, int seed) {
        std::string bytes(size, '\0');
        for (std::size_t i = 0; i < size; ++i)
            bytes[i] = static_cast<char>((i * 7 + seed) % 251);
        return sent += bytes, bytes;
    };
    const auto read_some = [&](std::size_t most) {
        char piece[16384];
        const long n = read(pair[1], piece, std::min(most, sizeof piece));
        got.append(piece, n > 0 ? static_cast<std::size_t>(n) : 0);
    };
    loop_conn conn{};
    conn_entry entry{};
    conn.max_queue = 4 << 20;
    const std::string first = pattern(300000, 1), second = pattern(1000000, 2);
    EXPECT_EQ(loop_send(conn, entry, pair[0], nullptr, first.data(), first.size()), queued_send::queued);
    read_some(16384);
    EXPECT_EQ(loop_drain(conn, entry, pair[0], nullptr), 0);  // part of the queue written
    read_some(16384);                                          // the socket has room, bytes still wait
    EXPECT_EQ(loop_send(conn, entry, pair[0], nullptr, second.data(), second.size()), queued_send::queued);
    const std::string past_bound(conn.max_queue, 'x');  // with bytes waiting: refused, nothing queued
    EXPECT_EQ(loop_send(conn, entry, pair[0], nullptr, past_bound.data(), past_bound.size()), queued_send::full);
    for (int rounds = 0; rounds < 100000 && got.size() < sent.size(); ++rounds) {
        read_some(16384);
        loop_drain(conn, entry, pair[0], nullptr);
    }
    EXPECT_TRUE(got == sent) << got.size() << " of " << sent.size() << " bytes, first difference at "
                             << std::mismatch(got.begin(), got.end(), sent.begin()).first - got.begin();
    EXPECT_EQ(entry.wants, conn_wait::none);
    byte_queue_reset(conn.out);
    close(pair[0]), close(pair[1]);
}
