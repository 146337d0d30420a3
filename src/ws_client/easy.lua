-- ws_client.easy: socket objects with methods, nil-and-error results, timers
-- and a run loop, written in plain Lua over the ws_client core. It adds
-- nothing to the core's table and changes none of its behaviour; every call
-- it makes is one a script could make. Lua 5.1 to 5.4 and LuaJIT.
--
--   local easy = require("ws_client.easy")
--   local ws = assert(easy.connect("ws://127.0.0.1:8801/echo", {
--     on_message = function(self, text) print(text) easy.stop() end }))
--   ws:send("hello")
--   easy.run()

local core = require("ws_client")

local M = {}
local registry = debug.getregistry()
local traceback = debug.traceback
local unpack = unpack or table.unpack

local WS, TCP, UDP = 0, 1, 2
local NO_KIND = 99         -- a kind code the core's dispatch and close both skip
local EBADF = 9

-- ---- callback errors ----------------------------------------------------

-- The default handler: the error and its traceback on stderr.
function M.error_handler(message)
  io.stderr:write("ws_client.easy: error in a callback: ", message, "\n")
end

local function handle(message)
  local ok, e = pcall(M.error_handler, message)
  if not ok then io.stderr:write("ws_client.easy: ", message, "\nand in error_handler: ", tostring(e), "\n") end
end

local function with_traceback(e) return traceback(tostring(e), 2) end

-- call(f, ...): runs f protected; an error goes to M.error_handler.
local call
if select(2, xpcall(function(x) return x end, with_traceback, true)) then
  call = function(f, ...)  -- xpcall passes arguments (5.2 and later, LuaJIT)
    local ok, e = xpcall(f, with_traceback, ...)
    if not ok then handle(e) end
  end
else
  call = function(f, ...)
    local n, args = select("#", ...), { ... }
    local ok, e = xpcall(function() return f(unpack(args, 1, n)) end, with_traceback)
    if not ok then handle(e) end
  end
end

local function fire(obj, name, ...)
  local f = obj[name]
  if f ~= nil then call(f, obj, ...) end
end

-- ---- clock and randomness -----------------------------------------------

-- LuaJIT reads the monotonic clock through its FFI; only where upstream
-- LuaJIT runs (the FFI of some ports faults on the call).
local FFI_ARCHES = { x86 = true, x64 = true, arm = true, arm64 = true, mips = true, mipsel = true, ppc = true }
if jit and FFI_ARCHES[jit.arch] then
  local ok, ffi = pcall(require, "ffi")
  ok = ok and pcall(ffi.cdef, [[
    typedef struct { long sec, nsec; } ws_client_easy_clock_value;
    int clock_gettime(int clock, ws_client_easy_clock_value *ts);]])
  if ok then
    local ts = ffi.new("ws_client_easy_clock_value")
    M.now = function()
      ffi.C.clock_gettime(1, ts)  -- CLOCK_MONOTONIC
      return tonumber(ts.sec) + tonumber(ts.nsec) * 1e-9
    end
  end
end
-- Elsewhere seconds since boot, to 10 ms, from /proc/uptime: the only
-- sub-second clock plain Lua has on Linux. The file stays open, unbuffered,
-- so a read is a seek and a read of the kernel's text, and leaves nothing
-- for the collector. Without it, whole seconds from os.time().
local uptime = not M.now and io.open("/proc/uptime")
if uptime then
  uptime:setvbuf("no")
  local last = 0
  M.now = function()
    uptime:seek("set", 0)
    last = tonumber((uptime:read(64) or ""):match("^%d+%.?%d*")) or last
    return last
  end
end
M.now = M.now or os.time
local now = M.now

-- A private generator for back-off jitter: seeding math.random here would
-- change the script's own sequence.
local seed = (os.time() + math.floor(now() * 100)
  + (tonumber(tostring({}):match("0x(%x+)") or "0", 16) or 0)) % 2147483646 + 1
local function random()
  seed = (seed * 16807) % 2147483647
  return seed / 2147483647
end

-- ---- timers ---------------------------------------------------------------

local heap, serial = {}, 0  -- binary heap of live timers by (due, serial); each knows its place
local running, stopping, interval = false, false, nil
local stirred = false  -- a socket callback or a timer ran since the last tick
local stepping = false  -- inside step(): a socket callback ends the pass
local function stir()
  stirred = true
  if stepping then core.loop_stop() end
end
local open_count = 0
local function idle() return open_count == 0 and heap[1] == nil end
-- Nothing left to serve: run() returns at the end of this pass (from a
-- socket callback; the periodic function checks for itself).
local function end_if_idle() if running and idle() then core.loop_stop() end end

local function earlier(a, b) return a.due < b.due or (a.due == b.due and a.serial < b.serial) end

local function place(i, t) heap[i], t.slot = t, i end

local function sift_up(i)
  local t = heap[i]
  while i > 1 do
    local p = (i - i % 2) / 2
    if not earlier(t, heap[p]) then break end
    place(i, heap[p])
    i = p
  end
  place(i, t)
end

local function sift_down(i)
  local t, n = heap[i], #heap
  while true do
    local l, s = i * 2, nil
    if l <= n and earlier(heap[l], t) then s = l end
    if l + 1 <= n and earlier(heap[l + 1], s and heap[s] or t) then s = l + 1 end
    if not s then break end
    place(i, heap[s])
    i = s
  end
  place(i, t)
end

-- Takes the timer out of the heap at once: a cancelled timer holds nothing.
local function remove(t)
  local i, n = t.slot, #heap
  t.slot = nil
  local last = heap[n]
  heap[n] = nil
  if i == n then return end
  place(i, last)
  sift_up(i)
  sift_down(last.slot)
end

local function next_due() return heap[1] and heap[1].due end

-- The core's tick is whole seconds, and a loop_stop() from the periodic
-- function takes effect only after that pass's select(), a whole tick later:
-- so a tick of n seconds is kept only while the next timer is two ticks and a
-- margin away (reach(n)). A loop restarted with a tick of n that stops at its
-- (m-1)th tick is back m ticks later: n is picked for the fewest ticks that
-- bring the loop back within about a second of the timer, where the core's
-- 2 ms poll (interval 0) takes over, with naps (below). MAX_TICK with no timer.
local MARGIN, MAX_TICK = 0.1, 10
local function reach(n) return 2 * n + MARGIN end
local function wanted_interval(t)
  local due = next_due()
  if not due then return MAX_TICK end
  local left = due - t
  if left < reach(1) then return 0 end
  for m = 2, left do
    local n = math.floor((left - MARGIN) / m)
    if n >= 1 and left - m * n <= 1 + MARGIN then return math.min(n, MAX_TICK) end
  end
  return 1
end

local Timer = {}
Timer.__index = Timer

function Timer:cancel()
  if self.active then self.active = false; remove(self); end_if_idle() end
end

local function schedule(t, at)
  serial = serial + 1
  t.due, t.serial = at, serial
  heap[#heap + 1] = t
  sift_up(#heap)
  -- a loop on the whole-second tick must come round sooner (from a socket
  -- callback this takes effect at once)
  if running and interval ~= 0 and at - now() < reach(interval) then core.loop_stop() end
end

local function new_timer(name, seconds, fn, every)
  if type(seconds) ~= "number" or seconds ~= seconds or seconds < 0 or (every and seconds <= 0) then
    error("bad argument #1 to '" .. name .. "' (" .. (every and "positive " or "") .. "seconds expected)", 3)
  end
  if type(fn) ~= "function" then error("bad argument #2 to '" .. name .. "' (function expected)", 3) end
  local t = setmetatable({ fn = fn, every = every and seconds, active = true }, Timer)
  schedule(t, now() + seconds)
  return t
end

-- after(seconds, fn): fn(timer) once; every(seconds, fn): fn(timer) each
-- period until timer:cancel(). Fractions of a second are fine.
function M.after(seconds, fn) return new_timer("after", seconds, fn, false) end
function M.every(seconds, fn) return new_timer("every", seconds, fn, true) end

-- The clock is read when a timer may be near: os.time() (whole seconds,
-- no system call) bounds the time since the last reading from above, so on
-- the whole-second tick a timer far off costs no clock read. A wall clock
-- set back counts as unsure: the clock is read.
local read_at, wall_at, wall_seen = 0, 0, 0
local function clock()
  read_at, wall_at = now(), os.time()
  wall_seen = wall_at
  return read_at
end
local function surely_far(due)
  local wall = os.time()
  local sure = wall >= wall_seen and wall - wall_at + 1 < due - read_at - reach(interval)
  wall_seen = wall
  return sure
end

-- Fires what is due at t; returns the time after (t when nothing fired).
local function fire_timers(t)
  local due = next_due()
  if not (due and due <= t) then return t end
  while due and due <= t do
    local timer = heap[1]
    remove(timer)
    if timer.every then
      local at = due + timer.every
      schedule(timer, at > t and at or t + timer.every)  -- a period missed: no burst to catch up
    else
      timer.active = false
    end
    call(timer.fn, timer)
    due = next_due()
  end
  stirred = true  -- what a timer sent may be answered at once
  return clock()
end

-- ---- the core's bookkeeping, seen from Lua --------------------------------

-- The descriptor under which the core registered `options` (it keeps each
-- connection's options table in the registry as "sockfd-N").
local function find_fd(options, from)
  for fd = from or 0, 65535 do
    if registry["sockfd-" .. fd] == options then return fd end
  end
end

-- A WebSocket closed by the loop (the server closed it, a read or a send
-- failed) is closed through a copy of its record that the core keeps as still
-- connecting, so its number stays in the loop's table and the next select()
-- fails: the designed fatal sweep. Taking the free numbers up to `upto` with
-- UDP sockets, registering and closing each, takes such numbers out of the
-- table before the loop comes round again.
local function purge(upto)
  local held, fd = {}, -1
  repeat
    local u = core.udp_new()
    if not u then break end
    local options = { type = UDP }
    core.udp_connect(u, options)
    held[#held + 1] = u
    fd = find_fd(options, fd + 1)
  until not fd or fd >= upto
  for i = 1, #held do core.udp_close(held[i]) end
end

-- ---- socket objects -------------------------------------------------------

local Socket = {}
Socket.__index = Socket

local capture                -- the core call in progress: {obj=, connecting=, err=, errno=, closed=}
local shielded = {}          -- options tables kept out of a fatal sweep
local schedule_reconnect

local function core_error(obj, options, errno, text)
  if options ~= obj.options then return end
  local c = capture
  if c and c.obj == obj then
    if not c.err then c.err, c.errno = text, errno end
  elseif errno == EBADF and obj.state == "open" then
    -- the fatal sweep (another socket's descriptor was closed under the
    -- loop): this socket is healthy, so its close is made a no-op
    options.type = NO_KIND
    shielded[#shielded + 1] = { options, obj.code }
    core.loop_stop()  -- run() restores it, sweep or not
  end
end

local function core_close(obj, options, reason, code, peer_reason)
  if options ~= obj.options then return end
  local c = capture
  if c and c.obj == obj then c.closed = true; c.reason = reason end
  if c and c.obj == obj and c.connecting then return end  -- reported as nil, err
  obj.options, obj.core = nil, nil
  open_count = open_count - 1
  if obj.code == WS and not obj.standard and not obj.closing and obj.fd then purge(obj.fd) end
  obj.state = "closed"
  fire(obj, "on_close", reason, code, peer_reason)
  if obj.reconnect and not obj.closing and obj.state == "closed" then schedule_reconnect(obj) end
  end_if_idle()
end

-- passed to the core in standard mode (checked there)
local STANDARD_KEYS = { protocols = true, headers = true, max_message = true, max_queue = true, close_timeout = true,
  ping_interval = true, pong_timeout = true }

local function core_options(obj)
  local o = { type = obj.code }
  if obj.code == WS then
    o.url, o.port, o.timeout, o.crt, o.prikey = obj.core_url, obj.port, obj.timeout, "", ""
    if obj.standard then  -- the core's standard mode and its keys
      o.rfc6455 = true
      for k in pairs(STANDARD_KEYS) do o[k] = obj.standard[k] end
      o.on_open = function(protocol) obj.protocol = protocol end
    end
  elseif obj.code == TCP then
    o.ip, o.port, o.is_secure = obj.host, obj.port, obj.cert and 1 or 0
    o.crt, o.prikey = obj.cert or "", obj.key or ""
  end
  for k, v in pairs(obj.passed or {}) do o[k] = v end
  o.on_message = function(data, from, port) stir(); fire(obj, "on_message", data, from, port) end
  o.on_error = function(errno, text) stir(); core_error(obj, o, errno, text) end
  o.on_close = function(reason, code, peer_reason) stir(); core_close(obj, o, reason, code, peer_reason) end
  return o
end

-- Runs one core call for obj with its error and close reports captured.
local function captured(obj, connecting, f, ...)
  local c, outer = { obj = obj, connecting = connecting }, capture
  capture = c
  local ok, r = pcall(f, ...)
  capture = outer
  if not ok then error(r, 0) end
  return r, c
end

-- Makes and connects the core socket. true, or nil, error text, errno.
local function open(obj)
  local o = core_options(obj)
  obj.options = o
  local new, connect = core.ws_new, core.ws_connect
  if obj.code == TCP then new, connect = core.tcp_new, core.tcp_connect
  elseif obj.code == UDP then new, connect = core.udp_new, core.udp_connect end
  local s = new()
  if not s then obj.options = nil; return nil, "no socket could be made" end
  local res, c = captured(obj, true, connect, s, o)
  if not res then
    obj.options = nil
    return nil, c.reason or c.err or "connect failed", c.errno
  end
  obj.core, obj.fd, obj.state = res, find_fd(o), "open"
  open_count = open_count + 1
  return true
end

-- ---- reconnect ----------------------------------------------------------

local RECONNECT = { initial = 1, max = 60, factor = 2, jitter = 0.5, tries = false }

local function attempt(obj)
  obj.retry = nil
  local ok, err, errno = open(obj)
  local n = obj.attempt
  if ok then
    obj.attempt = 0
    fire(obj, "on_reconnect", n)
    fire(obj, "on_open")
  else
    fire(obj, "on_reconnect", n, err, errno)
    if obj.state == "reconnecting" then schedule_reconnect(obj) end
  end
end

-- Exponential back-off with jitter: initial * factor^(n-1), at most max,
-- shortened by up to `jitter` of itself.
function schedule_reconnect(obj)
  local r = obj.reconnect
  if not r or (r.tries and obj.attempt >= r.tries) then obj.state = "closed"; return end
  obj.attempt = obj.attempt + 1
  local delay = math.min(r.max, r.initial * r.factor ^ (obj.attempt - 1))
  obj.state = "reconnecting"
  obj.retry = M.after(delay * (1 - r.jitter * random()), function() attempt(obj) end)
end

-- ---- options --------------------------------------------------------------

-- Raised without a position: connect() and udp() re-raise at their caller.
local function option_error(name, problem) error("ws_client.easy: option '" .. name .. "' " .. problem, 0) end

local CALLBACKS = { on_open = true, on_message = true, on_close = true, on_reconnect = true }
local WS_KEYS = { timeout = true, reconnect = true, standard = true }
for k in pairs(STANDARD_KEYS) do WS_KEYS[k] = true end
local ALLOWED = {
  ws = WS_KEYS, wss = WS_KEYS,
  tcp = { reconnect = true }, tls = { reconnect = true, cert = true, key = true }, udp = {},
}
-- The core's own opt-in keys, handed to it as given (its checks and errors
-- apply); by type. A key the core learns is one more line here: unknown keys
-- stay refused, so a misspelt protection is an error, not silently off.
local PASSED = {
  cafile = "string", capath = "string", servername = "string", io_timeout = "number",
}
local PASSED_FOR = { ws = { io_timeout = true }, tcp = { io_timeout = true }, wss = PASSED, tls = PASSED }

local function check_text(options, name)
  local v = options[name]
  if type(v) ~= "string" then option_error(name, "is required (a file path)") end
  if #v > 199 then option_error(name, "is longer than 199 characters") end
  if v:find("\0", 1, true) then option_error(name, "holds a zero byte") end
  return v
end

local function take_options(obj, scheme, options)
  if options == nil then options = {} end
  if type(options) ~= "table" then error("ws_client.easy: options must be a table", 0) end
  for k, v in pairs(options) do
    if CALLBACKS[k] then
      if type(v) ~= "function" then option_error(k, "must be a function") end
      obj[k] = v
    elseif PASSED_FOR[scheme] and PASSED_FOR[scheme][k] then
      if type(v) ~= PASSED[k] then option_error(k, "must be a " .. PASSED[k]) end
      obj.passed = obj.passed or {}
      obj.passed[k] = v
    elseif not ALLOWED[scheme][k] then
      option_error(tostring(k), "is unknown for " .. scheme .. (scheme == "udp" and "" or "://"))
    end
  end
  if scheme == "ws" or scheme == "wss" then
    local t = options.timeout
    if t == nil then t = 5 end
    if type(t) ~= "number" or t ~= t or t < 0 or t > 86400 then option_error("timeout", "must be seconds (0 to 86400)") end
    obj.timeout = math.ceil(t)
    if options.standard ~= nil and type(options.standard) ~= "boolean" then option_error("standard", "must be a boolean") end
    if options.standard ~= false then
      obj.standard = {}
      for k in pairs(STANDARD_KEYS) do obj.standard[k] = options[k] end
    end
  elseif scheme == "tls" then
    obj.cert, obj.key = check_text(options, "cert"), check_text(options, "key")
  end
  local r = options.reconnect
  if r == true then r = {} end
  if r then
    if type(r) ~= "table" then option_error("reconnect", "must be true or a table") end
    local cfg = {}
    for k, v in pairs(r) do
      if RECONNECT[k] == nil then option_error("reconnect." .. tostring(k), "is unknown") end
      if not (k == "tries" and v == false) and (type(v) ~= "number" or v ~= v or v < 0) then
        option_error("reconnect." .. k, "must be a number >= 0" .. (k == "tries" and " or false" or ""))
      end
    end
    for k, default in pairs(RECONNECT) do
      if r[k] == nil then cfg[k] = default else cfg[k] = r[k] end
    end
    if cfg.jitter > 1 then option_error("reconnect.jitter", "must be at most 1") end
    if cfg.factor < 1 then option_error("reconnect.factor", "must be at least 1") end
    obj.reconnect, obj.attempt = cfg, 0
  end
end

local DEFAULT_PORT = { ws = 80, wss = 443 }

-- connect(url, options): ws://host[:port]/path, wss://..., tcp://a.b.c.d:port,
-- tls://a.b.c.d:port (options cert and key). Blocks while it connects (up to
-- `timeout` seconds for the TCP connect of a WebSocket, plus its handshake).
-- The connected object, or nil, error text, errno.
local function parse(url, options)
  if type(url) ~= "string" then option_error("url", "must be a string") end
  local scheme, authority, path = url:match("^(%a+)://([^/]*)(.*)$")
  scheme = scheme and scheme:lower()
  if not ALLOWED[scheme] or scheme == "udp" then
    option_error("url", "must start with ws://, wss://, tcp:// or tls:// (got '" .. url .. "')")
  end
  local host, port = authority:match("^(.*):(%d+)$")
  if not host and authority:find(":") and not authority:find("[%[%]]") then
    option_error("url", "has a port that is not a number (got '" .. authority .. "')")
  end
  if not host then host, port = authority, DEFAULT_PORT[scheme] end
  port = tonumber(port)
  if host == "" or host:find("[@%[%]:]") then option_error("url", "has no usable host (name or IPv4 address)") end
  if not port then option_error("url", "needs a port for " .. scheme .. "://") end
  if port < 1 or port > 65535 then option_error("url", "has a port out of range") end
  local obj = setmetatable({ url = url, kind = scheme, host = host, port = port, state = "closed" }, Socket)
  if scheme == "ws" or scheme == "wss" then
    obj.code = WS
    obj.core_url = scheme .. "://" .. host .. (path == "" and "/" or path)
    if #obj.core_url > 199 then option_error("url", "is too long (199 characters without the port)") end
  else
    obj.code = TCP
    local a, b, c, d = host:match("^(%d+)%.(%d+)%.(%d+)%.(%d+)$")
    if not a or tonumber(a) > 255 or tonumber(b) > 255 or tonumber(c) > 255 or tonumber(d) > 255 then
      option_error("url", "needs a dotted IPv4 address for " .. scheme .. ":// (host names are not looked up)")
    end
    if path ~= "" and path ~= "/" then option_error("url", "takes no path for " .. scheme .. "://") end
  end
  take_options(obj, scheme, options)
  return obj
end

function M.connect(url, options)
  local parsed, obj = pcall(parse, url, options)
  if not parsed then error(obj, 2) end
  local ok, err, errno = open(obj)
  if not ok then return nil, err, errno end
  fire(obj, "on_open")
  return obj
end

-- udp(options): a UDP object; its socket is made and registered at the first
-- sendto, when the system also picks its local port.
function M.udp(options)
  local obj = setmetatable({ kind = "udp", code = UDP, state = "open" }, Socket)
  local ok, err = pcall(take_options, obj, "udp", options)
  if not ok then error(err, 2) end
  return obj
end

local function check_data(data, name)
  local t = type(data)
  if t == "number" then return tostring(data) end
  if t ~= "string" then error("bad argument #1 to '" .. name .. "' (string expected, got " .. t .. ")", 3) end
  return data
end

-- send(data): bytes sent, or nil, error text, errno. The data is sent as
-- text; a zero byte would end it, so such data is refused whole.
function Socket:send(data, kind)
  if self.code == UDP then error("send: a udp object sends with sendto(data, ip, port)", 2) end
  data = check_data(data, "send")
  if self.state ~= "open" then return nil, "closed" end
  if not self.standard and data:find("\0", 1, true) then return nil, "data holds a zero byte" end
  if self.code == WS and not self.standard and #data > 65535 then return nil, "message longer than 65535 bytes" end
  local n, c
  if self.standard then n, c = captured(self, false, core.ws_send, self.core, data, kind or "text")
  else n, c = captured(self, false, self.code == WS and core.ws_send or core.tcp_send, self.core, data) end
  if c.closed then return nil, c.err or c.reason, c.errno end
  if n < 0 then return nil, c.err or "send failed", c.errno end
  if n == 0 and #data > 0 then return nil, self.standard and "queue full" or "timeout", c.errno end  -- dropped
  return n
end

-- sendto(data, ip, port) on a UDP object: bytes sent, or nil, error text.
function Socket:sendto(data, ip, port)
  if self.code ~= UDP then error("sendto: only a udp object has sendto", 2) end
  data = check_data(data, "sendto")
  local a, b, c, d = tostring(ip):match("^(%d+)%.(%d+)%.(%d+)%.(%d+)$")
  if type(ip) ~= "string" or not a or tonumber(a) > 255 or tonumber(b) > 255 or tonumber(c) > 255
      or tonumber(d) > 255 then
    error("bad argument #2 to 'sendto' (dotted IPv4 address expected)", 2)
  end
  if type(port) ~= "number" or port < 1 or port > 65535 or port % 1 ~= 0 then
    error("bad argument #3 to 'sendto' (port 1 to 65535 expected)", 2)
  end
  if self.state ~= "open" then return nil, "closed" end
  if data:find("\0", 1, true) then return nil, "data holds a zero byte" end
  if not self.core then
    local ok, err, errno = open(self)
    if not ok then self.state = "closed"; return nil, err, errno end
    fire(self, "on_open")
  end
  local n, cap = captured(self, false, core.udp_sendto, self.core, data, ip, port)
  if n < 0 then return nil, cap.err or "send failed", cap.errno end
  return n
end

-- close(): closes the connection (on_close runs) and ends any reconnecting.
function Socket:close()
  if self.retry then self.retry:cancel(); self.retry = nil end
  self.reconnect = nil
  if self.core then
    local close = self.code == WS and core.ws_close or self.code == TCP and core.tcp_close or core.udp_close
    self.closing = true
    close(self.core)
    self.closing = false
  end
  self.state = "closed"
  return true
end

-- getfd(): the descriptor the core watches for this object, or nil while it
-- has none (closed, reconnecting, a udp object before its first sendto); a
-- reconnect changes it. LuaSocket's select() asks objects for getfd(), cqueues'
-- poll for pollfd() and events().
function Socket:getfd() return self.core and self.fd or nil end
Socket.pollfd = Socket.getfd
function Socket:events() return "r" end

-- ---- the loop ---------------------------------------------------------------

-- On the 2 ms poll a pass sleeps towards the next timer (and fires it when
-- it wakes at its time) for as long as the sockets had been quiet before, NAP
-- seconds at most: data that arrives meanwhile waits no longer than that
-- quiet, and never over NAP; a quiet loop wakes a few times before a timer
-- instead of 500 times a second.
local NAP, quiet_since, stirred_wall = 0.5, nil, nil

-- Fires what is due, after a nap when the sockets are quiet; the time after.
local function fire_and_nap(t)
  t = fire_timers(t)
  if interval ~= 0 then return t end
  if stirred or not quiet_since then
    -- events seen on a whole-second tick happened before that tick's wall clock second
    quiet_since = (not stirred and stirred_wall) and t - math.max(0, os.time() - stirred_wall - 1) or t
  end
  stirred, stirred_wall = false, nil
  local due = next_due()
  local left = due and math.min(due - t, NAP, t - quiet_since)
  if not (left and left > 0.001) or stopping or idle() then return t end
  core.sleep(left)
  t = fire_timers(clock())
  if stirred then quiet_since, stirred = t, false end  -- a timer ran: from now on
  return t
end

local function unshield()
  for i = 1, #shielded do shielded[i][1].type = shielded[i][2] end
  shielded = {}
end

local function tick()
  local due, want = next_due(), interval
  if not due then
    want = interval == 0 and MAX_TICK or interval
  elseif interval == 0 or not surely_far(due) then
    want = wanted_interval(fire_and_nap(clock()))
  end
  if stirred and interval ~= 0 then
    quiet_since, stirred, stirred_wall = nil, false, os.time()
  end
  -- a shorter tick at once; a longer one after the poll
  if stopping or idle() or want < interval or (interval == 0 and want > 0) then core.loop_stop() end
end

-- After a fatal sweep, which ends loop_start with an error: numbers of
-- closed descriptors leave the loop's table (run() then restores the shielded sockets).
local function recover(err)
  if #shielded == 0 then error(err, 0) end
  local top = 0
  for k in pairs(registry) do
    local fd = type(k) == "string" and tonumber(k:match("^sockfd%-(%d+)$"))
    if fd and fd > top then top = fd end
  end
  purge(top)
end

-- run(): serves every socket and timer until stop() is called, or until no
-- object is open or reconnecting and no timer is pending.
function M.run()
  if running or stepping then error("run: the loop is already running", 2) end
  running, stopping = true, false
  quiet_since = clock()  -- what came before is waiting in the kernel: the first select() sees it
  local ok, err = pcall(function()
    while not stopping and not idle() do
      interval = wanted_interval(clock())
      local done, e = pcall(core.loop_start, tick, 1, interval)
      if not done then recover(e) end
      unshield()  -- no sweep followed the report, or it is over
    end
  end)
  running, interval = false, nil
  if not ok then error(err, 0) end
end

-- stop(): run() returns at the end of the loop's current pass.
function M.stop()
  stopping = true
  if running then core.loop_stop() end
end

-- ---- driven from outside ---------------------------------------------------

-- A pass of whole seconds whose select() timed out comes back to the periodic
-- function, which raises: a loop_stop() there would wait one more tick.
local PASS_OVER = {}
local function pass_over() error(PASS_OVER, 0) end
local function poll_once() core.loop_stop() end

local function pass(timeout)
  stirred = false
  local t = heap[1] and fire_timers(clock())  -- no timer: no clock read
  local due = next_due()
  local wait = math.floor(math.min(timeout, due and due - t or timeout, 86400))
  if stirred then wait = 0 end  -- what a timer sent may be answered at once
  local done, e = pcall(core.loop_start, wait == 0 and poll_once or pass_over, 1, wait)
  if not done and e ~= PASS_OVER then done, e = pcall(recover, e) end
  unshield()
  if not done and e ~= PASS_OVER then error(e, 0) end
  if not heap[1] then return nil end
  t = fire_timers(clock())
  due = next_due()
  return due and math.max(0, due - t) or nil
end

-- step(timeout): fires the timers that are due, runs one pass of the core's
-- loop (one select() over the module's sockets, their callbacks), fires what
-- came due meanwhile and returns the seconds until the next timer (nil: none).
-- The select() waits whole seconds only, never past the timeout or the next
-- timer: below a second (and after a timer ran) it is the core's 2 ms poll.
function M.step(timeout)
  if timeout == nil then timeout = 0 end
  if type(timeout) ~= "number" or not (timeout >= 0) then
    error("bad argument #1 to 'step' (seconds >= 0 expected)", 2)
  end
  if running or stepping then error("step: the loop is already running", 2) end
  stepping = true
  local ok, r = pcall(pass, timeout)
  stepping = false
  if not ok then error(r, 0) end
  return r
end

return M
