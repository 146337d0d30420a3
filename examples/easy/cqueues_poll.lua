-- ws_client.easy inside a cqueues controller, beside a cqueues socket.
--
-- One coroutine talks to the peer's TCP echo over a cqueues socket and hands
-- each echoed line to a WebSocket; another drives the module: it waits with
-- cqueues.poll() on the WebSocket object (easy objects answer pollfd() and
-- events()) for at most as long as easy.step() said its next timer is away,
-- then runs easy.step(0). The controller runs both in one thread.
--
--   LUA_CPATH="build/?.so;;" LUA_PATH="src/?.lua;;" lua5.1 examples/easy/cqueues_poll.lua
-- PEER_HOST, PEER_WS_PORT, PEER_TCP_PORT pick the peer.

local cqueues = require("cqueues")
local csocket = require("cqueues.socket")
local easy = require("ws_client.easy")

local host = os.getenv("PEER_HOST") or "127.0.0.1"
local url = "ws://" .. host .. ":" .. (os.getenv("PEER_WS_PORT") or 8801) .. "/echo"
local LINES, SECONDS = 5, 20

local echoed, done = 0, false
local ws, err = easy.connect(url, {
  on_message = function(self, text)
    echoed = echoed + 1
    print("ws echo: " .. text)
    done = echoed == LINES
  end,
})
if not ws then print("connect failed: " .. err) os.exit(1) end

local cq = cqueues.new()

cq:wrap(function()  -- the cqueues socket: lines to the TCP echo, echoes on to the WebSocket
  local tcp = assert(csocket.connect(host, tonumber(os.getenv("PEER_TCP_PORT") or 8803)))
  tcp:setmode("t", "t")
  for i = 1, LINES do
    assert(tcp:write("line " .. i .. "\n"))
    local line = assert(tcp:read("*l"))
    print("tcp echo: " .. line)
    ws:send(line)
  end
  tcp:close()
end)

cq:wrap(function()  -- the module, served whenever its socket is readable
  local wait = 0
  local deadline = cqueues.monotime() + SECONDS
  while not done and cqueues.monotime() < deadline do
    cqueues.poll(ws, math.min(wait or 1, 1))
    wait = easy.step(0)
  end
  cqueues.cancel(ws:pollfd())  -- cqueues forgets the descriptor before it is closed
  ws:close()
end)

local ok, e = cq:loop(SECONDS + 5)
if not ok then print("cqueues: " .. tostring(e)) end
print(echoed .. " of " .. LINES .. " lines came back over the WebSocket")
os.exit((ok and echoed == LINES) and 0 or 1)
