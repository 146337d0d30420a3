#!/usr/bin/python3
"""The local default peer (tools/peer.py) against independent clients:
python3-websockets, plain sockets and Python's ssl module. Run under
scripts/with_peer.sh, which exports the PEER_* settings."""
import asyncio
import os
import socket
import ssl
import sys
import unittest

import websockets

HOST = os.environ["PEER_HOST"]
CERTS = os.environ["PEER_CERTS"]


def port(name):
    return int(os.environ["PEER_%s_PORT" % name])


def read_to_end(sock):
    data = b""
    while True:
        piece = sock.recv(4096)
        if not piece:
            return data
        data += piece


def client_context(with_certificate):
    context = ssl.create_default_context(cafile=os.path.join(CERTS, "ca.crt"))
    if with_certificate:
        context.load_cert_chain(os.path.join(CERTS, "client.crt"), os.path.join(CERTS, "client.key"))
    return context


class PeerTest(unittest.TestCase):
    def test_websocket_echoes_accept_the_echo_subprotocol(self):
        async def exchange(url, context):
            async with websockets.connect(url, ssl=context, subprotocols=["echo"], open_timeout=5) as ws:
                await ws.send("ping text")
                return ws.subprotocol, await asyncio.wait_for(ws.recv(), 5)

        for scheme, context in (("ws", None), ("wss", client_context(False))):
            url = "%s://%s:%d/echo" % (scheme, HOST, port(scheme.upper()))
            self.assertEqual(asyncio.run(exchange(url, context)), ("echo", "ping text"), scheme)

    def test_tcp_echo_answers_then_closes_when_idle(self):
        with socket.create_connection((HOST, port("TCP")), timeout=5) as sock:
            sock.sendall(b"one line\n")
            self.assertEqual(read_to_end(sock), b"one line\n")

    def test_tls_echo_wants_a_client_certificate(self):
        with socket.create_connection((HOST, port("TLS")), timeout=5) as raw:
            with client_context(True).wrap_socket(raw, server_hostname="127.0.0.1") as sock:
                sock.sendall(b"over tls")
                self.assertEqual(read_to_end(sock), b"over tls")
        with socket.create_connection((HOST, port("TLS")), timeout=5) as raw:
            # TLS 1.3: the refusal shows on the first read, after the handshake.
            with self.assertRaises((ssl.SSLError, ConnectionError)):
                with client_context(False).wrap_socket(raw, server_hostname="127.0.0.1") as sock:
                    sock.sendall(b"no certificate")
                    if not sock.recv(100):
                        raise ConnectionError("closed without an answer")

    def test_http_answer_is_chunked_and_the_connection_closes(self):
        with socket.create_connection((HOST, port("HTTP")), timeout=5) as sock:
            sock.sendall(b"GET / HTTP/1.1\r\nHost: x\r\n\r\n")
            answer = read_to_end(sock)
        head, _, body = answer.partition(b"\r\n\r\n")
        self.assertIn(b"Transfer-Encoding: chunked", head.split(b"\r\n"))
        decoded = b""
        while True:
            size_line, _, body = body.partition(b"\r\n")
            size = int(size_line, 16)
            if size == 0:
                break
            decoded, body = decoded + body[:size], body[size + 2:]
        self.assertEqual(decoded, b"Hello from the local peer: this body came in four chunks.")
        self.assertEqual(body, b"\r\n")
        # the module's decoder ends at the first final-chunk pattern anywhere
        self.assertEqual(answer.count(b"0\r\n\r\n"), 1)

    def test_udp_echo(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
            sock.settimeout(5)
            sock.sendto(b"datagram", (HOST, port("UDP")))
            data, sender = sock.recvfrom(100)
        self.assertEqual((data, sender), (b"datagram", (HOST, port("UDP"))))


if __name__ == "__main__":
    sys.exit(0 if unittest.main(exit=False, verbosity=2).result.wasSuccessful() else 1)
