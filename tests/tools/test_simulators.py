#!/usr/bin/python3
"""Tests of the device simulators in tools/simulators.

Each test runs the simulators as the programs they are, on a private
dbus-daemon, and talks to them with its own Gio calls, so that a fault in
the simulators' shared module cannot hide itself by being on both sides.
"""

import base64
import http.server
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

try:
    import gi
except ImportError:
    # The Debian interpreter carries python3-gi; another python3 first on
    # PATH (a virtual environment, pyenv) does not.
    if os.path.exists("/usr/bin/python3") and sys.executable != "/usr/bin/python3":
        os.execv("/usr/bin/python3", ["/usr/bin/python3"] + sys.argv)
    raise

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

SIMULATORS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools",
                          "simulators")
DEADLINE = 5.0

bus_address = None
bus_process = None


def setUpModule():
    global bus_address, bus_process
    if shutil.which("dbus-daemon") is None:
        raise unittest.SkipTest("dbus-daemon is not installed")
    bus_process = subprocess.Popen(
        ["dbus-daemon", "--session", "--nofork", "--print-address=1",
         "--address=unix:tmpdir=" + tempfile.gettempdir()],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    bus_address = bus_process.stdout.readline().strip()
    if not bus_address:
        bus_process.kill()
        raise RuntimeError("dbus-daemon printed no address")


def tearDownModule():
    if bus_process is not None:
        bus_process.terminate()
        bus_process.wait(5)
        bus_process.stdout.close()


def connect():
    return Gio.DBusConnection.new_for_address_sync(
        bus_address,
        Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
        | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)


def wait_for(condition, what, timeout=DEADLINE):
    """Runs the default main context until condition() is true."""
    context = GLib.MainContext.default()
    end = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"timed out waiting for {what}")
        while context.iteration(False):
            pass
        time.sleep(0.01)


def remote_error(err):
    """(D-Bus error name, message) of a GLib.Error from a call."""
    text = err.message
    prefix = "GDBus.Error:"
    if not text.startswith(prefix):
        return None, text
    name, _, message = text[len(prefix):].partition(": ")
    return name, message


def entry_of(msg_id, status, retry):
    """A queue entry exactly as nyxd writes it."""
    response = json.dumps({"response": {"id": msg_id, "status": status, "retry": retry}},
                          separators=(",", ":"))
    payload = base64.b64encode(response.encode()).decode()
    return ('{"topic":"cobalt.messaging.response","payload":"%s","gunzip":false,'
            '"options":{"flushTime":1}}' % payload)


def b64(data):
    return base64.b64encode(data).decode()


def read_json_lines(path):
    if not os.path.exists(path):
        return []
    with open(path, encoding="utf-8") as f:
        return [json.loads(line) for line in f if line.endswith("\n")]


class Simulator:
    """One simulator process with its output, log and ready files."""

    def __init__(self, testcase, program, *args, stdin=None, log=True):
        self.testcase = testcase
        self.dir = tempfile.mkdtemp(prefix="nyx-sim-")
        testcase.addCleanup(shutil.rmtree, self.dir, True)
        self.ready_path = os.path.join(self.dir, "ready.json")
        self.log_path = os.path.join(self.dir, "log.jsonl")
        self.out_path = os.path.join(self.dir, "stdout")
        self.err_path = os.path.join(self.dir, "stderr")
        cmd = [os.path.join(SIMULATORS, program), *args, "--ready-file", self.ready_path]
        if log:
            cmd += ["--log", self.log_path]
        env = dict(os.environ, DBUS_SESSION_BUS_ADDRESS=bus_address)
        env.pop("HBUS_BUS", None)
        with open(self.out_path, "w") as out, open(self.err_path, "w") as err:
            self.process = subprocess.Popen(cmd, stdin=stdin, stdout=out, stderr=err, env=env,
                                            text=True)
        testcase.addCleanup(self.kill)
        self.ready = wait_for(self._ready, f"{program} to own its name")

    def _ready(self):
        if self.process.poll() is not None:
            raise AssertionError(f"simulator exited with {self.process.returncode}: "
                                 f"{self.stderr()}")
        if os.path.exists(self.ready_path):
            with open(self.ready_path) as f:
                return json.load(f)
        return None

    def stdout(self):
        with open(self.out_path) as f:
            return f.read()

    def stderr(self):
        with open(self.err_path) as f:
            return f.read()

    def events(self):
        return [json.loads(line) for line in self.stdout().splitlines()]

    def log(self):
        return read_json_lines(self.log_path)

    def stop(self, signum=signal.SIGTERM):
        """Sends signum and returns the exit status once the process has ended
        and the bus has let go of its name (so that the next can own it)."""
        self.process.send_signal(signum)
        status = self.process.wait(DEADLINE)
        wait_for(lambda: not self.testcase.has_owner(self.ready["name"]),
                 f"{self.ready['name']} to be released")
        return status

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        if self.process.stdin:
            self.process.stdin.close()


class BusTestCase(unittest.TestCase):
    def setUp(self):
        self.conn = connect()
        self.addCleanup(self.conn.close_sync, None)

    def has_owner(self, name):
        return self.conn.call_sync(
            "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "NameHasOwner", GLib.Variant("(s)", (name,)), None, Gio.DBusCallFlags.NONE, -1,
            None).unpack()[0]

    def call(self, service, method, *args, timeout_ms=3000):
        signature = {"SetString": "(ss)", "SetInt": "(si)", "GetString": "(s)",
                     "GetInt": "(s)"}[method]
        reply = self.conn.call_sync(service, "/hbus", "hbus.Properties", method,
                                    GLib.Variant(signature, args), None,
                                    Gio.DBusCallFlags.NONE, timeout_ms, None)
        return reply.unpack()

    def assertCallFails(self, error_name, message, service, method, *args):
        with self.assertRaises(GLib.Error) as caught:
            self.call(service, method, *args)
        name, text = remote_error(caught.exception)
        self.assertEqual(name, error_name)
        if message is not None:
            self.assertEqual(text, message)


class ShellSimTest(BusTestCase):
    SERVICE = "com.corvid.shell"

    def test_get_int_reads_the_framework_state_given_at_start(self):
        for args, expected in [((), 1), (("--framework-started", "0"), 0),
                               (("--framework-started", "2"), 2)]:
            with self.subTest(args=args):
                sim = Simulator(self, "nyx-shell-sim", *args)
                self.assertEqual(self.call(self.SERVICE, "GetInt", "frameworkStarted"),
                                 (expected,))
                self.assertEqual(sim.stop(), 0)

    def test_set_int_changes_what_get_int_reads(self):
        sim = Simulator(self, "nyx-shell-sim", "--json")
        for value in (0, 2, 1):
            self.call(self.SERVICE, "SetInt", "frameworkStarted", value)
            self.assertEqual(self.call(self.SERVICE, "GetInt", "frameworkStarted"), (value,))
        changes = [e["value"] for e in sim.events() if e["event"] == "set"]
        self.assertEqual(changes, [0, 2, 1])

    def test_other_properties_answer_no_such_property(self):
        Simulator(self, "nyx-shell-sim")
        for method, args in [("GetInt", ("framework",)), ("SetInt", ("wanRing", 1)),
                             ("GetString", ("frameworkStarted",)),
                             ("SetString", ("frameworkStarted", "1"))]:
            with self.subTest(method=method, args=args):
                self.assertCallFails("hbus.Error.NoSuchProperty", None, self.SERVICE, method,
                                     *args)
        self.assertEqual(self.call(self.SERVICE, "GetInt", "frameworkStarted"), (1,))

    def test_unreadable_answers_every_get_int_with_status_1(self):
        Simulator(self, "nyx-shell-sim", "--unreadable")
        for prop in ("frameworkStarted", "other"):
            with self.subTest(prop=prop):
                self.assertCallFails("hbus.Error.Status", "1", self.SERVICE, "GetInt", prop)

    def test_signals_stop_it_cleanly(self):
        for signum in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(signal=signum.name):
                sim = Simulator(self, "nyx-shell-sim")
                self.assertEqual(sim.stop(signum), 0)
                self.assertIn("stopped", sim.stdout())

    def test_fails_with_a_message_when_it_cannot_serve(self):
        first = Simulator(self, "nyx-shell-sim")
        cases = [
            ("name taken", bus_address, 3, "already owned by " + first.ready["unique_name"]),
            ("no bus", "unix:path=/nonexistent/bus", 1, "cannot reach the session bus"),
        ]
        for label, address, status, text in cases:
            with self.subTest(label):
                env = dict(os.environ, DBUS_SESSION_BUS_ADDRESS=address)
                env.pop("HBUS_BUS", None)
                result = subprocess.run([os.path.join(SIMULATORS, "nyx-shell-sim")], env=env,
                                        capture_output=True, text=True, timeout=DEADLINE)
                self.assertEqual(result.returncode, status)
                self.assertIn(text, result.stderr)


class AckRecorder(http.server.BaseHTTPRequestHandler):
    """The mock messaging server's acknowledgement endpoint, reduced to a
    recorder of what arrives."""

    received = []

    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", 0))).decode()
        AckRecorder.received.append((self.path, self.headers.get("Content-Type"), body))
        self.send_response(200)
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *args):
        pass


class OutboxSimTest(BusTestCase):
    SERVICE = "com.corvid.outbox"

    def setUp(self):
        super().setUp()
        AckRecorder.received = []
        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), AckRecorder)
        thread = threading.Thread(target=self.server.serve_forever, daemon=True)
        thread.start()
        self.addCleanup(self.server.server_close)
        self.addCleanup(self.server.shutdown)
        self.url = f"http://127.0.0.1:{self.server.server_address[1]}"

    def test_accepted_entries_are_logged_and_forwarded_exactly(self):
        sim = Simulator(self, "nyx-outbox-sim", "--forward", self.url + "/")
        cases = [("m-1", 1, False), ("m-2", 103, False), ("m-3", 200, True)]
        entries = [entry_of(*case) for case in cases]
        for entry in entries:
            self.call(self.SERVICE, "SetString", "queueMessage", entry)
        wait_for(lambda: len(AckRecorder.received) == len(cases), "the acknowledgements")
        self.assertEqual([(r["id"], r["status"], r["retry"]) for r in sim.log()], cases)
        self.assertTrue(all("problems" not in r for r in sim.log()))
        self.assertEqual(AckRecorder.received,
                         [("/admin/ack", "application/json", entry) for entry in entries])

    def test_entries_that_differ_from_the_wire_form_are_flagged(self):
        sim = Simulator(self, "nyx-outbox-sim")
        good = entry_of("m-9", 103, False)
        response = base64.b64encode(b'{"response":{"id":"m-9","status":"103","retry":false}}')
        cases = [
            ("white space", good.replace(",", ", ", 1), "not compact"),
            ("member order", '{"payload":%s,"topic":"cobalt.messaging.response",'
                             '"gunzip":false,"options":{"flushTime":1}}'
             % json.dumps(json.loads(good)["payload"]), "entry members"),
            ("topic", good.replace("cobalt.messaging.response", "cobalt.messaging"), "topic"),
            ("status as text", good.replace(json.loads(good)["payload"], response.decode()),
             "status"),
        ]
        for label, entry, problem in cases:
            with self.subTest(label):
                self.call(self.SERVICE, "SetString", "queueMessage", entry)
                record = sim.log()[-1]
                self.assertEqual(record["id"], "m-9")
                self.assertTrue(any(problem in p for p in record.get("problems", [])),
                                record)

    def test_refusal_answers_status_from_start_and_from_control_property(self):
        sim = Simulator(self, "nyx-outbox-sim", "--refuse", "103")
        entry = entry_of("m-1", 1, False)
        self.assertCallFails("hbus.Error.Status", "103", self.SERVICE, "SetString",
                             "queueMessage", entry)
        for refuse, error in [(42, "42"), (0, None), (1, "1")]:
            with self.subTest(refuseStatus=refuse):
                self.call(self.SERVICE, "SetInt", "refuseStatus", refuse)
                self.assertEqual(self.call(self.SERVICE, "GetInt", "refuseStatus"), (refuse,))
                if error is None:
                    self.call(self.SERVICE, "SetString", "queueMessage", entry)
                else:
                    self.assertCallFails("hbus.Error.Status", error, self.SERVICE,
                                         "SetString", "queueMessage", entry)
        self.assertEqual([r["id"] for r in sim.log()], ["m-1"])

    def test_hang_outlasts_the_caller_while_control_writes_answer_at_once(self):
        sim = Simulator(self, "nyx-outbox-sim")
        self.call(self.SERVICE, "SetInt", "hangSeconds", 1)
        with self.assertRaises(GLib.Error) as caught:
            self.call(self.SERVICE, "SetString", "queueMessage", entry_of("m-1", 1, False),
                      timeout_ms=300)
        self.assertTrue(caught.exception.matches(Gio.io_error_quark(),
                                                 Gio.IOErrorEnum.TIMED_OUT))
        started = time.monotonic()
        self.call(self.SERVICE, "SetInt", "hangSeconds", 0)
        self.assertLess(time.monotonic() - started, 0.5)
        # The held write is still answered, and accepted, once its hang ends.
        wait_for(lambda: sim.log(), "the held entry to be accepted")
        self.call(self.SERVICE, "SetString", "queueMessage", entry_of("m-2", 1, False),
                  timeout_ms=500)
        self.assertEqual([r["id"] for r in sim.log()], ["m-1", "m-2"])


class ReceiverSimTest(BusTestCase):
    SERVICE = "com.example.weather"

    def test_deliveries_are_logged_with_their_decoded_payload(self):
        sim = Simulator(self, "nyx-receiver-sim", self.SERVICE)
        cases = [
            ("wisp_message", '{"id":"w1","payload":"%s"}' % b64(b"sunny, 21 C"),
             {"property": "wisp_message", "id": "w1", "payload_text": "sunny, 21 C"}),
            ("wisp_message", '{"id":"w2","directedId":"cust-7","payload":"%s"}' % b64(b"rain"),
             {"property": "wisp_message", "id": "w2", "directedId": "cust-7",
              "payload_text": "rain"}),
            ("wisp_message", '{"id":"w3","payload":"%s"}' % b64(b"\x00\xff\x10"),
             {"property": "wisp_message", "id": "w3", "payload_hex": "00ff10"}),
            ("nyx_message", '{"id":"n1","payload":"%s"}' % b64(b'{"from":"x"}'),
             {"property": "nyx_message", "id": "n1", "payload_text": '{"from":"x"}'}),
        ]
        for prop, envelope, expected in cases:
            with self.subTest(envelope=envelope):
                self.call(self.SERVICE, "SetString", prop, envelope)
                record = dict(sim.log()[-1])
                record.pop("time")
                self.assertEqual(record, expected)

    def test_empty_directed_id_is_flagged(self):
        sim = Simulator(self, "nyx-receiver-sim", self.SERVICE)
        self.call(self.SERVICE, "SetString", "wisp_message",
                  '{"id":"w1","directedId":"","payload":"eA=="}')
        self.assertIn("directedId is present but empty", sim.log()[-1]["problems"])

    def test_refusal_from_start_and_control_property(self):
        for args, control, expected in [(("--refuse", "7"), None, "7"),
                                        ((), 200, "200")]:
            with self.subTest(args=args, control=control):
                sim = Simulator(self, "nyx-receiver-sim", self.SERVICE, *args)
                if control is not None:
                    self.call(self.SERVICE, "SetInt", "refuseStatus", control)
                self.assertCallFails("hbus.Error.Status", expected, self.SERVICE, "SetString",
                                     "wisp_message", '{"id":"w1","payload":"eA=="}')
                self.assertEqual(sim.log(), [])
                sim.stop()


class FakeDaemon:
    """The daemon's bus service, reduced to a recorder of property writes
    with a chosen answer."""

    XML = """<node><interface name="hbus.Properties">
      <method name="SetString"><arg type="s" direction="in"/><arg type="s" direction="in"/></method>
      <method name="SetInt"><arg type="s" direction="in"/><arg type="i" direction="in"/></method>
    </interface></node>"""

    def __init__(self, conn):
        self.conn = conn
        self.writes = []
        self.error = None  # (error name, message) to answer with
        info = Gio.DBusNodeInfo.new_for_xml(self.XML).interfaces[0]
        self.registration = conn.register_object("/hbus", info, self._on_call, None, None)
        self.own()

    def own(self):
        reply = self.conn.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus", "RequestName",
                                    GLib.Variant("(su)", ("cobalt.device.messaging", 4)),
                                    None, Gio.DBusCallFlags.NONE, -1, None)
        assert reply.unpack()[0] == 1, "cobalt.device.messaging is taken"

    def release(self):
        self.conn.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus",
                            "org.freedesktop.DBus", "ReleaseName",
                            GLib.Variant("(s)", ("cobalt.device.messaging",)), None,
                            Gio.DBusCallFlags.NONE, -1, None)

    def close(self):
        self.conn.unregister_object(self.registration)
        self.release()

    def _on_call(self, conn, sender, path, interface, method, params, invocation):
        self.writes.append((sender, method) + tuple(params.unpack()))
        if self.error is None:
            invocation.return_value(None)
        else:
            invocation.return_dbus_error(*self.error)


class SampleAppTest(BusTestCase):
    def setUp(self):
        super().setUp()
        self.daemon = FakeDaemon(self.conn)
        self.addCleanup(self.daemon.close)

    def start_app(self, *args):
        app = Simulator(self, "nyx-sample-app", "--json", *args, stdin=subprocess.PIPE)
        return app, app.ready["unique_name"]

    def send(self, app, line):
        app.process.stdin.write(line + "\n")
        app.process.stdin.flush()

    def names_owned_by(self, unique_name):
        def call(method, *args):
            return self.conn.call_sync(
                "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
                GLib.Variant("(s)", args) if args else None, None, Gio.DBusCallFlags.NONE, -1,
                None).unpack()[0]
        return [n for n in call("ListNames")
                if not n.startswith(":") and call("GetNameOwner", n) == unique_name]

    def test_commands_write_the_daemon_properties_as_the_app_unique_name(self):
        app, unique = self.start_app("--register", "com.start")
        self.assertEqual(app.ready["name"], unique)
        self.assertEqual(self.names_owned_by(unique), [])
        self.send(app, "register com.a, com.b")
        self.send(app, "register")
        self.send(app, "unregister")
        wait_for(lambda: len(self.daemon.writes) == 4, "four writes")
        self.assertEqual(self.daemon.writes, [
            (unique, "SetString", "nyx_register", "com.start"),
            (unique, "SetString", "nyx_register", "com.a, com.b"),
            (unique, "SetString", "nyx_register", ""),
            (unique, "SetString", "nyx_unregister", ""),
        ])
        self.send(app, "quit")
        self.assertEqual(app.process.wait(DEADLINE), 0)

    def test_answers_written_to_the_unique_name_are_logged(self):
        app, unique = self.start_app()
        cases = [
            ('{"registration_id":"reg-1"}', "registered with id reg-1"),
            ('{"old_registration_id":"reg-1","unregistered":true}',
             "unregistered (old registration id reg-1)"),
            ('{"error":"InvalidSender","error_description":"NYX registration requires at least '
             'one sender."}',
             "error InvalidSender: NYX registration requires at least one sender."),
        ]
        for answer, summary in cases:
            with self.subTest(answer=answer):
                self.call(unique, "SetString", "nyx_registration", answer)
                self.assertEqual(app.log()[-1]["kind"], "registration")
                self.assertEqual(app.log()[-1]["value"], answer)
                self.assertEqual(app.log()[-1]["summary"], summary)

    def test_messages_are_logged_with_their_data_map(self):
        app, unique = self.start_app()
        data = '{"collapse_key":"do_not_collapse","from":"com.sender"}'
        cases = [
            ({"id": "n1", "payload": base64.b64encode(data.encode()).decode()},
             {"kind": "message", "id": "n1",
              "data": {"collapse_key": "do_not_collapse", "from": "com.sender"}}),
            ({"id": "n2", "directedId": "cust-1", "payload": base64.b64encode(b"{}").decode()},
             {"kind": "message", "id": "n2", "directedId": "cust-1", "data": {}}),
        ]
        for envelope, expected in cases:
            with self.subTest(envelope=envelope):
                self.call(unique, "SetString", "nyx_message",
                          json.dumps(envelope, separators=(",", ":")))
                record = dict(app.log()[-1])
                record.pop("time")
                self.assertEqual(record, expected)
        self.assertCallFails("hbus.Error.NoSuchProperty", None, unique, "SetString",
                             "wisp_message", "{}")

    def test_write_failures_report_the_bus_status_and_it_keeps_running(self):
        app, unique = self.start_app()

        def failures():
            return [e for e in app.events() if e["event"] == "write-failed"]

        cases = [
            ("status", ("hbus.Error.Status", "17"), 17),
            ("no such property", ("hbus.Error.NoSuchProperty", "nyx_register"), 8),
            ("unknown method", ("org.freedesktop.DBus.Error.UnknownMethod", "no"), 8),
            ("other error", ("org.example.Error.Odd", "odd"), 1),
            ("no owner", None, 3),
        ]
        for label, error, status in cases:
            with self.subTest(label):
                self.daemon.error = error
                if error is None:
                    self.daemon.release()
                    self.addCleanup(self.daemon.own)
                seen = len(failures())
                self.send(app, "register com.a")
                wait_for(lambda: len(failures()) > seen, "the failure")
                self.assertEqual(failures()[-1]["status"], status)
        self.assertEqual(app.process.poll(), None)


if __name__ == "__main__":
    unittest.main()
