-- The module loads and maps the TLS library named by arg[1] (a file name
-- such as libmbedtls.so.3.6.6), not another version found first.
require("ws_client")
local maps = assert(io.open("/proc/self/maps")):read("*a")
assert(maps:find("/" .. arg[1] .. "\n", 1, true), "not mapped: " .. arg[1])
