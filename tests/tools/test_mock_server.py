#!/usr/bin/env python3
"""What the end-to-end tests of nyxd do not drive in the mock messaging
server: refusing requests nyxd never gets wrong, paging, the fault kinds that
no end-to-end test waits on, and the configuration and certificate it
installs. Requests are signed with the shared formula that nyxd's own
signer is tested against; the CRCs are checked by nyxd in those tests."""

import base64
import http.client
import json
import os
import shutil
import ssl
import subprocess
import sys
import tempfile
import unittest
import urllib.parse

TOOLS = os.path.join(os.path.dirname(os.path.realpath(__file__)), "..", "..", "tools")
sys.path.insert(0, TOOLS)
from nyxtools import rig  # noqa: E402
from nyxtools.wire import ack_entry, signature  # noqa: E402

SECRET, SERIAL, DATE = "device-secret-for-tests", "SERIAL0001", "2026-01-02T03:04:05Z"


def signed_headers(method, target, body=b"", secret=SECRET, customer=None):
    headers = {"X-Device-Serial": SERIAL, "X-Device-Date": DATE,
               "X-Device-Signature": signature(secret, method, target, DATE, customer, body)}
    if customer is not None:
        headers["X-Device-Customer"] = customer
    return headers


class MockServerTest(unittest.TestCase):
    """One HTTPS server in its own device root, stopped by pid."""

    @classmethod
    def setUpClass(cls):
        cls.root = tempfile.mkdtemp(prefix="nyx-mock-test-")
        cls.addClassCleanup(shutil.rmtree, cls.root, True)
        rig.make_device_root(cls.root, SERIAL, SECRET, "customer-1")
        cls.host_dir = os.path.join(cls.root, "etc", "nyx-host")
        with open(os.path.join(cls.host_dir, "dynconfig"), "w") as f:
            f.write("# kept\nurl.devicemessaging.getmessages=http://old/\n")
        cls.ready = os.path.join(cls.root, "ready.json")
        argv = [sys.executable, os.path.join(TOOLS, "mock-server", "nyx-mock-server"), "--root",
                cls.root, "--quiet", "--page-size", "3", "--tls", "--configure"]
        proc, info = rig.start_helper(argv, cls.ready, dict(os.environ))
        cls.addClassCleanup(rig.stop_process, proc)
        cls.url = info["url"]
        cls.port = urllib.parse.urlsplit(cls.url).port
        cls.context = ssl.create_default_context(cafile=os.path.join(cls.host_dir, "tls", "ca.pem"))

    def setUp(self):
        self.mock("reset")

    def request(self, method, target, body=b"", headers=None, host="127.0.0.1"):
        conn = http.client.HTTPSConnection(host, self.port, context=self.context, timeout=10)
        try:
            conn.request(method, target, body=body or None, headers=headers or {})
            reply = conn.getresponse()
            return reply.status, dict(reply.getheaders()), reply.read()
        finally:
            conn.close()

    def fetch(self, target="/v1/messages"):
        status, headers, data = self.request("GET", target, headers=signed_headers("GET", target))
        return status, headers.get("Retry-After"), data

    def mock(self, *args):
        """Runs the nyx-mock client; its JSON answer."""
        argv = [sys.executable, os.path.join(TOOLS, "mock-server", "nyx-mock"), "--json",
                "--ready-file", self.ready, *args]
        done = subprocess.run(argv, capture_output=True, text=True, timeout=20)
        self.assertEqual(done.returncode, 0, done.stderr)
        return json.loads(done.stdout)

    def test_a_request_is_refused_with_401_unless_its_signature_covers_it(self):
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

    def test_a_rejected_sender_is_refused_with_499(self):
        self.mock("reject-sender", "bad.sender")
        body = json.dumps({"platform": "Tessel", "allowedSenders": ["good.sender", "bad.sender"],
                           "appInfo": {"service.name": "com.example.chat"},
                           "target": "Device"}).encode()
        status, _, data = self.request("POST", "/v1/registrations", body,
                                       signed_headers("POST", "/v1/registrations", body))
        self.assertEqual((status, json.loads(data).get("reason")), (499, "InvalidSenderId"), data)

    def test_pages_carry_every_message_and_a_retry_keeps_its_message(self):
        raw = bytes(range(256))
        self.mock("enqueue", "com.example.raw", base64.b64encode(raw).decode(), "--b64",
                  "--directed", "cust-9", "--id", "raw")
        self.mock("enqueue", "com.example.weather", "forecast", "--count", "3", "--id", "w")
        first = json.loads(self.fetch()[2])
        next_page = urllib.parse.urlsplit(first["nextPage"])
        second = json.loads(self.fetch(next_page.path + "?" + next_page.query)[2])
        self.assertNotIn("nextPage", second)
        offered = [m["message"] for m in first["messages"] + second["messages"]]
        self.assertEqual([m["id"] for m in offered], ["raw", "w-1", "w-2", "w-3"])
        self.assertEqual((base64.b64decode(offered[0]["payload"]), offered[0]["directedCustomerId"],
                          offered[1].get("directedCustomerId")), (raw, "cust-9", None))
        for msg_id, status, retry in [("raw", 1, False), ("w-1", 103, False), ("w-2", 200, True)]:
            self.assertEqual(self.request("POST", "/admin/ack", ack_entry(msg_id, status, retry))[0],
                             200)
        offered = [m["message"]["id"] for m in json.loads(self.fetch()[2])["messages"]]
        self.assertEqual(offered, ["w-2", "w-3"])

    def test_each_fault_hits_one_fetch(self):
        self.mock("enqueue", "com.example.t", "p")

        def answer():
            status, retry_after, data = self.fetch()
            return status, retry_after, data.startswith(b'{"messages":[{')

        cases = [  # the fault; the status, Retry-After and whether a page came
            (("status", "--status", "503", "--retry-after", "7"), (503, "7", False)),
            (("not-json",), (200, None, False)),
        ]
        for args, expected in cases:
            with self.subTest(args[0]):
                self.mock("fault", *args)
                self.assertEqual(answer(), expected)
                self.assertEqual(answer(), (200, None, True), "outlived one fetch")

    def test_configures_the_device_and_serves_https_with_the_installed_ca(self):
        with open(os.path.join(self.host_dir, "dynconfig")) as f:
            lines = f.read().splitlines()
        self.assertEqual(lines[0], "# kept")
        self.assertEqual(dict(line.split("=", 1) for line in lines[1:]), {
            "url.devicemessaging.registration": self.url + "/v1/registrations",
            "url.devicemessaging.unregistration": self.url + "/v1/unregistrations",
            "url.devicemessaging.getmessages": self.url + "/v1/messages"})
        # The demo and the device test reach it at 127.0.0.1.
        status, _, data = self.request("GET", "/v1/messages", host="localhost",
                                       headers=signed_headers("GET", "/v1/messages"))
        self.assertEqual((status, data), (200, b'{"messages":[]}'))


if __name__ == "__main__":
    unittest.main()
