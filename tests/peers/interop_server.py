#!/usr/bin/python3
# Interop peer on python3-websockets: ws and wss (the certificate and key given) on
# 127.0.0.1; prints "WS_PORT WSS_PORT"; ends when stdin closes, 120 s at most. Paths:
#   /echo[?pause=S]        echo in the message's kind (reading nothing for the first S s)
#   /burst?n=N[&size=B]    N messages back to back: i padded with '.' to B bytes, odd i binary
#   /fragments             a text (a ping amid it) and a binary message in fragments
#   /close?code=C&reason=R the server closes so
#   /last_close            the close code and reason of the connection before, once it ended
#   /headers               the request target and headers, names in lower case
import asyncio, os, ssl, sys  # noqa: E401
from urllib.parse import parse_qsl, urlsplit
import websockets

last_close, others = "none", 0  # others: connections not yet ended


async def fragments(ws):
    seen = []

    async def text():
        yield "hé"
        pong = await ws.ping(b"mid")
        yield "llo "
        done, _ = await asyncio.wait([pong], timeout=3)  # answered amid the fragments
        seen.append("pong ok" if done else "no pong")
        yield "wörld"
    await ws.send(text())
    await ws.send([b"\0\1", b"", b"\xff"])
    await ws.send(seen[0])


async def behave(ws, path):
    global last_close, others
    url = urlsplit(path)
    q = dict(parse_qsl(url.query))
    others += url.path != "/last_close"
    try:
        if url.path == "/echo":
            if "pause" in q:
                ws.transport.pause_reading()
                await asyncio.sleep(float(q["pause"]))
                ws.transport.resume_reading()
            async for message in ws:
                await ws.send(message)
        elif url.path == "/burst":
            for i in range(int(q["n"])):
                text = str(i).ljust(int(q.get("size", 0)), ".")
                await ws.send(text.encode() if i % 2 else text)
        elif url.path == "/fragments":
            await fragments(ws)
        elif url.path == "/close":
            await ws.close(int(q["code"]), q.get("reason", ""))
        elif url.path == "/last_close":
            for _ in range(500):  # until the others have ended
                if others == 0:
                    break
                await asyncio.sleep(0.01)
            await ws.send(last_close)
        elif url.path == "/headers":
            await ws.send(path + "\n" + "".join("%s: %s\n" % (k.lower(), v) for k, v in ws.request_headers.raw_items()))
        await ws.wait_closed()
    except websockets.ConnectionClosed:
        pass
    finally:
        if url.path != "/last_close":
            last_close, others = "%s %s" % (ws.close_code, ws.close_reason), others - 1


async def main(crt, key):
    tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    tls.load_cert_chain(crt, key)
    options = dict(ping_interval=None, max_size=None, compression=None, subprotocols=["mqtt", "chat"])
    plain = await websockets.serve(behave, "127.0.0.1", 0, **options)
    secure = await websockets.serve(behave, "127.0.0.1", 0, ssl=tls, **options)
    print(plain.sockets[0].getsockname()[1], secure.sockets[0].getsockname()[1], flush=True)
    stdin_closed = asyncio.get_running_loop().run_in_executor(None, sys.stdin.read)
    await asyncio.wait([stdin_closed, asyncio.ensure_future(asyncio.sleep(120))],
                       return_when=asyncio.FIRST_COMPLETED)
    os._exit(0)  # the stdin reader thread may still block


asyncio.run(main(*sys.argv[1:3]))
