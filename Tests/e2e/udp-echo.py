#!/usr/bin/env python3
"""Sends one datagram to ADDRESS:PORT and prints the reply. Exit status 0 on
a reply, 2 when the connection is refused, 1 when nothing comes back."""
import socket
import sys

with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
    s.settimeout(3)
    s.connect((sys.argv[1], int(sys.argv[2])))
    try:
        s.send(b"quic")
        print(s.recv(65536).decode())
    except ConnectionRefusedError:
        sys.exit(2)
    except socket.timeout:
        sys.exit(1)
