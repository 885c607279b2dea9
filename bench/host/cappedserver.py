#!/usr/bin/env python3
"""Serves a folder over HTTP/1.1 with keep-alive, capping every connection at RATE bytes/s.

    cappedserver.py ROOT PORT RATE

Each connection has a token bucket of its own (a burst of 64 KiB), so a small response is
paced like a large one. nginx's limit_rate grants a whole second's worth of bytes to every
request at once, so it never slows responses smaller than the rate; CDNs that cap connections
behave like this server instead. GET and HEAD, with single byte ranges.
"""
import asyncio
import mimetypes
import os
import sys
import time

CHUNK = 16 * 1024
BURST = 64 * 1024


class Bucket:
    """Tokens accrue at the rate up to a burst of BURST bytes, so sleeping too long is made up."""

    def __init__(self, rate):
        self.rate, self.tokens, self.last = rate, BURST, time.monotonic()

    async def take(self, size):
        while True:
            now = time.monotonic()
            self.tokens = min(BURST, self.tokens + (now - self.last) * self.rate)
            self.last = now
            if self.tokens >= size:
                break
            await asyncio.sleep((size - self.tokens) / self.rate)
        self.tokens -= size


def parse_range(header, size):
    if not header or not header.startswith("bytes=") or "," in header:
        return None
    first, _, last = header[6:].partition("-")
    if not first:
        return max(size - int(last), 0), size - 1
    return int(first), min(int(last), size - 1) if last else size - 1


async def respond(writer, bucket, root, method, target, headers):
    path = os.path.realpath(os.path.join(root, target.split("?")[0].lstrip("/")))
    if not path.startswith(root) or not os.path.isfile(path):
        writer.write(b"HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n")
        return
    size = os.path.getsize(path)
    span = parse_range(headers.get("range"), size)
    first, last = span if span else (0, size - 1)
    if first >= size:
        writer.write(f"HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */{size}\r\n"
                     "Content-Length: 0\r\n\r\n".encode())
        return
    status = "206 Partial Content" if span else "200 OK"
    kind = mimetypes.guess_type(path)[0] or "application/octet-stream"
    head = (f"HTTP/1.1 {status}\r\nContent-Type: {kind}\r\nContent-Length: {last - first + 1}\r\n"
            "Accept-Ranges: bytes\r\n")
    if span:
        head += f"Content-Range: bytes {first}-{last}/{size}\r\n"
    writer.write((head + "\r\n").encode())
    if method == "HEAD":
        return
    with open(path, "rb") as file:
        file.seek(first)
        left = last - first + 1
        while left > 0:
            data = file.read(min(CHUNK, left))
            await bucket.take(len(data))
            writer.write(data)
            await writer.drain()
            left -= len(data)


async def serve(reader, writer, root, rate):
    bucket = Bucket(rate)
    try:
        while True:
            request = await reader.readline()
            if not request:
                break
            method, target, _ = request.decode("latin-1").split(" ", 2)
            headers = {}
            while (line := (await reader.readline()).decode("latin-1").strip()):
                name, _, value = line.partition(":")
                headers[name.strip().lower()] = value.strip()
            await respond(writer, bucket, root, method, target, headers)
            await writer.drain()
            if headers.get("connection", "").lower() == "close":
                break
    except (ConnectionError, ValueError):
        pass
    writer.close()


async def main():
    root, port, rate = os.path.realpath(sys.argv[1]), int(sys.argv[2]), float(sys.argv[3])
    mimetypes.add_type("application/vnd.apple.mpegurl", ".m3u8")
    server = await asyncio.start_server(lambda r, w: serve(r, w, root, rate), "127.0.0.1", port)
    async with server:
        await server.serve_forever()


if __name__ == "__main__":
    asyncio.run(main())
