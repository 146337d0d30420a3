// The interpreter's API as the module uses it, for Lua 5.1 to 5.4 and LuaJIT.
// The sources are written against 5.1; the calls later versions dropped or changed
// are spelled here in terms of what they kept, so 5.1 and LuaJIT compile the
// calls they always did.
#pragma once

#include <cstddef>

#include <lua.hpp>

#if !defined(LUA_VERSION_NUM) || LUA_VERSION_NUM < 501 || LUA_VERSION_NUM > 504
#error "ws_client builds against Lua 5.1, 5.2, 5.3, 5.4 or LuaJIT"
#endif

// Size of a user data block.
inline std::size_t lua_api_rawlen(lua_State* L, int index) {
#if LUA_VERSION_NUM == 501
    return lua_objlen(L, index);
#else
    return lua_rawlen(L, index);
#endif
}

// luaL_newmetatable without the __name field 5.3 and later add: the
// metatables stay empty and type errors say "userdata", as on 5.1.
inline int lua_api_newmetatable(lua_State* L, const char* name) {
    const int created = luaL_newmetatable(L, name);
#if LUA_VERSION_NUM >= 503
    if (created) {
        lua_pushnil(L);
        lua_setfield(L, -2, "__name");
    }
#endif
    return created;
}

// luaL_openlib(L, name, funcs, 0) for a name without dots: the table is
// package.loaded[name], else the global of that name (made when nil; any
// other value is a name conflict), stored back in package.loaded; the
// functions are set in it and it is left on the stack. Globals are read and
// written raw, as 5.1 does.
inline void lua_api_openlib(lua_State* L, const char* name, const luaL_Reg* funcs) {
#if LUA_VERSION_NUM == 501
    luaL_openlib(L, name, funcs, 0);
#else
    luaL_getsubtable(L, LUA_REGISTRYINDEX, "_LOADED");
    lua_getfield(L, -1, name);
    if (!lua_istable(L, -1)) {
        lua_pop(L, 1);
        lua_rawgeti(L, LUA_REGISTRYINDEX, LUA_RIDX_GLOBALS);
        lua_pushstring(L, name);
        lua_rawget(L, -2);  // _LOADED, _G, _G[name]
        if (lua_isnil(L, -1)) {
            lua_pop(L, 1);
            lua_newtable(L);
            lua_pushstring(L, name);
            lua_pushvalue(L, -2);
            lua_rawset(L, -4);
        } else if (!lua_istable(L, -1)) {
            luaL_error(L, "name conflict for module '%s'", name);
        }
        lua_remove(L, -2);  // _LOADED, table
        lua_pushvalue(L, -1);
        lua_setfield(L, -3, name);
    }
    lua_remove(L, -2);
    luaL_setfuncs(L, funcs, 0);
#endif
}
