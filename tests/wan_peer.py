#!/usr/bin/env python3
"""HTTP peer for the transfer tests: the behaviours a plain file server does
not have. Usage: wan_peer.py PORT DIR. Prints "ready" once it listens.

GET  /reset/N     N body bytes; without a Range header the connection is reset
                  after half of them, with "Range: bytes=X-" the rest comes as 206
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
import time

REALM = "orvo-test"
NONCE = "d1c0ffee"


def body_bytes(n):
    return bytes((i * 7 + 3) % 251 for i in range(n))


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

    def reset(self, n):
        data = body_bytes(n)
        rng = self.headers.get("Range")
        if rng:
            start = int(re.match(r"bytes=(\d+)-", rng).group(1))
            self.send_response(206)
            self.send_header("Content-Range", "bytes %d-%d/%d" % (start, n - 1, n))
            self.send_header("Content-Length", str(n - start))
            self.end_headers()
            self.wfile.write(data[start:])
            return
        self.send_response(200)
        self.send_header("Content-Length", str(n))
        self.end_headers()
        self.wfile.write(data[: n // 2])
        self.wfile.flush()
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.connection.close()
        self.close_connection = True

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
