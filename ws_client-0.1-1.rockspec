rockspec_format = "3.0"
package = "ws_client"
version = "0.1-1"
source = {
   -- an archive of the tree: git archive --prefix=ws_client-0.1/ -o ws_client-0.1.tar.gz HEAD
   url = "ws_client-0.1.tar.gz",
   dir = "ws_client-0.1",
}
description = {
   summary = "WebSocket, TCP and UDP client sockets with one select() event loop",
   detailed = [[
A C++20 extension module for Lua 5.1 and LuaJIT: WebSocket clients (ws:// and
wss://), TCP clients (plain, or TLS with a client certificate; chunked HTTP
answers decoded), UDP sockets, and a single-threaded event loop with callbacks
and a periodic function; ws_client.easy, a plain Lua companion, adds objects
with methods, nil-and-error results, timers and reconnecting. Needs OpenSSL 3,
CMake and a C++20 compiler.
]],
   license = "Proprietary",
}
dependencies = {
   "lua ~> 5.1",
}
build = {
   type = "cmake",
   variables = {
      CMAKE_BUILD_TYPE = "Release",
      CMAKE_INSTALL_PREFIX = "$(PREFIX)",
      -- the rock's own C module directory instead of the system's
      WS_CLIENT_INSTALL_CMOD = "$(LIBDIR)",
      -- and ws_client/easy.lua under its Lua module directory
      WS_CLIENT_INSTALL_LMOD = "$(LUADIR)",
      WS_CLIENT_TESTS = "OFF",
      WS_CLIENT_SCRIPT_TESTS = "OFF",
   },
}
