-- UDP sender and receiver with ws_client.easy: COUNT datagrams to an echo
-- server, one every 0.1 s, and the echoes with their sender. The socket is
-- made at the first sendto, when the system picks its local port.
--
--   LUA_CPATH="build/?.so" LUA_PATH="src/?.lua;;" lua5.1 examples/easy/udp_echo.lua
-- PEER_HOST and PEER_UDP_PORT pick the echo server.

local easy = require("ws_client.easy")

local ip = os.getenv("PEER_HOST") or "127.0.0.1"
local port = tonumber(os.getenv("PEER_UDP_PORT")) or 8806
local COUNT, SECONDS = 5, 10

local sent, received = 0, 0
local udp = easy.udp{
  on_message = function(self, data, from, from_port)
    received = received + 1
    print(string.format("echo from %s:%d: %s", from, from_port, data))
    if received == COUNT then easy.stop() end
  end,
}

easy.every(0.1, function(timer)
  sent = sent + 1
  print("sent datagram " .. sent .. " (" .. assert(udp:sendto("datagram " .. sent, ip, port)) .. " bytes)")
  if sent == COUNT then timer:cancel() end
end)
easy.after(SECONDS, easy.stop)
easy.run()
udp:close()
print(string.format("%d sent, %d echoed", sent, received))
os.exit(received == COUNT and 0 or 1)
