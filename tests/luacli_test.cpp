// Module entry, object checks, options readers and the socket table.
#include <vector>

#include "lua_fixture.h"

using ::testing::ElementsAre;

namespace {

std::vector<int32_t> table_contents() {
    std::vector<int32_t> used;
    for (int i = 0; i < SOCKET_TABLE_SIZE && socktbl[i] != 0; ++i)
        used.push_back(socktbl[i]);
    return used;
}

void refill(std::initializer_list<int32_t> fds) {
    std::fill(std::begin(socktbl), std::end(socktbl), 0);
    for (int32_t fd : fds)
        sock_add(fd);
}

}  // namespace

// Removal closes the gap; adding a present descriptor returns its slot.
TEST(SockTable, RemovalCompactsAndAddIsIdempotent) {
    refill({5, 6, 7});
    EXPECT_EQ(sock_rem(6), 1);
    EXPECT_THAT(table_contents(), ElementsAre(5, 7));
    refill({5, 6, 7});
    EXPECT_EQ(sock_rem(5), 1);
    EXPECT_THAT(table_contents(), ElementsAre(6, 7));
    EXPECT_EQ(sock_rem(9), -1);
    EXPECT_EQ(sock_add(7), 1);
    EXPECT_EQ(sock_add(8), 2);
    EXPECT_THAT(table_contents(), ElementsAre(6, 7, 8));

    std::fill(std::begin(socktbl), std::end(socktbl), 0);
    for (int32_t fd = 100; fd < 100 + SOCKET_TABLE_SIZE; ++fd)
        ASSERT_EQ(sock_add(fd), fd - 100);
    EXPECT_EQ(sock_add(5000), -1) << "full";
    EXPECT_EQ(sock_rem(100), 1);
    EXPECT_EQ(socktbl[SOCKET_TABLE_SIZE - 2], 100 + SOCKET_TABLE_SIZE - 1);
    EXPECT_EQ(socktbl[SOCKET_TABLE_SIZE - 1], 0) << "the last slot is freed";
    EXPECT_EQ(sock_add(5000), SOCKET_TABLE_SIZE - 1);
    EXPECT_EQ(sock_rem(5000), 1);
    EXPECT_EQ(socktbl[SOCKET_TABLE_SIZE - 1], 0);
}

using ModuleTest = SocketTest;  // closes the sockets tcp_new/udp_new make

TEST_F(ModuleTest, RegistersSeventeenFunctionsAndReusesItsMetatables) {
    expose("open_again", luaopen_ws_client);
    LUA_OK(R"(
        local n = 0
        for name, f in pairs(ws) do n = n + 1; assert(type(f) == "function", name) end
        assert(n == 17 and ws == ws_client and ws.tcp_close and ws.udp_sendto and ws.set_debug, n)
        local reg = debug.getregistry()
        for _, mt in ipairs({ "{SOCKET_WS}", "{SOCKET_UDP}", "{SOCKET_TCP}" }) do
          assert(type(reg[mt]) == "table" and next(reg[mt]) == nil, mt)
        end
        local before = reg["{SOCKET_TCP}"]
        ws.sleep = nil
        assert(open_again() == ws and reg["{SOCKET_TCP}"] == before and ws.sleep)
    )");
    EXPECT_THAT(run("ws.new({})"), HasSubstr("bad argument #1 to 'new' (string expected, got table)"));
}

TEST_F(ModuleTest, ObjectChecksNameTheExpectedMetatable) {
    expose("check_ws", [](lua_State* L) { return check_ws_client(L, 2), 0; });
    EXPECT_THAT(run("ws.udp_close(ws.tcp_new())"),
                HasSubstr("bad argument #1 to 'udp_close' ({SOCKET_UDP} expected, got userdata)"));
    EXPECT_THAT(run("check_ws(1, nil)"), HasSubstr("bad argument #2 to 'check_ws' ({SOCKET_WS} expected, got nil)"));
}

TEST_F(ModuleTest, OptionsReadersCopyFieldsAndNameBadKeys) {
    // read_options(opts): the options table on top, as in the connects.
    expose("read_options", [](lua_State* L) {
        tcp_record record{};
        get_tbl_num(L, -2, "port", &record.port);
        get_tbl_str(L, -2, "ip", record.ip);
        lua_pushstring(L, record.ip);
        lua_pushinteger(L, record.port);
        return 2;
    });
    LUA_OK(R"(
        local ip, port = read_options({ ip = "a\0b", port = "12" })
        assert(ip == "a" and port == 12, "text stops at zero byte, number text converts")
        assert(#read_options({ ip = string.rep("x", 199), port = 1 }) == 199)
        -- as 5.1 reads numbers, on every version: truncated, saturated, NaN 0
        for _, c in ipairs({ {80.9, 80}, {-1.5, -1}, {2^40, 2^31 - 1}, {-2^40, -2^31}, {0/0, 0} }) do
            assert(select(2, read_options({ ip = "", port = c[1] })) == c[2], c[1])
        end
    )");
    EXPECT_THAT(run("read_options({ ip = 'x' })"), HasSubstr("number expected, got nil"));
    EXPECT_THAT(run("read_options({ ip = {}, port = 1 })"), HasSubstr("string expected, got table"));
    EXPECT_THAT(run("read_options({ ip = string.rep('x', 200), port = 1 })"),
                HasSubstr("bad argument #1 to 'read_options' (field 'ip' is longer than 199 characters)"));
}
