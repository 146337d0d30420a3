-- wss:// and TLS TCP with the server's certificate verified, for a device
-- left on its own: the opt-in keys cafile (or capath), servername and
-- io_timeout (docs/api.md).
--
-- Three connections to the local peer, whose certificates are signed by its
-- own CA (ca.crt in PEER_CERTS):
--   1. wss:// verified against ca.crt; the certificate must match the URL's
--      host (127.0.0.1 here). Opens, and one echo comes back.
--   2. the same, but servername = "wrong.invalid": that name goes out as SNI
--      and the certificate must match it, which it does not. Refused: on_error
--      and on_close get the usual TLS failure texts; set_debug's log says why.
--   3. TLS TCP with the client certificate, verified (the dotted address is
--      the name checked), io_timeout bounding every read and write. Opens and
--      gets its echo.
-- A peer started with --wrong-name serves a certificate for another name, so
-- 1 and 3 are refused too.
--
--   LUA_CPATH="build/?.so" lua5.1 examples/wss_verify.lua     (peer: tools/peer.py)
-- PEER_HOST, PEER_WSS_PORT, PEER_TLS_PORT, PEER_CERTS pick the peer;
-- DEBUG_LOG names a file for the module's debug log.

local ws_client = require("ws_client")

local host = os.getenv("PEER_HOST") or "127.0.0.1"
local certs = os.getenv("PEER_CERTS") or ((os.getenv("HOME") or "") .. "/.cache/ws_client_peer")
if os.getenv("DEBUG_LOG") then ws_client.set_debug(os.getenv("DEBUG_LOG")) end

local outcome = {}

-- The module ignores errors raised in callbacks: print them with a traceback
-- (Lua 5.1's xpcall passes no arguments, hence the closure).
local unpack = table.unpack or unpack
local function guarded(f)
  return function(...)
    local args = { n = select("#", ...), ... }
    local ok, err = xpcall(function() return f(unpack(args, 1, args.n)) end, debug.traceback)
    if not ok then io.stderr:write("callback error: ", tostring(err), "\n") end
  end
end

local function callbacks(name, options)
  options.on_open = guarded(function() outcome[name] = "open"; print(name .. ": verified, open") end)
  options.on_message = guarded(function(text) outcome[name] = "echo"; print(name .. ": echo '" .. text .. "'") end)
  options.on_error = guarded(function(errno, text) print(name .. ": error " .. errno .. ": " .. text) end)
  options.on_close = guarded(function(reason) print(name .. ": closed: " .. reason) end)
  return options
end

local function wss(name, servername)
  return ws_client.ws_connect(ws_client.ws_new(), callbacks(name, {
    type = 0, url = "wss://" .. host .. "/echo", port = tonumber(os.getenv("PEER_WSS_PORT")) or 8802,
    timeout = 3, crt = "", prikey = "",
    cafile = certs .. "/ca.crt",       -- verify the chain against the peer's CA
    servername = servername,           -- nil: no SNI, the URL's host is checked
    io_timeout = 2,                    -- no read or write waits longer than 2 s
  }))
end

local right = wss("wss right name")
local wrong = wss("wss wrong name", "wrong.invalid")
local tls = ws_client.tcp_connect(ws_client.tcp_new(), callbacks("tls", {
  type = 1, ip = host, port = tonumber(os.getenv("PEER_TLS_PORT")) or 8804, is_secure = 1,
  crt = certs .. "/client.crt", prikey = certs .. "/client.key",
  cafile = certs .. "/ca.crt", io_timeout = 2,
}))

if right then ws_client.ws_send(right, "hello, verified") end
if tls then ws_client.tcp_send(tls, "hello over verified TLS") end
local started = os.time()
-- The TLS echo closes after its idle time; the loop ends once both echoes
-- came or after 10 s. pcall: a socket the peer closed may end the loop.
pcall(ws_client.loop_start, function()
  if (outcome["wss right name"] == "echo" and outcome.tls == "echo") or os.time() - started > 10 then
    ws_client.loop_stop()
  end
end, 1, 0)
local ok = outcome["wss right name"] == "echo" and outcome.tls == "echo" and wrong == nil
print("summary: right name " .. tostring(outcome["wss right name"]) .. ", wrong name " ..
      (wrong == nil and "refused" or "accepted") .. ", tls " .. tostring(outcome.tls))
os.exit(ok and 0 or 1)
