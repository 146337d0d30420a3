-- ws_client demo written with ws_client.easy: the same five exchanges as
-- examples/demo.lua (ws, wss, http, tls, udp) against the local default
-- peer, in one run(), with a status line every second, until everything has
-- been seen or DEMO_SECONDS (default 20) have passed.
--
--   LUA_CPATH="build/?.so" LUA_PATH="src/?.lua;;" lua5.1 examples/easy/demo.lua

local easy = require("ws_client.easy")

local host = os.getenv("PEER_HOST") or "127.0.0.1"
local function port(name, default) return os.getenv("PEER_" .. name .. "_PORT") or default end
local certs = os.getenv("PEER_CERTS") or ((os.getenv("HOME") or ".") .. "/.cache/ws_client_peer")
local time_limit = tonumber(os.getenv("DEMO_SECONDS")) or 20

local started = os.time()
local parts = { "ws", "wss", "http", "tls", "udp" }
local seen = {}
local status, finished  -- the status line's timer; ends it once all is seen

local function say(tag, text) print(string.format("%-5s %s", tag, text)) end
local function shown(text)
  text = (text:gsub("\r", "\\r"):gsub("\n", "\\n"))
  return "'" .. (#text > 72 and text:sub(1, 69) .. "..." or text) .. "'"
end

-- One exchange: connect, send `text`, judge the answer with `check`, close.
local function exchange(tag, url, text, check, options)
  options = options or {}
  options.on_open = function() say(tag, "open") end
  options.on_close = function(self, reason) say(tag, "closed: " .. reason); finished() end
  options.on_message = function(self, data)
    seen[tag] = check(self, data)
    self:close()
  end
  local conn, err, errno = easy.connect(url, options)
  if conn then conn:send(text) else say(tag, "error " .. tostring(errno) .. ": " .. err) end
end

local function echoed(text) return function(self, data) say(self.kind, "message " .. shown(data)); return data == text end end
exchange("ws", "ws://" .. host .. ":" .. port("WS", 8801) .. "/echo", "hello over ws://", echoed("hello over ws://"))
exchange("wss", "wss://" .. host .. ":" .. port("WSS", 8802) .. "/echo", "hello over wss://", echoed("hello over wss://"))
exchange("http", "tcp://" .. host .. ":" .. port("HTTP", 8805),
  "GET /demo HTTP/1.1\r\nHost: " .. host .. "\r\nConnection: close\r\n\r\n",
  function(self, data)  -- the whole answer, de-chunked: head, a line break, the body, a line break
    local body = data:match("([^\r\n]*)\r\n$") or ""
    say("http", "answer " .. shown(data:match("^[^\r\n]*")) .. ", body " .. shown(body))
    return body == "Hello from the local peer: this body came in four chunks."
  end)
local tls_text = "hello over TLS with a client certificate"
exchange("tls", "tls://" .. host .. ":" .. port("TLS", 8804), tls_text, echoed(tls_text),
  { cert = certs .. "/client.crt", key = certs .. "/client.key" })

local udp = easy.udp{
  on_close = function(self, reason) say("udp", "closed: " .. reason); finished() end,
  on_message = function(self, data, from, from_port)
    say("udp", "message " .. shown(data) .. " from " .. from .. ":" .. from_port)
    seen.udp = data == "hello over udp"
    self:close()
  end }
udp:sendto("hello over udp", host, tonumber(port("UDP", 8806)))

local function missing()
  local list = {}
  for _, name in ipairs(parts) do if not seen[name] then list[#list + 1] = name end end
  return list
end
finished = function() if #missing() == 0 then status:cancel() end end  -- nothing left: run() returns
status = easy.every(1, function(timer)
  local items = {}
  for _, name in ipairs(parts) do items[#items + 1] = name .. (seen[name] and " ok" or " --") end
  say("tick", string.format("%2d s: %s", os.time() - started, table.concat(items, ", ")))
  if #missing() == 0 or os.time() - started >= time_limit then timer:cancel(); easy.stop() end
end)
easy.run()

local list = missing()
print(string.format("summary: %d of %d seen in %d s%s", #parts - #list, #parts, os.time() - started,
  #list > 0 and (", missing: " .. table.concat(list, ", ")) or ""))
os.exit(#list == 0 and 0 or 1)
