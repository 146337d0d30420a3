#!/usr/bin/python3
# Echo server on 127.0.0.1 built on Debian's python3-websockets, an
# independent implementation for interoperability tests and the benchmark.
#
#   ws_echo_server.py [--tls CERT KEY] [--lifetime SECONDS]
#
# Prints the port it listens on, then echoes every message. Two texts are
# commands: "please ping" sends a ping with an empty payload and, once the
# pong came, the text "pong seen"; "please close" closes with code 1000.
# Exits when stdin closes (the parent is gone) or after --lifetime seconds.
import argparse
import asyncio
import ssl
import sys

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


async def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tls", nargs=2, metavar=("CERT", "KEY"))
    parser.add_argument("--lifetime", type=float, default=120)
    args = parser.parse_args()
    context = None
    if args.tls:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(args.tls[0], args.tls[1])
    server = await websockets.serve(echo, "127.0.0.1", 0, ssl=context, ping_interval=None,
                                    max_size=None, compression=None)
    port = server.sockets[0].getsockname()[1]
    print(port, flush=True)
    loop = asyncio.get_running_loop()
    stdin_closed = loop.run_in_executor(None, sys.stdin.read)
    await asyncio.wait([stdin_closed, asyncio.ensure_future(asyncio.sleep(args.lifetime))],
                       return_when=asyncio.FIRST_COMPLETED)
    server.close()
    await server.wait_closed()


if __name__ == "__main__":
    try:
        asyncio.run(main())
    except KeyboardInterrupt:
        pass
    # the stdin reader thread may still block: leave without waiting for it
    sys.stdout.flush()
    import os
    os._exit(0)
