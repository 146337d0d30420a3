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

-- Seconds since boot, to 10 ms: the only sub-second clock plain Lua has on
-- Linux. Reopened per read (a seek inside stdio's buffer would read stale).
function M.now()
  local f = io.open("/proc/uptime")
  if not f then return os.time() end
  local t = f:read("*n")
  f:close()
  return t or os.time()
end
-- LuaJIT reads the monotonic clock through its FFI instead, for a fraction
-- of the cost (the loop reads the clock every pass while a timer is close);
-- only where upstream LuaJIT runs (the FFI of some ports faults on the call).
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

local heap, pending, serial = {}, 0, 0  -- binary heap by (due, serial); live timers
local running, stopping, interval = false, false, nil

local function earlier(a, b) return a.due < b.due or (a.due == b.due and a.serial < b.serial) end

local function push(t)
  local i = #heap + 1
  heap[i] = t
  while i > 1 do
    local p = (i - i % 2) / 2
    if not earlier(heap[i], heap[p]) then break end
    heap[i], heap[p] = heap[p], heap[i]
    i = p
  end
end

local function pop()
  local top, n = heap[1], #heap
  local last = heap[n]
  heap[n] = nil
  n = n - 1
  if n == 0 then return top end
  heap[1] = last
  local i = 1
  while true do
    local l, s = i * 2, i
    if l <= n and earlier(heap[l], heap[s]) then s = l end
    if l + 1 <= n and earlier(heap[l + 1], heap[s]) then s = l + 1 end
    if s == i then break end
    heap[i], heap[s] = heap[s], heap[i]
    i = s
  end
  return top
end

local function next_due()
  while heap[1] and not heap[1].active do pop() end
  return heap[1] and heap[1].due
end

-- The core's whole-second tick (about one wake-up a second) while nothing is
-- due soon, its 2 ms poll otherwise. A loop_stop() from the periodic function
-- takes effect only after that pass's select(), a whole tick later, and a
-- loop started with the tick first calls it after a tick: so the tick is
-- kept only while the next timer is two ticks and a margin away, and the
-- poll runs in the last second (or two, when the loop has just started).
local SLOW_FOR = 2.1
local function wanted_interval(t)
  local due = next_due()
  return (due and due - t < SLOW_FOR) and 0 or 1
end

local Timer = {}
Timer.__index = Timer

function Timer:cancel()
  if self.active then self.active, pending = false, pending - 1 end
end

local function schedule(t, at)
  serial = serial + 1
  t.due, t.serial = at, serial
  push(t)
  -- a loop on the whole-second tick must come round sooner (from a socket
  -- callback this takes effect at once)
  if running and interval ~= 0 and at - now() < SLOW_FOR then core.loop_stop() end
end

local function new_timer(name, seconds, fn, every)
  if type(seconds) ~= "number" or seconds ~= seconds or seconds < 0 or (every and seconds <= 0) then
    error("bad argument #1 to '" .. name .. "' (" .. (every and "positive " or "") .. "seconds expected)", 3)
  end
  if type(fn) ~= "function" then error("bad argument #2 to '" .. name .. "' (function expected)", 3) end
  local t = setmetatable({ fn = fn, every = every and seconds, active = true }, Timer)
  pending = pending + 1
  schedule(t, now() + seconds)
  return t
end

-- after(seconds, fn): fn(timer) once; every(seconds, fn): fn(timer) each
-- period until timer:cancel(). Fractions of a second are fine.
function M.after(seconds, fn) return new_timer("after", seconds, fn, false) end
function M.every(seconds, fn) return new_timer("every", seconds, fn, true) end

-- Fires what is due at t; returns the time after (t when nothing fired).
local function fire_timers(t)
  local due = next_due()
  if not (due and due <= t) then return t end
  while due and due <= t do
    local timer = pop()
    if timer.every then
      local at = due + timer.every
      schedule(timer, at > t and at or t + timer.every)  -- a period missed: no burst to catch up
    else
      timer.active, pending = false, pending - 1
    end
    call(timer.fn, timer)
    due = next_due()
  end
  return now()
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

local open_count = 0
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
  o.on_message = function(data, from, port) fire(obj, "on_message", data, from, port) end
  o.on_error = function(errno, text) core_error(obj, o, errno, text) end
  o.on_close = function(reason, code, peer_reason) core_close(obj, o, reason, code, peer_reason) end
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
      if type(v) ~= "number" or v ~= v or v < 0 then option_error("reconnect." .. k, "must be a number >= 0") end
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
      option_error("url", "needs a dotted IPv4 address for " .. scheme .. "://")
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

-- ---- the loop ---------------------------------------------------------------

local function idle() return open_count == 0 and pending == 0 end

local function tick()
  if #shielded > 0 then
    -- no sweep followed the report after all: the sockets are dispatched again
    for i = 1, #shielded do shielded[i][1].type = shielded[i][2] end
    shielded = {}
  end
  local t = next_due() and fire_timers(now())  -- no timer, no clock read
  if stopping or idle() or (t and wanted_interval(t) or 1) ~= interval then core.loop_stop() end
end

-- After a fatal sweep, which ends loop_start with an error: numbers of
-- closed descriptors leave the loop's table, shielded sockets are restored.
local function recover(err)
  if #shielded == 0 then error(err, 0) end
  local top = 0
  for k in pairs(registry) do
    local fd = type(k) == "string" and tonumber(k:match("^sockfd%-(%d+)$"))
    if fd and fd > top then top = fd end
  end
  purge(top)
  for i = 1, #shielded do shielded[i][1].type = shielded[i][2] end
  shielded = {}
end

-- run(): serves every socket and timer until stop() is called, or until no
-- object is open or reconnecting and no timer is pending.
function M.run()
  if running then error("run: the loop is already running", 2) end
  running, stopping = true, false
  local ok, err = pcall(function()
    while not stopping and not idle() do
      interval = wanted_interval(now())
      local done, e = pcall(core.loop_start, tick, 1, interval)
      if not done then recover(e) end
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

return M
