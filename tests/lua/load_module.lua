-- The built module loads into a stock interpreter and exposes its table.
local m = require("ws_client")
assert(type(m) == "table" and m == ws_client, "module table is the global ws_client")
local names = { "new", "ws_new", "udp_new", "tcp_new", "ws_connect", "udp_connect", "tcp_connect",
  "ws_send", "tcp_send", "udp_sendto", "udp_close", "ws_close", "tcp_close",
  "loop_start", "loop_stop", "sleep", "set_debug" }
local count = 0
for _ in pairs(m) do count = count + 1 end
assert(count == #names, "expected " .. #names .. " functions, got " .. count)
for _, name in ipairs(names) do
  assert(type(m[name]) == "function", name .. " is missing")
end
for _, mt in ipairs({ "{SOCKET_WS}", "{SOCKET_UDP}", "{SOCKET_TCP}" }) do
  assert(type(debug.getregistry()[mt]) == "table", mt .. " metatable missing")
end
