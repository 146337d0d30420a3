#!/usr/bin/python3
"""Local default peer for ws_client scripts.

Serves, on one address (127.0.0.1 unless --host says otherwise):

  ws    WebSocket echo (plain), built on python3-websockets; on a path
        starting with /close the server closes after its first echo
  wss   WebSocket echo over TLS
  tcp   TCP echo: answers every read, closes after --idle seconds of silence
        or when the client closes its side
  tls   the same over TLS; the client must present a certificate signed by
        the peer's CA
  http  HTTP: answers any request with a chunked response, then closes;
        GET /restart also closes every TCP service (and its WebSocket
        connections) and listens again on the same ports a second later
  udp   UDP echo

The module's TCP receive path reads until the peer closes the connection,
hence the echoes' closing on idle and the HTTP server's close after its
response.

Certificates (a CA, a server certificate for 127.0.0.1/localhost, a server
certificate for the wrong name "wrong.invalid" and a client certificate, each
with its key, all signed by the CA) are made with the openssl command on first
run in --cert-dir and reused afterwards. wss and tls serve the right-name
certificate; with --wrong-name they serve the wrong-name one, so that a
client verifying against ca.crt is refused.

Once every service listens, one line goes to stdout:

  WS_CLIENT_PEER host=127.0.0.1 ws=8801 wss=8802 tcp=8803 tls=8804 http=8805 udp=8806 certs=/path

and, with --env-file, the same facts as shell assignments (PEER_HOST,
PEER_WS_PORT, PEER_WSS_PORT, PEER_TCP_PORT, PEER_TLS_PORT, PEER_HTTP_PORT,
PEER_UDP_PORT, PEER_CERTS), which the examples read from their environment.
Events are logged to stderr, one line each. Stops on Ctrl-C or SIGTERM, or by
itself after --lifetime seconds.

Runs with Debian's /usr/bin/python3 and python3-websockets.
"""
import argparse
import asyncio
import os
import shlex
import shutil
import signal
import ssl
import subprocess
import sys
import tempfile

try:
    import websockets
except ImportError:  # pragma: no cover - a message for people, not a test path
    sys.exit("peer: python3-websockets is missing (apt-get install python3-websockets; "
             "run this file with /usr/bin/python3)")

SERVICES = ("ws", "wss", "tcp", "tls", "http", "udp")
DEFAULT_PORTS = {"ws": 8801, "wss": 8802, "tcp": 8803, "tls": 8804, "http": 8805, "udp": 8806}
CERT_FILES = ("ca.crt", "server.crt", "server.key", "wrongname.crt", "wrongname.key", "client.crt", "client.key")

# The body of the HTTP answer, one chunk per piece. No piece holds the bytes
# "0\r\n\r\n", which the module's decoder takes as the end of the body.
HTTP_CHUNKS = (b"Hello from the ", b"local peer: ", b"this body came in ", b"four chunks.")


def log(text):
    print("peer: " + text, file=sys.stderr, flush=True)


def shown(data, limit=60):
    text = data.decode("utf-8", "replace") if isinstance(data, (bytes, bytearray)) else str(data)
    text = text.replace("\r", "\\r").replace("\n", "\\n")
    return "'%s'" % (text if len(text) <= limit else text[:limit] + "...")


# ---- certificates ----

def run_openssl(directory, *args):
    result = subprocess.run(("openssl",) + args, cwd=directory, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True)
    if result.returncode != 0:
        sys.exit("peer: openssl %s failed:\n%s" % (args[0], result.stdout))


def make_signed(directory, name, subject, extensions):
    run_openssl(directory, "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                "-keyout", name + ".key", "-out", name + ".csr", "-subj", subject)
    with open(os.path.join(directory, name + ".ext"), "w") as ext:
        ext.write(extensions)
    run_openssl(directory, "x509", "-req", "-in", name + ".csr", "-CA", "ca.crt", "-CAkey", "ca.key",
                "-set_serial", str(int.from_bytes(os.urandom(8), "big")), "-days", "3650",
                "-out", name + ".crt", "-extfile", name + ".ext")
    os.remove(os.path.join(directory, name + ".csr"))
    os.remove(os.path.join(directory, name + ".ext"))


def ensure_certificates(cert_dir):
    """Makes the certificates unless all of them are there; returns the directory."""
    cert_dir = os.path.abspath(cert_dir)
    if all(os.path.isfile(os.path.join(cert_dir, name)) for name in CERT_FILES):
        return cert_dir
    parent = os.path.dirname(cert_dir)
    os.makedirs(parent, exist_ok=True)
    # Made aside and moved into place, so that two peers starting together
    # never see half a set.
    work = tempfile.mkdtemp(prefix=".peer-certs-", dir=parent)
    run_openssl(work, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                "-keyout", "ca.key", "-out", "ca.crt", "-days", "3650", "-subj", "/CN=ws_client local peer CA")
    make_signed(work, "server", "/CN=127.0.0.1",
                "subjectAltName=IP:127.0.0.1,DNS:localhost\nextendedKeyUsage=serverAuth\n")
    make_signed(work, "wrongname", "/CN=wrong.invalid",
                "subjectAltName=DNS:wrong.invalid\nextendedKeyUsage=serverAuth\n")
    make_signed(work, "client", "/CN=ws_client device",
                "extendedKeyUsage=clientAuth\n")
    for name in os.listdir(work):
        os.chmod(os.path.join(work, name), 0o600 if name.endswith(".key") else 0o644)
    try:
        os.rename(work, cert_dir)
    except OSError:  # made meanwhile by another peer, or an incomplete old set
        if not all(os.path.isfile(os.path.join(cert_dir, name)) for name in CERT_FILES):
            os.makedirs(cert_dir, exist_ok=True)
            for name in os.listdir(work):
                os.replace(os.path.join(work, name), os.path.join(cert_dir, name))
        shutil.rmtree(work, ignore_errors=True)
    log("made certificates in " + cert_dir)
    return cert_dir


def server_context(cert_dir, require_client_cert, name="server"):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(os.path.join(cert_dir, name + ".crt"), os.path.join(cert_dir, name + ".key"))
    # No session tickets: the module's TLS reads block, and a ticket arriving
    # alone would make a socket readable with no data for the script.
    context.num_tickets = 0
    if require_client_cert:
        context.verify_mode = ssl.CERT_REQUIRED
        context.load_verify_locations(os.path.join(cert_dir, "ca.crt"))
    return context


# ---- services ----

async def websocket_echo(name, connection, path=None):
    peer = "%s:%d" % connection.remote_address[:2]
    log("%s open from %s, subprotocol %s" % (name, peer, connection.subprotocol))
    try:
        async for message in connection:
            log("%s echo %s" % (name, shown(message)))
            await connection.send(message)
            if connection.path.startswith("/close"):
                await connection.close()
    except websockets.ConnectionClosed:
        pass
    log("%s closed from %s (code %s)" % (name, peer, connection.close_code))


def stream_echo(name, idle):
    async def serve(reader, writer):
        peer = "%s:%d" % writer.get_extra_info("peername")[:2]
        log("%s open from %s" % (name, peer))
        try:
            while True:
                data = await asyncio.wait_for(reader.read(65536), idle)
                if not data:
                    break
                log("%s echo %s" % (name, shown(data)))
                writer.write(data)
                await writer.drain()
        except asyncio.TimeoutError:
            log("%s %.1f s idle, closing %s" % (name, idle, peer))
        except (ConnectionError, ssl.SSLError) as error:
            log("%s %s: %s" % (name, peer, error))
        finally:
            writer.close()
        log("%s closed %s" % (name, peer))
    return serve


def http_chunked(idle, restart):
    async def serve(reader, writer):
        peer = "%s:%d" % writer.get_extra_info("peername")[:2]
        try:
            request = await asyncio.wait_for(reader.readuntil(b"\r\n\r\n"), idle)
            log("http request from %s: %s" % (peer, shown(request.split(b"\r\n", 1)[0])))
            answer = [b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nTransfer-Encoding: chunked\r\n"
                      b"Connection: close\r\n\r\n"]
            answer += [b"%x\r\n%s\r\n" % (len(chunk), chunk) for chunk in HTTP_CHUNKS]
            answer.append(b"0\r\n\r\n")
            writer.write(b"".join(answer))
            await writer.drain()
            log("http answered %s with %d chunks, closing" % (peer, len(HTTP_CHUNKS)))
            if request.startswith(b"GET /restart"):
                asyncio.get_running_loop().create_task(restart(1.0))
        except (asyncio.TimeoutError, asyncio.IncompleteReadError, asyncio.LimitOverrunError,
                ConnectionError) as error:
            log("http %s: no complete request (%s)" % (peer, type(error).__name__))
        finally:
            writer.close()
    return serve


class UdpEcho(asyncio.DatagramProtocol):
    def connection_made(self, transport):
        self.transport = transport

    def datagram_received(self, data, address):
        log("udp echo %s to %s:%d" % (shown(data), address[0], address[1]))
        self.transport.sendto(data, address)


def quiet_exceptions(loop, context):
    # A client that fails the TLS handshake (no certificate, say) is an event
    # worth one line, not a traceback.
    error = context.get("exception")
    log("note: %s" % (error if error is not None else context.get("message")))


# ---- start and stop ----

async def serve(args):
    loop = asyncio.get_running_loop()
    loop.set_exception_handler(quiet_exceptions)
    cert_dir = ensure_certificates(args.cert_dir)
    served = "wrongname" if args.wrong_name else "server"
    host = args.host
    ports = {}

    def port_of(server):
        return server.sockets[0].getsockname()[1]

    ws_options = dict(subprotocols=["echo"], ping_interval=None, compression=None, max_size=2 ** 20)
    servers = []

    async def start():
        servers[:] = [
            await websockets.serve(lambda c, p=None: websocket_echo("ws", c, p), host, ports["ws"], **ws_options),
            await websockets.serve(lambda c, p=None: websocket_echo("wss", c, p), host, ports["wss"],
                                   ssl=server_context(cert_dir, False, served), **ws_options),
            await asyncio.start_server(stream_echo("tcp", args.idle), host, ports["tcp"]),
            await asyncio.start_server(stream_echo("tls", args.idle), host, ports["tls"],
                                       ssl=server_context(cert_dir, True, served)),
            await asyncio.start_server(http_chunked(args.idle, restart), host, ports["http"])]
        for name, server in zip(("ws", "wss", "tcp", "tls", "http"), servers):
            ports[name] = port_of(server)

    async def restart(seconds):
        log("restart: every TCP service down for %.1f s" % seconds)
        for server in servers:
            server.close()
        await asyncio.sleep(seconds)
        await start()
        log("restart: listening again")

    ports.update({name: getattr(args, "%s_port" % name) for name in SERVICES})
    await start()
    udp_transport, _ = await loop.create_datagram_endpoint(UdpEcho, local_addr=(host, ports["udp"]))
    ports["udp"] = udp_transport.get_extra_info("sockname")[1]

    print("WS_CLIENT_PEER host=%s %s certs=%s"
          % (host, " ".join("%s=%d" % (name, ports[name]) for name in SERVICES), cert_dir), flush=True)
    if args.env_file:
        values = {"PEER_HOST": host, "PEER_CERTS": cert_dir}
        values.update({"PEER_%s_PORT" % name.upper(): str(ports[name]) for name in SERVICES})
        partial = args.env_file + ".part"
        with open(partial, "w") as env:
            env.writelines("%s=%s\n" % (key, shlex.quote(value)) for key, value in values.items())
        os.replace(partial, args.env_file)  # appears whole: readers wait for it

    stop = asyncio.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        loop.add_signal_handler(number, stop.set)
    if args.lifetime > 0:
        loop.call_later(args.lifetime, stop.set)
    await stop.wait()

    udp_transport.close()
    for server in servers:
        server.close()
    for server in servers:
        await server.wait_closed()
    log("stopped")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0],
                                     formatter_class=argparse.RawDescriptionHelpFormatter,
                                     epilog="Ports: 0 picks any free port.")
    parser.add_argument("--host", default="127.0.0.1", help="address to bind (default 127.0.0.1)")
    for name in SERVICES:
        parser.add_argument("--%s-port" % name, type=int, default=DEFAULT_PORTS[name], metavar="PORT",
                            help="%s port (default %d)" % (name, DEFAULT_PORTS[name]))
    parser.add_argument("--any-port", action="store_true", help="let the system pick every port")
    cache = os.environ.get("XDG_CACHE_HOME") or os.path.join(os.path.expanduser("~"), ".cache")
    parser.add_argument("--cert-dir", default=os.path.join(cache, "ws_client_peer"),
                        help="where certificates are made and kept (default %(default)s)")
    parser.add_argument("--wrong-name", action="store_true",
                        help="wss and tls serve the certificate for wrong.invalid (verification then fails)")
    parser.add_argument("--env-file", help="also write the ports as shell assignments to this file")
    parser.add_argument("--idle", type=float, default=0.5,
                        help="seconds of silence after which the TCP and TLS echoes close (default 0.5)")
    parser.add_argument("--lifetime", type=float, default=0,
                        help="stop after this many seconds (default 0: run until Ctrl-C)")
    args = parser.parse_args()
    if args.any_port:
        for name in SERVICES:
            setattr(args, "%s_port" % name, 0)
    try:
        asyncio.run(serve(args))
    except OSError as error:
        sys.exit("peer: %s" % error)
    except KeyboardInterrupt:
        pass


if __name__ == "__main__":
    main()
