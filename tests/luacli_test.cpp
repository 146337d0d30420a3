// Module entry, object checks, options readers and the socket table.
#include <gmock/gmock.h>

#include <vector>

#include "lua_fixture.h"
#include "tools.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

std::vector<int32_t> table_contents() {
    std::vector<int32_t> used;
    for (int32_t fd : socktbl) {
        if (fd == 0)
            break;
        used.push_back(fd);
    }
    return used;
}

void fill_table(std::initializer_list<int32_t> fds) {
    for (int32_t fd : fds)
        sock_add(fd);
}

}  // namespace

// ---- socket table ----

TEST(SockTable, RemovingShiftsLaterSlotsDown) {
    std::fill(std::begin(socktbl), std::end(socktbl), 0);
    fill_table({5, 6, 7});
    EXPECT_EQ(sock_rem(6), 1);
    EXPECT_THAT(table_contents(), ElementsAre(5, 7));

    std::fill(std::begin(socktbl), std::end(socktbl), 0);
    fill_table({5, 6, 7});
    EXPECT_EQ(sock_rem(5), 1);
    EXPECT_THAT(table_contents(), ElementsAre(6, 7));
    EXPECT_EQ(socktbl[2], 0);

    EXPECT_EQ(sock_rem(9), -1);
    EXPECT_THAT(table_contents(), ElementsAre(6, 7));
    std::fill(std::begin(socktbl), std::end(socktbl), 0);
}

TEST(SockTable, AddingPresentDescriptorReturnsItsSlot) {
    std::fill(std::begin(socktbl), std::end(socktbl), 0);
    fill_table({5, 6, 7});
    EXPECT_EQ(sock_add(6), 1);
    EXPECT_THAT(table_contents(), ElementsAre(5, 6, 7));
    EXPECT_EQ(sock_add(8), 3);
    std::fill(std::begin(socktbl), std::end(socktbl), 0);
}

TEST(SockTable, FullTableRefusesThenFreesLastSlot) {
    std::fill(std::begin(socktbl), std::end(socktbl), 0);
    for (int32_t fd = 100; fd < 100 + SOCKET_TABLE_SIZE; ++fd)
        ASSERT_EQ(sock_add(fd), fd - 100);
    EXPECT_EQ(sock_add(5000), -1);
    EXPECT_EQ(socktbl[SOCKET_TABLE_SIZE - 1], 100 + SOCKET_TABLE_SIZE - 1);

    EXPECT_EQ(sock_rem(100), 1);  // the first one: everything moves down
    EXPECT_EQ(socktbl[0], 101);
    EXPECT_EQ(socktbl[SOCKET_TABLE_SIZE - 2], 100 + SOCKET_TABLE_SIZE - 1);
    EXPECT_EQ(socktbl[SOCKET_TABLE_SIZE - 1], 0);
    EXPECT_EQ(sock_add(5000), SOCKET_TABLE_SIZE - 1);

    EXPECT_EQ(sock_rem(5000), 1);  // the last slot itself
    EXPECT_EQ(socktbl[SOCKET_TABLE_SIZE - 1], 0);
    std::fill(std::begin(socktbl), std::end(socktbl), 0);
}

// ---- module entry ----

using ModuleTest = LuaTest;

TEST_F(ModuleTest, RegistersSeventeenFunctionsAndThreeMetatables) {
    LUA_OK(R"(
        local names = { "new", "ws_new", "udp_new", "tcp_new", "ws_connect", "udp_connect",
          "tcp_connect", "ws_send", "tcp_send", "udp_sendto", "udp_close", "ws_close", "tcp_close",
          "loop_start", "loop_stop", "sleep", "set_debug" }
        local n = 0
        for _ in pairs(ws) do n = n + 1 end
        assert(n == 17, n)
        for _, name in ipairs(names) do assert(type(ws[name]) == "function", name) end
        assert(ws == ws_client)
        local reg = debug.getregistry()
        for _, mt in ipairs({ "{SOCKET_WS}", "{SOCKET_UDP}", "{SOCKET_TCP}" }) do
          assert(type(reg[mt]) == "table", mt)
          assert(next(reg[mt]) == nil, mt .. " must stay empty")
        end
    )");
}

TEST_F(ModuleTest, SecondLoadReusesMetatablesAndRefillsTable) {
    lua_pushcfunction(L, luaopen_ws_client);
    lua_setglobal(L, "open_again");
    LUA_OK(R"(
        local reg = debug.getregistry()
        local before = reg["{SOCKET_TCP}"]
        ws_client.sleep = nil
        local again = open_again()
        assert(again == ws_client and again == ws)
        assert(reg["{SOCKET_TCP}"] == before)
        assert(type(ws_client.sleep) == "function")
    )");
}

TEST_F(ModuleTest, NewRequiresKindText) {
    EXPECT_THAT(run("ws.new()"), HasSubstr("bad argument #1 to 'new' (string expected, got no value)"));
    EXPECT_THAT(run("ws.new({})"), HasSubstr("bad argument #1 to 'new' (string expected, got table)"));
}

// ---- object checks ----

namespace {

int make_object(lua_State* L) {
    const char* metatable = luaL_checkstring(L, 1);
    static_cast<sock_header*>(new_record_block(L, sizeof(tcp_record), metatable))->status = 2;
    return 1;
}

int check_udp(lua_State* L) {
    lua_pushinteger(L, check_udp_client(L, 1)->sock_type);
    return 1;
}

int check_ws(lua_State* L) {
    check_ws_client(L, 2);
    return 0;
}

int check_tcp(lua_State* L) {
    check_tcp_client(L, 1);
    return 0;
}

}  // namespace

TEST_F(ModuleTest, WrongObjectKindNamesExpectedMetatable) {
    expose("make_object", make_object);
    expose("check_udp", check_udp);
    expose("check_ws", check_ws);
    expose("check_tcp", check_tcp);
    EXPECT_THAT(run("check_udp(make_object('{SOCKET_TCP}'))"),
                HasSubstr("bad argument #1 to 'check_udp' ({SOCKET_UDP} expected, got userdata)"));
    EXPECT_THAT(run("check_udp('x')"), HasSubstr("({SOCKET_UDP} expected, got string)"));
    EXPECT_THAT(run("check_ws(1, make_object('{SOCKET_UDP}'))"),
                HasSubstr("bad argument #2 to 'check_ws' ({SOCKET_WS} expected, got userdata)"));
    EXPECT_THAT(run("check_tcp(nil)"), HasSubstr("({SOCKET_TCP} expected, got nil)"));
    LUA_OK("assert(check_udp(make_object('{SOCKET_UDP}')) == 0, 'records start zeroed')");
    LUA_OK("check_ws(0, make_object('{SOCKET_WS}')); check_tcp(make_object('{SOCKET_TCP}'))");
}

// ---- options readers ----

namespace {

// read_options(opts): the options table is the top value, as in the connects.
int read_options(lua_State* L) {
    tcp_record record{};
    get_tbl_num(L, -2, "port", &record.port);
    get_tbl_str(L, -2, "ip", record.ip);
    lua_pushstring(L, record.ip);
    lua_pushinteger(L, record.port);
    return 2;
}

}  // namespace

TEST_F(ModuleTest, OptionsReadersCopyFieldsAndNameBadKeys) {
    expose("read_options", read_options);
    LUA_OK(R"(
        local ip, port = read_options({ ip = "127.0.0.1", port = 65616 })
        assert(ip == "127.0.0.1" and port == 65616)
        ip, port = read_options({ ip = "a\0b", port = "12" })
        assert(ip == "a" and port == 12, "text stops at zero byte, number text converts")
        ip = read_options({ ip = string.rep("x", 199), port = 1 })
        assert(#ip == 199)
    )");
    EXPECT_THAT(run("read_options({ port = 1 })"), HasSubstr("string expected, got nil"));
    EXPECT_THAT(run("read_options({ ip = 'x' })"), HasSubstr("number expected, got nil"));
    EXPECT_THAT(run("read_options({ ip = {}, port = 1 })"), HasSubstr("string expected, got table"));
    EXPECT_THAT(run("read_options({ ip = string.rep('x', 200), port = 1 })"),
                HasSubstr("bad argument #1 to 'read_options' (field 'ip' is longer than 199 characters)"));
}

// ---- registry ----

TEST(RegistryKeys, AreDecimalDescriptorTexts) {
    EXPECT_STREQ(sockfd_key(12).text, "sockfd-12");
    EXPECT_STREQ(udata_key(12).text, "udata-12");
    EXPECT_STREQ(udata_key(-1).text, "udata--1");
    EXPECT_STREQ(sockfd_key(2147483647).text, "sockfd-2147483647");
}

namespace {

// udata_close(fd): returns the stack height change and the registered object.
int udata_close(lua_State* L) {
    const auto fd = static_cast<int32_t>(luaL_checkinteger(L, 1));
    const int before = lua_gettop(L);
    tcp_udata_close(L, fd);
    lua_pushinteger(L, lua_gettop(L) - before);
    get_udata_by_sockfd(L, fd);
    return 2;
}

int status_of(lua_State* L) {
    lua_pushinteger(L, static_cast<sock_header*>(lua_touserdata(L, 1))->status);
    return 1;
}

}  // namespace

TEST_F(ModuleTest, UdataCloseMarksRegisteredObjectAndKeepsEntry) {
    expose("make_object", make_object);
    expose("udata_close", udata_close);
    expose("status_of", status_of);
    LUA_OK(R"(
        local reg = debug.getregistry()
        local obj = make_object("{SOCKET_TCP}")
        assert(status_of(obj) == 2)
        reg["udata-12"] = obj
        local grew, registered = udata_close(12)
        assert(grew == 0, "stack left as it was")
        assert(registered == obj and reg["udata-12"] == obj)
        assert(status_of(obj) == 0)
        grew, registered = udata_close(-1)
        assert(grew == 0 and registered == nil and reg["udata--1"] == nil)
    )");
}
