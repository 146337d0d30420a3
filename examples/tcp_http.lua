-- TCP request/response: an HTTP GET whose answer comes back chunked.
--
-- The module's TCP receive path reads until the server closes the connection,
-- then undoes the chunked transfer coding and calls on_message once with the
-- whole answer: status line and headers, a line break, the decoded body, a
-- line break. So this fits servers that close after answering (as HTTP with
-- "Connection: close" does).
--
--   LUA_CPATH="build/?.so" lua5.1 examples/tcp_http.lua       (peer: tools/peer.py)
-- PEER_HOST (a dotted IPv4 address: names are not resolved) and
-- PEER_HTTP_PORT pick the server.

local ws_client = require("ws_client")

-- The module runs callbacks in protected mode and drops their errors: each
-- callback here goes through this guard, which prints an error with its
-- traceback instead of letting it vanish.
local unpack = table.unpack or unpack
local function guarded(f)
  return function(...)
    local args = { n = select("#", ...), ... }
    local ok, err = xpcall(function() return f(unpack(args, 1, args.n)) end, debug.traceback)
    if not ok then
      io.stderr:write("callback error: ", tostring(err), "\n")
    end
  end
end

local ip = os.getenv("PEER_HOST") or "127.0.0.1"
local port = tonumber(os.getenv("PEER_HTTP_PORT")) or 8805
local SECONDS = 10

local answer
local conn = ws_client.tcp_connect(ws_client.tcp_new(), {
  type = 1,                            -- TCP
  ip = ip, port = port,
  is_secure = 0,                       -- 1: TLS with the client certificate below
  crt = "", prikey = "",               -- required even for plain TCP
  on_open = guarded(function() print("connected to " .. ip .. ":" .. port) end),
  on_message = guarded(function(data, from, from_port)   -- from is "", from_port -1
    answer = data
    ws_client.loop_stop()
  end),
  on_error = guarded(function(errno, text) print("error " .. errno .. ": " .. text) end),
  on_close = guarded(function(reason) print("closed: " .. reason) end),
})
if not conn then                       -- on_error and on_close said why
  os.exit(1)
end

-- Sends are synchronous and one-shot: the result is the byte count written.
local sent = ws_client.tcp_send(conn, "GET /example HTTP/1.1\r\nHost: " .. ip .. "\r\nConnection: close\r\n\r\n")
print("sent " .. sent .. " bytes")

local started = os.time()
ws_client.loop_start(function()
  if os.time() - started >= SECONDS then ws_client.loop_stop() end
end, 1, 1)
ws_client.tcp_close(conn)              -- "User do close"; the peer has closed already

if not answer then
  print("no answer")
  os.exit(1)
end
for line in (answer .. "\n"):gmatch("(.-)\r?\n") do
  print("| " .. line)
end
os.exit(answer:match("^HTTP/1%.1 200") and 0 or 1)
