-- Per-message cost of ws_client.easy over the bare core: WebSocket round
-- trips of 32-byte texts against the local peer's echo, one in flight, for
-- SECONDS (default 3) each way, alternating ROUNDS (default 3) times in the
-- same run. Prints round trips per second and the client's CPU time per
-- round trip (os.clock), which leaves out the peer's share.
--
--   LUA_CPATH="build/?.so" LUA_PATH="src/?.lua;;" scripts/with_peer.sh -- lua5.1 bench/easy_roundtrip.lua
local core = require("ws_client")
local easy = require("ws_client.easy")
local host, port = os.getenv("PEER_HOST") or "127.0.0.1", tonumber(os.getenv("PEER_WS_PORT")) or 8801
local SECONDS, ROUNDS = tonumber(os.getenv("SECONDS_EACH")) or 3, tonumber(os.getenv("ROUNDS")) or 3
local text = ("0123456789abcdef"):rep(2)

local function bare()
  local n, ws = 0, nil
  ws = assert(core.ws_connect(core.ws_new(), { type = 0, url = "ws://" .. host .. "/echo", port = port,
    timeout = 5, crt = "", prikey = "", on_message = function() n = n + 1; core.ws_send(ws, text) end }))
  local started = os.time()
  core.ws_send(ws, text)
  core.loop_start(function() if os.time() - started >= SECONDS then core.loop_stop() end end, 1, 1)
  core.ws_close(ws)
  return n
end

local function companion()
  local n = 0
  local ws = assert(easy.connect("ws://" .. host .. ":" .. port .. "/echo", {
    on_message = function(self) n = n + 1; self:send(text) end }))
  ws:send(text)
  easy.after(SECONDS, easy.stop)
  easy.run()
  ws:close()
  return n
end

local totals = { core = { 0, 0, 0 }, easy = { 0, 0, 0 } }
for _ = 1, ROUNDS do
  for _, case in ipairs({ { "core", bare }, { "easy", companion } }) do
    local t, c = easy.now(), os.clock()
    local n = case[2]()
    local total = totals[case[1]]
    total[1], total[2], total[3] = total[1] + n, total[2] + easy.now() - t, total[3] + os.clock() - c
  end
end
for _, name in ipairs({ "core", "easy" }) do
  local t = totals[name]
  print(string.format("%-4s %7.0f round trips/s, %5.1f us client CPU per round trip (%d in %.1f s)",
    name, t[1] / t[2], t[3] / t[1] * 1e6, t[1], t[2]))
end
