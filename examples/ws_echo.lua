-- WebSocket echo client that reconnects when its connection closes.
--
-- Sends one text per tick and reads the echoes. After three echoes it closes
-- the connection itself; on_close forgets the connection and the next tick
-- opens a new one: reconnecting is the script's job, the module never does
-- it. A connect that fails (the peer is not up yet, say) is retried the same
-- way. Ends after ROUNDS connections or SECONDS seconds.
--
--   LUA_CPATH="build/?.so" lua5.1 examples/ws_echo.lua        (peer: tools/peer.py)
-- PEER_HOST, PEER_WS_PORT pick the peer; WS_URL, e.g. wss://127.0.0.1/echo
-- with PEER_WS_PORT set to the wss port, picks another URL.

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
local url = os.getenv("WS_URL") or ("ws://" .. host .. "/echo")  -- a path is needed: "ws://h" sends "GET  HTTP/1.1"
local port = tonumber(os.getenv("PEER_WS_PORT")) or 8801
local ROUNDS, PER_ROUND, SECONDS = 2, 3, 20

local conn              -- the open connection, as ws_connect returned it
local attempts, rounds_done, echoes = 0, 0, 0
local started = os.time()

local function connect()
  attempts = attempts + 1
  local attempt, got, sent = attempts, 0, 0
  local options = {
    type = 0,                          -- WebSocket; the script must always say so
    url = url, port = port,            -- the port comes from here only, never from the URL
    timeout = 3,                       -- seconds for the TCP connect
    crt = "", prikey = "",             -- required, although a WebSocket presents no certificate
    on_open = guarded(function() print("connection " .. attempt .. " open") end),
    on_message = guarded(function(text, from, from_port)   -- from is nil, from_port -1
      got, echoes = got + 1, echoes + 1
      print("connection " .. attempt .. " echo: " .. text)
      if got == PER_ROUND and conn then
        rounds_done = rounds_done + 1
        local open = conn
        conn = nil
        ws_client.ws_close(open)       -- on_close below runs inside this call
      end
    end),
    on_error = guarded(function(errno, text) print("connection " .. attempt .. " error " .. errno .. ": " .. text) end),
    on_close = guarded(function(reason)
      print("connection " .. attempt .. " closed: " .. reason)
      conn = nil                       -- the next tick reconnects
    end),
  }
  -- ws_connect returns a new object on success and nothing (or nil) on
  -- failure, after on_error and on_close have told why.
  conn = ws_client.ws_connect(ws_client.ws_new(), options)
  return function()                    -- sends the next message on this connection
    sent = sent + 1
    ws_client.ws_send(conn, "message " .. sent .. " on connection " .. attempt)
  end
end

local send_next
local function tick()
  if rounds_done >= ROUNDS or os.time() - started >= SECONDS then
    ws_client.loop_stop()
  elseif conn == nil then
    send_next = connect()
    if conn then send_next() end
  else
    send_next()
  end
end

-- A tick at least once a second. Should the peer close a connection itself,
-- the module ends loop_start with an error (the closed socket stays watched):
-- pcall keeps that from ending the script without its summary.
local ok, err = pcall(ws_client.loop_start, tick, 1, 1)
if not ok then print("loop ended: " .. tostring(err)) end
print(string.format("%d echoes over %d connections, %d rounds complete", echoes, attempts, rounds_done))
os.exit(rounds_done == ROUNDS and 0 or 1)
