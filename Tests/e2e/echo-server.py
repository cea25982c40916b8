#!/usr/bin/env python3
"""A TCP echo server on 0.0.0.0:PORT, one thread per connection."""
import socket
import sys
import threading


def echo(connection):
    with connection:
        for chunk in iter(lambda: connection.recv(65536), b""):
            connection.sendall(chunk)


server = socket.socket()
server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
server.bind(("0.0.0.0", int(sys.argv[1])))
server.listen()
while True:
    client, _ = server.accept()
    threading.Thread(target=echo, args=(client,), daemon=True).start()
