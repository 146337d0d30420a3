-- The built module loads into a stock interpreter and exposes its table.
local m = require("ws_client")
assert(type(m) == "table" and m == ws_client, "module table is the global ws_client")
local count = 0
for name, f in pairs(m) do count = count + 1; assert(type(f) == "function", name) end
assert(count == 17 and m.loop_start and m.set_debug, "expected 17 functions, got " .. count)
assert(type(debug.getregistry()["{SOCKET_TCP}"]) == "table", "metatables registered")
