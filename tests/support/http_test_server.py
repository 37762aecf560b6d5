#!/usr/bin/env python3
"""A scripted local HTTP(S) server, or forward proxy, for the test suites.

Listens on 127.0.0.1 with an ephemeral port and prints the port alone on its
first line of standard output. Every request it receives is appended to the
record file (a JSON array, rewritten atomically) before it is answered, so a
client that got its answer always finds its request recorded.

Usage:
  http_test_server.py --record FILE [--script FILE] [--tls CERT KEY]
                      [--signing-secret TEXT]
  http_test_server.py --record FILE --proxy

Script: a JSON array of answers. Each request takes the first unused answer
whose "path" is absent or equal to the request's path (without the query);
an answer is used up unless "repeat" is true. Without a matching answer the
server answers 404 with the body "no scripted answer". Members of an answer:
  status          HTTP status (default 200)
  reason          reason phrase (default "Scripted")
  headers         raw header lines written as given, e.g. "X-A: b: c" or
                  "X-A:b"; "Content-Length: N" is added unless present
  body            body as text, or
  body_base64     body as base64 (any bytes)
  path            answer only requests for this path
  delay           seconds to wait before answering
  close_mid_body  send the headers and half of the body, then close
  repeat          never used up
Each line on standard input is a complete new script (one JSON array) that
replaces the current one; the server then prints "script loaded N" with N
counting the loads from 1.

Record: a JSON array with one object per request: "method", "target" (the
request target as received), "version", "headers" (a list of [name, value]
in the order received), "body_base64", and with --signing-secret a
"signature" of "valid", "invalid" or "missing": the X-Device-Signature
header checked as lower-case hex HMAC-SHA256 under the secret over method,
target, X-Device-Date, X-Device-Customer (or ""), and the hex SHA-256 of the
body, joined by line feeds.

With --proxy the server is a forward proxy instead: it tunnels CONNECT
requests and forwards absolute-form requests, recording each one (its body
is not read and is recorded as empty).
"""

import argparse
import base64
import hashlib
import hmac
import http.server
import json
import os
import select
import socket
import socketserver
import ssl
import sys
import threading
import time
import urllib.parse


class State:
    def __init__(self, record_path, script, signing_secret):
        self.lock = threading.Lock()
        self.record_path = record_path
        self.script = script
        self.used = set()
        self.records = []
        self.signing_secret = signing_secret
        self.loads = 0

    def record(self, entry):
        with self.lock:
            self.records.append(entry)
            temporary = self.record_path + ".tmp"
            with open(temporary, "w") as out:
                json.dump(self.records, out)
            os.replace(temporary, self.record_path)

    def replace_script(self, script):
        with self.lock:
            self.script = script
            self.used = set()
            self.loads += 1
            return self.loads

    def take_answer(self, path):
        with self.lock:
            for index, answer in enumerate(self.script):
                if index in self.used:
                    continue
                if "path" in answer and answer["path"] != path:
                    continue
                if not answer.get("repeat", False):
                    self.used.add(index)
                return answer
        return None


def signature_state(secret, method, target, headers, body):
    values = {name.lower(): value for name, value in headers}
    given = values.get("x-device-signature")
    if given is None:
        return "missing"
    canonical = "\n".join([
        method,
        target,
        values.get("x-device-date", ""),
        values.get("x-device-customer", ""),
        hashlib.sha256(body).hexdigest(),
    ])
    expected = hmac.new(secret.encode(), canonical.encode(), hashlib.sha256).hexdigest()
    return "valid" if hmac.compare_digest(expected, given) else "invalid"


class ScriptedHandler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    state = None

    def log_message(self, format, *args):
        pass

    def handle_one_request(self):
        try:
            super().handle_one_request()
        except (ConnectionError, ssl.SSLError, socket.timeout):
            self.close_connection = True

    def answer_request(self):
        length = int(self.headers.get("Content-Length", "0") or "0")
        body = self.rfile.read(length) if length > 0 else b""
        headers = [[name, value] for name, value in self.headers.items()]
        entry = {
            "method": self.command,
            "target": self.path,
            "version": self.request_version,
            "headers": headers,
            "body_base64": base64.b64encode(body).decode(),
        }
        if self.state.signing_secret is not None:
            entry["signature"] = signature_state(self.state.signing_secret, self.command,
                                                 self.path, headers, body)
        self.state.record(entry)

        path = urllib.parse.urlsplit(self.path).path
        answer = self.state.take_answer(path)
        if answer is None:
            answer = {"status": 404, "body": "no scripted answer"}
        if answer.get("delay"):
            time.sleep(float(answer["delay"]))
        if "body_base64" in answer:
            payload = base64.b64decode(answer["body_base64"])
        else:
            payload = answer.get("body", "").encode()
        lines = list(answer.get("headers", []))
        if not any(line.lower().startswith("content-length:") for line in lines):
            lines.append("Content-Length: %d" % len(payload))
        head = "HTTP/1.1 %d %s\r\n" % (answer.get("status", 200), answer.get("reason", "Scripted"))
        head += "".join(line + "\r\n" for line in lines) + "\r\n"
        if answer.get("close_mid_body"):
            self.wfile.write(head.encode() + payload[:len(payload) // 2])
            self.wfile.flush()
            self.close_connection = True
            return
        self.wfile.write(head.encode() + payload)
        self.wfile.flush()

    do_GET = do_POST = do_PUT = do_DELETE = do_HEAD = do_PATCH = answer_request


def relay(a, b):
    sockets = [a, b]
    try:
        while True:
            readable, _, _ = select.select(sockets, [], [], 30)
            if not readable:
                return
            for source in readable:
                data = source.recv(65536)
                if not data:
                    return
                (b if source is a else a).sendall(data)
    except OSError:
        return
    finally:
        a.close()
        b.close()


class ProxyHandler(socketserver.BaseRequestHandler):
    state = None

    def handle(self):
        client = self.request
        data = b""
        while b"\r\n\r\n" not in data:
            chunk = client.recv(65536)
            if not chunk:
                return
            data += chunk
        head, rest = data.split(b"\r\n\r\n", 1)
        lines = head.decode("latin-1").split("\r\n")
        method, target, version = lines[0].split(" ", 2)
        headers = [line.split(": ", 1) for line in lines[1:] if ": " in line]
        self.state.record({"method": method, "target": target, "version": version,
                           "headers": headers, "body_base64": ""})
        if method == "CONNECT":
            host, port = target.rsplit(":", 1)
            upstream = socket.create_connection((host, int(port)))
            client.sendall(b"HTTP/1.1 200 Connection established\r\n\r\n")
            if rest:
                upstream.sendall(rest)
        else:
            parts = urllib.parse.urlsplit(target)
            upstream = socket.create_connection((parts.hostname, parts.port or 80))
            origin = parts.path or "/"
            if parts.query:
                origin += "?" + parts.query
            kept = [line for line in lines[1:] if not line.lower().startswith("proxy-")]
            upstream.sendall(("%s %s %s\r\n" % (method, origin, version)).encode("latin-1") +
                             "\r\n".join(kept).encode("latin-1") + b"\r\n\r\n" + rest)
        relay(client, upstream)


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    allow_reuse_address = True
    tls_context = None

    def get_request(self):
        sock, address = super().get_request()
        if self.tls_context is not None:
            # The handshake runs on the request's own thread, so a client that
            # rejects the certificate does not stall the accepting thread.
            sock = self.tls_context.wrap_socket(sock, server_side=True,
                                                do_handshake_on_connect=False)
        return sock, address

    def handle_error(self, request, client_address):
        print("error serving %s: %s" % (client_address, sys.exc_info()[1]), flush=True)


def read_scripts(state):
    for line in sys.stdin:
        line = line.strip()
        if line:
            loads = state.replace_script(json.loads(line))
            print("script loaded %d" % loads, flush=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--record", required=True)
    parser.add_argument("--script")
    parser.add_argument("--tls", nargs=2, metavar=("CERT", "KEY"))
    parser.add_argument("--signing-secret")
    parser.add_argument("--proxy", action="store_true")
    options = parser.parse_args()

    script = []
    if options.script:
        with open(options.script) as source:
            script = json.load(source)
    state = State(options.record, script, options.signing_secret)
    with open(options.record, "w") as out:
        out.write("[]")

    handler = ProxyHandler if options.proxy else ScriptedHandler
    handler.state = state
    server = Server(("127.0.0.1", 0), handler)
    if options.tls:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(options.tls[0], options.tls[1])
        server.tls_context = context
    print(server.server_address[1], flush=True)
    threading.Thread(target=read_scripts, args=(state,), daemon=True).start()
    server.serve_forever()


if __name__ == "__main__":
    main()
