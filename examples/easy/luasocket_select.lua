-- ws_client.easy under LuaSocket's select(): a LuaSocket TCP server bridged
-- to a WebSocket echo.
--
-- A LuaSocket TCP client sends lines to a LuaSocket server in the same
-- process; the server hands each line to the WebSocket, and each echo goes
-- back down the TCP connection. One socket.select() watches all four
-- sockets (easy objects answer getfd()); easy.step(0) serves the module's
-- side after each wake-up, and its result bounds the next wait.
--
--   LUA_CPATH="build/?.so" LUA_PATH="src/?.lua;;" lua5.1 examples/easy/luasocket_select.lua
-- PEER_HOST, PEER_WS_PORT pick the peer.

local socket = require("socket")
local easy = require("ws_client.easy")

local host = os.getenv("PEER_HOST") or "127.0.0.1"
local url = "ws://" .. host .. ":" .. (os.getenv("PEER_WS_PORT") or 8801) .. "/echo"
local LINES, SECONDS = 5, 20

local server = assert(socket.bind("127.0.0.1", 0))
server:settimeout(0)
local ip, port = server:getsockname()
local client = assert(socket.connect(ip, port))  -- the listen queue takes it
client:settimeout(0)
local bridged  -- the server's side of the client's connection

local ws, err = easy.connect(url, {
  on_message = function(self, text) bridged:send(text .. "\n") end,  -- the echo goes back down
})
if not ws then print("connect failed: " .. err) os.exit(1) end

local sent, echoed = 0, 0
local sender = easy.every(0.1, function(timer)  -- an easy timer, fired by step()
  sent = sent + 1
  client:send("line " .. sent .. "\n")
  if sent == LINES then timer:cancel() end
end)

local deadline, wait = socket.gettime() + SECONDS, 0
while echoed < LINES and socket.gettime() < deadline do
  local watched = { server, client, ws, bridged }  -- bridged last: nil until accepted
  local readable = socket.select(watched, nil, math.min(wait or 1, 1))  -- easy's next timer bounds the wait
  for _, s in ipairs(readable) do
    if s == server then
      bridged = server:accept()
      bridged:settimeout(0)
    elseif s == bridged then
      local line = bridged:receive("*l")
      if line then ws:send(line) end
    elseif s == client then
      local line = client:receive("*l")
      if line then echoed = echoed + 1; print("bridge echo: " .. line) end
    end
  end
  wait = easy.step(0)  -- whatever woke select(): the module's sockets and timers
end
sender:cancel()
ws:close()
client:close(); if bridged then bridged:close() end; server:close()
print(echoed .. " of " .. LINES .. " lines came back over the WebSocket")
os.exit(echoed == LINES and 0 or 1)
