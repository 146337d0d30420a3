-- ws_client demo: one loop_start drives, against the local default peer
-- (tools/peer.py),
--   ws    a WebSocket over ws://
--   wss   a WebSocket over wss://
--   http  a TCP connection that receives a chunked HTTP answer
--   tls   a TCP connection over TLS that presents a client certificate
--   udp   a UDP exchange
-- and the periodic function prints a status line until everything has been
-- seen or DEMO_SECONDS (default 20) have passed. Exit status 0 when all five
-- were seen.
--
--   make demo
-- or, with a peer already running (its defaults are used when no PEER_*
-- variable is set):
--   LUA_CPATH="build/?.so" lua5.1 examples/demo.lua

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

local host = os.getenv("PEER_HOST") or "127.0.0.1"
local function port(name, default)
  return tonumber(os.getenv("PEER_" .. name .. "_PORT")) or default
end
local certs = os.getenv("PEER_CERTS") or ((os.getenv("HOME") or ".") .. "/.cache/ws_client_peer")
local time_limit = tonumber(os.getenv("DEMO_SECONDS")) or 20

local started = os.time()
local parts = { "ws", "wss", "http", "tls", "udp" }
local seen = {}      -- part name -> true once its answer came back as expected

local function say(tag, text)
  print(string.format("%-5s %s", tag, text))
end

-- Received data on one short line.
local function shown(text)
  text = (text:gsub("\r", "\\r"):gsub("\n", "\\n"))
  if #text > 72 then
    text = text:sub(1, 69) .. "..."
  end
  return "'" .. text .. "'"
end

-- Every options table needs the kind code under `type` (0 WebSocket, 1 TCP,
-- 2 UDP): the module never fills it in. The callbacks live in the same table,
-- each behind the guard.
local function options(tag, kind, settings, on_message)
  local t = {
    type = kind,
    on_open = guarded(function() say(tag, "open") end),
    on_message = guarded(on_message),
    on_error = guarded(function(errno, text) say(tag, "error " .. errno .. ": " .. text) end),
    on_close = guarded(function(reason) say(tag, "closed: " .. reason) end),
  }
  for key, value in pairs(settings) do
    t[key] = value
  end
  return t
end

-- ---- WebSocket, plain and over TLS ----

local function websocket(tag, scheme, ws_port)
  local text = "hello over " .. scheme .. "://"
  local conn
  local settings = {
    url = scheme .. "://" .. host .. "/echo",  -- the port goes under `port`, never in the URL
    port = ws_port,
    timeout = 5,  -- seconds for the TCP connect
    crt = "", prikey = "",  -- required keys; a WebSocket presents no client certificate
  }
  local opts = options(tag, 0, settings, function(data, from, from_port)
    -- from is nil and from_port -1 for a WebSocket
    say(tag, "message " .. shown(data))
    seen[tag] = data == text
    if conn then
      local open = conn
      conn = nil
      ws_client.ws_close(open)
    end
  end)
  -- ws_connect returns a new object (nothing, or nil, when it failed): that
  -- is the one to send on and close.
  conn = ws_client.ws_connect(ws_client.ws_new(), opts)
  if conn then
    ws_client.ws_send(conn, text)
  end
end

websocket("ws", "ws", port("WS", 8801))
websocket("wss", "wss", port("WSS", 8802))

-- ---- TCP: an HTTP request answered with a chunked body ----

local expected_body = "Hello from the local peer: this body came in four chunks."
local http
http = ws_client.tcp_connect(ws_client.tcp_new(), options("http", 1,
  { ip = host, port = port("HTTP", 8805), is_secure = 0, crt = "", prikey = "" },
  function(data)
    -- The whole answer, read until the peer closed, de-chunked: status line
    -- and headers, a line break, the decoded body, a line break.
    local status = data:match("^[^\r\n]*")
    local body = data:match("([^\r\n]*)\r\n$")
    say("http", "answer " .. shown(status) .. ", body " .. shown(body or ""))
    seen.http = body == expected_body
    if http then
      local open = http
      http = nil
      ws_client.tcp_close(open)
    end
  end))
if http then
  ws_client.tcp_send(http, "GET /demo HTTP/1.1\r\nHost: " .. host .. "\r\nConnection: close\r\n\r\n")
end

-- ---- TCP over TLS with a client certificate ----

local tls_text = "hello over TLS with a client certificate"
local tls
tls = ws_client.tcp_connect(ws_client.tcp_new(), options("tls", 1,
  { ip = host, port = port("TLS", 8804), is_secure = 1,
    crt = certs .. "/client.crt", prikey = certs .. "/client.key" },
  function(data)
    say("tls", "message " .. shown(data))
    seen.tls = data == tls_text
    if tls then
      local open = tls
      tls = nil
      ws_client.tcp_close(open)
    end
  end))
if tls then
  ws_client.tcp_send(tls, tls_text)
end

-- ---- UDP ----

local udp_text = "hello over udp"
local udp
udp = ws_client.udp_connect(ws_client.udp_new(), options("udp", 2, {}, function(data, from, from_port)
  say("udp", "message " .. shown(data) .. " from " .. from .. ":" .. from_port)
  seen.udp = data == udp_text
  if udp then
    local open = udp
    udp = nil
    ws_client.udp_close(open)
  end
end))
if udp then
  ws_client.udp_sendto(udp, udp_text, host, port("UDP", 8806))
end

-- ---- the loop ----

local function all_seen()
  for _, name in ipairs(parts) do
    if not seen[name] then
      return false
    end
  end
  return true
end

local last_line, last_time
local function tick()
  local elapsed = os.time() - started
  local items = {}
  for _, name in ipairs(parts) do
    items[#items + 1] = name .. (seen[name] and " ok" or " --")
  end
  local line = table.concat(items, ", ")
  if line ~= last_line or elapsed - last_time >= 2 then
    say("tick", string.format("%2d s: %s", elapsed, line))
    last_line, last_time = line, elapsed
  end
  if all_seen() or elapsed >= time_limit then
    ws_client.loop_stop()
  end
end

-- The periodic function runs about once a second (calls_per_tick 1,
-- interval_sec 1), and sooner after traffic woke the loop late in a second.
local ok, err = pcall(ws_client.loop_start, tick, 1, 1)
if not ok then
  say("loop", "ended with an error: " .. tostring(err))
end

local missing = {}
for _, name in ipairs(parts) do
  if not seen[name] then
    missing[#missing + 1] = name
  end
end
local count = #parts - #missing
print(string.format("summary: %d of %d seen in %d s%s", count, #parts, os.time() - started,
  #missing > 0 and (", missing: " .. table.concat(missing, ", ")) or ""))
os.exit(#missing == 0 and ok and 0 or 1)
