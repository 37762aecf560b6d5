#!/usr/bin/env python3
"""The mock messaging server, driven over real sockets.

The server runs as its own process in a temporary device root. Requests are
signed here with an independent HMAC computation, and CRCs are checked with
zlib, so a fault shared by the server's own helpers would still show.
"""

import base64
import hashlib
import hmac
import http.client
import json
import os
import shutil
import socket
import ssl
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
TOOL_DIR = os.path.join(HERE, "..", "..", "tools", "mock-server")
SERVER = os.path.join(TOOL_DIR, "nyx-mock-server")
CLIENT = os.path.join(TOOL_DIR, "nyx-mock")
SECRET = "device-secret-for-tests"
SERIAL = "SERIAL0001"
DATE = "2026-01-02T03:04:05Z"


def make_root():
    root = tempfile.mkdtemp(prefix="nyx-mock-test-")
    os.makedirs(os.path.join(root, "etc", "nyx-host"))
    for name, value in (("device-secret", SECRET), ("device-serial", SERIAL)):
        with open(os.path.join(root, "etc", "nyx-host", name), "w") as f:
            f.write(value + "\n")
    return root


class MockServer:
    """One server process; stopped by pid when the test is done."""

    def __init__(self, root, *extra):
        self.ready = os.path.join(root, "ready.json")
        self.log = open(os.path.join(root, "server.log"), "w+")
        self.proc = subprocess.Popen(
            [sys.executable, SERVER, "--root", root, "--ready-file", self.ready, "--quiet",
             *extra], stdout=self.log, stderr=subprocess.STDOUT)
        deadline = time.monotonic() + 15
        while not os.path.exists(self.ready):
            if self.proc.poll() is not None or time.monotonic() > deadline:
                self.stop()
                self.log.seek(0)
                raise RuntimeError("server did not start:\n" + self.log.read())
            time.sleep(0.02)
        with open(self.ready) as f:
            info = json.load(f)
        self.url, self.ca = info["url"], info["ca"]
        split = urllib.parse.urlsplit(self.url)
        self.host, self.port = split.hostname, split.port

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.log.close()

    def connection(self, timeout=10):
        return http.client.HTTPConnection(self.host, self.port, timeout=timeout)


def signed_headers(method, target, body=b"", secret=SECRET, customer=None):
    digest = hashlib.sha256(body).hexdigest()
    text = "\n".join([method, target, DATE, customer or "", digest])
    headers = {"X-Device-Serial": SERIAL, "X-Device-Date": DATE,
               "X-Device-Signature": hmac.new(secret.encode(), text.encode(),
                                              hashlib.sha256).hexdigest()}
    if customer is not None:
        headers["X-Device-Customer"] = customer
    return headers


class ServerTestCase(unittest.TestCase):
    """Shares one server among the tests of a class; each test starts from a reset."""

    server_args = ("--page-size", "100")

    @classmethod
    def setUpClass(cls):
        cls.root = make_root()
        cls.server = MockServer(cls.root, *cls.server_args)

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()
        shutil.rmtree(cls.root, ignore_errors=True)

    def setUp(self):
        self.admin("POST", "/admin/reset")

    def request(self, method, target, body=b"", headers=None):
        conn = self.server.connection()
        try:
            conn.request(method, target, body=body or None, headers=headers or {})
            reply = conn.getresponse()
            return reply.status, dict(reply.getheaders()), reply.read()
        finally:
            conn.close()

    def signed(self, method, target, doc=None, customer=None, extra=None):
        body = b"" if doc is None else json.dumps(doc).encode()
        headers = signed_headers(method, target, body, customer=customer)
        headers.update(extra or {})
        status, _, data = self.request(method, target, body, headers)
        return status, json.loads(data)

    def admin(self, method, path, doc=None, expect=200):
        body = b"" if doc is None else (doc if isinstance(doc, bytes) else json.dumps(doc).encode())
        status, _, data = self.request(method, path, body)
        self.assertEqual(status, expect, data)
        return json.loads(data)

    def register(self, senders=("sender.one",), customer=None, service="com.example.app"):
        doc = {"platform": "Tessel", "allowedSenders": list(senders),
               "appInfo": {"service.name": service}, "target": "Device"}
        return self.signed("POST", "/v1/registrations", doc, customer=customer)

    def fetch(self, target="/v1/messages"):
        return self.signed("GET", target)

    def ack(self, msg_id, status, retry):
        response = json.dumps({"response": {"id": msg_id, "status": status, "retry": retry}},
                              separators=(",", ":"))
        entry = {"topic": "cobalt.messaging.response",
                 "payload": base64.b64encode(response.encode()).decode(),
                 "gunzip": False, "options": {"flushTime": 1}}
        return self.admin("POST", "/admin/ack", json.dumps(entry, separators=(",", ":")).encode())


class SignatureTest(ServerTestCase):
    def test_accepts_only_requests_signed_with_the_device_secret(self):
        reg_body = json.dumps({"platform": "Tessel", "allowedSenders": ["s"],
                               "appInfo": {"service.name": "a"}, "target": "Device"}).encode()
        post = ("POST", "/v1/registrations")
        get = ("GET", "/v1/messages?x=1")

        def case(name, request, expect, secret=SECRET, customer=None, body=reg_body,
                 send_target=None, send_body=None, drop=(), rename=None):
            return name, request, expect, secret, customer, body, send_target, send_body, drop, \
                rename

        cases = [
            case("valid POST without customer", post, 200),
            case("valid POST with customer", post, 200, customer="cust-7"),
            case("valid GET with query", get, 200, body=b""),
            case("header names in lower case", post, 200, rename=str.lower),
            case("wrong secret", post, 401, secret="not-the-secret"),
            case("body changed after signing", post, 401, send_body=reg_body + b" "),
            case("target changed after signing", get, 401, body=b"",
                 send_target="/v1/messages?x=2"),
            case("customer dropped after signing", post, 401, customer="cust-7",
                 drop=("X-Device-Customer",)),
            case("missing date", post, 401, drop=("X-Device-Date",)),
            case("missing signature", post, 401, drop=("X-Device-Signature",)),
            case("missing serial", post, 401, drop=("X-Device-Serial",)),
        ]
        for (name, (method, target), expect, secret, customer, body, send_target, send_body,
             drop, rename) in cases:
            with self.subTest(name):
                headers = signed_headers(method, target, body, secret, customer)
                for header in drop:
                    del headers[header]
                if rename:
                    headers = {rename(k): v for k, v in headers.items()}
                sent = body if send_body is None else send_body
                status, _, data = self.request(method, send_target or target, sent, headers)
                self.assertEqual(status, expect, data)
                if expect == 401:
                    self.assertIn("error", json.loads(data))
                last = self.admin("GET", "/admin/requests?last=1")["requests"][0]
                self.assertEqual(last["target"], send_target or target)
                self.assertEqual(last["verdict"] == "ok", expect == 200, last["verdict"])

    def test_reads_the_secret_anew_for_each_request(self):
        secret_file = os.path.join(self.root, "etc", "nyx-host", "device-secret")
        self.assertEqual(self.fetch()[0], 200)
        with open(secret_file, "w") as f:
            f.write("rotated\n")
        try:
            self.assertEqual(self.fetch()[0], 401)
        finally:
            with open(secret_file, "w") as f:
                f.write(SECRET + "\n")
        self.assertEqual(self.fetch()[0], 200)

    def test_records_the_exact_request(self):
        status, doc = self.register(customer="cust-1")
        self.assertEqual(status, 200)
        last = self.admin("GET", "/admin/requests?last=1")["requests"][0]
        self.assertEqual((last["method"], last["kind"], last["status"]),
                         ("POST", "register", 200))
        self.assertEqual(json.loads(last["body"])["allowedSenders"], ["sender.one"])
        names = {k.lower(): v for k, v in last["headers"]}
        self.assertEqual(names["x-device-customer"], "cust-1")


class PagingTest(ServerTestCase):
    def enqueue_many(self, count, **extra):
        doc = {"topic": "com.example.weather", "payload": "forecast", "count": count}
        doc.update(extra)
        return self.admin("POST", "/admin/enqueue", doc)["ids"]

    def check_crc(self, message):
        payload = base64.b64decode(message["payload"])
        self.assertEqual(message["crc"],
                         zlib.crc32(message["topic"].encode() + payload) & 0xFFFFFFFF)

    def test_serves_a_snapshot_in_pages_with_next_page_only_before_the_last(self):
        binary = bytes(range(256)) * 2
        ids = [self.admin("POST", "/admin/enqueue", {
            "topic": "com.example.raw", "payload_b64": base64.b64encode(binary).decode(),
            "directedCustomerId": "cust-9"})["ids"][0]]
        ids += self.enqueue_many(149)
        status, first = self.fetch()
        self.assertEqual(status, 200)
        self.assertEqual(len(first["messages"]), 100)
        next_url = urllib.parse.urlsplit(first["nextPage"])
        self.assertEqual("%s://%s" % (next_url.scheme, next_url.netloc), self.server.url)
        self.admin("POST", "/admin/enqueue", {"topic": "com.example.late", "payload": "x"})
        status, second = self.fetch(next_url.path + "?" + next_url.query)
        self.assertEqual(status, 200)
        self.assertNotIn("nextPage", second)
        self.assertEqual(len(second["messages"]), 50)
        offered = [m["message"] for m in first["messages"] + second["messages"]]
        self.assertEqual([m["id"] for m in offered], ids)
        for message in offered:
            self.check_crc(message)
        self.assertEqual(base64.b64decode(offered[0]["payload"]), binary)
        self.assertEqual(offered[0]["directedCustomerId"], "cust-9")
        self.assertNotIn("directedCustomerId", offered[1])

    def test_skips_messages_acknowledged_between_pages(self):
        ids = self.enqueue_many(150)
        _, first = self.fetch()
        self.ack(ids[120], 1, False)
        self.ack(ids[149], 103, False)
        next_url = urllib.parse.urlsplit(first["nextPage"])
        _, second = self.fetch(next_url.path + "?" + next_url.query)
        served = [m["message"]["id"] for m in second["messages"]]
        self.assertEqual(served, ids[100:120] + ids[121:149])

    def test_empty_queue_answers_an_empty_page(self):
        status, _, data = self.request("GET", "/v1/messages",
                                       headers=signed_headers("GET", "/v1/messages"))
        self.assertEqual((status, data), (200, b'{"messages":[]}'))

    def test_application_message_carries_the_registration_envelope(self):
        _, reg = self.register(customer="cust-3", service="com.example.chat")
        reg_id = reg["registrationID"]
        self.admin("POST", "/admin/enqueue", {"registration_id": reg_id, "sender": "sender.one",
                                              "data": {"k": "v"}, "consolidation_key": "ck"})
        message = self.fetch()[1]["messages"][0]["message"]
        self.check_crc(message)
        self.assertEqual(message["topic"], "cobalt.device.messaging.nyx")
        self.assertEqual(message["directedCustomerId"], "cust-3")
        envelope = json.loads(base64.b64decode(message["payload"]))
        self.assertEqual(envelope, {"registrationId": reg_id, "senderId": "sender.one",
                                    "appInfo": {"service.name": "com.example.chat"},
                                    "consolidationKey": "ck", "data": {"k": "v"}})

    def test_application_message_needs_an_active_registration(self):
        _, reg = self.register()
        reg_id = reg["registrationID"]
        self.admin("POST", "/admin/enqueue", {"registration_id": "reg-unknown", "sender": "s"},
                   expect=404)
        self.assertEqual(self.signed("POST", "/v1/unregistrations",
                                     {"registrationId": reg_id}), (200, {}))
        self.admin("POST", "/admin/enqueue", {"registration_id": reg_id, "sender": "s"},
                   expect=404)
        record = self.admin("GET", "/admin/registrations")["registrations"][0]
        self.assertTrue(record["revoked"])


class AckTest(ServerTestCase):
    def test_final_outcomes_remove_and_retry_keeps(self):
        cases = [("delivered", 1, False, True), ("unhandled", 103, False, True),
                 ("unresponsive", 200, True, False)]
        ids = self.admin("POST", "/admin/enqueue",
                         {"topic": "com.example.t", "payload": "p", "count": len(cases)})["ids"]
        for (name, status, retry, removed), msg_id in zip(cases, ids):
            with self.subTest(name):
                result = self.ack(msg_id, status, retry)
                self.assertEqual((result["removed"], result["flag"]), (removed, None))
        offered = [m["message"]["id"] for m in self.fetch()[1]["messages"]]
        self.assertEqual(offered, [ids[2]])
        stats = self.admin("GET", "/admin/stats")
        self.assertEqual(stats["acks_by_status"], {"1": 1, "103": 1, "200": 1})

    def test_flags_an_ack_for_an_unknown_message(self):
        self.assertEqual(self.ack("never-sent", 1, False)["flag"], "unknown id")
        self.assertEqual(self.admin("GET", "/admin/acks")["acks"][0]["id"], "never-sent")

    def test_rejects_malformed_entries(self):
        def b64(text):
            return base64.b64encode(text.encode()).decode()
        good = '{"response":{"id":"m","status":1,"retry":false}}'
        cases = [
            ("wrong topic", {"topic": "other", "payload": b64(good)}),
            ("payload not base64", {"topic": "cobalt.messaging.response", "payload": "%%%"}),
            ("payload not JSON", {"topic": "cobalt.messaging.response", "payload": b64("{")}),
            ("status as text", {"topic": "cobalt.messaging.response",
                                "payload": b64(good.replace("1", '"1"'))}),
            ("not an object", ["x"]),
        ]
        for name, entry in cases:
            with self.subTest(name):
                self.assertIn("error", self.admin("POST", "/admin/ack", entry, expect=400))


class RegistrationTest(ServerTestCase):
    def test_answers_499_for_a_rejected_sender(self):
        self.admin("POST", "/admin/reject-sender", {"sender": "bad.sender"})
        status, doc = self.register(senders=("good.sender", "bad.sender"))
        self.assertEqual((status, doc), (499, {"reason": "InvalidSenderId",
                                               "message": "Sender 'bad.sender' is not allowed."}))
        self.assertEqual(self.admin("GET", "/admin/registrations")["registrations"], [])

    def test_refuses_malformed_bodies_with_400(self):
        base = {"platform": "Tessel", "allowedSenders": ["s"], "appInfo": {"a": "b"},
                "target": "Device"}
        cases = [("no senders", dict(base, allowedSenders=[])),
                 ("sender not a string", dict(base, allowedSenders=[3])),
                 ("unknown target", dict(base, target="Everyone")),
                 ("appInfo not an object", dict(base, appInfo="x")),
                 ("not an object", [])]
        for name, doc in cases:
            with self.subTest(name):
                status, answer = self.signed("POST", "/v1/registrations", doc)
                self.assertEqual(status, 400)
                self.assertIn("error", answer)
        body = b"{not json"
        status, _, data = self.request("POST", "/v1/registrations", body,
                                       signed_headers("POST", "/v1/registrations", body))
        self.assertEqual(status, 400)
        self.assertIn("error", json.loads(data))


class FaultTest(ServerTestCase):
    def schedule(self, **wanted):
        return self.admin("POST", "/admin/fault", wanted)

    def raw_fetch(self):
        return self.request("GET", "/v1/messages", headers=signed_headers("GET", "/v1/messages"))

    def broken_fetch(self):
        try:
            self.raw_fetch()
        except (http.client.HTTPException, ConnectionError):
            return True
        return False

    def test_each_fault_kind_is_observable_once(self):
        self.admin("POST", "/admin/enqueue", {"topic": "com.example.t", "payload": "p"})

        def status_fault():
            status, headers, data = self.raw_fetch()
            return (status, headers.get("Retry-After"), json.loads(data)["error"] != "")

        def delayed():
            started = time.monotonic()
            self.assertEqual(self.raw_fetch()[0], 200)
            return time.monotonic() - started >= 0.3

        def not_json():
            status, _, data = self.raw_fetch()
            with self.assertRaises(ValueError):
                json.loads(data)
            return status

        def page_member(name):
            return lambda: self.fetch()[1]["messages"][0]["message"].get(name)

        def crc_matches():
            message = self.fetch()[1]["messages"][0]["message"]
            payload = base64.b64decode(message["payload"])
            return message["crc"] == zlib.crc32(message["topic"].encode() + payload)

        cases = [
            ("status", {"status": 503, "retry_after": "7"}, status_fault, (503, "7", True)),
            ("delay", {"delay": 0.3}, delayed, True),
            ("reset", {}, self.broken_fetch, True),
            ("reset", {"at": "body"}, self.broken_fetch, True),
            ("truncate", {}, self.broken_fetch, True),
            ("not-json", {}, not_json, 200),
            ("corrupt-crc", {}, crc_matches, False),
            ("missing-member", {"member": "crc"}, page_member("crc"), None),
            ("missing-member", {"member": "id"}, page_member("id"), None),
        ]
        for kind, params, observe, expected in cases:
            with self.subTest(kind=kind, params=params):
                self.schedule(kind=kind, **params)
                self.assertEqual(observe(), expected)
                self.assertTrue(crc_matches(), "a fault outlived its one request")
        self.assertEqual(len(self.admin("GET", "/admin/pending")["messages"]), 1)
        fired = self.admin("GET", "/admin/stats")["faults_fired"]
        self.assertEqual(sum(fired.values()), len(cases))

    def test_fault_waits_for_its_kind_of_request(self):
        self.schedule(kind="status", status=500, only="register", count=2)
        self.assertEqual(self.fetch()[0], 200)
        self.assertEqual(self.register()[0], 500)
        self.assertEqual(self.admin("GET", "/admin/faults")["scheduled"][0]["remaining"], 1)

    def test_refuses_bad_fault_descriptions(self):
        cases = [("unknown kind", {"kind": "meteor"}),
                 ("status without code", {"kind": "status"}),
                 ("page fault on registration", {"kind": "corrupt-crc", "only": "register"}),
                 ("unknown member", {"kind": "missing-member", "member": "colour"}),
                 ("zero count", {"kind": "delay", "count": 0}),
                 ("stray parameter", {"kind": "truncate", "delay": 1})]
        for name, wanted in cases:
            with self.subTest(name):
                self.assertIn("error", self.admin("POST", "/admin/fault", wanted, expect=400))


class RobustnessTest(ServerTestCase):
    def test_bad_requests_get_a_json_4xx_and_the_server_carries_on(self):
        cases = [
            ("unknown admin path", "GET", "/admin/nothing", b"", {}, 404),
            ("unknown protocol path", "GET", "/v2/messages", b"", {}, 404),
            ("wrong method", "POST", "/admin/stats", b"", {}, 405),
            ("admin body not JSON", "POST", "/admin/enqueue", b"{", {}, 400),
            ("enqueue without topic", "POST", "/admin/enqueue", b'{"payload":"x"}', {}, 400),
            ("bad base64 payload", "POST", "/admin/enqueue",
             b'{"topic":"t","payload_b64":"@@"}', {}, 400),
            ("bad query number", "GET", "/admin/acks?last=x", b"", {}, 400),
            ("unknown page cursor", "GET", "/v1/messages?cursor=999.0", b"",
             signed_headers("GET", "/v1/messages?cursor=999.0"), 404),
        ]
        for name, method, target, body, headers, expect in cases:
            with self.subTest(name):
                status, _, data = self.request(method, target, body, headers)
                self.assertEqual(status, expect, data)
                self.assertIn("error", json.loads(data))
        conn = self.server.connection()
        conn.putrequest("POST", "/admin/enqueue")
        conn.putheader("Content-Length", "ten")
        conn.endheaders()
        self.assertEqual(conn.getresponse().status, 400)
        conn.close()
        self.assertEqual(self.admin("GET", "/admin/stats")["pending"], 0)


    def test_large_post_waiting_for_100_continue_is_not_stalled(self):
        body = json.dumps({"topic": "com.example.t", "payload": "x" * 4000}).encode()
        with socket.create_connection((self.server.host, self.server.port), timeout=0.5) as s:
            s.sendall(b"POST /admin/enqueue HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\n"
                      b"Content-Length: %d\r\n\r\n" % len(body))
            self.assertTrue(s.recv(64).startswith(b"HTTP/1.1 100"))
            s.sendall(body)
            self.assertIn(b"msg-", s.recv(4096))


class ClientTest(ServerTestCase):
    def run_client(self, *args):
        return subprocess.run([sys.executable, CLIENT, "--ready-file", self.server.ready, *args],
                              capture_output=True, text=True, timeout=20)

    def test_commands_reach_the_server_and_report_errors(self):
        enqueued = self.run_client("--json", "enqueue", "com.example.t", "hello", "--id", "m1")
        self.assertEqual(enqueued.returncode, 0, enqueued.stderr)
        self.assertEqual(json.loads(enqueued.stdout)["ids"], ["m1"])
        listed = self.run_client("pending")
        self.assertIn("m1", listed.stdout)
        self.assertIn("hello", listed.stdout)
        acked = self.run_client("ack", "m1", "--status", "103")
        self.assertEqual(acked.returncode, 0, acked.stderr)
        self.assertEqual(self.admin("GET", "/admin/stats")["pending"], 0)
        missing = self.run_client("enqueue-app", "reg-none", "--sender", "s")
        self.assertEqual(missing.returncode, 1)
        self.assertIn("404", missing.stderr)
        unreachable = subprocess.run([sys.executable, CLIENT, "--server", "http://127.0.0.1:9",
                                      "stats"], capture_output=True, text=True, timeout=20)
        self.assertEqual(unreachable.returncode, 2)
        self.assertIn("cannot reach", unreachable.stderr)


class TlsTest(unittest.TestCase):
    def test_configures_the_device_and_serves_https_with_the_installed_ca(self):
        root = make_root()
        dynconfig = os.path.join(root, "etc", "nyx-host", "dynconfig")
        with open(dynconfig, "w") as f:
            f.write("# kept\nother.key=1\nurl.devicemessaging.getmessages=http://old/\n")
        server = MockServer(root, "--tls", "--configure")
        try:
            self.assertTrue(server.url.startswith("https://127.0.0.1:"))
            with open(dynconfig) as f:
                lines = f.read().splitlines()
            self.assertEqual(lines[:2], ["# kept", "other.key=1"])
            values = dict(line.split("=", 1) for line in lines[2:])
            self.assertEqual(values, {
                "url.devicemessaging.registration": server.url + "/v1/registrations",
                "url.devicemessaging.unregistration": server.url + "/v1/unregistrations",
                "url.devicemessaging.getmessages": server.url + "/v1/messages"})
            context = ssl.create_default_context(
                cafile=os.path.join(root, "etc", "nyx-host", "tls", "ca.pem"))
            for host in ("127.0.0.1", "localhost"):
                with self.subTest(host):
                    conn = http.client.HTTPSConnection(host, server.port, context=context,
                                                       timeout=10)
                    conn.request("GET", "/v1/messages",
                                 headers=signed_headers("GET", "/v1/messages"))
                    reply = conn.getresponse()
                    self.assertEqual((reply.status, reply.read()), (200, b'{"messages":[]}'))
                    conn.close()
        finally:
            server.stop()
            shutil.rmtree(root, ignore_errors=True)
        self.assertFalse(os.path.exists(server.ready))


if __name__ == "__main__":
    unittest.main()
