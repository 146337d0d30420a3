// Calls into the script: arguments, order, protection and stack effects.
#include "callbacks.h"
#include "lua_fixture.h"

namespace {

int32_t fd_arg(lua_State* L) { return static_cast<int32_t>(luaL_checkinteger(L, 1)); }
int height(lua_State* L) { return lua_pushinteger(L, lua_gettop(L)), 1; }  // what the callback left

const luaL_Reg bindings[] = {
    {"call_error", [](lua_State* L) {
         errno = static_cast<int>(luaL_checkinteger(L, 4));
         error_callback(L, fd_arg(L), static_cast<int>(luaL_checkinteger(L, 2)), luaL_checkstring(L, 3));
         return height(L);
     }},
    {"call_open", [](lua_State* L) { return connect_callback(L, fd_arg(L)), height(L); }},
    {"call_close", [](lua_State* L) { return close_callback(L, fd_arg(L), luaL_checkstring(L, 2)), height(L); }},
    {"call_receive", [](lua_State* L) {
         receive_callback(L, fd_arg(L), luaL_checkstring(L, 2), lua_tostring(L, 3),
                          static_cast<int>(luaL_checkinteger(L, 4)));
         return height(L);
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
        -- every callback leaves the stack as it found it: what keeps records alive
        assert(call_error(7, -1, "Socket has been closed!", 104) == 4)
        assert(call_error(0, 5, "x", 1) == 4, "descriptor 0: nothing called")
        assert(call_close(7, "User do close") == 2)
        assert(call_receive(7, "abc", nil, -1) == 4)
        assert(call_receive(7, "hi\0there", "10.0.0.5", 5353) == 4)
        assert(call_open(7) == 1)
        is(calls[1], "on_error", 104, "Socket has been closed!")  -- errno, not the number passed
        is(calls[2], "on_close", "User do close")
        is(calls[3], "on_message", "abc", nil, -1)
        is(calls[4], "on_message", "hi", "10.0.0.5", 5353)
        is(calls[5], "on_open")
    )");
}

TEST_F(CallbackTest, ScriptErrorsAndMissingCallbacksAreSwallowed) {
    LUA_OK(R"(
        local opts = debug.getregistry()["sockfd-7"]
        opts.on_message, opts.on_close, opts.on_error = function() error("script bug") end, nil, 42
        assert(call_receive(7, "x", nil, -1) + call_close(7, "gone") + call_error(7, 1, "e", 0) == 4 + 2 + 4)
    )");
    EXPECT_THAT(run("call_close(8, 'x')"), ::testing::HasSubstr("attempt to index a nil value"));
}
