-- Loop-driven set-ups (nonblocking = true) against the designed ones, in one
-- run: the loop's longest pass (gap between two timer calls at interval 0)
-- while a peer stalls each set-up step; 50 wss:// set-ups at once against 50
-- one after another; the longest pass while a name resolves through a DNS
-- peer that answers after 3 s; the cost of a ws round trip on an established
-- connection (client CPU time, os.clock), designed against nonblocking.
-- Passes are timed with /proc/uptime: 10 ms steps.
--
--   make bench, or by hand (a built module in build/):
--   bench/nonblocking.sh build
local ws = require("ws_client")
local env = function(name) return tonumber(os.getenv(name)) end
local WS, WSS = env("PEER_WS_PORT"), env("PEER_WSS_PORT")
local CONNECT, SILENT = env("STALL_CONNECT_PORT"), env("STALL_SILENT_PORT")
local clock = os.clock
local function now() return ws_now and ws_now() or os.time() end
-- a wall clock with sub-second steps: /proc/uptime
local function wall() local f = io.open("/proc/uptime"); local t = f:read("*n"); f:close(); return t end

local function options(url, port, extra)
  local t = { type = 0, url = url, port = port, timeout = 2, crt = "", prikey = "" }
  for k, v in pairs(extra or {}) do t[k] = v end
  return t
end

-- Longest gap between timer calls at interval 0 while `start` sets one up,
-- until it opened or closed (or `limit` s).
local function longest_pass(start, limit)
  local gap, last, t0, done, started, how = 0, wall(), wall(), false, false, "nothing"
  local hooks = { on_open = function() done, how = true, string.format("opened after %.2f s", wall() - t0 - 0.2) end,
                  on_close = function(r) done, how = true, string.format("closed (%s) after %.2f s", r, wall() - t0 - 0.2) end }
  ws.loop_start(function()
    local t = wall()
    if t - last > gap then gap = t - last end
    last = t
    if not started and t - t0 > 0.2 then started = true; start(hooks); last = wall() - (wall() - t) end
    if (done and t - t0 > 0.5) or t - t0 > limit then ws.loop_stop() end
  end, 1, 0)
  return gap, how
end

local function with(extra, hooks) for k, v in pairs(hooks) do extra[k] = v end return extra end

local steps = {
  { "TCP connect (2 s bound)", "ws://127.0.0.1/x", CONNECT, {} },
  { "TLS handshake (io_timeout 2)", "wss://127.0.0.1/x", SILENT, { io_timeout = 2 } },
  { "upgrade answer (5 s designed)", "ws://127.0.0.1/x", SILENT, {} },
}
print("longest loop pass while a peer stalls (s)      designed  nonblocking")
for _, s in ipairs(steps) do
  local gaps = {}
  for _, nb in ipairs({ false, true }) do
    gaps[#gaps + 1] = longest_pass(function(hooks)
      local extra = with({ nonblocking = nb or nil, timeout = 2 }, hooks)
      for k, v in pairs(s[4]) do extra[k] = v end
      if nb then extra.io_timeout = nil end
      ws.ws_connect(ws.ws_new(), options(s[2], s[3], extra))
    end, 8)
  end
  print(string.format("  %-44s %7.3f  %7.3f", s[1], gaps[1], gaps[2]))
end

local name_gap, name_end = longest_pass(function(hooks)
  ws.ws_connect(ws.ws_new(), options("ws://slow.test/echo", WS, with({ nonblocking = true, timeout = 6 }, hooks)))
end, 8)
print(string.format("longest pass while a name resolves (DNS peer answers after 3 s): %.3f s; %s", name_gap, name_end))

-- 50 wss:// set-ups
local function wss_setups(nb)
  local opened, objects, t0 = 0, {}, wall()
  for i = 1, 50 do
    objects[i] = ws.ws_connect(ws.ws_new(), options("wss://127.0.0.1/echo", WSS, { nonblocking = nb or nil, timeout = 10,
      on_open = function() opened = opened + 1 end }))
  end
  if nb then ws.loop_start(function() if opened == 50 or wall() - t0 > 30 then ws.loop_stop() end end, 1, 0) end
  local took = wall() - t0
  for i = 1, 50 do if objects[i] then ws.ws_close(objects[i]) end end
  return took, opened
end
local seq, seq_n = wss_setups(false)
local par, par_n = wss_setups(true)
print(string.format("50 wss:// set-ups: one after another %.2f s (%d opened), at once %.2f s (%d opened)", seq, seq_n, par, par_n))

-- round trips
local COUNT, text = tonumber(os.getenv("COUNT")) or 5000, ("0123456789abcdef"):rep(2)
local function round_trips(nb)
  local n, c, opened = 0, nil, false
  c = ws.ws_connect(ws.ws_new(), options("ws://127.0.0.1/echo", WS, { nonblocking = nb or nil, timeout = 5,
    on_open = function() opened = true end,
    on_message = function() n = n + 1; if n < COUNT then ws.ws_send(c, text) else ws.loop_stop() end end }))
  if nb then ws.loop_start(function() if opened then ws.loop_stop() end end, 1, 0) end
  local t0 = clock()
  ws.ws_send(c, text)
  ws.loop_start(function() end, 1, 5)
  local per = (clock() - t0) / COUNT
  ws.ws_close(c)
  return per
end
local best = { math.huge, math.huge }
for _ = 1, 3 do
  for i, nb in ipairs({ false, true }) do best[i] = math.min(best[i], round_trips(nb)) end
end
print(string.format("ws round trip, client CPU: designed %.1f us, nonblocking %.1f us (%.3fx)", best[1] * 1e6,
  best[2] * 1e6, best[2] / best[1]))
