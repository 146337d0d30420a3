// Socket helpers: kind lookup, connect with a time-out, close by descriptor
// and name resolution.
#include <chrono>
#include <sys/resource.h>

#include "lua_fixture.h"

namespace {

class ToolsTest : public SocketTest {
protected:
    void SetUp() override {
        SocketTest::SetUp();
        expose("kind_of_fd", [](lua_State* L) {
            return lua_pushinteger(L, get_sock_type(L, static_cast<int32_t>(luaL_checkinteger(L, 1)))), 1;
        });
        expose("close_by_fd", [](lua_State* L) {
            return do_close(L, static_cast<int32_t>(luaL_checkinteger(L, 1)), luaL_checkstring(L, 2)), 0;
        });
    }
};

bool is_blocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0; }

}  // namespace

TEST_F(ToolsTest, KindIsTheTypeFieldTruncatedTowardZero) {
    LUA_OK(R"(
        for value, kind in pairs({ [1.9] = 1, [-1.5] = -1, ["2"] = 2 }) do
            debug.getregistry()["sockfd-40"] = { type = value }
            assert(kind_of_fd(40) == kind, value)
        end
        debug.getregistry()["sockfd-40"] = {}
    )");
    EXPECT_THAT(run("kind_of_fd(40)"), HasSubstr("number expected, got nil"));
    EXPECT_THAT(run("kind_of_fd(41)"), HasSubstr("attempt to index a nil value"));
}

// Connected, refused or timed out, the socket is left blocking. The first
// socket is numbered past FD_SETSIZE: the wait must not use a plain fd_set.
TEST_F(ToolsTest, ConnectTimeoutConnectsOrReportsRefusedAndTimedOut) {
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit raised = saved;
    raised.rlim_cur = std::max<rlim_t>(saved.rlim_cur, std::min<rlim_t>(saved.rlim_max, 2100));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    const int fd = raised.rlim_cur > 2048 ? dup2(socket(AF_INET, SOCK_STREAM, 0), 2048) : socket(AF_INET, SOCK_STREAM, 0);
    uint16_t port = 0;
    const int listener = peers::listen_loopback(0, &port);  // a full accept queue drops further SYNs
    sockaddr_in address = peers::loopback(port);
    EXPECT_EQ(connect_timeout(fd, &address, 2), 0);
    EXPECT_TRUE(is_blocking(fd));
    close(fd);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    int timed_out = 0;
    double waited = 0;
    for (int attempt = 0; attempt < 4 && timed_out == 0; ++attempt) {
        const int client = socket(AF_INET, SOCK_STREAM, 0);
        const auto start = std::chrono::steady_clock::now();
        if (connect_timeout(client, &address, 1) == -1) {
            timed_out = errno;
            waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            EXPECT_TRUE(is_blocking(client));
        }
    }
    EXPECT_EQ(timed_out, ETIMEDOUT);
    EXPECT_GE(waited, 0.9);

    const peers::script_peer refused({});
    address = peers::loopback(refused.port);
    for (int32_t timeout : {2, 0}) {
        const int client = socket(AF_INET, SOCK_STREAM, 0);
        errno = 0;
        EXPECT_EQ(connect_timeout(client, &address, timeout), -1);
        EXPECT_EQ(errno, ECONNREFUSED) << "time-out " << timeout;
        EXPECT_TRUE(is_blocking(client));
    }
    close(listener);
}

TEST_F(ToolsTest, DoCloseClosesThroughTheRegisteredRecordOfItsKindOnly) {
    LUA_OK(R"(
        o = opts({ type = 2 })
        u = ws.udp_new()
        c = ws.udp_connect(u, o)
        fd = fd_of(u)
        for _, kind in ipairs({ 7, 0, 1 }) do  -- 0 and 1: not a WebSocket or TCP object
            o.type = kind
            close_by_fd(fd, "no")
        end
        o.type = 2
        debug.getregistry()["udata-" .. fd] = nil
        close_by_fd(fd, "no")
        assert(fd_is_open(fd))
        debug.getregistry()["udata-" .. fd] = u
        close_by_fd(fd, "gone away")
        assert(fd_of(u) == -1 and fd_of(c) == fd, "the registered record was closed, the copy kept")
        assert(not fd_is_open(fd))
    )");
    EXPECT_EQ(events(), "open|close:gone away");
    EXPECT_EQ(socktbl[0], 0);
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

TEST(GetIp, ResolvesToDottedTextThatFits) {
    char ip[16] = "unchanged";
    ASSERT_EQ(get_ip("localhost", ip), ip);
    EXPECT_STREQ(ip, "127.0.0.1");
    EXPECT_EQ(get_ip("", ip), nullptr);
    char tiny[8] = "";
    EXPECT_EQ(get_ip("127.0.0.1", tiny), nullptr) << "text that does not fit is refused";
}
