-- WebSocket handshakes one after another against the local peer (its PEER_*
-- settings from the environment, as scripts/with_peer.sh exports them): TCP
-- connect, TLS handshake (wss) and WebSocket upgrade, then a close. Prints
-- the wall time and this process's CPU time per handshake.
--   lua5.1 bench/handshake.lua COUNT [wss|ws]
local ws_client = require("ws_client")
local count = tonumber(arg[1]) or 100
local host = os.getenv("PEER_HOST") or "127.0.0.1"
local scheme = arg[2] or "wss"
local port = assert(tonumber(os.getenv(scheme == "ws" and "PEER_WS_PORT" or "PEER_WSS_PORT")), "no PEER_ port set")

local function now()  -- wall clock in seconds, sub-second where /proc/uptime has it
  local file = assert(io.open("/proc/uptime"))
  local uptime = tonumber(file:read("*l"):match("^(%S+)"))
  file:close()
  return uptime
end

local started, cpu = now(), os.clock()
for _ = 1, count do
  local conn = ws_client.ws_connect(ws_client.ws_new(), {
    type = 0, url = scheme .. "://" .. host .. "/echo", port = port, timeout = 5, crt = "", prikey = "",
    on_message = function() end,
    on_error = function(errno, text) error(scheme .. " error " .. errno .. ": " .. text) end,
  })
  assert(conn, scheme .. " connect failed")
  ws_client.ws_close(conn)
end
local seconds, cpu_seconds = now() - started, os.clock() - cpu
print(string.format("%d %s handshakes in %.2f s: %.2f ms each, %.2f ms of this process's CPU", count, scheme,
  seconds, seconds * 1000 / count, cpu_seconds * 1000 / count))
