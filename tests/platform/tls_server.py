"""A local HTTPS server for the TLS tests: one port per CERT:KEY argument,
each answering every GET with 200 "ok". Prints "port NAME N" per server."""

import http.server
import os
import ssl
import sys
import threading


class Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        self.send_response(200)
        self.send_header("Content-Length", "2")
        self.end_headers()
        self.wfile.write(b"ok")

    def log_message(self, *args):
        pass


def serve(name, cert, key):
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(cert, key)
    server.socket = context.wrap_socket(server.socket, server_side=True)
    print(f"port {name} {server.server_address[1]}", flush=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()


for spec in sys.argv[1:]:
    cert, key = spec.split(":")
    serve(os.path.splitext(os.path.basename(cert))[0], cert, key)
print("ready", flush=True)
threading.Event().wait()
