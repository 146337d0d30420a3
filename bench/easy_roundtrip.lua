-- Per-message cost of ws_client.easy over the bare core: WebSocket round
-- trips of 32-byte texts against the local peer's echo, one in flight, COUNT
-- (default 10000) each way, alternating ROUNDS (default 3) times in the same
-- run. Prints round trips per second and the client's CPU time per round trip
-- (os.clock), which leaves out the peer's share. "easy+timer" runs with a
-- repeating 0.5 s timer, so the loop polls (and reads the clock) every pass.
--
--   LUA_CPATH="build/?.so" LUA_PATH="src/?.lua;;" scripts/with_peer.sh -- lua5.1 bench/easy_roundtrip.lua
local core = require("ws_client")
local easy = require("ws_client.easy")
local host, port = os.getenv("PEER_HOST") or "127.0.0.1", tonumber(os.getenv("PEER_WS_PORT")) or 8801
local COUNT, ROUNDS = tonumber(os.getenv("COUNT")) or 10000, tonumber(os.getenv("ROUNDS")) or 3
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

local function companion(with_timer)
  return function()
    local n = 0
    local ws = assert(easy.connect("ws://" .. host .. ":" .. port .. "/echo", { on_message = function(self)
      n = n + 1
      if n < COUNT then self:send(text) else easy.stop() end
    end }))
    local timer = with_timer and easy.every(0.5, function() end)
    ws:send(text)
    easy.run()
    ws:close()
    if timer then timer:cancel() end
  end
end

local cases = { { "core", bare }, { "easy", companion(false) }, { "easy+timer", companion(true) } }
local totals = {}
for _ = 1, ROUNDS do
  for _, case in ipairs(cases) do
    local t, c = easy.now(), os.clock()
    case[2]()
    local total = totals[case[1]] or { 0, 0 }
    totals[case[1]] = { total[1] + easy.now() - t, total[2] + os.clock() - c }
  end
end
for _, case in ipairs(cases) do
  local t, n = totals[case[1]], COUNT * ROUNDS
  print(string.format("%-10s %6.0f round trips/s, %5.1f us client CPU per round trip (%d in %.1f s)",
    case[1], n / t[1], t[2] / n * 1e6, n, t[1]))
end
