#!/usr/bin/env python3
"""A DNS server for the tests on a UDP socket the caller bound (its descriptor
is inherited):  dns_peer.py FD NAME DELAY [ADDRESS...]
A and AAAA queries for NAME get the ADDRESSes of that family after DELAY
seconds (negative: never); other names get "no such name". Stops when its
standard input closes, 30 s at most."""
import ipaddress, os, socket, struct, sys, threading

fd, name, delay, addresses = int(sys.argv[1]), sys.argv[2].lower(), float(sys.argv[3]), sys.argv[4:]
sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM, fileno=fd)
threading.Thread(target=lambda: (sys.stdin.read(), os._exit(0)), daemon=True).start()
threading.Timer(30, os._exit, (0,)).start()


def answer(query):  # RFC 1035 section 4.1; the answers name the question by pointer
    end, labels = 12, []
    while query[end]:
        labels.append(query[end + 1:end + 1 + query[end]].decode().lower())
        end += 1 + query[end]
    qtype, end = struct.unpack("!H", query[end + 1:end + 3])[0], end + 5
    version = {1: 4, 28: 6}.get(qtype) if ".".join(labels) == name else None
    packed = [ip.packed for ip in map(ipaddress.ip_address, addresses) if ip.version == version]
    flags = 0x8180 if ".".join(labels) == name else 0x8183
    return (query[:2] + struct.pack("!HHHHH", flags, 1, len(packed), 0, 0) + query[12:end] +
            b"".join(struct.pack("!HHHLH", 0xC00C, qtype, 1, 60, len(rdata)) + rdata for rdata in packed))


while True:
    query, sender = sock.recvfrom(512)
    if delay >= 0:
        threading.Timer(delay, sock.sendto, (answer(query), sender)).start()
