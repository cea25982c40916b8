#!/usr/bin/env python3
"""Sends a 2 KB TLS ClientHello whose server name lies after a large key
share, in two TCP segments with a pause between them, to an address where
nothing listens, and expects it echoed back: only a proxy asked for the
server name (which names the echo) can make that round trip.

Usage: split-hello.py ADDRESS PORT NAME
"""
import socket
import struct
import sys
import time

address, port, name = sys.argv[1], int(sys.argv[2]), sys.argv[3].encode()
sni = struct.pack("!HBH", len(name) + 3, 0, len(name)) + name
extensions = struct.pack("!HH", 0x33, 1800) + bytes(1800) + struct.pack("!HH", 0, len(sni)) + sni
body = (b"\x03\x03" + b"\x07" * 32 + b"\x00" + b"\x00\x02\x13\x01" + b"\x01\x00"
        + struct.pack("!H", len(extensions)) + extensions)
handshake = b"\x01" + struct.pack("!I", len(body))[1:] + body
record = b"\x16\x03\x01" + struct.pack("!H", len(handshake)) + handshake

with socket.create_connection((address, port), timeout=5) as s:
    s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    s.sendall(record[:1000])
    time.sleep(0.005)
    s.sendall(record[1000:])
    echoed = b""
    while len(echoed) < len(record):
        chunk = s.recv(65536)
        if not chunk:
            break
        echoed += chunk
sys.exit(0 if echoed == record else 1)
