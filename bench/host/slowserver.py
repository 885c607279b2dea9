#!/usr/bin/env python3
"""Serves a folder over HTTP/1.1, answering every request only after DELAY seconds.

    slowserver.py ROOT PORT DELAY

A server far away, on loopback: work that waits for several answers one after another takes
DELAY times their number, work that asks for them at once takes DELAY. GET and HEAD, with a
single byte range; one thread per connection.
"""
import http.server
import mimetypes
import os
import sys
import time


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def do_HEAD(self):
        self.answer(with_body=False)

    def do_GET(self):
        self.answer(with_body=True)

    def answer(self, with_body):
        time.sleep(self.server.delay)
        path = os.path.join(self.server.root, self.path.split("?")[0].lstrip("/"))
        if not os.path.isfile(path):
            self.send_response(404)
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        with open(path, "rb") as f:
            data = f.read()
        start, end, status = 0, len(data) - 1, 200
        wanted = self.headers.get("Range", "")
        if wanted.startswith("bytes=") and "," not in wanted:
            first, _, last = wanted[6:].partition("-")
            if first:
                start = int(first)
                end = min(int(last), end) if last else end
                status = 206
        body = data[start:end + 1]
        self.send_response(status)
        self.send_header("Content-Type", mimetypes.guess_type(path)[0] or "application/octet-stream")
        self.send_header("Content-Length", str(len(body)))
        self.send_header("Accept-Ranges", "bytes")
        if status == 206:
            self.send_header("Content-Range", f"bytes {start}-{end}/{len(data)}")
        self.end_headers()
        if with_body:
            self.wfile.write(body)


class Server(http.server.ThreadingHTTPServer):
    # The default backlog of 5 drops the connections of a burst beyond it, and their clients
    # retry a second later: that second would be the server's, not the client's.
    request_queue_size = 128


def main():
    root, port, delay = sys.argv[1], int(sys.argv[2]), float(sys.argv[3])
    server = Server(("127.0.0.1", port), Handler)
    server.root, server.delay = root, delay
    server.daemon_threads = True
    server.serve_forever()


if __name__ == "__main__":
    main()
