#!/usr/bin/env python3
"""Peers that stall a set-up, for bench/nonblocking.lua, on 127.0.0.1:
a listener whose backlog is full (connects hang), a listener that never
accepts (TLS handshakes and upgrade answers hang) and tests/peers/dns_peer.py
answering NAME after DELAY seconds.  stall_peer.py ENV_FILE NAME DELAY
Writes STALL_CONNECT_PORT, STALL_SILENT_PORT, STALL_DNS_PORT to ENV_FILE;
stops after 120 s, or when its standard input closes."""
import os, socket, subprocess, sys, threading

env_file, name, delay = sys.argv[1], sys.argv[2], sys.argv[3]
full = socket.socket()
full.bind(("127.0.0.1", 0))
full.listen(0)
fillers = [socket.socket() for _ in range(3)]
for filler in fillers:
    filler.setblocking(False)
    filler.connect_ex(full.getsockname())
silent = socket.socket()
silent.bind(("127.0.0.1", 0))
silent.listen(128)
dns = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
dns.bind(("127.0.0.1", 0))
here = os.path.dirname(os.path.abspath(__file__))
answers = subprocess.Popen([sys.executable, os.path.join(here, "..", "tests", "peers", "dns_peer.py"),
                            str(dns.fileno()), name, delay, "127.0.0.1"], stdin=subprocess.PIPE,
                           pass_fds=[dns.fileno()])
with open(env_file, "w") as out:
    out.write(f"STALL_CONNECT_PORT={full.getsockname()[1]} STALL_SILENT_PORT={silent.getsockname()[1]} "
              f"STALL_DNS_PORT={dns.getsockname()[1]}\n")
threading.Timer(120, os._exit, (0,)).start()
sys.stdin.read()
os._exit(0)
