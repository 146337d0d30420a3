// Calls into the script: arguments, order, protection and stack effects.
#include <gmock/gmock.h>

#include <cerrno>

#include "callbacks.h"
#include "lua_fixture.h"

using ::testing::HasSubstr;

namespace {

int32_t fd_arg(lua_State* L) { return static_cast<int32_t>(luaL_checkinteger(L, 1)); }

// Each binding calls one callback and returns the stack height it left and
// the type name of the top value.
int report_stack(lua_State* L) {
    const int height = lua_gettop(L);
    lua_pushinteger(L, height);
    lua_pushstring(L, height > 0 ? luaL_typename(L, -2) : "none");
    return 2;
}

const luaL_Reg bindings[] = {
    {"call_error", [](lua_State* L) {
         errno = static_cast<int>(luaL_checkinteger(L, 4));
         error_callback(L, fd_arg(L), static_cast<int>(luaL_checkinteger(L, 2)), luaL_checkstring(L, 3));
         return report_stack(L);
     }},
    {"call_open", [](lua_State* L) { connect_callback(L, fd_arg(L)); return report_stack(L); }},
    {"call_tcp_open", [](lua_State* L) {
         tcp_record record{};
         record.sockfd = fd_arg(L);
         lua_settop(L, 0);
         tcp_connect_callback(L, &record);
         return report_stack(L);
     }},
    {"call_close", [](lua_State* L) { close_callback(L, fd_arg(L), luaL_checkstring(L, 2)); return report_stack(L); }},
    {"call_receive", [](lua_State* L) {
         receive_callback(L, fd_arg(L), luaL_checkstring(L, 2), lua_tostring(L, 3),
                          static_cast<int>(luaL_checkinteger(L, 4)));
         return report_stack(L);
     }},
};

class CallbackTest : public LuaTest {
protected:
    void SetUp() override {
        LuaTest::SetUp();
        for (const luaL_Reg& binding : bindings)
            expose(binding.name, binding.func);
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

TEST_F(CallbackTest, ArgumentsInOrderAndStackEffects) {
    LUA_OK(R"(
        local function is(c, ...) assert(select("#", unpack(c)) == select("#", ...), c[1])
          for i = 1, select("#", ...) do assert(c[i] == select(i, ...), c[1] .. " arg " .. i) end end
        assert(call_error(7, -1, "Socket has been closed!", 104) == 0, "emptied")
        assert(call_error(0, 5, "x", 1) == 4, "descriptor 0: nothing called, stack untouched")
        assert(call_close(7, "User do close") == 0)
        assert(call_receive(7, "abc", nil, -1) == 0)
        assert(call_receive(7, "hi\0there", "10.0.0.5", 5353) == 0)
        local h1, t1 = call_open(7)
        local h2, t2 = call_tcp_open(7)
        assert(h1 == 2 and t1 == "table" and h2 == 1 and t2 == "table", "the options table stays")
        is(calls[1], "on_error", 104, "Socket has been closed!")  -- errno, not the number passed
        is(calls[2], "on_close", "User do close")
        is(calls[3], "on_message", "abc", nil, -1)
        is(calls[4], "on_message", "hi", "10.0.0.5", 5353)
        is(calls[5], "on_open")
        assert(#calls == 6)
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
    EXPECT_THAT(run("call_close(8, 'x')"), HasSubstr("attempt to index a nil value"));
}
