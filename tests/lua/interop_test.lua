-- Standard mode (rfc6455 = true) against an independent server, ws and wss:
--   interop_test.lua python|node   (PEERS: the tests/peers directory)
-- One line per row, grouped as the public conformance suites group them.
local ws = require("ws_client")
io.stdout:setvbuf("line")
local peers, tmp, MiB = os.getenv("PEERS"), os.tmpname(), 1024 * 1024
os.execute(("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=127.0.0.1"
  .. " -days 1 -keyout %s.key -out %s.crt 2>/dev/null"):format(tmp, tmp))
local cmd = arg[1] == "node" and "node " .. peers .. "/interop_server.js"
  or "/usr/bin/python3 " .. peers .. "/interop_server.py"
-- the peer prints its two ports into tmp and ends when this pipe closes
local peer, port = io.popen(("exec %s %s.crt %s.key >%s"):format(cmd, tmp, tmp, tmp), "w"), {}
for _ = 1, 300 do  -- the whole line
  local f = io.open(tmp); local text = f and f:read("*a") or ""; if f then f:close() end
  port.ws, port.wss = text:match("^(%d+) (%d+)\n")
  if port.ws then break end
  ws.sleep(0.05)
end
port.ws, port.wss = assert(tonumber(port.ws), "the peer did not start"), tonumber(port.wss)

local ev  -- the current connection and what it saw
local function connect(scheme, path, opts)
  ev = { got = {}, kinds = {}, errors = 0 }
  local o = { type = 0, url = ("%s://127.0.0.1:%d%s"):format(scheme, port[scheme], path), port = port[scheme],
    timeout = 3, crt = "", prikey = "", rfc6455 = true,
    on_open = function(protocol) ev.protocol = protocol or false end,
    on_message = function(data, kind)
      ev.got[#ev.got + 1], ev.kinds[#ev.kinds + 1] = data, kind
      if ev.stop() then ws.loop_stop() end end,
    on_close = function(reason, code, peer_reason) ev.close = { reason, code, peer_reason or "" }; ws.loop_stop() end,
    on_error = function() ev.errors = ev.errors + 1 end }
  for k, v in pairs(opts or {}) do o[k] = v end
  ev.c = assert(ws.ws_connect(ws.ws_new(), o), "no connection to " .. o.url)
end
local function has(n) return function() return #ev.got >= (n or math.huge) end end
-- the loop until stop() holds after a message, the close, or `seconds` pass
local function pump(stop, seconds)
  ev.stop = stop
  if ev.close or stop() then return end
  local deadline = os.time() + seconds
  ws.loop_start(function() if os.time() >= deadline then ws.loop_stop() end end, 1, 1)
end
local function shown(i) local d = ev.got[i]
  return d and ("%s %d bytes %q"):format(tostring(ev.kinds[i]), #d, d:sub(1, 24)) or "nothing" end
local function closed()
  return ev.close and ("closed %s %q (%s)"):format(tostring(ev.close[2]), ev.close[3], tostring(ev.close[1]))
    or "no close"
end

local failed, total = 0, 0
local function row(group, name, fn, ...)
  total = total + 1
  local ok, why = pcall(fn, ...)
  if ev and ev.c and not ev.close then ws.ws_close(ev.c); pump(has(), 5) end
  if ok and not why then return print(("ok   %-14s %s"):format(group, name)) end
  failed = failed + 1
  print(("FAIL %-14s %s: %s"):format(group, name, tostring(why)))
end
local function expect(list)  -- {data, kind} in order, nothing more
  for i, want in ipairs(list) do
    if ev.got[i] ~= want[1] or ev.kinds[i] ~= want[2] then
      return ("message %d: %s, wanted %s %d bytes; %d in all; %s"):format(i, shown(i), want[2], #want[1], #ev.got,
        closed())
    end
  end
  if #ev.got ~= #list then return ("%d messages, wanted %d"):format(#ev.got, #list) end
end
local function echo(scheme, list, opts)  -- pings sent, but not expected back; loop-driven: sent from on_open
  local back = {}
  for _, m in ipairs(list) do back[#back + 1] = m[2] ~= "ping" and m or nil end
  local function send() for _, m in ipairs(list) do ws.ws_send(ev.c, m[1], m[2]) end end
  local nb = opts and opts.nonblocking
  connect(scheme, "/echo", nb and { nonblocking = true, on_open = function(p) ev.protocol = p or false; send() end } or opts)
  if not nb then send() end
  pump(has(#back), 60)
  return expect(back)
end
-- the close code and reason the server saw on the connection before
local function server_saw(scheme, want)
  connect(scheme, "/last_close"); pump(has(1), 5)
  if (ev.got[1] or ""):sub(1, #want) ~= want then return "server saw " .. shown(1) .. ", wanted " .. want end
end

local unit = { text = "The quick brown fox jumps over the lazy dog; 0123456789.\n",
  binary = "\0\1\127\128\254\255\r\n data" }
local function payload(kind, size, mark)
  local s = unit[kind]:rep(math.ceil(size / #unit[kind])):sub(1, size)
  return mark and ("%04d"):format(mark) .. s:sub(5) or s
end
local function burst_message(i, size)
  local s = tostring(i); return { s .. ("."):rep(size - #s), i % 2 == 1 and "binary" or "text" }
end

for _, scheme in ipairs({ "ws", "wss" }) do
  local function on(group, name, fn, ...) row(group, name .. " (" .. scheme .. ")", fn, scheme, ...) end
  for _, size in ipairs({ 0, 125, 126, 65535, 65536, MiB, 16 * MiB }) do
    for _, kind in ipairs({ "text", "binary" }) do
      on("framing", ("echo %s %d bytes"):format(kind, size), echo, { { payload(kind, size), kind } },
         size > 65536 and { max_message = 32 * MiB } or nil)
    end
  end
  on("framing", "echo over a set-up the loop drives", echo,
     { { "x", "text" }, { "?", "ping" }, { payload("binary", 70000), "binary" } }, { nonblocking = true })
  on("framing", "zero bytes in both kinds", echo, { { "a\0b\0", "text" }, { "\0", "binary" }, { "\0\0x", "binary" } })
  on("framing", "10000 frames written back to back arrive in order", function()
    connect(scheme, "/burst?n=10000"); pump(has(10000), 30)
    local list = {}; for i = 0, 9999 do list[i + 1] = burst_message(i, 0) end
    return expect(list)
  end)
  on("framing", "2000 messages of 10000 bytes echoed in order, half sent as the echoes start", function()
    connect(scheme, "/echo?pause=1", { max_queue = 32 * MiB })  -- the server reads nothing for 1 s
    local sent = {}
    for i = 1, 2000 do sent[i] = { payload("text", 10000, i), "text" } end
    for i = 1, 1000 do ws.ws_send(ev.c, sent[i][1]) end
    pump(function()
      if #ev.got == 1 then for i = 1001, 2000 do ws.ws_send(ev.c, sent[i][1]) end end
      return #ev.got == 2000 end, 60)
    return expect(sent)
  end)
  on("utf-8", "2-, 3- and 4-byte characters", echo, { { "héllo wörld €𝄞", "text" } })
  on("fragmentation", "server fragments, a ping amid them answered", function()
    connect(scheme, "/fragments"); pump(has(3), 10)
    return expect({ { "héllo wörld", "text" }, { "\0\1\255", "binary" }, { "pong ok", "text" } })
  end)
  on("ping/pong", "a ping of ours is no message", echo, { { "are you there?", "ping" }, { "after ping", "text" } })
  for _, case in ipairs({ { 1000, "" }, { 4000, "bye" }, { 1001, "going away é", "going%20away%20%C3%A9" } }) do
    on("close", ("server closes: %d %q"):format(case[1], case[2]), function()
      connect(scheme, ("/close?code=%d&reason=%s"):format(case[1], case[3] or case[2]))
      pump(has(), 5)
      if not ev.close or ev.close[2] ~= case[1] or ev.close[3] ~= case[2] then return closed() end
      return server_saw(scheme, case[1] .. " ")  -- answered with its code
    end)
  end
  for _, case in ipairs({ {}, { 4001, "client bye" }, { 1000, ("r"):rep(123) } }) do
    on("close", ("client closes: %s %d bytes"):format(case[1] or "no code", #(case[2] or "")), function()
      connect(scheme, "/echo")
      if case[1] then ws.ws_close(ev.c, case[1], case[2]) else ws.ws_close(ev.c) end
      pump(has(), 5)
      if not ev.close or ev.close[2] ~= (case[1] or 1000) then return closed() end
      return server_saw(scheme, (case[1] or 1000) .. " " .. (case[2] or ""))
    end)
  end
  for _, case in ipairs({ { { "x-none", "mqtt" }, "mqtt" }, { { "x-none" }, false }, { nil, false } }) do
    on("handshake", "subprotocols offered: " .. table.concat(case[1] or { "none" }, ","), function()
      connect(scheme, "/echo", { protocols = case[1] })
      if ev.protocol ~= case[2] then return "on_open gave " .. tostring(ev.protocol) end
    end)
  end
  on("handshake", "the headers as the server saw them", function()
    connect(scheme, "/headers?a=1&b=%20x", { port = 1,  -- the URL's port wins
      headers = { Authorization = "Bearer t0k3n", ["X-Device-Id"] = "dev 7" } })
    pump(has(1), 5)
    for _, line in ipairs({ "/headers?a=1&b=%20x", "host: 127.0.0.1:" .. port[scheme], "authorization: Bearer t0k3n",
        "x-device-id: dev 7", "sec-websocket-version: 13" }) do
      if not ("\n" .. (ev.got[1] or "")):find("\n" .. line .. "\n", 1, true) then
        return "no " .. line .. " in " .. shown(1) end
    end
  end)
  for _, case in ipairs({ { 1000, 1000 }, { 1000, 1001, 1009 } }) do
    on("limits", ("max_message %d, message of %d"):format(case[1], case[2]), function()
      connect(scheme, "/burst?n=1&size=" .. case[2], { max_message = case[1] })
      pump(has(case[3] and math.huge or 1), 5)
      if not case[3] then return expect({ burst_message(0, case[2]) }) end
      if #ev.got > 0 or not ev.close or ev.close[2] ~= case[3] then return shown(1) .. ", " .. closed() end
      return server_saw(scheme, case[3] .. " ")
    end)
  end
  on("limits", "max_queue: refused past it, the rest arrive, still usable", function()
    connect(scheme, "/echo?pause=1", { max_queue = 65536 })  -- the server reads nothing for 1 s
    local list, result = {}, nil
    repeat
      list[#list + 1] = { payload("binary", 65536, #list + 1), "binary" }
      result = ws.ws_send(ev.c, list[#list][1], "binary")
    until result == 0 or #list == 1000
    list[#list] = nil
    if result ~= 0 or ev.errors ~= 1 then
      return ("send gave %s after %d, %d on_error"):format(result, #list, ev.errors) end
    pump(has(#list), 30)
    ws.ws_send(ev.c, "after"); list[#list + 1] = { "after", "text" }
    pump(has(#list), 5)
    return expect(list)
  end)
end
row("ping/pong", "keepalive: answered pings keep it open (ws)", function()
  connect("ws", "/echo", { ping_interval = 1, pong_timeout = 2 })  -- slack for a loaded machine
  ws.ws_send(ev.c, "first"); pump(has(1), 5); pump(has(2), 3)
  ws.ws_send(ev.c, "still here"); pump(has(2), 5)
  return expect({ { "first", "text" }, { "still here", "text" } })
end)
row("ping/pong", "keepalive: an idle connection finds a server that stopped reading (ws)", function()
  connect("ws", "/echo?pause=20", { ping_interval = 1, pong_timeout = 1 }); pump(has(), 10)
  if not ev.close or #ev.got > 0 then return shown(1) .. ", " .. closed() end
end)

peer:close()
os.remove(tmp); os.remove(tmp .. ".crt"); os.remove(tmp .. ".key")
print(("%s: %d of %d rows failed"):format(arg[1], failed, total))
os.exit(failed == 0 and 0 or 1)
