#!/usr/bin/env python3
"""A scripted local HTTP(S) server for the test suites.

Listens on 127.0.0.1 with an ephemeral port and prints the port on its first
line. Each request is appended to the record file (a JSON array of objects
with method, target, headers as [name, value] pairs and body_base64) before it
is answered.

Each --answer (status, "hold" or "-", delay in seconds, the body in base64,
then the header lines as they are sent) is taken in turn by the requests as
they come; once they are used up a request gets 404. The line "release" on
standard input lets held answers go ("released" confirms it). Used as a
proxy, it records the absolute URL or the CONNECT authority and answers the
same way (a CONNECT answered 404 opens no tunnel).
"""

import argparse
import base64
import http.server
import json
import os
import ssl
import sys
import threading
import time


class ScriptedHandler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    lock, released = threading.Lock(), threading.Event()
    answers, records, record_path = iter(()), [], None

    def log_message(self, format, *args):
        pass

    def answer_request(self):
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
        with self.lock:
            self.records.append({"method": self.command, "target": self.path,
                                 "headers": self.headers.items(),
                                 "body_base64": base64.b64encode(body).decode()})
            with open(self.record_path + ".tmp", "w") as out:
                json.dump(self.records, out)
            os.replace(self.record_path + ".tmp", self.record_path)
            status, hold, delay, body, *lines = next(
                self.answers, ["404", "-", "0", base64.b64encode(b"no scripted answer")])

        if hold == "hold":
            self.released.wait()
        time.sleep(float(delay))
        payload = base64.b64decode(body)
        if not any(line.lower().startswith("content-length:") for line in lines):
            lines.append("Content-Length: %d" % len(payload))
        head = "HTTP/1.1 %s Scripted\r\n" % status
        head += "".join(line + "\r\n" for line in lines) + "\r\n"
        self.wfile.write(head.encode() + payload)
        self.wfile.flush()

    do_GET = do_POST = do_PUT = do_DELETE = do_HEAD = do_PATCH = do_CONNECT = answer_request


def read_commands():
    for line in sys.stdin:
        if line.strip() == "release":
            ScriptedHandler.released.set()
            print("released", flush=True)
    os._exit(0)  # the test closed our input or died: do not outlive it


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--record", required=True)
    parser.add_argument("--answer", nargs="+", action="append", default=[])
    parser.add_argument("--tls", nargs=2, metavar=("CERT", "KEY"))
    options = parser.parse_args()

    ScriptedHandler.answers = iter(options.answer)
    ScriptedHandler.record_path = options.record
    with open(options.record, "w") as out:
        out.write("[]")
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), ScriptedHandler)
    if options.tls:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(*options.tls)
        # Accepted connections handshake on their request's own thread, so a
        # client that rejects the certificate does not stall the accepting one.
        server.socket = context.wrap_socket(server.socket, server_side=True,
                                            do_handshake_on_connect=False)
    print(server.server_address[1], flush=True)
    threading.Thread(target=read_commands, daemon=True).start()
    server.serve_forever()


if __name__ == "__main__":
    main()
