#!/usr/bin/python3
"""What the end-to-end tests of nyxd do not drive in its tools.

The mock messaging server: refusing requests nyxd never gets wrong, paging,
the fault kinds that no end-to-end test waits on, and the configuration and
certificate it installs. Requests are signed with the shared formula that
nyxd's own signer is tested against; the CRCs are checked by nyxd in those
tests.

The device simulators: the outbox's reading of entries and its refusals, the
receiver's decoding of payloads, and a sample application under a well-known
name. They run as the programs they are on a private bus, driven with this
test's own bus calls."""

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
sys.path[:0] = [TOOLS, os.path.join(TOOLS, "simulators")]
import hbussim  # noqa: E402
from nyxtools import bus, rig  # noqa: E402
from nyxtools.wire import ack_entry, signature  # noqa: E402
from gi.repository import GLib  # noqa: E402

SECRET, SERIAL, CUSTOMER = "device-secret-for-tests", "SERIAL0001", "customer-1"
DATE = "2026-01-02T03:04:05Z"
RIG = {}


def setUpModule():
    RIG["dir"] = tempfile.mkdtemp(prefix="nyx-sim-")
    unittest.addModuleCleanup(shutil.rmtree, RIG["dir"], True)
    RIG["bus"] = rig.PrivateBus(RIG["dir"])
    unittest.addModuleCleanup(RIG["bus"].stop)
    RIG["conn"] = bus.connect(RIG["bus"].address)
    unittest.addModuleCleanup(RIG["conn"].close_sync, None)


def b64(data):
    return base64.b64encode(data).decode()


def signed_headers(method, target, body=b""):
    return {"X-Device-Serial": SERIAL, "X-Device-Date": DATE, "X-Device-Customer": CUSTOMER,
            "X-Device-Signature": signature(SECRET, method, target, DATE, CUSTOMER, body)}


class MockServerTest(unittest.TestCase):
    """One HTTPS server in its own device root, stopped by pid."""

    @classmethod
    def setUpClass(cls):
        cls.root = os.path.join(RIG["dir"], "mock-server")
        rig.make_device_root(cls.root, SERIAL, SECRET, CUSTOMER)
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
        """Sends a request, signed unless its headers are given; its status, headers and body."""
        headers = signed_headers(method, target, body) if headers is None else headers
        conn = http.client.HTTPSConnection(host, self.port, context=self.context, timeout=10)
        try:
            conn.request(method, target, body=body or None, headers=headers)
            reply = conn.getresponse()
            return reply.status, dict(reply.getheaders()), reply.read()
        finally:
            conn.close()

    def fetch(self, target="/v1/messages", host="127.0.0.1"):
        status, headers, data = self.request("GET", target, host=host)
        return status, headers.get("Retry-After"), data

    def mock(self, *args):
        """Runs the nyx-mock client; a failure shows its error and fails the test."""
        subprocess.run([sys.executable, os.path.join(TOOLS, "mock-server", "nyx-mock"),
                        "--ready-file", self.ready, *args],
                       check=True, stdout=subprocess.DEVNULL, timeout=20)

    def test_a_request_is_refused_unless_its_signature_covers_it_and_its_sender_is_allowed(self):
        self.mock("reject-sender", "bad.sender")
        registration = json.dumps({"platform": "Tessel", "target": "Device",
                                   "allowedSenders": ["good.sender", "bad.sender"],
                                   "appInfo": {"service.name": "com.example.chat"}}).encode()
        get = ("GET", "/v1/messages?x=1", b"")
        # The sender's refusal comes after the check of its signed body.
        cases = [  # name, request, changes after signing, expected status
            ("valid GET with a query", get, {}, 200),
            ("target changed", get, {"target": "/v1/messages?x=2"}, 401),
            ("date missing", get, {"drop": "X-Device-Date"}, 401),
            ("rejected sender", ("POST", "/v1/registrations", registration), {}, 499),
        ]
        for name, (method, target, sent), change, expected in cases:
            with self.subTest(name):
                headers = signed_headers(method, target, sent)
                headers.pop(change.get("drop"), None)
                status, _, data = self.request(method, change.get("target", target), sent, headers)
                # A refused sender is named as the reason.
                self.assertEqual((status, b'"reason":"InvalidSenderId"' in data),
                                 (expected, expected == 499), data)

    def test_pages_carry_every_message_and_a_retry_keeps_its_message(self):
        raw = bytes(range(256))
        self.mock("enqueue", "com.example.raw", b64(raw), "--b64",
                  "--directed", "cust-9", "--id", "raw")
        self.mock("enqueue", "com.example.weather", "forecast", "--count", "3", "--id", "w")
        first = json.loads(self.fetch()[2])
        second = json.loads(self.fetch(first["nextPage"].replace(self.url, ""))[2])
        offered = [m["message"] for m in first["messages"] + second["messages"]]
        self.assertEqual([m["id"] for m in offered], ["raw", "w-1", "w-2", "w-3"])
        self.assertEqual((base64.b64decode(offered[0]["payload"]), offered[0]["directedCustomerId"],
                          offered[1].get("directedCustomerId")), (raw, "cust-9", None))
        for msg_id, status, retry in [("w-1", 103, False), ("w-2", 200, True)]:
            self.request("POST", "/admin/ack", ack_entry(msg_id, status, retry).encode())
        offered = [m["message"]["id"] for m in json.loads(self.fetch()[2])["messages"]]
        self.assertEqual(offered, ["raw", "w-2", "w-3"])

    def test_each_fault_hits_one_fetch(self):
        self.mock("enqueue", "com.example.t", "p")
        page = self.fetch()
        cases = [  # the fault; the status and Retry-After it answers with in place of the page
            (("status", "--status", "503", "--retry-after", "7"), (503, "7")),
            (("not-json",), (200, None)),
        ]
        for args, expected in cases:
            with self.subTest(args[0]):
                self.mock("fault", *args)
                status, retry_after, data = self.fetch()
                self.assertEqual((status, retry_after, data == page[2]), expected + (False,))
                self.assertEqual(self.fetch(), page, "outlived one fetch")

    def test_configures_the_device_and_serves_https_with_the_installed_ca(self):
        # Other lines stay; an earlier line for a key it sets goes.
        with open(os.path.join(self.host_dir, "dynconfig")) as f:
            self.assertEqual(f.read().replace(self.url, "URL"), "# kept\n"
                             "url.devicemessaging.registration=URL/v1/registrations\n"
                             "url.devicemessaging.unregistration=URL/v1/unregistrations\n"
                             "url.devicemessaging.getmessages=URL/v1/messages\n")
        # The demo and the device test reach it at 127.0.0.1.
        self.assertEqual(self.fetch(host="localhost"), (200, None, b'{"messages":[]}'))


class SimulatorTest(unittest.TestCase):
    def start(self, program, *args):
        """Starts a simulator; its process, ready record and log reader (records without time)."""
        log = os.path.join(RIG["dir"], "%s.%s.log" % (program, self.id()))
        env = rig.device_env(RIG["bus"].address, RIG["dir"])
        proc, ready = rig.start_helper([sys.executable, os.path.join(TOOLS, "simulators", program),
                                        *args, "--log", log], log + ".ready", env)
        self.addCleanup(rig.stop_process, proc)
        return proc, ready, lambda: [{k: v for k, v in json.loads(line).items() if k != "time"}
                                     for line in open(log)]

    def call(self, service, method, prop, value=None):
        return bus.call(RIG["conn"], service, method, prop, value)

    def test_outbox_reads_entries_flags_loose_ones_and_refuses_on_request(self):
        outbox, _, log = self.start("nyx-outbox-sim")
        for entry in [ack_entry("m-1", 1, False), ack_entry("m-2", 200, True).replace(",", ", ")]:
            self.call(bus.OUTBOX, "SetString", "queueMessage", entry)
        self.assertEqual([(r["id"], r["status"], r["retry"], r.get("problems")) for r in log()],
                         [("m-1", 1, False, None),
                          ("m-2", 200, True, ["entry is not compact JSON"])])
        self.call(bus.OUTBOX, "SetInt", "refuseStatus", 42)
        with self.assertRaisesRegex(GLib.Error, r"GDBus\.Error:hbus\.Error\.Status: 42\b"):
            self.call(bus.OUTBOX, "SetString", "queueMessage", ack_entry("m-3", 1, False))
        with self.assertRaisesRegex(GLib.Error, r"GDBus\.Error:hbus\.Error\.NoSuchProperty"):
            self.call(bus.OUTBOX, "SetInt", "queueMessage", 1)
        self.assertEqual(rig.stop_process(outbox), 0)

    def test_receiver_logs_deliveries_with_their_decoded_payload(self):
        _, _, log = self.start("nyx-receiver-sim", "com.example.weather")
        cases = [
            ("wisp_message", '{"id":"w1","directedId":"c-7","payload":"%s"}' % b64(b"rain"),
             {"id": "w1", "directedId": "c-7", "payload_text": "rain"}),
            ("nyx_message", '{"id":"n2","payload":"%s"}' % b64(b"\x00\xff\x10"),
             {"id": "n2", "payload_hex": "00ff10"}),
        ]
        for prop, envelope, expected in cases:
            with self.subTest(envelope):
                self.call("com.example.weather", "SetString", prop, envelope)
                self.assertEqual(log()[-1], dict(expected, property=prop))

    def test_sample_app_with_a_name_registers_at_start_and_is_answered_at_its_name(self):
        # This connection stands in for nyxd and records the writes it gets.
        writes = []
        daemon = hbussim.HbusObject(RIG["conn"], None)
        daemon.add(hbussim.Property("nyx_register", "s", "", on_write=lambda prop, value, sender:
                                    writes.append((sender, value))))
        daemon.export()
        self.addCleanup(daemon.unexport)
        hbussim.own_name(RIG["conn"], bus.DAEMON)
        _, ready, log = self.start("nyx-sample-app", "--name", "com.example.app",
                                   "--register", "com.start")
        self.assertEqual(ready["name"], "com.example.app")

        def written():
            while GLib.MainContext.default().iteration(False):
                pass
            return writes

        self.assertEqual(rig.wait_for(written, 5, 0.01), [(ready["unique_name"], "com.start")])
        self.call("com.example.app", "SetString", "nyx_registration", '{"registration_id":"r-1"}')
        self.call("com.example.app", "SetString", "nyx_message",
                  '{"id":"n1","directedId":"c-1","payload":"%s"}' % b64(b'{"from":"com.sender"}'))
        self.assertEqual(log()[-2]["summary"], "registered with id r-1")
        self.assertEqual(log()[-1], {"kind": "message", "id": "n1", "directedId": "c-1",
                                     "data": {"from": "com.sender"}})


if __name__ == "__main__":
    unittest.main()
