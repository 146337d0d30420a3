// Module entry. The headers below are what the bindings use; nothing but
// luacli.cpp includes this one.
#pragma once

#include "lua_api.h"

#include "options.h"
#include "socket_table.h"
#include "tools.h"
#include "ws_client.h"

extern "C" int luaopen_ws_client(lua_State* L);
