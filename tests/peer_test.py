#!/usr/bin/python3
"""The local default peer (tools/peer.py) against independent clients:
python3-websockets, plain sockets and Python's ssl module. Run under
scripts/with_peer.sh, which exports the PEER_* settings."""
import asyncio, os, socket, ssl, sys, unittest  # noqa: E401
import websockets

HOST, CERTS = os.environ["PEER_HOST"], os.environ["PEER_CERTS"]


def port(name):
    return int(os.environ["PEER_%s_PORT" % name])


def exchange(name, data, context=None):
    """Sends data to the TCP service `name` and reads until the peer closes."""
    with socket.create_connection((HOST, port(name)), timeout=5) as raw, \
            context.wrap_socket(raw, server_hostname=HOST) if context else raw as sock:
        sock.sendall(data)
        answer = b""
        while piece := sock.recv(4096):
            answer += piece
        return answer


def client_context(with_certificate):
    context = ssl.create_default_context(cafile=os.path.join(CERTS, "ca.crt"))
    if with_certificate:
        context.load_cert_chain(os.path.join(CERTS, "client.crt"), os.path.join(CERTS, "client.key"))
    return context


class PeerTest(unittest.TestCase):
    def test_websocket_echoes_accept_the_echo_subprotocol(self):
        async def echo(url, context):
            async with websockets.connect(url, ssl=context, subprotocols=["echo"], open_timeout=5) as ws:
                await ws.send("ping text")
                return ws.subprotocol, await asyncio.wait_for(ws.recv(), 5)

        for scheme, context in (("ws", None), ("wss", client_context(False))):
            url = "%s://%s:%d/echo" % (scheme, HOST, port(scheme.upper()))
            self.assertEqual(asyncio.run(echo(url, context)), ("echo", "ping text"), scheme)

    def test_tcp_echoes_plain_and_over_tls_with_a_client_certificate_only(self):
        self.assertEqual(exchange("TCP", b"one line\n"), b"one line\n")
        self.assertEqual(exchange("TLS", b"over tls", client_context(True)), b"over tls")
        # TLS 1.3: the refusal shows on the first read, after the handshake.
        with self.assertRaises((ssl.SSLError, ConnectionError)):
            if not exchange("TLS", b"no certificate", client_context(False)):
                raise ConnectionError("closed without an answer")

    def test_http_answer_is_chunked_with_one_final_chunk(self):
        answer = exchange("HTTP", b"GET / HTTP/1.1\r\nHost: x\r\n\r\n")
        head, _, body = answer.partition(b"\r\n\r\n")
        self.assertIn(b"Transfer-Encoding: chunked", head.split(b"\r\n"))
        decoded = b""
        while (size := int(body.partition(b"\r\n")[0], 16)) != 0:
            body = body.partition(b"\r\n")[2]
            decoded, body = decoded + body[:size], body[size + 2:]
        self.assertEqual(decoded, b"Hello from the local peer: this body came in four chunks.")
        self.assertEqual(body, b"0\r\n\r\n")
        # the module's decoder ends at the first final-chunk pattern anywhere
        self.assertEqual(answer.count(b"0\r\n\r\n"), 1)

    def test_udp_echo(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
            sock.settimeout(5)
            sock.sendto(b"datagram", (HOST, port("UDP")))
            self.assertEqual(sock.recvfrom(100), (b"datagram", (HOST, port("UDP"))))


if __name__ == "__main__":
    sys.exit(0 if unittest.main(exit=False, verbosity=2).result.wasSuccessful() else 1)
