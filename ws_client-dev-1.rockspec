-- A checkout builds with `luarocks make` (OpenSSL). scripts/rockspec.sh
-- derives from this file the rockspec for mbedTLS or wolfSSL (TLS=...) and
-- the release's (`make dist`: the version from VERSION, the tarball's URL).
rockspec_format = "3.0"
package = "ws_client"
version = "dev-1"
source = {
   url = "git+file://.",
}
description = {
   summary = "WebSocket, TCP and UDP client sockets with one select() event loop",
   detailed = [[
A C++20 extension module for Lua 5.1, 5.2, 5.3, 5.4 and LuaJIT on Linux:
WebSocket clients (ws:// and wss://), TCP clients (plain, or TLS with a client
certificate; chunked HTTP answers decoded), UDP sockets, and a single-threaded
event loop with callbacks and a periodic function; ws_client.easy, a plain Lua
companion, adds objects with methods, nil-and-error results, timers and
reconnecting. Needs CMake, a C++20 compiler and one TLS library: OpenSSL 3,
mbedTLS 2.28 or 3.6, or wolfSSL (the external dependency named below).
]],
   license = "MIT",
   labels = { "websocket", "tcp", "udp", "tls", "networking" },
}
supported_platforms = { "linux" }
dependencies = {
   "lua >= 5.1, < 5.5",
}
external_dependencies = {
   OPENSSL = { header = "openssl/ssl.h", library = "ssl" },
}
build = {
   type = "cmake",
   variables = {
      CMAKE_BUILD_TYPE = "Release",
      CMAKE_INSTALL_PREFIX = "$(PREFIX)",
      WS_CLIENT_INSTALL_CMOD = "$(LIBDIR)",
      -- and ws_client/easy.lua under its Lua module directory
      WS_CLIENT_INSTALL_LMOD = "$(LUADIR)",
      WS_CLIENT_INSTALL_STRIP = "ON",
      -- luarocks' own Lua headers and TLS library, not pkg-config's
      LUA_INCDIR = "$(LUA_INCDIR)",
      LUA_LIBDIR = "$(LUA_LIBDIR)",
      WS_CLIENT_TLS = "openssl",
      WS_CLIENT_TLS_INCDIR = "$(OPENSSL_INCDIR)",
      WS_CLIENT_TLS_LIBDIR = "$(OPENSSL_LIBDIR)",
      WS_CLIENT_TESTS = "OFF",
      WS_CLIENT_SCRIPT_TESTS = "OFF",
   },
}
