-- Idle cost of ws_client.easy: one open WebSocket and a 10-second repeating
-- timer for SECONDS (default 60); prints the process's CPU seconds and the
-- timer's lateness. With the argument "core", the same with the bare core
-- (loop_start with a 1-second tick counting to 10), for comparison.
--
--   LUA_CPATH="build/?.so" LUA_PATH="src/?.lua;;" scripts/with_peer.sh -- lua5.1 bench/easy_idle.lua [core]
local seconds = tonumber(os.getenv("SECONDS_IDLE")) or 60
local host, port = os.getenv("PEER_HOST") or "127.0.0.1", os.getenv("PEER_WS_PORT") or "8801"
if arg[1] == "core" then
  local core = require("ws_client")
  local ws = core.ws_connect(core.ws_new(), { type = 0, url = "ws://" .. host .. "/echo", port = tonumber(port),
    timeout = 5, crt = "", prikey = "" })
  assert(ws, "connect failed")
  local ticks, started = 0, os.time()
  core.loop_start(function()
    ticks = ticks + 1
    if os.time() - started >= seconds then core.loop_stop() end
  end, 1, 1)
  print(string.format("core: %d s, %d ticks, %.3f CPU s", os.time() - started, ticks, os.clock()))
else
  local easy = require("ws_client.easy")
  local ws = assert(easy.connect("ws://" .. host .. ":" .. port .. "/echo"))
  local start, fired, worst = easy.now(), 0, 0
  easy.every(10, function()
    fired = fired + 1
    worst = math.max(worst, easy.now() - start - 10 * fired)
  end)
  easy.after(seconds, easy.stop)
  easy.run()
  ws:close()
  print(string.format("easy: %.1f s, %d timer calls (latest %.0f ms), %.3f CPU s",
    easy.now() - start, fired, worst * 1000, os.clock()))
end
