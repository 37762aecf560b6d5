#!/usr/bin/env python3
"""The mock messaging server and its nyx-mock client, over real sockets. Requests
are signed here with an independent HMAC and CRCs checked with zlib, so a fault
shared by the server's own helpers would still show."""

import base64
import hashlib
import hmac
import http.client
import json
import os
import shutil
import ssl
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse
import zlib

TOOL_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools",
                        "mock-server")
SECRET, SERIAL, DATE = "device-secret-for-tests", "SERIAL0001", "2026-01-02T03:04:05Z"


def signed_headers(method, target, body=b"", secret=SECRET, customer=None):
    text = "\n".join([method, target, DATE, customer or "", hashlib.sha256(body).hexdigest()])
    headers = {"X-Device-Serial": SERIAL, "X-Device-Date": DATE, "X-Device-Signature":
               hmac.new(secret.encode(), text.encode(), hashlib.sha256).hexdigest()}
    if customer is not None:
        headers["X-Device-Customer"] = customer
    return headers


def ack_entry(msg_id, status, retry):
    """A queue entry exactly as nyxd writes it for the outbound-message service."""
    response = json.dumps({"response": {"id": msg_id, "status": status, "retry": retry}},
                          separators=(",", ":"))
    return json.dumps({"topic": "cobalt.messaging.response",
                       "payload": base64.b64encode(response.encode()).decode(),
                       "gunzip": False, "options": {"flushTime": 1}}, separators=(",", ":"))


class ServerTestCase(unittest.TestCase):
    """One server process per class in its own device root, stopped by pid."""

    server_args = ("--page-size", "3")

    @classmethod
    def setUpClass(cls):
        cls.root = tempfile.mkdtemp(prefix="nyx-mock-test-")
        cls.addClassCleanup(shutil.rmtree, cls.root, True)
        cls.host_dir = os.path.join(cls.root, "etc", "nyx-host")
        os.makedirs(cls.host_dir)
        for name, value in (("device-secret", SECRET), ("device-serial", SERIAL),
                            ("dynconfig", "# kept\nurl.devicemessaging.getmessages=http://old/")):
            with open(os.path.join(cls.host_dir, name), "w") as f:
                f.write(value + "\n")
        cls.ready = os.path.join(cls.root, "ready.json")
        proc = subprocess.Popen([sys.executable, os.path.join(TOOL_DIR, "nyx-mock-server"),
                                 "--root", cls.root, "--ready-file", cls.ready, "--quiet",
                                 *cls.server_args], stdout=subprocess.DEVNULL)
        cls.addClassCleanup(proc.wait, 10)
        cls.addClassCleanup(proc.terminate)
        deadline = time.monotonic() + 15
        while not os.path.exists(cls.ready):
            assert proc.poll() is None and time.monotonic() < deadline, "server did not start"
            time.sleep(0.02)
        with open(cls.ready) as f:
            cls.url = json.load(f)["url"]
        split = urllib.parse.urlsplit(cls.url)
        cls.host, cls.port = split.hostname, split.port

    def setUp(self):
        self.mock("reset")

    def request(self, method, target, body=b"", headers=None, host=None, context=None):
        if context is None:
            conn = http.client.HTTPConnection(self.host, self.port, timeout=10)
        else:
            conn = http.client.HTTPSConnection(host, self.port, context=context, timeout=10)
        try:
            conn.request(method, target, body=body or None, headers=headers or {})
            reply = conn.getresponse()
            return reply.status, dict(reply.getheaders()), reply.read()
        finally:
            conn.close()

    def signed(self, method, target, doc=None, customer=None):
        body = b"" if doc is None else json.dumps(doc).encode()
        status, _, data = self.request(method, target, body,
                                       signed_headers(method, target, body, customer=customer))
        return status, json.loads(data)

    def register(self, *senders, customer=None):
        return self.signed("POST", "/v1/registrations", {
            "platform": "Tessel", "allowedSenders": list(senders),
            "appInfo": {"service.name": "com.example.chat"}, "target": "Device"}, customer)

    def mock(self, *args, expect=0):
        """Runs the nyx-mock client; its JSON answer, or its standard error on failure."""
        result = subprocess.run([sys.executable, os.path.join(TOOL_DIR, "nyx-mock"), "--json",
                                 "--ready-file", self.ready, *args],
                                capture_output=True, text=True, timeout=20)
        self.assertEqual(result.returncode, expect, result.stderr)
        return json.loads(result.stdout) if expect == 0 else result.stderr


class ProtocolTest(ServerTestCase):
    def test_signature_is_verified_with_401_on_failure(self):
        body = b'{"registrationId":"none"}'
        post, get = ("POST", "/v1/unregistrations"), ("GET", "/v1/messages?x=1")
        cases = [  # name, request, signed with, changes after signing, expected status
            ("valid POST", post, {}, {}, 200),
            ("valid GET with query and customer", get, {"customer": "c"}, {}, 200),
            ("header names in lower case", get, {}, {"lower": True}, 200),
            ("wrong secret", post, {"secret": "not-it"}, {}, 401),
            ("body changed", post, {}, {"body": body + b" "}, 401),
            ("target changed", get, {}, {"target": "/v1/messages?x=2"}, 401),
            ("customer dropped", get, {"customer": "c"}, {"drop": "X-Device-Customer"}, 401),
            ("date missing", get, {}, {"drop": "X-Device-Date"}, 401),
        ]
        for name, (method, target), signing, change, expected in cases:
            with self.subTest(name):
                sent = body if method == "POST" else b""
                headers = signed_headers(method, target, sent, **signing)
                headers.pop(change.get("drop"), None)
                if change.get("lower"):
                    headers = {k.lower(): v for k, v in headers.items()}
                status, _, data = self.request(method, change.get("target", target),
                                               change.get("body", sent), headers)
                self.assertEqual(status, expected, data)
                self.assertEqual("error" in json.loads(data), expected == 401)

    def test_registration_rejected_sender_and_unregistration(self):
        self.mock("reject-sender", "bad.sender")
        self.assertEqual(self.register("good.sender", "bad.sender"), (499, {
            "reason": "InvalidSenderId", "message": "Sender 'bad.sender' is not allowed."}))
        self.assertEqual(self.register()[0], 400, "a registration needs a sender")
        status, answer = self.register("good.sender", customer="cust-3")
        self.assertEqual((status, list(answer)), (200, ["registrationID"]))
        reg_id = answer["registrationID"]
        listed = self.mock("registrations")["registrations"]
        self.assertEqual([(r["id"], r["revoked"]) for r in listed], [(reg_id, False)])
        self.assertEqual(self.signed("POST", "/v1/unregistrations", {"registrationId": reg_id}),
                         (200, {}))
        self.assertTrue(self.mock("registrations")["registrations"][0]["revoked"])
        self.assertIn("404", self.mock("enqueue-app", reg_id, "--sender", "s", expect=1))

    def test_paged_fetch_of_plain_and_application_messages_then_acks(self):
        reg_id = self.register("sender.one", customer="cust-3")[1]["registrationID"]
        raw = bytes(range(256))
        self.mock("enqueue", "com.example.raw", base64.b64encode(raw).decode(), "--b64",
                  "--directed", "cust-9", "--id", "raw")
        self.mock("enqueue", "com.example.weather", "forecast", "--count", "3", "--id", "w")
        self.mock("enqueue-app", reg_id, "--sender", "sender.one", "--data", "k=v",
                  "--consolidation-key", "ck", "--id", "app")
        status, first = self.signed("GET", "/v1/messages")
        self.assertEqual(status, 200)
        self.assertTrue(first["nextPage"].startswith(self.url + "/"))
        next_page = urllib.parse.urlsplit(first["nextPage"])
        second = self.signed("GET", next_page.path + "?" + next_page.query)[1]
        self.assertNotIn("nextPage", second)
        offered = [m["message"] for m in first["messages"] + second["messages"]]
        self.assertEqual([m["id"] for m in offered], ["raw", "w-1", "w-2", "w-3", "app"])
        for message in offered:
            payload = base64.b64decode(message["payload"])
            self.assertEqual(message["crc"], zlib.crc32(message["topic"].encode() + payload))
        self.assertEqual((base64.b64decode(offered[0]["payload"]),
                          offered[0]["directedCustomerId"]), (raw, "cust-9"))
        self.assertEqual((base64.b64decode(offered[1]["payload"]), offered[1].get("directedCustomerId")),
                         (b"forecast", None))
        app = offered[4]
        self.assertEqual((app["topic"], app["directedCustomerId"]),
                         ("cobalt.device.messaging.nyx", "cust-3"))
        self.assertEqual(json.loads(base64.b64decode(app["payload"])), {
            "registrationId": reg_id, "senderId": "sender.one", "consolidationKey": "ck",
            "appInfo": {"service.name": "com.example.chat"}, "data": {"k": "v"}})
        # Final outcomes remove a message, a retry keeps it.
        for msg_id, status, retry in [("raw", 1, False), ("w-1", 103, False), ("w-2", 200, True)]:
            status, _, data = self.request("POST", "/admin/ack", ack_entry(msg_id, status, retry))
            self.assertEqual(status, 200, data)
        self.assertEqual([a["id"] for a in self.mock("acks")["acks"]], ["raw", "w-1", "w-2"])
        offered = [m["message"]["id"] for m in self.signed("GET", "/v1/messages")[1]["messages"]]
        self.assertEqual(offered, ["w-2", "w-3", "app"])

    def test_faults_from_the_client_hit_one_fetch_each(self):
        self.mock("enqueue", "com.example.t", "p")

        def answer():
            started = time.monotonic()
            status, headers, data = self.request("GET", "/v1/messages",
                                                 headers=signed_headers("GET", "/v1/messages"))
            try:
                message = json.loads(data)["messages"][0]["message"]
                crc = zlib.crc32(message["topic"].encode() + base64.b64decode(message["payload"]))
                body = "crc ok" if message["crc"] == crc else "crc wrong"
            except (ValueError, KeyError, IndexError):
                body = "not json" if data[:1] != b"{" else "error"
            return status, headers.get("Retry-After"), body, time.monotonic() - started >= 0.4

        cases = [
            (("status", "--status", "503", "--retry-after", "7"), (503, "7", "error", False)),
            (("delay", "--delay", "0.4"), (200, None, "crc ok", True)),
            (("corrupt-crc",), (200, None, "crc wrong", False)),
            (("not-json",), (200, None, "not json", False)),
        ]
        for args, expected in cases:
            with self.subTest(args[0]):
                self.mock("fault", *args)
                self.assertEqual(answer(), expected)
                self.assertEqual(answer(), (200, None, "crc ok", False), "outlived one fetch")


class TlsTest(ServerTestCase):
    server_args = ("--tls", "--configure")

    def test_configures_the_device_and_serves_https_with_the_installed_ca(self):
        with open(os.path.join(self.host_dir, "dynconfig")) as f:
            lines = f.read().splitlines()
        self.assertTrue(self.url.startswith("https://127.0.0.1:"))
        self.assertEqual(lines[0], "# kept")
        self.assertEqual(dict(line.split("=", 1) for line in lines[1:]), {
            "url.devicemessaging.registration": self.url + "/v1/registrations",
            "url.devicemessaging.unregistration": self.url + "/v1/unregistrations",
            "url.devicemessaging.getmessages": self.url + "/v1/messages"})
        context = ssl.create_default_context(cafile=os.path.join(self.host_dir, "tls", "ca.pem"))
        for host in ("127.0.0.1", "localhost"):
            with self.subTest(host):
                status, _, data = self.request("GET", "/v1/messages", host=host, context=context,
                                               headers=signed_headers("GET", "/v1/messages"))
                self.assertEqual((status, data), (200, b'{"messages":[]}'))
        self.assertEqual(self.mock("stats")["pending"], 0)


if __name__ == "__main__":
    unittest.main()
