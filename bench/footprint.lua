-- Resident memory of this interpreter around connections of one kind, against
-- the local peer (tools/peer.py; its PEER_* settings come from the
-- environment, as scripts/with_peer.sh exports them):
--
--   lua5.1 bench/footprint.lua KIND         KIND: ws wss tcp tls udp
--   lua5.1 bench/footprint.lua rate SECONDS wss round trips, one in flight
--
-- Prints one line, "KIND interpreter loaded one hundred" in kB of VmRSS:
-- before require, after require, after one connection has exchanged a
-- message, after 100 have (the first included); then the same four in kB of
-- VmSize (virtual). ws, wss, tls and udp stay
-- open until the end; tcp asks the peer's HTTP service, which closes after
-- its answer (the plain TCP receive reads until the peer closes). One kind
-- per process, so that each kind pays its own first-use costs.
local kind = arg[1]
local unpack = unpack or table.unpack

local virtual = {}  -- VmSize at each point rss_kb is asked for

local function rss_kb()
  collectgarbage("collect")
  local file = assert(io.open("/proc/self/status"))
  local text = file:read("*a")
  file:close()
  virtual[#virtual + 1] = tonumber(text:match("VmSize:%s*(%d+) kB"))
  return tonumber(text:match("VmRSS:%s*(%d+) kB"))
end

local interpreter = rss_kb()
local ws_client = require("ws_client")
local loaded = rss_kb()

local host = os.getenv("PEER_HOST") or "127.0.0.1"
local function port(name)
  return assert(tonumber(os.getenv("PEER_" .. name .. "_PORT")), "PEER_" .. name .. "_PORT not set")
end
local certs = os.getenv("PEER_CERTS")

local pending = 0   -- messages sent and not yet answered
local failures = {}
local kept = {}     -- open objects: the measurement includes them

local function options(code, settings, on_message)
  local t = {
    type = code,
    on_message = on_message or function() pending = pending - 1 end,
    on_error = function(errno, text) failures[#failures + 1] = kind .. " error " .. errno .. ": " .. text end,
  }
  for key, value in pairs(settings) do t[key] = value end
  return t
end

local function websocket(scheme, ws_port)
  return function()
    local conn = ws_client.ws_connect(ws_client.ws_new(), options(0, {
      url = scheme .. "://" .. host .. "/echo", port = ws_port, timeout = 5, crt = "", prikey = "" }))
    if not conn then return false end
    kept[#kept + 1] = conn
    return ws_client.ws_send(conn, "footprint") > 0
  end
end

local openers = {
  ws = websocket("ws", port("WS")),
  wss = websocket("wss", port("WSS")),
  tcp = function()
    local conn
    conn = ws_client.tcp_connect(ws_client.tcp_new(), options(1,
      { ip = host, port = port("HTTP"), is_secure = 0, crt = "", prikey = "" },
      function()
        pending = pending - 1
        ws_client.tcp_close(conn)  -- the peer has closed its side
      end))
    return conn ~= nil and ws_client.tcp_send(conn, "GET / HTTP/1.1\r\nHost: " .. host .. "\r\n\r\n") > 0
  end,
  tls = function()
    local conn = ws_client.tcp_connect(ws_client.tcp_new(), options(1, {
      ip = host, port = port("TLS"), is_secure = 1, crt = certs .. "/client.crt", prikey = certs .. "/client.key" }))
    if not conn then return false end
    kept[#kept + 1] = conn
    return ws_client.tcp_send(conn, "footprint") > 0
  end,
  udp = function()
    local conn = ws_client.udp_connect(ws_client.udp_new(), options(2, {}))
    kept[#kept + 1] = conn
    return ws_client.udp_sendto(conn, "footprint", host, port("UDP")) > 0
  end,
}

-- The loop until every answer is in, or `seconds` have passed.
local function wait_answers(seconds)
  local started = os.time()
  ws_client.loop_start(function()
    if pending == 0 or #failures > 0 or os.time() - started > seconds then ws_client.loop_stop() end
  end, 1, 0)
  if pending ~= 0 and #failures == 0 then failures[1] = kind .. ": " .. pending .. " answers missing" end
end

local function open(count)
  for _ = 1, count do
    pending = pending + 1
    if not openers[kind]() then
      failures[#failures + 1] = kind .. ": connect or send failed"
      return
    end
  end
  wait_answers(30)
end

local function finish(line)
  if #failures > 0 then
    io.stderr:write(table.concat(failures, "\n"), "\n")
    os.exit(1)
  end
  print(line)
  os.exit(0)
end

if kind == "rate" then
  -- wss round trips over whole seconds of the wall clock: on_message sends
  -- the next text until the last second is over.
  local seconds = tonumber(arg[2]) or 2
  local trips, conn, stop_at = 0, nil, nil
  conn = ws_client.ws_connect(ws_client.ws_new(), options(0,
    { url = "wss://" .. host .. "/echo", port = port("WSS"), timeout = 5, crt = "", prikey = "" },
    function()
      trips = trips + 1
      if os.time() < stop_at then ws_client.ws_send(conn, "round trip") else ws_client.loop_stop() end
    end))
  if not conn then
    failures[#failures + 1] = "wss rate: no connection"
    finish()
  end
  local second = os.time()
  while os.time() == second do end  -- start on a second's edge
  stop_at = os.time() + seconds
  ws_client.ws_send(conn, "round trip")
  ws_client.loop_start(function()
    if os.time() > stop_at + 5 then  -- a stalled peer
      failures[1] = "wss rate: no progress"
      ws_client.loop_stop()
    end
  end, 1, 1)
  ws_client.ws_close(conn)
  finish(string.format("rate %d %d", trips, seconds))
end

if not openers[kind] then
  io.stderr:write("usage: footprint.lua ws|wss|tcp|tls|udp | rate SECONDS\n")
  os.exit(2)
end
open(1)
local one = rss_kb()
open(99)
local hundred = rss_kb()
finish(string.format("%s %d %d %d %d %d %d %d %d", kind, interpreter, loaded, one, hundred, unpack(virtual)))
