#include "lua_fixture.h"

#include <algorithm>

void LuaTest::SetUp() {
    std::fill(std::begin(socktbl), std::end(socktbl), 0);
    L = luaL_newstate();
    ASSERT_NE(L, nullptr);
    luaL_openlibs(L);
    lua_getglobal(L, "package");
    lua_getfield(L, -1, "preload");
    lua_pushcfunction(L, luaopen_ws_client);
    lua_setfield(L, -2, "ws_client");
    lua_settop(L, 0);
    ASSERT_EQ(run("ws = require('ws_client')"), "");
}

void LuaTest::TearDown() {
    lua_close(L);
    std::fill(std::begin(socktbl), std::end(socktbl), 0);
    debug_log_set_path("NULL");
}

std::string LuaTest::run(const std::string& code) {
    lua_settop(L, 0);
    if (luaL_loadbuffer(L, code.data(), code.size(), "snippet") != 0 || lua_pcall(L, 0, 0, 0) != 0) {
        const char* message = lua_tostring(L, -1);
        std::string result = message != nullptr ? message : "(non-string error)";
        lua_settop(L, 0);
        return result;
    }
    lua_settop(L, 0);
    return "";
}

void LuaTest::expose(const char* name, lua_CFunction function) {
    lua_pushcfunction(L, function);
    lua_setglobal(L, name);
}

std::string LuaTest::global_string(const char* name) {
    lua_getglobal(L, name);
    size_t length = 0;
    const char* text = lua_tolstring(L, -1, &length);
    std::string result = text != nullptr ? std::string(text, length) : "(nil)";
    lua_pop(L, 1);
    return result;
}

double LuaTest::global_number(const char* name) {
    lua_getglobal(L, name);
    const double value = lua_tonumber(L, -1);
    lua_pop(L, 1);
    return value;
}
