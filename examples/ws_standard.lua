-- Standard-mode WebSockets (options key rfc6455): a subprotocol, an extra
-- header, zero bytes in a text, a binary message larger than one frame of the
-- designed dialect, a ping, and a closing handshake with a code and reason,
-- over ws:// and wss:// against the local peer's echo.
--
--   LUA_CPATH="build/?.so" lua5.1 examples/ws_standard.lua   (peer: tools/peer.py)
-- PEER_HOST, PEER_WS_PORT, PEER_WSS_PORT pick the peer.

local ws_client = require("ws_client")

local host = os.getenv("PEER_HOST") or "127.0.0.1"
local ports = { ws = tonumber(os.getenv("PEER_WS_PORT")) or 8801, wss = tonumber(os.getenv("PEER_WSS_PORT")) or 8802 }
local blob = {}
for i = 0, 99999 do blob[#blob + 1] = string.char(i % 256) end
blob = table.concat(blob)
local done = 0

local function connect(scheme)
  local conn
  local say = function(text) print(string.format("%-5s %s", scheme, text)) end
  conn = ws_client.ws_connect(ws_client.ws_new(), {
    type = 0, url = scheme .. "://" .. host .. ":" .. ports[scheme] .. "/echo", port = 0, timeout = 5, crt = "", prikey = "",
    rfc6455 = true, protocols = { "chat", "echo" }, headers = { ["X-Device"] = "example" },
    on_open = function(protocol) say("open, protocol " .. tostring(protocol)) end,
    on_message = function(data, kind)
      if kind == "text" then say(string.format("text '%s' (%d bytes)", data:gsub("%z", "\\0"), #data))
      else say("binary of " .. #data .. " bytes, " .. (data == blob and "intact" or "damaged")) end
      if kind == "binary" then ws_client.ws_close(conn, 4000, "done") end
    end,
    on_error = function(errno, text) say("error " .. errno .. ": " .. text) end,
    on_close = function(reason, code, peer_reason)
      say(string.format("closed: %s, code %s, reason '%s'", reason, tostring(code), tostring(peer_reason)))
      done = done + 1
      if done == 2 then ws_client.loop_stop() end
    end,
  })
  if conn then
    ws_client.ws_send(conn, "a\0b")
    ws_client.ws_send(conn, "are you there?", "ping")
    ws_client.ws_send(conn, blob, "binary")
  else
    done = done + 1
  end
end

connect("ws")
connect("wss")
local started = os.time()
if done < 2 then
  ws_client.loop_start(function() if os.time() - started > 10 then ws_client.loop_stop() end end, 1, 1)
end
print("summary: " .. done .. " of 2 closed")
os.exit(done == 2 and 0 or 1)
