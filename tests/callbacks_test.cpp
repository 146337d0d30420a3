// Calls into the script: arguments, order, protection and stack effects.
#include <gmock/gmock.h>

#include <cerrno>

#include "callbacks.h"
#include "lua_fixture.h"

using ::testing::HasSubstr;

namespace {

// Each binding leaves two sentinel values on the stack, calls the callback
// and returns the stack height it left plus the type name of the top value.
int report_stack(lua_State* L) {
    const int height = lua_gettop(L);
    const char* top = height > 0 ? luaL_typename(L, -1) : "none";
    lua_pushinteger(L, height);
    lua_pushstring(L, top);
    return 2;
}

int32_t fd_arg(lua_State* L) { return static_cast<int32_t>(luaL_checkinteger(L, 1)); }

int call_error(lua_State* L) {
    const int32_t fd = fd_arg(L);
    const int errnum = static_cast<int>(luaL_checkinteger(L, 2));
    const char* message = luaL_checkstring(L, 3);
    errno = static_cast<int>(luaL_optinteger(L, 4, 0));
    error_callback(L, fd, errnum, message);
    return report_stack(L);
}

int call_open(lua_State* L) {
    const int32_t fd = fd_arg(L);
    lua_settop(L, 0);
    connect_callback(L, fd);
    return report_stack(L);
}

int call_tcp_open(lua_State* L) {
    tcp_record record{};
    record.sockfd = fd_arg(L);
    lua_settop(L, 0);
    tcp_connect_callback(L, &record);
    return report_stack(L);
}

int call_close(lua_State* L) {
    const int32_t fd = fd_arg(L);
    close_callback(L, fd, luaL_checkstring(L, 2));
    return report_stack(L);
}

int call_receive(lua_State* L) {
    const int32_t fd = fd_arg(L);
    size_t length = 0;
    const char* data = luaL_checklstring(L, 2, &length);
    const char* from = lua_tostring(L, 3);
    const int port = static_cast<int>(luaL_checkinteger(L, 4));
    receive_callback(L, fd, data, from, port);
    return report_stack(L);
}

class CallbackTest : public LuaTest {
protected:
    void SetUp() override {
        LuaTest::SetUp();
        expose("call_error", call_error);
        expose("call_open", call_open);
        expose("call_tcp_open", call_tcp_open);
        expose("call_close", call_close);
        expose("call_receive", call_receive);
        // Options table for descriptor 7 that records every call.
        LUA_OK(R"(
            calls = {}
            local function record(name) return function(...) calls[#calls + 1] = { name, ... } end end
            debug.getregistry()["sockfd-7"] = {
              on_error = record("on_error"), on_open = record("on_open"),
              on_close = record("on_close"), on_message = record("on_message") }
        )");
    }
};

}  // namespace

TEST_F(CallbackTest, ErrorPassesErrnoAndTextThenEmptiesStack) {
    LUA_OK(R"(
        local height, top = call_error(7, -1, "Socket has been closed!", 104)
        assert(height == 0 and top == "none", height)
        local c = calls[1]
        assert(c[1] == "on_error" and c[2] == 104 and c[3] == "Socket has been closed!")
    )");
}

TEST_F(CallbackTest, ErrorIgnoresDescriptorZero) {
    LUA_OK(R"(
        local height, top = call_error(0, 5, "x", 1)
        assert(height == 4 and top == "number", "stack untouched: " .. height)
        assert(#calls == 0)
    )");
}

TEST_F(CallbackTest, OpenLeavesOptionsTableOnStack) {
    LUA_OK(R"(
        local height, top = call_open(7)
        assert(height == 1 and top == "table", height .. top)
        height, top = call_tcp_open(7)
        assert(height == 1 and top == "table")
        assert(#calls == 2 and calls[1][1] == "on_open" and #calls[1] == 1)
    )");
}

TEST_F(CallbackTest, FailingOpenLeavesItsMessageAboveTable) {
    LUA_OK(R"(
        debug.getregistry()["sockfd-7"].on_open = function() error("boom") end
        local height, top = call_open(7)
        assert(height == 2 and top == "string", height)
    )");
}

TEST_F(CallbackTest, CloseAndReceivePassArgumentsInOrder) {
    LUA_OK(R"(
        assert(call_close(7, "User do close") == 0)
        assert(call_receive(7, "abc", nil, -1) == 0)
        assert(call_receive(7, "hi\0there", "10.0.0.5", 5353) == 0)
        assert(call_receive(7, "", "", -1) == 0)
        assert(calls[1][1] == "on_close" and calls[1][2] == "User do close")
        local m = calls[2]
        assert(m[1] == "on_message" and m[2] == "abc" and m[3] == nil and m[4] == -1)
        assert(select("#", unpack(m)) == 4)
        m = calls[3]
        assert(m[2] == "hi" and m[3] == "10.0.0.5" and m[4] == 5353, "text ends at zero byte")
        assert(calls[4][2] == "" and calls[4][3] == "")
    )");
}

TEST_F(CallbackTest, ScriptErrorsAndMissingCallbacksAreSwallowed) {
    LUA_OK(R"(
        local opts = debug.getregistry()["sockfd-7"]
        opts.on_message = function() error("script bug") end
        opts.on_close = nil
        opts.on_error = 42
        assert(call_receive(7, "x", nil, -1) == 0)
        assert(call_close(7, "gone") == 0)
        assert(call_error(7, 1, "e", 0) == 0)
    )");
}

TEST_F(CallbackTest, UnregisteredDescriptorRaisesIndexingError) {
    EXPECT_THAT(run("call_close(8, 'x')"), HasSubstr("attempt to index a nil value"));
    EXPECT_THAT(run("call_error(-1, 1, 'x', 0)"), HasSubstr("attempt to index a nil value"));
}
