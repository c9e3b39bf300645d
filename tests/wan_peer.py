#!/usr/bin/env python3
"""HTTP peer for the transfer tests: the behaviours a plain file server does
not have. Usage: wan_peer.py PORT DIR. Prints "ready" once it listens.

GET  /reset/N     N body bytes with ETag "r1"; without a Range header the
                  connection is reset after half of them, with "Range: bytes=X-"
                  the rest comes as 206 (200 and the whole file when an If-Range
                  names another validator)
GET  /changed/KIND/N/TOKEN
                  a file that changes after its first request: the first answer
                  is version 1 (200, reset after half the bytes), every later one
                  version 2 (other bytes), with a validator by KIND: "etag"
                  (ETag), "date" (Last-Modified) or "none"; a range request
                  whose If-Range does not name version 2 gets the whole file
                  (200), one without If-Range gets 206 (the splice a client
                  without a validator makes); TOKEN names a fresh file
GET  /range416/N  N body bytes; every range request gets 416 without a
                  Content-Range (the file's size unknown)
GET  /stall       headers and 100 bytes of a 1 MB body, then nothing
GET  /status/C    answers with status C and a short body
POST /post/NAME   stores the body in DIR/NAME and its Content-Type in DIR/NAME.type
GET  /digest      200 only with digest authentication of user "meter", password "secret"
"""
import hashlib
import http.server
import os
import re
import socket
import socketserver
import struct
import sys
import threading
import time

REALM = "orvo-test"
NONCE = "d1c0ffee"


def body_bytes(n):
    return bytes((i * 7 + 3) % 251 for i in range(n))


def changed_bytes(n):
    return bytes((i * 11 + 5) % 251 for i in range(n))


VALIDATORS = {
    "etag": [("ETag", '"v1"'), ("ETag", '"v2"')],
    "date": [("Last-Modified", "Mon, 01 Jan 2024 00:00:00 GMT"),
             ("Last-Modified", "Tue, 02 Jan 2024 00:00:00 GMT")],
    "none": [None, None],
}
SEEN = set()
SEEN_LOCK = threading.Lock()


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def send_plain(self, code, text, extra=None):
        data = text.encode()
        self.send_response(code)
        for k, v in (extra or {}).items():
            self.send_header(k, v)
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)

    def do_GET(self):
        m = re.match(r"^/reset/(\d+)$", self.path)
        if m:
            return self.reset(int(m.group(1)))
        m = re.match(r"^/changed/(etag|date|none)/(\d+)/(\w+)$", self.path)
        if m:
            return self.changed(m.group(1), int(m.group(2)), self.path)
        m = re.match(r"^/range416/(\d+)$", self.path)
        if m:
            if self.headers.get("Range"):
                return self.send_plain(416, "no such range\n")
            return self.send_body(200, body_bytes(int(m.group(1))))
        if self.path == "/stall":
            self.send_response(200)
            self.send_header("Content-Length", "1000000")
            self.end_headers()
            self.wfile.write(b"x" * 100)
            self.wfile.flush()
            time.sleep(60)
            return
        m = re.match(r"^/status/(\d+)$", self.path)
        if m:
            return self.send_plain(int(m.group(1)), "status page\n")
        if self.path == "/digest":
            return self.digest()
        self.send_plain(404, "no such path\n")

    def send_body(self, code, data, extra=()):
        self.send_response(code)
        for k, v in extra:
            self.send_header(k, v)
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)

    def send_half_and_reset(self, data, extra=()):
        self.send_response(200)
        for k, v in extra:
            self.send_header(k, v)
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data[: len(data) // 2])
        self.wfile.flush()
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.connection.close()
        self.close_connection = True

    def send_range(self, data, validator):
        """206 from the asked start, or 200 and the whole file when If-Range
        names another validator than validator (or there is none)."""
        extra = [validator] if validator else []
        if_range = self.headers.get("If-Range")
        if if_range is not None and (validator is None or if_range != validator[1]):
            return self.send_body(200, data, extra)
        start = int(re.match(r"bytes=(\d+)-", self.headers.get("Range")).group(1))
        n = len(data)
        extra.append(("Content-Range", "bytes %d-%d/%d" % (start, n - 1, n)))
        return self.send_body(206, data[start:], extra)

    def reset(self, n):
        data = body_bytes(n)
        validator = ("ETag", '"r1"')
        if self.headers.get("Range"):
            return self.send_range(data, validator)
        self.send_half_and_reset(data, [validator])

    def changed(self, kind, n, path):
        with SEEN_LOCK:
            first = path not in SEEN
            SEEN.add(path)
        if first:
            v1 = VALIDATORS[kind][0]
            return self.send_half_and_reset(body_bytes(n), [v1] if v1 else [])
        v2 = VALIDATORS[kind][1]
        data = changed_bytes(n)
        if self.headers.get("Range"):
            return self.send_range(data, v2)
        self.send_body(200, data, [v2] if v2 else [])

    def digest(self):
        auth = self.headers.get("Authorization", "")
        if auth.startswith("Digest "):
            f = dict(re.findall(r'(\w+)="?([^",]*)"?', auth[7:]))
            ha1 = hashlib.md5(("meter:%s:secret" % REALM).encode()).hexdigest()
            ha2 = hashlib.md5(("GET:%s" % f.get("uri", "")).encode()).hexdigest()
            if "qop" in f:
                want = hashlib.md5(":".join([ha1, f["nonce"], f["nc"], f["cnonce"], f["qop"], ha2]).encode()).hexdigest()
            else:
                want = hashlib.md5(":".join([ha1, f.get("nonce", ""), ha2]).encode()).hexdigest()
            if f.get("username") == "meter" and f.get("response") == want:
                return self.send_plain(200, "digest ok\n")
        self.send_plain(401, "who are you\n", {
            "WWW-Authenticate": 'Digest realm="%s", nonce="%s", qop="auth", algorithm=MD5' % (REALM, NONCE)})

    def do_POST(self):
        m = re.match(r"^/post/([\w.-]+)$", self.path)
        if not m:
            return self.send_plain(404, "no such path\n")
        data = self.rfile.read(int(self.headers.get("Content-Length", "0")))
        path = os.path.join(sys.argv[2], m.group(1))
        with open(path, "wb") as f:
            f.write(data)
        with open(path + ".type", "w") as f:
            f.write(self.headers.get("Content-Type", ""))
        self.send_plain(201, "stored\n")


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    allow_reuse_address = True


if __name__ == "__main__":
    server = Server(("127.0.0.1", int(sys.argv[1])), Handler)
    print("ready", flush=True)
    server.serve_forever()
