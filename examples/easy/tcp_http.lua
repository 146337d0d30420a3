-- TCP request/response with ws_client.easy: an HTTP GET whose answer comes
-- back chunked (see examples/tcp_http.lua for how the core reads it: until
-- the server closes, then de-chunked, in one on_message).
--
--   LUA_CPATH="build/?.so" LUA_PATH="src/?.lua;;" lua5.1 examples/easy/tcp_http.lua
-- PEER_HOST (a dotted IPv4 address) and PEER_HTTP_PORT pick the server.

local easy = require("ws_client.easy")

local ip = os.getenv("PEER_HOST") or "127.0.0.1"
local url = "tcp://" .. ip .. ":" .. (os.getenv("PEER_HTTP_PORT") or 8805)

local answer, limit
local conn, err = easy.connect(url, {
  on_open = function(self) print("connected to " .. self.url) end,
  on_message = function(self, data) answer = data; self:close(); limit:cancel() end,  -- nothing left: run() returns
  on_close = function(self, reason) print("closed: " .. reason) end,
})
if not conn then print("connect failed: " .. err) os.exit(1) end

print("sent " .. assert(conn:send("GET /example HTTP/1.1\r\nHost: " .. ip .. "\r\nConnection: close\r\n\r\n")) .. " bytes")
limit = easy.after(10, function() conn:close() end)
easy.run()

if not answer then print("no answer") os.exit(1) end
for line in (answer .. "\n"):gmatch("(.-)\r?\n") do print("| " .. line) end
os.exit(answer:match("^HTTP/1%.1 200") and 0 or 1)
