// An interpreter with the module preloaded, for the benchmarks' scripts.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "luacli.h"

// A fresh state where require("ws_client") loads the linked-in module.
inline lua_State* open_state_with_module() {
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    lua_getglobal(L, "package");
    lua_getfield(L, -1, "preload");
    lua_pushcfunction(L, luaopen_ws_client);
    lua_setfield(L, -2, "ws_client");
    lua_settop(L, 0);
    return L;
}

// Pushes the compiled script; a script that does not compile ends the run.
inline void load_script(lua_State* L, const char* script) {
    if (luaL_loadstring(L, script) != 0) {
        std::fprintf(stderr, "%s\n", lua_tostring(L, -1));
        std::exit(1);
    }
}

// Runs the loaded script with the `nargs` values above it; its one result is
// left on the stack. Returns the seconds it took; a script error ends the run.
inline double run_script_timed(lua_State* L, int nargs) {
    const auto start = std::chrono::steady_clock::now();
    if (lua_pcall(L, nargs, 1, 0) != 0) {
        std::fprintf(stderr, "%s\n", lua_tostring(L, -1));
        std::exit(1);
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    return elapsed.count();
}
