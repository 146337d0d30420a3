-- Cost of driving the loop from outside: WebSocket round trips of 32-byte
-- texts against the local peer's echo, one in flight, COUNT (default 5000)
-- per case, the cases alternating ROUNDS (default 3) times in the same run:
--   loop_start    the bare core's own loop
--   easy.run      the companion module's loop (loop_start underneath)
--   select+step   LuaSocket's socket.select() on the object, then easy.step(0)
--   step(1)       easy.step(1) alone, its own select() doing the wait
-- Prints microseconds per round trip (wall clock) and the client's CPU time
-- per round trip (os.clock: the peer's share left out).
--
--   LUA_CPATH="build/?.so;;" LUA_PATH="src/?.lua;;" scripts/with_peer.sh -- lua5.1 bench/easy_step.lua
local core = require("ws_client")
local easy = require("ws_client.easy")
local socket = require("socket")
local host, port = os.getenv("PEER_HOST") or "127.0.0.1", tonumber(os.getenv("PEER_WS_PORT")) or 8801
local COUNT, ROUNDS = tonumber(os.getenv("COUNT")) or 5000, tonumber(os.getenv("ROUNDS")) or 3
local text = ("0123456789abcdef"):rep(2)

local function bare()
  local n, ws = 0, nil
  ws = assert(core.ws_connect(core.ws_new(), { type = 0, url = "ws://" .. host .. "/echo", port = port,
    timeout = 5, crt = "", prikey = "", on_message = function()
      n = n + 1
      if n < COUNT then core.ws_send(ws, text) else core.loop_stop() end
    end }))
  core.ws_send(ws, text)
  core.loop_start(function() end, 1, 1)
  core.ws_close(ws)
end

-- drive(ws, done): serves ws until done() is true
local function companion(drive)
  return function()
    local n = 0
    local ws = assert(easy.connect("ws://" .. host .. ":" .. port .. "/echo", { on_message = function(self)
      n = n + 1
      if n < COUNT then self:send(text) elseif not drive then easy.stop() end
    end }))
    ws:send(text)
    if drive then drive(ws, function() return n >= COUNT end) else easy.run() end
    ws:close()
  end
end

local function under_select(ws, done)
  local set = { ws }
  while not done() do
    socket.select(set, nil, 1)
    easy.step(0)
  end
end

local function step_alone(ws, done)
  while not done() do easy.step(1) end
end

local cases = { { "loop_start", bare }, { "easy.run", companion(nil) },
  { "select+step", companion(under_select) }, { "step(1)", companion(step_alone) } }
local totals = {}
for _ = 1, ROUNDS do
  for _, case in ipairs(cases) do
    local t, c = socket.gettime(), os.clock()
    case[2]()
    local total = totals[case[1]] or { 0, 0 }
    totals[case[1]] = { total[1] + socket.gettime() - t, total[2] + os.clock() - c }
  end
end
for _, case in ipairs(cases) do
  local t, n = totals[case[1]], COUNT * ROUNDS
  print(string.format("%-12s %6.1f us per round trip, %5.1f us client CPU (%d in %.2f s)",
    case[1], t[1] / n * 1e6, t[2] / n * 1e6, n, t[1]))
end
