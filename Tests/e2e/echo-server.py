#!/usr/bin/env python3
"""An echo server on 0.0.0.0:PORT. TCP: one thread per connection, bytes back
as they came. UDP ("udp" as second argument): each datagram back, followed by
" from " and the address it came from, so a client can tell which way it went.
"""
import socket
import sys
import threading

port = int(sys.argv[1])
if len(sys.argv) > 2 and sys.argv[2] == "udp":
    server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    server.bind(("0.0.0.0", port))
    while True:
        data, sender = server.recvfrom(65536)
        server.sendto(data + b" from " + sender[0].encode(), sender)


def echo(connection):
    with connection:
        for chunk in iter(lambda: connection.recv(65536), b""):
            connection.sendall(chunk)


server = socket.socket()
server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
server.bind(("0.0.0.0", port))
server.listen()
while True:
    client, _ = server.accept()
    threading.Thread(target=echo, args=(client,), daemon=True).start()
