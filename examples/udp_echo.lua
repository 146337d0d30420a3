-- UDP sender and receiver: sends COUNT datagrams to an echo server and
-- receives the echoes with the sender's address and port.
--
-- A UDP object has no peer of its own: every udp_sendto names the address and
-- port, and on_message gets whoever sent the datagram. Its local port is
-- picked by the system at the first send.
--
--   LUA_CPATH="build/?.so" lua5.1 examples/udp_echo.lua       (peer: tools/peer.py)
-- PEER_HOST and PEER_UDP_PORT pick the echo server.

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
local port = tonumber(os.getenv("PEER_UDP_PORT")) or 8806
local COUNT, SECONDS = 5, 10

local sent, received = 0, 0
-- udp_connect registers the socket with the loop and returns a copy of the
-- object; either can be used afterwards.
local udp = ws_client.udp_connect(ws_client.udp_new(), {
  type = 2,                            -- UDP
  on_message = guarded(function(data, from, from_port)
    received = received + 1
    print(string.format("echo from %s:%d: %s", from, from_port, data))
  end),
  on_error = guarded(function(errno, text) print("error " .. errno .. ": " .. text) end),
  on_close = guarded(function(reason) print("closed: " .. reason) end),
})

local started = os.time()
local function tick()
  if sent < COUNT then
    sent = sent + 1
    -- Data is text: a zero byte would end the datagram there.
    local bytes = ws_client.udp_sendto(udp, "datagram " .. sent, ip, port)
    print("sent datagram " .. sent .. " (" .. bytes .. " bytes)")
  end
  if received >= COUNT or os.time() - started >= SECONDS then
    ws_client.loop_stop()
  end
end

-- interval_sec 0: the tick runs on every pass, and a pass waits at most 2 ms.
ws_client.loop_start(tick, 1, 0)
ws_client.udp_close(udp)
print(string.format("%d sent, %d echoed", sent, received))
os.exit(received == COUNT and 0 or 1)
