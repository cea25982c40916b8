#!/usr/bin/env python3
"""Misbehaving peers for the fault suite, all in one process.

SOCKS5 proxies that fail on purpose (one port each):
  1091  closes after reading the greeting (dies mid-handshake)
  1092  reads the greeting and never answers (stalls mid-handshake)
  1093  completes the handshake, relays, and resets both sides after 4 KB
  1094  relays faithfully, each side's end passed on as a half-close
Origins (one port each):
  8005  sends a little, then resets
  8007  reads until the client's end, then answers "bye" and closes
  8006, 8008, 8009  echo until the client closes
Usage: fault-peers.py ADDRESS
"""
import asyncio
import socket
import struct
import sys

ADDRESS = sys.argv[1]


def reset(writer):
    sock = writer.get_extra_info("socket")
    if sock is not None:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    writer.transport.abort()


async def dies(reader, writer):
    await reader.read(3)
    writer.close()


async def stalls(reader, writer):
    await reader.read(3)
    await reader.read()  # until the other side gives up
    writer.close()


async def socks_request(reader, writer):
    greeting = await reader.readexactly(2)
    await reader.readexactly(greeting[1])
    writer.write(b"\x05\x00")
    head = await reader.readexactly(4)
    if head[3] == 1:
        host = socket.inet_ntoa(await reader.readexactly(4))
    elif head[3] == 3:
        host = (await reader.readexactly((await reader.readexactly(1))[0])).decode()
    else:
        host = socket.inet_ntop(socket.AF_INET6, await reader.readexactly(16))
    port = struct.unpack("!H", await reader.readexactly(2))[0]
    return host, port


async def resets_mid_stream(reader, writer):
    host, port = await socks_request(reader, writer)
    up_reader, up_writer = await asyncio.open_connection(host, port)
    writer.write(b"\x05\x00\x00\x01" + socket.inet_aton("0.0.0.0") + b"\x00\x00")
    moved = 0
    while moved < 4096:
        data = await up_reader.read(4096 - moved)
        if not data:
            break
        writer.write(data)
        moved += len(data)
    await writer.drain()
    reset(writer)
    reset(up_writer)


async def pipe(reader, writer):
    try:
        while data := await reader.read(65536):
            writer.write(data)
            await writer.drain()
        writer.write_eof()
    except (ConnectionError, OSError):
        reset(writer)


async def faithful(reader, writer):
    host, port = await socks_request(reader, writer)
    up_reader, up_writer = await asyncio.open_connection(host, port)
    writer.write(b"\x05\x00\x00\x01" + socket.inet_aton("0.0.0.0") + b"\x00\x00")
    await asyncio.gather(pipe(reader, up_writer), pipe(up_reader, writer))
    writer.close()
    up_writer.close()


async def origin_resets(reader, writer):
    await reader.read(100)
    writer.write(b"partial")
    await writer.drain()
    await asyncio.sleep(0.05)
    reset(writer)


async def origin_after_end(reader, writer):
    await reader.read()  # to the client's end of stream
    writer.write(b"bye")
    await writer.drain()
    writer.close()


async def origin_echo(reader, writer):
    while data := await reader.read(65536):
        writer.write(data)
        await writer.drain()
    writer.close()


async def origin_stream(reader, writer):
    try:
        while True:
            writer.write(b"x" * 65536)
            await writer.drain()
    except (ConnectionError, OSError):
        pass


async def main():
    handlers = {1091: dies, 1092: stalls, 1093: resets_mid_stream, 1094: faithful,
                8004: origin_stream, 8005: origin_resets, 8006: origin_echo,
                8007: origin_after_end, 8008: origin_echo, 8009: origin_echo}
    servers = [await asyncio.start_server(h, ADDRESS, p, backlog=4096) for p, h in handlers.items()]
    print("ready", flush=True)
    await asyncio.gather(*(s.serve_forever() for s in servers))


asyncio.run(main())
