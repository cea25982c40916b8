#!/usr/bin/env python3
"""The application side of the fault suite. Exit status 0 when the
application saw the orderly end it should see, in time; 1 otherwise.

  request HOST PORT      send a request, read to the end (EOF, reset or refusal)
  give-up HOST PORT      send a request, wait one second for an answer, close
  reset HOST PORT        send a request, then reset the connection
  half-close HOST PORT   send, finish sending, and still read the answer ("bye")
  held HOST PORT         exchange a line, say "held", then wait for the end (10 s)
  many HOST PORT N       hold N echoing connections open at once, then close them
  soak HOST PORT N       N half-close exchanges, one after another
"""
import asyncio
import socket
import struct
import sys

mode, host, port = sys.argv[1], sys.argv[2], int(sys.argv[3])


def connect():
    return socket.create_connection((host, port), timeout=5)


def request():
    try:
        with connect() as s:
            s.sendall(b"GET / HTTP/1.0\r\n\r\n")
            while s.recv(65536):
                pass
    except (ConnectionError, OSError) as error:
        if isinstance(error, socket.timeout):
            return 1
    return 0


def give_up():
    with connect() as s:
        s.sendall(b"GET / HTTP/1.0\r\n\r\n")
        s.settimeout(1)
        try:
            s.recv(100)
        except (socket.timeout, ConnectionError, OSError):
            pass
    return 0


def reset():
    s = connect()
    s.sendall(b"GET / HTTP/1.0\r\n\r\n")
    s.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    s.close()
    return 0


def half_close():
    with connect() as s:
        s.sendall(b"question")
        s.shutdown(socket.SHUT_WR)
        answer = b""
        while data := s.recv(100):
            answer += data
    return 0 if answer == b"bye" else 1


def held():
    with connect() as s:
        s.sendall(b"ping\n")
        if s.recv(100) != b"ping\n":
            return 1
        print("held", flush=True)
        s.settimeout(10)
        try:
            while s.recv(100):
                pass
        except socket.timeout:
            return 1
        except (ConnectionError, OSError):
            pass
    return 0


async def many(count):
    async def one(i):
        reader, writer = await asyncio.open_connection(host, port)
        writer.write(b"%d\n" % i)
        line = await asyncio.wait_for(reader.readline(), 30)
        return reader, writer, line == b"%d\n" % i

    pending = set()
    held = []
    for i in range(count):
        pending.add(asyncio.ensure_future(one(i)))
        if len(pending) >= 256:  # not a SYN flood: a crowd
            done, pending = await asyncio.wait(pending, return_when=asyncio.FIRST_COMPLETED)
            held += [d.result() for d in done]
    if pending:
        held += [d.result() for d in (await asyncio.wait(pending))[0]]
    ok = all(r[2] for r in held) and len(held) == count
    print(f"{sum(r[2] for r in held)} of {count} echoed", flush=True)
    for _, writer, _ in held:
        writer.close()
    return 0 if ok else 1


if mode == "soak":
    sys.exit(max(half_close() for _ in range(int(sys.argv[4]))))
if mode == "many":
    sys.exit(asyncio.run(many(int(sys.argv[4]))))
sys.exit({"request": request, "give-up": give_up, "reset": reset,
          "half-close": half_close, "held": held}[mode]())
