"""HTTP(S) front end of the mock messaging server and its command line.

Protocol requests (registration, unregistration, message fetch) are checked
against the device's request signature and may be hit by a scheduled fault.
Admin requests under /admin/ drive the server: they queue messages, take the
acknowledgements that the device's outbound-message service passes on, and
show what the server has seen. Every answer, error or not, is JSON unless a
fault says otherwise; a request that breaks the server's expectations gets a
4xx with {"error": ...} and the server carries on.
"""

import argparse
import base64
import json
import os
import re
import shutil
import signal
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse
from http import HTTPStatus
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

from nyxtools import rig

from . import faults as faultlib
from . import protocol
from .protocol import ProtocolError
from .state import State, now

MAX_BODY = 8 * 1024 * 1024
LOGGED_BODY = 64 * 1024
HOST_HEADER = re.compile(r"^[A-Za-z0-9.\-]+(:\d+)?$|^\[[0-9A-Fa-f:.]+\](:\d+)?$")

PROTOCOL_ROUTES = {
    protocol.PATHS["register"]: ("POST", "register"),
    protocol.PATHS["unregister"]: ("POST", "unregister"),
    protocol.PATHS["fetch"]: ("GET", "fetch"),
}


class Log:
    """Line-buffered log of what the server receives; one line per request when quiet."""

    def __init__(self, quiet, stream=sys.stdout):
        self.quiet, self.stream = quiet, stream
        self._lock = threading.Lock()

    def line(self, text):
        with self._lock:
            self.stream.write(text + "\n")
            self.stream.flush()

    def request(self, method, target, status, verdict, summary, fault, elapsed):
        stamp = time.strftime("%H:%M:%S")
        fault_text = " [fault %s]" % fault if fault else ""
        if self.quiet:
            sig = " sig=%s" % verdict if verdict else ""
            self.line("%s %s %s %s%s%s %s %.1fms" % (stamp, method, target, status, sig,
                                                      fault_text, summary, elapsed * 1000))
            return
        lines = ["[%s] %s %s -> %s%s (%.1f ms)" % (stamp, method, target, status, fault_text,
                                                    elapsed * 1000)]
        if verdict:
            lines.append("    signature: " + verdict)
        if summary:
            lines.append("    " + summary)
        self.line("\n".join(lines))


def _summary_map(m):
    return "{" + ", ".join("%s=%s" % kv for kv in m.items()) + "}"


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "nyx-mock-server/1"
    # A client that stalls mid-request must not hold a thread forever.
    timeout = 60
    # Headers and body leave in one write, and without Nagle's wait: a page
    # answered in two small writes would otherwise stall on the client's
    # delayed acknowledgement for tens of milliseconds.
    wbufsize = 64 * 1024

    def setup(self):
        super().setup()
        try:
            self.connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        except OSError:
            pass

    def handle_expect_100(self):
        # The interim answer must leave now, not wait in the write buffer:
        # curl holds a large POST body back until it sees it.
        result = super().handle_expect_100()
        self.wfile.flush()
        return result

    def log_message(self, fmt, *args):
        pass  # every request is logged once, by _finish

    def send_error(self, code, message=None, explain=None):
        """Answers a request the HTTP parser refused, in JSON like every other error."""
        self.close_connection = True
        text = message or (HTTPStatus(code).phrase if code in HTTPStatus._value2member_map_
                           else "error")
        self.server.log.line("mock-server: refused %r from %s: %d %s" % (
            (self.requestline or "")[:80], self.client_address[0], code, text))
        if code >= 200 and code not in (204, 304):
            self._send(code, {"error": text})
        else:
            self.send_response(code)
            self.end_headers()

    def do_GET(self):
        self._dispatch("GET")

    def do_POST(self):
        self._dispatch("POST")

    def do_PUT(self):
        self._dispatch("PUT")

    def do_DELETE(self):
        self._dispatch("DELETE")

    def do_PATCH(self):
        self._dispatch("PATCH")

    # --- Request plumbing ------------------------------------------------

    def _dispatch(self, method):
        self._started = time.monotonic()
        srv = self.server
        try:
            body = self._read_body()
        except ProtocolError as e:
            self.close_connection = True
            self._send(e.status, e.body())
            self._finish(method, e.status, None, str(e), None)
            return
        split = urllib.parse.urlsplit(protocol.origin_form(self.path))
        try:
            if split.path.startswith("/admin/"):
                self._admin(method, split.path, split.query, body)
            else:
                self._protocol(method, split.path, split.query, body)
        except Exception as e:  # a bug here must cost one answer, not the server
            srv.log.line("mock-server: internal error on %s %s: %r" % (method, self.path, e))
            self.close_connection = True
            try:
                self._send(500, {"error": "internal error: %r" % e})
            except OSError:
                pass

    def _read_body(self):
        if self.headers.get("Transfer-Encoding", "").lower() == "chunked":
            return self._read_chunked()
        length_text = self.headers.get("Content-Length")
        if length_text is None:
            return b""
        if not length_text.strip().isdigit():
            raise ProtocolError(400, "bad Content-Length %r" % length_text)
        length = int(length_text)
        if length > MAX_BODY:
            raise ProtocolError(413, "body of %d bytes is over the %d byte limit"
                                % (length, MAX_BODY))
        body = self.rfile.read(length)
        if len(body) != length:
            raise ProtocolError(400, "body ended after %d of %d bytes" % (len(body), length))
        return body

    def _read_chunked(self):
        parts, total = [], 0
        while True:
            line = self.rfile.readline(1024)
            try:
                size = int(line.split(b";")[0].strip(), 16)
            except ValueError:
                raise ProtocolError(400, "bad chunk size line %r" % line[:40]) from None
            if size == 0:
                while self.rfile.readline(1024) not in (b"\r\n", b"\n", b""):
                    pass
                return b"".join(parts)
            total += size
            if total > MAX_BODY:
                raise ProtocolError(413, "chunked body is over the %d byte limit" % MAX_BODY)
            parts.append(self.rfile.read(size))
            self.rfile.readline(1024)

    def _send(self, status, doc, headers=None, raw=None, content_type="application/json"):
        """Writes a complete answer; doc is JSON-encoded unless raw bytes are given."""
        data = raw if raw is not None else (
            doc if isinstance(doc, bytes) else json.dumps(doc, separators=(",", ":")).encode())
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(data)))
        for name, value in (headers or {}).items():
            self.send_header(name, value)
        if self.close_connection:
            self.send_header("Connection", "close")
        self.end_headers()
        self.wfile.write(data)

    def _send_broken(self, status, data, fault):
        """Writes an answer that breaks on the wire as the fault says."""
        reason = HTTPStatus(status).phrase if status in HTTPStatus._value2member_map_ else ""
        declared = len(data) + (100 if fault["kind"] == "truncate" else 0)
        head = ("HTTP/1.1 %d %s\r\nServer: %s\r\nContent-Type: application/json\r\n"
                "Content-Length: %d\r\n\r\n" % (status, reason, self.server_version,
                                                 declared)).encode()
        if fault["kind"] == "truncate":
            wire = head + data
        elif fault["params"]["at"] == "headers":
            wire = head[: len(head) // 2]
        else:
            wire = head + data[: len(data) // 2]
        self.close_connection = True
        try:
            self.wfile.write(wire)
            self.wfile.flush()
            if fault["kind"] == "reset":
                # Linger 0 turns the close into a TCP reset instead of an orderly end.
                self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                           struct.pack("ii", 1, 0))
                self.connection.close()
        except OSError:
            pass

    def _finish(self, method, status, verdict, summary, fault, entry=None):
        srv = self.server
        if entry is not None:
            entry.update(status=status, verdict=verdict, fault=fault,
                         elapsed_ms=round((time.monotonic() - self._started) * 1000, 2))
            srv.state.record_request(entry)
        srv.log.request(method, self.path, status, verdict, summary, fault,
                        time.monotonic() - self._started)

    # --- Protocol requests -----------------------------------------------

    def _protocol(self, method, path, query, body):
        srv = self.server
        route = PROTOCOL_ROUTES.get(path)
        kind = route[1] if route else "unknown"
        srv.state.count("req_" + kind)
        entry = {"time": now(), "method": method, "target": self.path, "kind": kind,
                 "headers": [[k, v] for k, v in self.headers.items()]}
        if len(body) <= LOGGED_BODY:
            try:
                entry["body"] = body.decode("utf-8")
            except UnicodeDecodeError:
                entry["body"] = None
                entry["body_b64"] = base64.b64encode(body).decode()
        else:
            entry["body"], entry["body_size"] = None, len(body)
        if route is None:
            error = "no such path %r; protocol paths are %s" % (path, ", ".join(PROTOCOL_ROUTES))
            self._send(404, {"error": error})
            return self._finish(method, 404, None, error, None, entry)
        if method != route[0]:
            error = "%s takes %s, not %s" % (path, route[0], method)
            self._send(405, {"error": error}, {"Allow": route[0]})
            return self._finish(method, 405, None, error, None, entry)

        fault = srv.faults.take(kind)
        stage = faultlib.KINDS[fault["kind"]].stage if fault else None
        fault_name = fault["kind"] if fault else None
        if stage == "replace":
            status = self._answer_fault(fault)
            return self._finish(method, status, "not checked (fault answered)",
                                "injected %s" % fault_name, fault_name, entry)
        if stage == "before":
            time.sleep(fault["params"]["delay"])

        if srv.verify:
            problem = protocol.verify(srv.root, method, self.path, self.headers, body)
            verdict = "ok" if problem is None else "FAILED: " + problem
        else:
            problem, verdict = None, "skipped (--no-verify)"
        if problem is not None:
            srv.state.count("signature_failures")
            status, doc, summary = 401, {"error": "bad request signature: " + problem}, "refused"
        else:
            try:
                handler = {"register": self._register, "unregister": self._unregister,
                           "fetch": self._fetch}[kind]
                status, doc, summary = handler(query, body, fault if stage == "page" else None)
            except ProtocolError as e:
                status, doc, summary = e.status, e.body(), "rejected: %s" % e

        data = doc if isinstance(doc, bytes) else json.dumps(doc, separators=(",", ":")).encode()
        if stage == "send":
            self._send_broken(status, data, fault)
            summary += " (answer broken on the wire)"
        else:
            self._send(status, data)
        self._finish(method, status, verdict, summary, fault_name, entry)

    def _answer_fault(self, fault):
        params = fault["params"]
        if fault["kind"] == "not-json":
            self._send(200, None, raw=params["body"].encode(), content_type="text/html")
            return 200
        status = params["status"]
        headers = {}
        if params["retry_after"] is not None:
            headers["Retry-After"] = params["retry_after"]
        body = params["body"]
        if body is None:
            body = {"error": "injected fault: status %d" % status}
        self._send(status, body, headers)
        return status

    def _json(self, body, what):
        try:
            return json.loads(body)
        except ValueError as e:
            raise ProtocolError(400, "%s body is not JSON: %s" % (what, e)) from None

    def _register(self, query, body, fault):
        doc = self._json(body, "registration")
        reg_id = self.server.state.register(doc, self.headers)
        summary = "register app %s senders=[%s] target=%s customer=%s reason=%s -> %s" % (
            _summary_map(doc.get("appInfo", {})), ", ".join(doc["allowedSenders"]),
            doc.get("target"), self.headers.get(protocol.HEADER_CUSTOMER) or "-",
            self.headers.get("x-zvo-reason") or "-", reg_id)
        return 200, {"registrationID": reg_id}, summary

    def _unregister(self, query, body, fault):
        doc = self._json(body, "unregistration")
        known = self.server.state.unregister(doc)
        summary = "unregister %s%s reason=%s" % (
            doc.get("registrationId"), "" if known else " (unknown or already revoked)",
            self.headers.get("x-zvo-reason") or "-")
        return 200, {}, summary

    def _fetch(self, query, body, fault):
        params = urllib.parse.parse_qsl(query, keep_blank_values=True)
        cursor = dict(params).get("cursor")
        mutate = None
        if fault is not None and fault["kind"] == "corrupt-crc":
            mutate = lambda m: m.render(crc=(m.crc + 1) & 0xFFFFFFFF)
        elif fault is not None and fault["kind"] == "missing-member":
            member = fault["params"]["member"]
            mutate = lambda m: m.render(drop=member)
        members, next_cursor = self.server.state.page(cursor, mutate)
        next_url = None
        if next_cursor is not None:
            kept = [(k, v) for k, v in params if k != "cursor"] + [("cursor", next_cursor)]
            next_url = "%s%s?%s" % (self._origin(), protocol.PATHS["fetch"],
                                    urllib.parse.urlencode(kept))
        summary = "fetch %s page: %d message(s)%s reason=%s" % (
            "first" if cursor is None else "cursor " + cursor, len(members),
            ", next " + next_cursor if next_cursor else ", last",
            self.headers.get("x-zvo-reason") or "-")
        return 200, protocol.page_body(members, next_url).encode(), summary

    def _origin(self):
        """scheme://host:port as the client addressed us, for the next-page URL."""
        host = self.headers.get("Host", "")
        if not HOST_HEADER.match(host):
            return self.server.url
        return "%s://%s" % (self.server.scheme, host)

    # --- Admin requests --------------------------------------------------

    def _admin(self, method, path, query, body):
        routes = ADMIN_ROUTES.get(path)
        try:
            if routes is None:
                raise ProtocolError(404, "no admin path %r; known: %s"
                                    % (path, ", ".join(sorted(ADMIN_ROUTES))))
            action = routes.get(method)
            if action is None:
                raise ProtocolError(405, "%s takes %s" % (path, " or ".join(routes)))
            args = dict(urllib.parse.parse_qsl(query))
            doc = {}
            if body.strip():
                doc = self._json(body, "admin request")
            status, answer, summary = action(self, doc, args)
        except ProtocolError as e:
            status, answer, summary = e.status, e.body(), "error: %s" % e
        self._send(status, answer)
        self._finish(method, status, None, summary, None)

    def _int_arg(self, args, name):
        value = args.get(name)
        if value is None:
            return None
        if not value.isdigit():
            raise ProtocolError(400, "%s must be a whole number" % name)
        return int(value)

    def admin_enqueue(self, doc, args):
        ids = self.server.state.enqueue(doc)
        what = ("app message for %s" % doc["registration_id"] if "registration_id" in doc
                else "plain message topic=%s" % doc.get("topic"))
        shown = ids[0] if len(ids) == 1 else "%s..%s" % (ids[0], ids[-1])
        return 200, {"enqueued": len(ids), "ids": ids}, "enqueue %d %s: %s" % (
            len(ids), what, shown)

    def admin_ack(self, doc, args):
        try:
            msg_id, status, retry = protocol.decode_ack(doc)
        except ProtocolError:
            self.server.state.count("acks_malformed")
            raise
        result = self.server.state.ack(msg_id, status, retry)
        outcome = "removed" if result["removed"] else "kept pending" if not result["flag"] \
            else result["flag"]
        return 200, result, "ack %s status=%d retry=%s -> %s" % (
            msg_id, status, str(retry).lower(), outcome)

    def admin_pending(self, doc, args):
        items = self.server.state.view_pending(self._int_arg(args, "limit"))
        return 200, {"messages": items}, "pending: %d" % len(items)

    def admin_registrations(self, doc, args):
        items = self.server.state.view_registrations()
        return 200, {"registrations": items}, "registrations: %d" % len(items)

    def admin_acks(self, doc, args):
        items = self.server.state.view_acks(self._int_arg(args, "last"))
        return 200, {"acks": items}, "acks: %d" % len(items)

    def admin_requests(self, doc, args):
        items = self.server.state.view_requests(self._int_arg(args, "last"))
        return 200, {"requests": items}, "requests: %d" % len(items)

    def admin_reject_sender(self, doc, args):
        sender = doc.get("sender")
        if not isinstance(sender, str) or not sender:
            raise ProtocolError(400, "'sender' must be a non-empty string")
        allow = doc.get("allow", False)
        rejected = self.server.state.reject_sender(sender, not allow)
        return 200, {"rejected": rejected}, "%s sender %s" % (
            "allow" if allow else "reject", sender)

    def admin_fault(self, doc, args):
        try:
            fault = self.server.faults.schedule(doc)
        except faultlib.FaultError as e:
            raise ProtocolError(400, str(e), kinds=sorted(faultlib.KINDS)) from None
        return 200, fault, "fault %s x%d on %s %s" % (
            fault["kind"], fault["remaining"], fault["only"],
            json.dumps(fault["params"], separators=(",", ":")))

    def admin_faults(self, doc, args):
        return 200, {"scheduled": self.server.faults.list(),
                     "fired": dict(self.server.faults.fired),
                     "kinds": faultlib.describe()}, "faults"

    def admin_clear_faults(self, doc, args):
        self.server.faults.clear()
        return 200, {}, "faults cleared"

    def admin_reset(self, doc, args):
        self.server.state.reset()
        self.server.faults.clear()
        return 200, {}, "reset"

    def admin_stats(self, doc, args):
        return 200, self.server.state.stats(self.server.faults.fired), "stats"


ADMIN_ROUTES = {
    "/admin/enqueue": {"POST": Handler.admin_enqueue},
    "/admin/ack": {"POST": Handler.admin_ack},
    "/admin/pending": {"GET": Handler.admin_pending},
    "/admin/registrations": {"GET": Handler.admin_registrations},
    "/admin/acks": {"GET": Handler.admin_acks},
    "/admin/requests": {"GET": Handler.admin_requests},
    "/admin/reject-sender": {"POST": Handler.admin_reject_sender},
    "/admin/fault": {"POST": Handler.admin_fault},
    "/admin/faults": {"GET": Handler.admin_faults},
    "/admin/clear-faults": {"POST": Handler.admin_clear_faults},
    "/admin/reset": {"POST": Handler.admin_reset},
    "/admin/stats": {"GET": Handler.admin_stats},
}


class Server(ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True
    request_queue_size = 64

    def __init__(self, port, root, verify, state, faults, log):
        super().__init__(("127.0.0.1", port), Handler)
        self.root, self.verify = root, verify
        self.state, self.faults, self.log = state, faults, log
        self.scheme = "http"

    @property
    def url(self):
        return "%s://127.0.0.1:%d" % (self.scheme, self.server_port)

    def use_tls(self, cert, key):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(cert, key)
        # The handshake happens on the request's own thread, so a client that
        # never completes it cannot stall the accept loop.
        self.socket = context.wrap_socket(self.socket, server_side=True,
                                          do_handshake_on_connect=False)
        self.scheme = "https"

    def handle_error(self, request, client_address):
        error = sys.exc_info()[1]
        if isinstance(error, (ConnectionError, ssl.SSLError, socket.timeout, TimeoutError)):
            self.log.line("mock-server: connection from %s:%d ended: %s"
                          % (client_address[0], client_address[1], error))
        else:
            self.log.line("mock-server: error on connection from %s:%d: %r"
                          % (client_address[0], client_address[1], error))


# --- TLS material -----------------------------------------------------------

def _openssl(*args):
    try:
        subprocess.run(["openssl"] + list(args), check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.PIPE)
    except FileNotFoundError:
        raise SystemExit("mock-server: --tls needs the openssl command (apt-get install openssl)")
    except subprocess.CalledProcessError as e:
        raise SystemExit("mock-server: openssl %s failed: %s"
                         % (args[0], e.stderr.decode(errors="replace").strip()))


def make_tls(state_dir):
    """A CA and a server certificate for 127.0.0.1 and localhost in state_dir.

    Existing material in the directory is reused, so a device root that
    already trusts the CA keeps trusting a restarted server.
    Returns the paths (ca, cert, key).
    """
    ca, ca_key = os.path.join(state_dir, "ca.pem"), os.path.join(state_dir, "ca.key")
    cert, key = os.path.join(state_dir, "server.pem"), os.path.join(state_dir, "server.key")
    if all(os.path.exists(p) for p in (ca, ca_key, cert, key)):
        return ca, cert, key
    ec = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    _openssl("req", "-x509", *ec, "-keyout", ca_key, "-out", ca, "-days", "825",
             "-subj", "/CN=nyx mock messaging CA",
             "-addext", "basicConstraints=critical,CA:TRUE",
             "-addext", "keyUsage=critical,keyCertSign,cRLSign")
    csr = os.path.join(state_dir, "server.csr")
    _openssl("req", "-new", *ec, "-keyout", key, "-out", csr, "-subj", "/CN=127.0.0.1")
    ext = os.path.join(state_dir, "server.ext")
    with open(ext, "w") as f:
        f.write("subjectAltName=IP:127.0.0.1,DNS:localhost\n"
                "basicConstraints=CA:FALSE\n"
                "keyUsage=critical,digitalSignature,keyEncipherment\n"
                "extendedKeyUsage=serverAuth\n")
    _openssl("x509", "-req", "-in", csr, "-CA", ca, "-CAkey", ca_key, "-out", cert,
             "-days", "825", "-set_serial", str(int.from_bytes(os.urandom(8), "big")),
             "-extfile", ext)
    for scratch in (csr, ext):
        os.unlink(scratch)
    return ca, cert, key


# --- Command line -----------------------------------------------------------

def parse_args(argv):
    parser = argparse.ArgumentParser(
        prog="nyx-mock-server",
        description="Local messaging server for nyxd: takes signed registration, "
                    "unregistration and fetch requests on 127.0.0.1, and is driven "
                    "through /admin/ (see nyx-mock).")
    parser.add_argument("--root", default=os.environ.get("NYX_ROOT") or "/",
                        help="device root (NYX_ROOT) holding etc/nyx-host/device-secret; "
                             "default $NYX_ROOT, else /")
    parser.add_argument("--port", type=int, default=0, help="port (default 0: any free port)")
    parser.add_argument("--tls", action="store_true",
                        help="serve HTTPS with a generated CA, "
                             "copied to ROOT/etc/nyx-host/tls/ca.pem")
    parser.add_argument("--state-dir",
                        help="where TLS material lives (default: a temporary directory "
                             "removed at exit); existing material is reused")
    parser.add_argument("--configure", action="store_true",
                        help="point the messaging URLs in ROOT/etc/nyx-host/dynconfig here")
    parser.add_argument("--ready-file",
                        help="write {\"url\",\"pid\",\"ca\"} as JSON here once listening")
    parser.add_argument("--page-size", type=int, default=100,
                        help="messages per fetch page (default 100)")
    parser.add_argument("--no-verify", action="store_true", help="skip request signature checks")
    parser.add_argument("--quiet", action="store_true", help="one short log line per request")
    args = parser.parse_args(argv)
    if args.page_size < 1:
        parser.error("--page-size must be at least 1")
    if not 0 <= args.port <= 65535:
        parser.error("--port must be from 0 to 65535")
    return args


def _install_ca(root, ca):
    target_dir = os.path.join(root, "etc", "nyx-host", "tls")
    try:
        os.makedirs(target_dir, exist_ok=True)
        with open(ca, "rb") as f:
            protocol.write_atomically(os.path.join(target_dir, "ca.pem"), f.read())
    except OSError as e:
        raise SystemExit("mock-server: cannot install the CA in %s: %s (use --root)"
                         % (target_dir, e.strerror or e))
    return os.path.join(target_dir, "ca.pem")


def _configure(root, url):
    host_dir = os.path.join(root, "etc", "nyx-host")
    values = {protocol.DYNCONFIG_KEYS[k]: url + protocol.PATHS[k] for k in protocol.PATHS}
    try:
        os.makedirs(host_dir, exist_ok=True)
        protocol.update_dynconfig(os.path.join(host_dir, "dynconfig"), values)
    except OSError as e:
        raise SystemExit("mock-server: cannot write %s/dynconfig: %s (use --root)"
                         % (host_dir, e.strerror or e))


def main(argv=None):
    args = parse_args(argv)
    try:
        sys.stdout.reconfigure(line_buffering=True)
    except AttributeError:
        pass
    log = Log(args.quiet)
    root = os.path.abspath(args.root)
    own_state_dir = args.state_dir is None
    state_dir = tempfile.mkdtemp(prefix="nyx-mock-") if own_state_dir else args.state_dir
    ready_written = False

    def stop(signum, frame):
        raise KeyboardInterrupt

    # SIGINT is set explicitly: a server started in the background by a
    # script inherits an ignored SIGINT and would not stop on kill -INT.
    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    try:
        os.makedirs(state_dir, exist_ok=True)
        try:
            server = Server(args.port, root, not args.no_verify, State(args.page_size),
                            faultlib.FaultQueue(), log)
        except OSError as e:
            raise SystemExit("mock-server: cannot listen on 127.0.0.1:%d: %s"
                             % (args.port, e.strerror or e))
        ca = None
        if args.tls:
            ca, cert, key = make_tls(state_dir)
            installed = _install_ca(root, ca)
            server.use_tls(cert, key)
            log.line("mock-server: CA %s installed as %s" % (ca, installed))
        if args.configure:
            _configure(root, server.url)
        secret = os.path.join(root, "etc", "nyx-host", "device-secret")
        if server.verify and not os.path.exists(secret):
            log.line("mock-server: warning: %s is missing, so every signed request "
                     "will be refused until it exists (or use --no-verify)" % secret)
        log.line("mock-server: listening on %s" % server.url)
        if args.ready_file:
            rig.write_ready_file(args.ready_file, {"url": server.url, "pid": os.getpid(), "ca": ca})
            ready_written = True
        try:
            server.serve_forever(poll_interval=0.2)
        except KeyboardInterrupt:
            pass
        finally:
            server.server_close()
            log.line("mock-server: stopped")
    finally:
        if ready_written:
            try:
                os.unlink(args.ready_file)
            except OSError:
                pass
        if own_state_dir:
            shutil.rmtree(state_dir, ignore_errors=True)
    return 0
