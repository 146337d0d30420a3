// Socket helpers: kind lookup, blocking mode, connect with a time-out, close
// by descriptor, name resolution and descriptor sets of any size.
#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "tools.h"
#include "udp_fixture.h"

using ::testing::HasSubstr;

namespace {

int kind_of_fd(lua_State* L) {
    const int32_t fd = static_cast<int32_t>(luaL_checkinteger(L, 1));
    const int before = lua_gettop(L);
    const int32_t kind = get_sock_type(L, fd);
    const int left = lua_gettop(L) - before;
    lua_pushinteger(L, kind);
    lua_pushinteger(L, left);
    return 2;
}

int close_by_fd(lua_State* L) {
    do_close(L, static_cast<int32_t>(luaL_checkinteger(L, 1)), luaL_checkstring(L, 2));
    return 0;
}

class ToolsTest : public UdpLuaTest {
protected:
    void SetUp() override {
        UdpLuaTest::SetUp();
        expose("kind_of_fd", kind_of_fd);
        expose("close_by_fd", close_by_fd);
    }
};

TEST_F(ToolsTest, KindIsTheTypeFieldTruncatedTowardZero) {
    LUA_OK(R"(
        local reg = debug.getregistry()
        for value, kind in pairs({ [1.9] = 1, [-0.5] = 0, [2] = 2, [7] = 7, [-1.5] = -1 }) do
            reg["sockfd-40"] = { type = value }
            local got, left = kind_of_fd(40)
            assert(got == kind, value .. " gave " .. got)
            assert(left == 2, "the options table and the field stay on the stack")
        end
        reg["sockfd-40"] = { type = "2" }
        assert(kind_of_fd(40) == 2, "numeric text converts")
        reg["sockfd-40"] = {}
    )");
    EXPECT_THAT(run("kind_of_fd(40)"), HasSubstr("number expected, got nil"));
    EXPECT_THAT(run("kind_of_fd(41)"), HasSubstr("attempt to index a nil value"));
}

// A TCP listener on 127.0.0.1 with the given backlog; its address in `address`.
int listen_loopback(int backlog, sockaddr_in& address) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd, backlog) != 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return -1;
    return fd;
}

bool is_blocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0; }

TEST_F(ToolsTest, ConnectTimeoutConnectsAndRestoresBlockingMode) {
    sockaddr_in address{};
    const int listener = listen_loopback(8, address);
    ASSERT_GE(listener, 0);
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(connect_timeout(fd, &address, 2), 0);
    EXPECT_TRUE(is_blocking(fd));
    close(fd);
    const int plain = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(connect_timeout(plain, &address, 0), 0) << "time-out 0 is a plain connect";
    close(plain);
    close(listener);
}

TEST_F(ToolsTest, ConnectTimeoutReportsARefusedPort) {
    sockaddr_in address{};
    const int listener = listen_loopback(1, address);
    ASSERT_GE(listener, 0);
    close(listener);  // nothing listens on that port any more
    for (int32_t timeout : {2, 0}) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        errno = 0;
        EXPECT_EQ(connect_timeout(fd, &address, timeout), -1);
        EXPECT_EQ(errno, ECONNREFUSED) << "time-out " << timeout;
        EXPECT_TRUE(is_blocking(fd));
        close(fd);
    }
}

TEST_F(ToolsTest, ConnectTimeoutGivesUpOnAPeerThatDoesNotAnswer) {
    // A listener whose accept queue is full drops further SYNs.
    sockaddr_in address{};
    const int listener = listen_loopback(0, address);
    ASSERT_GE(listener, 0);
    std::vector<int> clients;
    int timed_out_errno = 0;
    double waited = 0;
    bool restored = false;
    for (int attempt = 0; attempt < 4 && timed_out_errno == 0; ++attempt) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        clients.push_back(fd);
        const double start = monotonic_seconds();
        if (connect_timeout(fd, &address, 1) == -1) {
            timed_out_errno = errno;
            waited = monotonic_seconds() - start;
            restored = is_blocking(fd);
        }
    }
    for (int fd : clients)
        close(fd);
    close(listener);
    EXPECT_EQ(timed_out_errno, ETIMEDOUT);
    EXPECT_GE(waited, 0.9);
    EXPECT_TRUE(restored);
}

TEST_F(ToolsTest, DoCloseClosesThroughTheRegisteredRecord) {
    LUA_OK(R"(
        reasons = {}
        u = ws.udp_new()
        c = ws.udp_connect(u, { type = 2, on_close = function(why) reasons[#reasons + 1] = why end })
        fd = fd_of(u)
        close_by_fd(fd, "gone away")
        assert(reasons[1] == "gone away" and #reasons == 1)
        assert(fd_of(u) == -1, "the registered record was closed")
        assert(fd_of(c) == fd, "the script's copy keeps its descriptor")
        assert(not fd_is_open(fd))
    )");
    EXPECT_EQ(socktbl[0], 0);
}

TEST_F(ToolsTest, DoCloseLeavesUnknownAndMismatchedKindsAlone) {
    LUA_OK(R"(
        reasons = {}
        local reg = debug.getregistry()
        local opts = { type = 2, on_close = function(why) reasons[#reasons + 1] = why end }
        u = ws.udp_connect(ws.udp_new(), opts)
        fd = fd_of(u)
        for _, kind in ipairs({ 7, -3, 0, 1 }) do  -- 0 and 1: not a WebSocket or TCP object
            opts.type = kind
            close_by_fd(fd, "no")
        end
        opts.type = 2
        reg["udata-" .. fd] = "not an object"
        close_by_fd(fd, "no")
        reg["udata-" .. fd] = nil
        close_by_fd(fd, "no")
        assert(#reasons == 0 and fd_is_open(fd))
    )");
    EXPECT_NE(socktbl[0], 0);
}

// Regression: do_close's record could be collected while on_close ran, when
// the callback replaced the registry entry that was its last reference.
TEST_F(ToolsTest, DoCloseKeepsTheRecordAliveThroughOnClose) {
    LUA_OK(R"(
        local reg = debug.getregistry()
        local fd
        local copy = ws.udp_connect(ws.udp_new(), { type = 2, on_close = function()
            reg["udata-" .. fd] = nil
            collectgarbage("collect")
        end })
        fd = fd_of(copy)
        close_by_fd(fd, "bye")
        assert(not fd_is_open(fd))
    )");
}

TEST_F(ToolsTest, GetIpResolvesToDottedText) {
    char ip[16] = "unchanged";
    ASSERT_EQ(get_ip("127.0.0.1", ip), ip);
    EXPECT_STREQ(ip, "127.0.0.1");
    ASSERT_EQ(get_ip("localhost", ip), ip);
    EXPECT_STREQ(ip, "127.0.0.1");
    EXPECT_EQ(get_ip("", ip), nullptr);
    char tiny[8] = "";
    EXPECT_EQ(get_ip("127.0.0.1", tiny), nullptr) << "text that does not fit is refused";
}

TEST(SelectSet, SelectWaitsOnADescriptorAbove1023) {
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    if (saved.rlim_max < 2100)
        GTEST_SKIP() << "descriptor limit too low";
    rlimit raised = saved;
    raised.rlim_cur = std::max<rlim_t>(saved.rlim_cur, 2100);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    const int receiver = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_EQ(dup2(receiver, 2048), 2048);
    close(receiver);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(2048, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(getsockname(2048, reinterpret_cast<sockaddr*>(&address), &length), 0);

    timeval none{0, 0};
    EXPECT_EQ(select_single(2048, wait_for::read, &none), 0);
    const int sender = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_EQ(sendto(sender, "x", 1, 0, reinterpret_cast<sockaddr*>(&address), sizeof address), 1);
    timeval wait{2, 0};
    EXPECT_EQ(select_single(2048, wait_for::read, &wait), 1);
    timeval writable{0, 0};
    EXPECT_EQ(select_single(2048, wait_for::write, &writable), 1);
    close(sender);
    close(2048);
    timeval after{0, 0};
    EXPECT_EQ(select_single(2048, wait_for::read, &after), -1);
    EXPECT_EQ(errno, EBADF);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
}

}  // namespace
