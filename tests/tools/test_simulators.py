#!/usr/bin/python3
"""The device simulators in tools/simulators, run as the programs they are on a
private dbus-daemon and driven with this test's own Gio calls, so that a fault
in their shared module cannot hide by being on both sides."""

import base64
import http.server
import json
import os
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import types
import unittest

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

SIMULATORS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools",
                          "simulators")
BUS = {}


def setUpModule():
    if shutil.which("dbus-daemon") is None:
        raise unittest.SkipTest("dbus-daemon is not installed")
    BUS["process"] = subprocess.Popen(
        ["dbus-daemon", "--session", "--nofork", "--print-address=1",
         "--address=unix:tmpdir=" + tempfile.gettempdir()],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    BUS["address"] = BUS["process"].stdout.readline().strip()


def tearDownModule():
    BUS["process"].terminate()
    BUS["process"].wait(5)
    BUS["process"].stdout.close()


def wait_for(condition, what, timeout=5.0):
    """Runs the default main context until condition() is true."""
    end = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < end, "timed out waiting for " + what
        while GLib.MainContext.default().iteration(False):
            pass
        time.sleep(0.01)


def read(path):
    with open(path) as f:
        return f.read()


def b64(data):
    return base64.b64encode(data).decode()


def ack_entry(msg_id, status, retry):
    """A queue entry exactly as nyxd writes it."""
    response = json.dumps({"response": {"id": msg_id, "status": status, "retry": retry}},
                          separators=(",", ":"))
    return ('{"topic":"cobalt.messaging.response","payload":"%s","gunzip":false,'
            '"options":{"flushTime":1}}' % b64(response.encode()))


class SimTestCase(unittest.TestCase):
    def setUp(self):
        self.conn = Gio.DBusConnection.new_for_address_sync(
            BUS["address"], Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
            | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)
        self.addCleanup(self.conn.close_sync, None)

    def start(self, program, *args, stdin=None):
        """Starts a simulator; returns its process, its ready record and readers of its
        standard output and its log of JSON lines."""
        tmp = tempfile.mkdtemp(prefix="nyx-sim-")
        self.addCleanup(shutil.rmtree, tmp, True)
        ready, log, out = (os.path.join(tmp, name) for name in ("ready", "log", "out"))
        env = dict(os.environ, DBUS_SESSION_BUS_ADDRESS=BUS["address"])
        env.pop("HBUS_BUS", None)
        with open(out, "w") as stdout:
            proc = subprocess.Popen([os.path.join(SIMULATORS, program), *args, "--ready-file",
                                     ready, "--log", log], stdin=stdin, stdout=stdout, env=env,
                                    text=True)
        self.addCleanup(lambda: (proc.kill(), proc.wait(), proc.stdin and proc.stdin.close()))
        wait_for(lambda: os.path.exists(ready) or proc.poll() is not None, program + " to start")
        self.assertIsNone(proc.poll(), program + " exited")

        return types.SimpleNamespace(
            proc=proc, ready=json.loads(read(ready)), out=lambda: read(out),
            log=lambda: [json.loads(line) for line in read(log).splitlines()])

    def call(self, service, method, *args, timeout_ms=3000):
        signature = {"SetString": "(ss)", "SetInt": "(si)", "GetInt": "(s)", "GetString": "(s)"}
        return self.conn.call_sync(service, "/hbus", "hbus.Properties", method,
                                   GLib.Variant(signature[method], args), None,
                                   Gio.DBusCallFlags.NONE, timeout_ms, None).unpack()

    def assertCallFails(self, error, service, method, *args):
        with self.assertRaises(GLib.Error) as caught:
            self.call(service, method, *args)
        self.assertTrue(caught.exception.message.startswith("GDBus.Error:" + error),
                        caught.exception.message)


class ShellSimTest(SimTestCase):
    def test_framework_started_is_settable_and_nothing_else_exists(self):
        sim = self.start("nyx-shell-sim", "--framework-started", "0")
        shell = "com.corvid.shell"
        self.assertEqual(self.call(shell, "GetInt", "frameworkStarted"), (0,))
        for value in (2, 1):
            self.call(shell, "SetInt", "frameworkStarted", value)
            self.assertEqual(self.call(shell, "GetInt", "frameworkStarted"), (value,))
        for method, args in [("GetInt", ("framework",)), ("SetString", ("frameworkStarted", "1"))]:
            self.assertCallFails("hbus.Error.NoSuchProperty", shell, method, *args)
        sim.proc.send_signal(signal.SIGTERM)
        self.assertEqual(sim.proc.wait(5), 0)


class AckRecorder(http.server.BaseHTTPRequestHandler):
    """The mock server's acknowledgement endpoint, reduced to a recorder."""
    received = []

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"])).decode()
        AckRecorder.received.append((self.path, self.headers["Content-Type"], body))
        self.send_response(200)
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *args):
        pass


class OutboxSimTest(SimTestCase):
    def test_accepts_queue_messages_and_forwards_them_to_the_server(self):
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), AckRecorder)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        sim = self.start("nyx-outbox-sim", "--forward",
                         "http://127.0.0.1:%d/" % server.server_address[1])
        outbox = "com.corvid.outbox"
        cases = [("m-1", 1, False), ("m-2", 103, False), ("m-3", 200, True)]
        for case in cases:
            self.call(outbox, "SetString", "queueMessage", ack_entry(*case))
        wait_for(lambda: len(AckRecorder.received) == 3, "the acknowledgements")
        self.assertEqual([(r["id"], r["status"], r["retry"], r.get("problems")) for r in sim.log()],
                         [case + (None,) for case in cases])
        self.assertEqual(AckRecorder.received, [("/admin/ack", "application/json", ack_entry(*c))
                                                for c in cases])
        # An entry that is not in nyxd's compact form is flagged; a refusal is a bus status.
        self.call(outbox, "SetString", "queueMessage", ack_entry("m-4", 1, False).replace(",", ", "))
        self.assertIn("not compact", " ".join(sim.log()[-1]["problems"]))
        self.call(outbox, "SetInt", "refuseStatus", 42)
        self.assertCallFails("hbus.Error.Status: 42", outbox, "SetString", "queueMessage",
                             ack_entry("m-5", 1, False))


class ReceiverSimTest(SimTestCase):
    def test_deliveries_are_logged_with_their_decoded_payload(self):
        sim = self.start("nyx-receiver-sim", "com.example.weather")
        cases = [
            ("wisp_message", '{"id":"w1","directedId":"c-7","payload":"%s"}' % b64(b"rain"),
             {"id": "w1", "directedId": "c-7", "payload_text": "rain"}),
            ("wisp_message", '{"id":"w2","payload":"%s"}' % b64(b"\x00\xff\x10"),
             {"id": "w2", "payload_hex": "00ff10"}),
            ("nyx_message", '{"id":"n1","payload":"%s"}' % b64(b'{"from":"x"}'),
             {"id": "n1", "payload_text": '{"from":"x"}'}),
        ]
        for prop, envelope, expected in cases:
            with self.subTest(envelope):
                self.call("com.example.weather", "SetString", prop, envelope)
                record = sim.log()[-1]
                del record["time"]
                self.assertEqual(record, dict(expected, property=prop))


class SampleAppTest(SimTestCase):
    def own_daemon_name(self):
        """Stands in for nyxd's bus service, recording the writes it gets."""
        writes = []
        xml = ('<node><interface name="hbus.Properties"><method name="SetString">'
               '<arg type="s" direction="in"/><arg type="s" direction="in"/></method>'
               '</interface></node>')
        info = Gio.DBusNodeInfo.new_for_xml(xml).interfaces[0]

        def on_call(conn, sender, path, interface, method, params, invocation):
            writes.append((sender,) + tuple(params.unpack()))
            invocation.return_value(None)

        self.conn.register_object("/hbus", info, on_call, None, None)
        self.conn.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus",
                            "org.freedesktop.DBus", "RequestName",
                            GLib.Variant("(su)", ("cobalt.device.messaging", 4)), None,
                            Gio.DBusCallFlags.NONE, -1, None)
        return writes

    def test_registers_through_the_daemon_and_prints_answers_and_messages(self):
        writes = self.own_daemon_name()
        # Without a name nyxd answers the unique name; with one, that name.
        for name in ([], ["--name", "com.example.app"]):
            with self.subTest(name=name):
                writes.clear()
                self.check_sample_app(name, writes)

    def check_sample_app(self, name, writes):
        app = self.start("nyx-sample-app", *name, "--register", "com.start",
                         stdin=subprocess.PIPE)
        unique = app.ready["unique_name"]
        service = name[1] if name else unique
        self.assertEqual(app.ready["name"], service)
        app.proc.stdin.write("register com.a, com.b\nunregister\n")
        app.proc.stdin.flush()
        wait_for(lambda: len(writes) == 3, "three writes")
        self.assertEqual(writes, [(unique, "nyx_register", "com.start"),
                                  (unique, "nyx_register", "com.a, com.b"),
                                  (unique, "nyx_unregister", "")])
        self.call(service, "SetString", "nyx_registration", '{"registration_id":"reg-1"}')
        self.assertEqual(app.log()[-1]["summary"], "registered with id reg-1")
        data = '{"collapse_key":"do_not_collapse","from":"com.sender"}'
        self.call(service, "SetString", "nyx_message",
                  '{"id":"n1","directedId":"c-1","payload":"%s"}' % b64(data.encode()))
        record = app.log()[-1]
        del record["time"]
        self.assertEqual(record, {"kind": "message", "id": "n1", "directedId": "c-1",
                                  "data": json.loads(data)})
        self.assertIn("registered with id reg-1", app.out())
        self.assertIn("collapse_key=do_not_collapse", app.out())
        app.proc.stdin.write("quit\n")
        app.proc.stdin.flush()
        self.assertEqual(app.proc.wait(5), 0)


if __name__ == "__main__":
    unittest.main()
