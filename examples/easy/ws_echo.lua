-- WebSocket echo client that the module reconnects (ws_client.easy).
--
-- The peer's /close path closes each connection after its first echo; the
-- `reconnect` option opens a new one with back-off, and the same object
-- carries on. A timer sends a text every 0.2 s while connected. Ends after
-- ROUNDS connections or SECONDS seconds.
--
--   LUA_CPATH="build/?.so" LUA_PATH="src/?.lua;;" lua5.1 examples/easy/ws_echo.lua
-- PEER_HOST, PEER_WS_PORT pick the peer; WS_URL picks another URL (the port
-- goes in the URL), e.g. wss://127.0.0.1:8802/close.

local easy = require("ws_client.easy")

local host = os.getenv("PEER_HOST") or "127.0.0.1"
local url = os.getenv("WS_URL") or ("ws://" .. host .. ":" .. (os.getenv("PEER_WS_PORT") or 8801) .. "/close")
local ROUNDS, SECONDS = 3, 20

local connection, echoes, sent = 1, 0, 0
local sender, limit
local function finish(conn)  -- nothing left to serve: run() returns
  conn:close(); sender:cancel(); limit:cancel()
end

local conn, err = easy.connect(url, {
  reconnect = { initial = 0.2, max = 2 },  -- seconds: 0.2, 0.4, 0.8 ... at most 2, less up to half
  on_message = function(self, text)
    echoes = echoes + 1
    print("connection " .. connection .. " echo: " .. text)
  end,
  on_close = function(self, reason)
    print("connection " .. connection .. " closed: " .. reason)
    if connection == ROUNDS then finish(self) end
  end,
  on_reconnect = function(self, attempt, err)
    print("reconnect attempt " .. attempt .. ": " .. (err or "open"))
    if not err then connection = connection + 1 end
  end,
})
if not conn then
  print("connect failed: " .. err)
  os.exit(1)
end

sender = easy.every(0.2, function()
  if conn.state == "open" then
    sent = sent + 1
    conn:send("message " .. sent .. " on connection " .. connection)
  end
end)
limit = easy.after(SECONDS, function() finish(conn) end)
easy.run()
print(string.format("%d echoes over %d connections", echoes, connection))
os.exit(echoes == ROUNDS and connection == ROUNDS and 0 or 1)
