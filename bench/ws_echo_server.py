#!/usr/bin/python3
# Echo server on 127.0.0.1 (python3-websockets), an independent peer for the
# WebSocket benchmark: prints its port, echoes every message, but pings on
# "please ping" (then sends "pong seen") and closes with 1000 on "please close".
# --tls: with a certificate made now by openssl. Ends when stdin closes (120 s at most).
import asyncio, os, ssl, subprocess, sys, tempfile  # noqa: E401
import websockets


async def echo(connection, path=None):
    try:
        async for message in connection:
            if message == "please ping":
                await asyncio.wait_for(await connection.ping(b""), 5)
                await connection.send("pong seen")
            elif message == "please close":
                await connection.close(1000)
            else:
                await connection.send(message)
    except (websockets.ConnectionClosed, asyncio.TimeoutError):
        pass


async def main(context):
    server = await websockets.serve(echo, "127.0.0.1", 0, ssl=context, ping_interval=None,
                                    max_size=None, compression=None)
    print(server.sockets[0].getsockname()[1], flush=True)
    stdin_closed = asyncio.get_running_loop().run_in_executor(None, sys.stdin.read)
    await asyncio.wait([stdin_closed, asyncio.ensure_future(asyncio.sleep(120))],
                       return_when=asyncio.FIRST_COMPLETED)
    os._exit(0)  # the stdin reader thread may still block


context = None
if sys.argv[1:] == ["--tls"]:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    with tempfile.TemporaryDirectory() as temp:
        crt, key = os.path.join(temp, "crt.pem"), os.path.join(temp, "key.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                        "-nodes", "-subj", "/CN=127.0.0.1", "-keyout", key, "-out", crt], check=True,
                       capture_output=True)
        context.load_cert_chain(crt, key)
asyncio.run(main(context))
