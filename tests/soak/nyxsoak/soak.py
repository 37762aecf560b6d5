"""One soak run: sets up a private device (bus, root, simulators, mock
server), runs nyxd under the supervisor through a seeded schedule of faults,
lets everything settle, and checks what became of every message, the
registration cache, the daemon's memory after a storm of push triggers and
every end of the daemon. See docs/soak.md.
"""

import argparse
import base64
import calendar
import contextlib
import json
import os
import random
import shlex
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time

from nyxmock import client as mock
from nyxtools import bus, rig
from nyxtools.bus import DAEMON, OUTBOX, SHELL
from gi.repository import Gio, GLib  # after nyxtools.bus, which asks for their versions

from . import ledger, procs

TOPICS = ["com.soak.r0", "com.soak.r1", "com.soak.r2"]
NOBODY = "com.soak.nobody"          # a topic no service ever serves
SENDERS = ["s.alpha", "s.beta", "s.gamma"]
REJECTED = "soak.rejected"          # the server answers 499 for it
APPS = 6
HBUS_TIMEOUT_MS = 2000              # the daemon's bus time-out during the soak
HANG_SECONDS = 3                    # longer than that: a held write times out
RSS_TOLERANCE = 0.10
STORM = 1000
FAULT_PATIENCE = 6.0                # seconds a scheduled server fault waits to fire


class Failure(Exception):
    pass


class App:
    """One nyx-sample-app: its service is its unique name."""

    def __init__(self, proc, unique, log):
        self.proc, self.unique, self.log = proc, unique, log
        self.alive = True

    def command(self, line):
        try:
            self.proc.stdin.write((line + "\n").encode())
            self.proc.stdin.flush()
        except (BrokenPipeError, OSError):
            pass


class Soak:
    def __init__(self, args):
        self.args = args
        self.rng = random.Random(args.seed)
        self.source = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", "..", ".."))
        self.build = os.path.realpath(args.build_dir)
        self.work = args.workdir or tempfile.mkdtemp(prefix="nyx-soak-")
        os.makedirs(self.work, exist_ok=True)
        self.root = os.path.join(self.work, "root")
        self.t0 = time.monotonic()
        self.helpers = []            # every helper process, stopped at the end
        self.receivers = {}          # topic -> process or None
        self.apps = []
        self.enqueued = {}           # id -> (target, wall time)
        self.outages = ledger.Outages([NOBODY])
        self.reverts = []            # (monotonic due, text, fn)
        self.injected = {}           # fault name -> times
        self.fired = {}              # server fault kind -> times fired
        self.storms = []             # (rss before, rss after, seconds to send)
        self.failures = []
        self.fault_since = 0.0
        self.actions = open(os.path.join(self.work, "actions.log"), "w", encoding="utf-8")
        self.conn = None
        self.server = None
        self.sup = None

    # --- small helpers ---------------------------------------------------

    def note(self, text):
        line = "[%7.1f] %s" % (time.monotonic() - self.t0, text)
        self.actions.write(line + "\n")
        self.actions.flush()
        if self.args.verbose:
            print(line, flush=True)

    def count(self, name):
        self.injected[name] = self.injected.get(name, 0) + 1

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    def env(self, **extra):
        return rig.device_env(self.bus.address, self.root, **extra)

    def tool(self, *parts):
        return os.path.join(self.source, "tools", *parts)

    def start_helper(self, argv, name, stdin=None):
        """Starts a tool that writes a ready file; returns (process, ready record)."""
        ready = self.path("%s.%d.ready" % (name, len(self.helpers)))
        with open(self.path(name + ".out"), "ab") as out:
            proc, record = rig.start_helper(argv, ready, self.env(), out, stdin)
        self.helpers.append(proc)
        return proc, record

    def call(self, service, prop, value, timeout_ms=3000):
        """Writes a property from the soak's own anonymous connection; the bus
        status as the daemon's bus library would report it."""
        return bus.write(self.conn, service, prop, value, timeout_ms)

    # --- set-up ----------------------------------------------------------

    def setup(self):
        rig.make_device_root(self.root, "SOAK-0001", "soak-secret", "customer-soak")
        self.bus = rig.PrivateBus(self.work)
        self.conn = bus.connect(self.bus.address)
        py = sys.executable
        _, info = self.start_helper(
            [py, self.tool("mock-server", "nyx-mock-server"), "--root", self.root, "--port", "0",
             "--configure", "--quiet", "--page-size", "40"], "mock-server")
        self.server_url = info["url"]
        self.server = mock.Client(self.server_url, None, 30)
        self.server.call("POST", "/admin/reject-sender", {"sender": REJECTED})
        self.start_helper([py, self.tool("simulators", "nyx-shell-sim")], "shell")
        self.start_helper([py, self.tool("simulators", "nyx-outbox-sim"), "--forward",
                           self.server_url, "--json", "--log", self.path("outbox.jsonl")], "outbox")
        for topic in TOPICS:
            self.start_receiver(topic)
        for _ in range(APPS):
            self.start_app()
        emulator = shlex.split(os.environ.get("NYX_TEST_EMULATOR", ""))
        nyxd = os.path.join(self.build, "daemon", "nyxd")
        if not os.access(nyxd, os.X_OK):
            raise Failure("no nyxd at %s (build first, or pass --build-dir)" % nyxd)
        # The service's environment as its systemd unit sets it.
        self.sup = procs.Supervisor(emulator + [nyxd],
                                    self.env(HBUS_TIMEOUT_MS=str(HBUS_TIMEOUT_MS),
                                             G_SLICE="always-malloc"),
                                    self.path("nyxd.log"), stop_timeout=self.args.stop_timeout)
        self.sup.start()

    def start_receiver(self, topic):
        proc, _ = self.start_helper([sys.executable, self.tool("simulators", "nyx-receiver-sim"),
                                     topic, "--json", "--log", self.path(topic + ".jsonl")],
                                    topic)
        self.receivers[topic] = proc
        self.outages.up(topic, time.time())

    def stop_receiver(self, topic):
        proc = self.receivers.get(topic)
        if proc is None:
            return
        self.outages.down(topic, time.time())
        rig.stop_process(proc)
        self.receivers[topic] = None

    def start_app(self):
        log = self.path("app-%d.jsonl" % len(self.apps))
        proc, info = self.start_helper([sys.executable, self.tool("simulators", "nyx-sample-app"),
                                        "--json", "--log", log], "app", stdin=subprocess.PIPE)
        app = App(proc, info["unique_name"], log)
        self.apps.append(app)
        return app

    def live_apps(self):
        return [a for a in self.apps if a.alive]

    def later(self, delay, text, fn):
        self.reverts.append((time.monotonic() + delay, text, fn))

    def run_reverts(self, everything=False):
        now = time.monotonic()
        due = [r for r in self.reverts if everything or r[0] <= now]
        self.reverts = [r for r in self.reverts if r not in due]
        for _, text, fn in sorted(due, key=lambda r: r[0]):
            self.note("restore: " + text)
            fn()

    # --- load --------------------------------------------------------------

    def enqueue_plain(self):
        topic = NOBODY if self.rng.random() < 0.15 else self.rng.choice(TOPICS)
        body = {"topic": topic, "count": self.rng.randint(1, 4)}
        if self.rng.random() < 0.3:
            body["payload_b64"] = base64.b64encode(self.rng.randbytes(self.rng.randint(0, 64))).decode()
        else:
            body["payload"] = "soak %d" % self.rng.randint(0, 10 ** 6)
        if self.rng.random() < 0.2:
            body["directedCustomerId"] = "customer-soak"
        self._enqueued(self.server.call("POST", "/admin/enqueue", body), topic)

    def enqueue_app(self):
        active = [r for r in self.server.call("GET", "/admin/registrations")["registrations"]
                  if not r["revoked"]]
        if not active:
            return self.enqueue_plain()
        record = self.rng.choice(active)
        body = {"registration_id": record["id"], "sender": self.rng.choice(record["senders"]),
                "data": {"n": str(self.rng.randint(0, 999)), "from": "soak"},
                "count": self.rng.randint(1, 3)}
        try:
            self._enqueued(self.server.call("POST", "/admin/enqueue", body),
                           record["appInfo"]["service.name"])
        except mock.Failure:
            pass  # nyxd revoked the registration meanwhile

    def _enqueued(self, answer, target):
        now = time.time()
        for msg_id in answer.get("ids", []):
            self.enqueued[msg_id] = (target, now)

    def nudge(self):
        self.call(DAEMON, "wanRing", 1)

    def other_event(self):
        prop, value = self.rng.choice([
            ("credentialsInstalled", 1), ("resuming", 1), ("managementStateChanged", 0),
            ("managementStateChanged", 1), ("interfaceChange", "wlan0"), ("FrameworkStarted", "1")])
        self.call(DAEMON, prop, value)

    def app_register(self, app=None, senders=None):
        app = app or self.rng.choice(self.live_apps())
        if senders is None:
            pool = SENDERS + ([REJECTED] if self.rng.random() < 0.15 else [])
            senders = ",".join(self.rng.sample(pool, self.rng.randint(1, 2)))
        app.command("register " + senders)

    def app_unregister(self):
        self.rng.choice(self.live_apps()).command("unregister")

    def app_churn(self):
        """Many apps register and unregister in quick succession."""
        self.count("registration churn")
        for _ in range(3):
            for app in self.live_apps():
                self.app_register(app)
                app.command("unregister")
            for app in self.live_apps():
                self.app_register(app)

    def app_vanish(self):
        """An app quits; its messages now have no receiver. A new one joins."""
        app = self.rng.choice(self.live_apps())
        app.command("quit")
        app.alive = False
        self.outages.down(app.unique, time.time())
        rig.stop_process(app.proc)
        self.count("app vanished")
        self.app_register(self.start_app())

    def storm(self):
        """A thousand push triggers within a second from one anonymous
        connection, with the daemon's RSS before and after the queue drained."""
        self.run_reverts(everything=True)
        self.clear_faults()
        self.sup.release()
        self.sup.wait_ready(60)
        self.nudge()
        if not self.sup.wait_idle(120, quiet=2.0):
            self.note("storm skipped: the daemon did not become idle")
            return
        pid = self.sup.pid
        before = rig.memory_kb(pid)["rss"]
        context = GLib.MainContext.new()
        context.push_thread_default()
        try:
            conn = bus.connect(self.bus.address)
            answered = []
            write = bus.parameters("SetInt", "wanRing", 1)

            def done(c, r, _):
                answered.append(self._finish(c, r))

            started = time.monotonic()
            for _ in range(STORM):
                conn.call(DAEMON, bus.OBJECT_PATH, bus.INTERFACE, "SetInt", write, None,
                          Gio.DBusCallFlags.NONE, 30000, None, done, None)
            conn.flush_sync(None)
            sent = time.monotonic() - started
            while len(answered) < STORM and time.monotonic() - started < 60:
                if not context.iteration(False):
                    time.sleep(0.001)
            took = time.monotonic() - started
            conn.close_sync(None)
        finally:
            context.pop_thread_default()
        drained = self.sup.wait_idle(600, quiet=2.0)
        if self.sup.pid != pid:
            self.note("storm: the daemon restarted during the storm; no memory check")
            return
        after = rig.memory_kb(pid)["rss"]
        self.storms.append((before, after, sent))
        self.note("storm: %d writes sent in %.2f s, %d answered (%d failed) in %.2f s, "
                  "drained=%s, rss %d -> %d KB" % (STORM, sent, len(answered),
                                                   answered.count(False), took, drained,
                                                   before, after))
        if sent > 1.0:
            self.failures.append("storm: sending %d writes took %.2f s" % (STORM, sent))
        # Each write is answered after the framework check, a bus call of its
        # own, so answering takes longer than sending; but every write must be
        # answered, and with success.
        if len(answered) < STORM or not all(answered):
            self.failures.append("storm: %d of %d writes answered, %d failed"
                                 % (len(answered), STORM, answered.count(False)))
        if not drained:
            self.failures.append("storm: the daemon did not drain its queue within 600 s")

    @staticmethod
    def _finish(conn, result):
        try:
            conn.call_finish(result)
            return True
        except GLib.Error:
            return False

    # --- faults --------------------------------------------------------------

    def server_fault(self, name, body):
        """Schedules one server fault; only one waits at a time, so that the
        retry waits of several faults never add up."""
        if self.server.call("GET", "/admin/faults")["scheduled"]:
            # A fault for a kind of request that has not come for a while
            # (an unregistration, say) gives way, so that every kind of
            # fault gets its turn in a short run.
            if time.monotonic() - self.fault_since < FAULT_PATIENCE:
                return False
            self.clear_faults()
        self.fault_since = time.monotonic()
        body.setdefault("only", self.rng.choice(["fetch", "fetch", "register", "unregister", "any"]))
        try:
            self.server.call("POST", "/admin/fault", body)
        except mock.Failure as refused:
            raise Failure("the mock server refused fault %s: %s" % (body, refused))
        self.count(name)
        self.note("server fault %s: %s" % (name, json.dumps(body)))
        return True

    def clear_faults(self):
        fired = self.server.call("GET", "/admin/faults")["fired"]
        for kind, times in fired.items():
            self.fired[kind] = self.fired.get(kind, 0) + times
        self.server.call("POST", "/admin/clear-faults")

    def fault_table(self):
        """name -> (weight, action). An action returns False to be tried later."""
        rng = self.rng
        long_run = self.args.duration > 600
        return {
            "5xx": (3, lambda: self.server_fault(
                "5xx", {"kind": "status", "status": rng.choice([500, 502, 503])})),
            "5xx with Retry-After": (2, lambda: self.server_fault(
                "5xx with Retry-After", {"kind": "status", "status": 503,
                                         "retry_after": str(rng.randint(1, 12 if long_run else 6))})),
            "5xx with Retry-After above 300": (2, lambda: self.server_fault(
                "5xx with Retry-After above 300",
                {"kind": "status", "status": 503, "retry_after": str(rng.choice([301, 900, 86400]))})),
            "reset in the headers": (2, lambda: self.server_fault(
                "reset in the headers", {"kind": "reset", "at": "headers"})),
            "reset in the body": (2, lambda: self.server_fault(
                "reset in the body", {"kind": "reset", "at": "body"})),
            "truncated body": (2, lambda: self.server_fault("truncated body", {"kind": "truncate"})),
            "slow answer": (2, lambda: self.server_fault(
                "slow answer", {"kind": "delay", "delay": rng.uniform(0.5, 3)})),
            "answer slower than the time-out": (1 if long_run else 0, lambda: self.server_fault(
                "answer slower than the time-out", {"kind": "delay", "delay": 31})),
            "page not JSON": (2, lambda: self.server_fault(
                "page not JSON", {"kind": "not-json", "only": "fetch"})),
            "corrupted CRCs": (2, lambda: self.server_fault(
                "corrupted CRCs", {"kind": "corrupt-crc", "only": "fetch"})),
            "missing member": (3, lambda: self.server_fault(
                "missing member", {"kind": "missing-member", "only": "fetch",
                                   "member": rng.choice(["id", "topic", "payload", "crc"])})),
            "4xx on fetch": (1, lambda: self.server_fault(
                "4xx on fetch", {"kind": "status", "status": rng.choice([400, 401, 404]),
                                 "only": "fetch"})),
            "4xx on registration": (1, lambda: self.server_fault(
                "4xx on registration", {"kind": "status", "status": 400,
                                        "only": rng.choice(["register", "unregister"])})),
            "receiver refuses": (3, lambda: self.service_fault(
                "receiver refuses", None, "refuseStatus", rng.choice([1, 5, 42, 8]), 0, 5)),
            "receiver hangs": (2, lambda: self.service_fault(
                "receiver hangs", None, "hangSeconds", HANG_SECONDS, 0, 4)),
            "receiver vanishes": (2, self.receiver_vanishes),
            "outbox refuses": (2, lambda: self.service_fault(
                "outbox refuses", OUTBOX, "refuseStatus", rng.choice([1, 5]), 0, 4)),
            "outbox hangs": (1, lambda: self.service_fault(
                "outbox hangs", OUTBOX, "hangSeconds", HANG_SECONDS, 0, 3)),
            "framework down": (1, lambda: self.service_fault(
                "framework down", SHELL, "frameworkStarted", 0, 1, 3)),
            "app vanishes": (1, self.app_vanish),
            "registration churn": (1, self.app_churn),
            "SIGTERM": (1, self.sigterm),
            "SIGKILL": (1, self.sigkill),
            "SIGKILL during a cache write": (2, self.kill_during_registration),
        }

    def service_fault(self, name, service, prop, value, normal, within):
        """Sets a simulator's control property to `value` and back to `normal`
        within `within` seconds. `service` None picks a receiver that is up;
        returns False when there is none or the write failed. A refusal with
        3 or 8 reads to the daemon as a missing service: an outage."""
        if service is None:
            service = self.rng.choice([t for t in TOPICS if self.receivers[t]] or [None])
        if service is None or self.call(service, prop, value) != 0:
            return False
        outage = prop == "refuseStatus" and value in (3, 8)
        if outage:
            self.outages.down(service, time.time())
        self.count(name)
        self.note("%s: %s = %s" % (service, prop, value))

        def revert():
            # A receiver off the bus now has nothing to undo.
            if service not in self.receivers or self.receivers[service]:
                self.call(service, prop, normal)
                if outage:
                    self.outages.up(service, time.time())
        self.later(self.rng.uniform(1, within), "%s: %s = %s" % (service, prop, normal), revert)

    def receiver_vanishes(self):
        topic = self.rng.choice([t for t in TOPICS if self.receivers[t]] or [None])
        if topic is None:
            return False
        self.stop_receiver(topic)
        self.count("receiver vanishes")
        self.note("%s left the bus" % topic)
        self.later(self.rng.uniform(1, 6), "%s back on the bus" % topic,
                   lambda: self.start_receiver(topic))

    def sigterm(self):
        self.count("SIGTERM")
        self.note("SIGTERM to nyxd")
        # An idle daemon takes up to 15 s to notice; the load goes on meanwhile.
        threading.Thread(target=self.sup.stop, name="sigterm", daemon=True).start()

    def sigkill(self):
        if self.sup.kill():
            self.count("SIGKILL")
            self.note("SIGKILL to nyxd")
        else:
            return False

    def kill_during_registration(self):
        """Registers an app with senders never used before, so that the
        daemon must ask the server and write the cache, and kills the daemon
        a few milliseconds after it started the request."""
        if self.sup.pid is None:
            return False
        app = self.rng.choice(self.live_apps())
        start = self.sup.line_count()
        app.command("register s.k%d" % self.rng.randint(0, 10 ** 9))
        needle = "Request to register app '%s'" % ledger.render_app({"service.name": app.unique})
        if self.sup.wait_line(needle, start, 15.0) is None:
            return False
        time.sleep(self.rng.uniform(0, 0.03))
        if self.sup.kill():
            self.count("SIGKILL during a cache write")
            self.note("SIGKILL to nyxd while it registers %s" % app.unique)

    # --- the run -----------------------------------------------------------

    def chaos(self):
        """The fault schedule: every kind of fault at least once, spread over
        the run in a seeded order, then more at random in a long run, over a
        steady load of messages, triggers and registrations."""
        table = self.fault_table()
        duration = self.args.duration
        must = [n for n, (w, _) in table.items() if w > 0 or duration <= 600]
        self.rng.shuffle(must)
        spread = min(duration, 600) * 0.8
        due = [(5 + spread * i / len(must), name) for i, name in enumerate(must)]
        storms = [duration * 0.45] if duration <= 1800 else \
            [float(t) for t in range(600, int(duration) - 120, 1200)]
        load = [(10, self.enqueue_plain), (5, self.enqueue_app), (10, self.nudge),
                (2, self.other_event), (4, lambda: self.app_register()),
                (2, self.app_unregister)]
        names = list(table)
        weights = [table[n][0] for n in names]
        for app in self.apps:
            self.app_register(app)
        while True:
            elapsed = time.monotonic() - self.t0
            if elapsed >= duration:
                break
            self.run_reverts()
            if storms and elapsed >= storms[0]:
                storms.pop(0)
                self.storm()
                continue
            if due and elapsed >= due[0][0]:
                name = due[0][1]
                if table[name][1]() is not False:
                    due.pop(0)
            elif duration > 600 and self.rng.random() < 0.08:
                table[self.rng.choices(names, weights)[0]][1]()
            action = self.rng.choices([a for _, a in load], [w for w, _ in load])[0]
            action()
            time.sleep(self.rng.uniform(0.2, 0.8))
        missed = [name for _, name in due]
        if missed:
            self.note("faults not reached before the end: " + ", ".join(missed))

    def settle(self):
        """Takes every fault away and polls until the server has nothing left
        to offer, or the settle time runs out."""
        self.note("settling")
        self.run_reverts(everything=True)
        self.clear_faults()
        for topic in TOPICS:
            if not self.receivers[topic]:
                self.start_receiver(topic)
            self.call(topic, "refuseStatus", 0)
            self.call(topic, "hangSeconds", 0)
        self.call(OUTBOX, "refuseStatus", 0)
        self.call(OUTBOX, "hangSeconds", 0)
        self.call(SHELL, "frameworkStarted", 1)
        self.sup.release()
        deadline = time.monotonic() + self.args.settle
        pending = None
        while time.monotonic() < deadline:
            self.sup.wait_ready(max(1.0, deadline - time.monotonic()))
            self.nudge()
            time.sleep(0.5)
            self.sup.wait_idle(max(1.0, deadline - time.monotonic()), quiet=1.0)
            time.sleep(0.5)    # the outbox forwards acknowledgements on its own thread
            pending = len(self.server.call("GET", "/admin/pending")["messages"])
            if pending == 0:
                break
        self.note("settled with %s message(s) still pending" % pending)

    def check(self):
        self.sup.close()
        acks = self.server.call("GET", "/admin/acks")["acks"]
        for ack in acks:
            ack["time"] = calendar.timegm(time.strptime(ack["time"], "%Y-%m-%dT%H:%M:%SZ")) + 1.0
        pending = {m["id"] for m in self.server.call("GET", "/admin/pending")["messages"]}
        registrations = self.server.call("GET", "/admin/registrations")["registrations"]
        deliveries, problems = self.deliveries()
        self.failures += problems
        messages = ledger.check_messages(self.enqueued, pending, acks, deliveries, self.outages)

        integrity, rows = read_cache(os.path.join(self.root, "var/local/nyx_registration_cache.db"))
        cache = ledger.check_cache(integrity, rows, registrations,
                                   ledger.registration_events(self.sup.lines))
        exits = ledger.check_exits(self.sup.exits)
        return messages, cache, exits

    def deliveries(self):
        """How often each message reached its own target, from the receivers'
        and apps' logs, and any envelope the simulators found fault with."""
        seen, problems = {}, []
        logs = [(t, self.path(t + ".jsonl"), "wisp_message") for t in TOPICS]
        logs += [(a.unique, a.log, None) for a in self.apps]
        for target, path, prop in logs:
            for record in read_jsonl(path):
                if record.get("problems"):
                    problems.append("%s got a malformed delivery: %s" % (target, record))
                if (prop and record.get("property") != prop) or (not prop and record.get("kind") != "message"):
                    continue
                msg_id = record.get("id")
                if self.enqueued.get(msg_id, (None,))[0] == target:
                    seen[msg_id] = seen.get(msg_id, 0) + 1
        for record in read_jsonl(self.path("outbox.jsonl")):
            if record.get("problems"):
                problems.append("the outbox got a malformed entry: %s" % record)
        return seen, problems

    def report(self, messages, cache, exits):
        out = []
        out.append("seed %d, %d s, work directory %s" % (self.args.seed, self.args.duration, self.work))
        out.append("injected: " + ", ".join("%s %d" % kv for kv in sorted(self.injected.items())))
        out.append("server faults fired: " + ", ".join("%s %d" % kv for kv in sorted(self.fired.items())))
        out.append("acks by status: " + ", ".join("%s: %d" % kv for kv in sorted(messages.by_status.items()))
                   + "; outcomes reported again for removed messages: %d" % messages.duplicate_acks)
        for msg_id, why in messages.lost[:20]:
            out.append("LOST %s: %s" % (msg_id, why))
        for msg_id, status, why in messages.unearned[:20]:
            out.append("UNEARNED ack %s status %s: %s" % (msg_id, status, why))
        out.append("cache: integrity %s, %d rows, %d match the server" % (
            cache.integrity, cache.rows, cache.matching))
        for why, n in sorted(cache.intended.items()):
            out.append("cache: intended difference x%d: %s" % (n, why))
        for text in cache.mismatches:
            out.append("CACHE MISMATCH: " + text)
        out.append("daemon: %d starts, %d requested stops, %d restarts" % (
            self.sup.starts, exits.stops, exits.restarts))
        for cause, n in sorted(exits.causes.items()):
            out.append("restart (intended) x%d: %s" % (n, cause))
        for text in exits.failures:
            out.append("UNEXPECTED EXIT: " + text)
        unchecked = os.environ.get("NYX_SOAK_NO_MEMORY_CHECK")
        if unchecked:
            out.append("storm: memory not checked in %s" % unchecked)
        for before, after, sent in self.storms:
            ok = unchecked or after <= before * (1 + RSS_TOLERANCE)
            out.append("storm: %d writes in %.2f s, rss %d -> %d KB%s" % (
                STORM, sent, before, after, "" if ok else " (MORE THAN 10% ABOVE)"))
            if not ok:
                self.failures.append("rss after the storm %d KB > %d KB + 10%%" % (after, before))
        if not self.storms:
            self.failures.append("no storm was measured")
        for text in self.failures:
            out.append("FAILURE: " + text)
        before, after = (self.storms[-1][:2] if self.storms else (0, 0))
        out.append("soak: %d messages, %d acknowledged, %d still offered, %d lost, %d duplicates, "
                   "%d restarts (%d intended), rss before/after %d/%d KB" % (
                       messages.messages, messages.acknowledged, messages.still_offered,
                       len(messages.lost), messages.duplicates, exits.restarts, exits.intended,
                       before, after))
        print("\n".join(out), flush=True)
        return messages.ok and cache.ok and exits.ok and not self.failures

    def teardown(self):
        if self.sup is not None:
            self.sup.close()
        for proc in reversed(self.helpers):
            rig.stop_process(proc)
        if self.conn is not None:
            self.conn.close_sync(None)
        if getattr(self, "bus", None) is not None:
            self.bus.stop()
        self.actions.close()


def read_cache(db):
    """(integrity check's text, [(registration id, app info)]) of the
    registration cache; no file is an empty, intact cache."""
    if not os.path.exists(db):
        return "ok", []
    try:
        with contextlib.closing(sqlite3.connect("file:%s?mode=ro" % db, uri=True)) as conn:
            integrity = "\n".join(row[0] for row in conn.execute("PRAGMA integrity_check"))
            return integrity, conn.execute(
                "SELECT registration_id, app_info FROM registration_ids").fetchall()
    except sqlite3.Error as error:
        return "sqlite3 failed: %s" % error, []


def read_jsonl(path):
    records = []
    try:
        with open(path, encoding="utf-8") as f:
            for line in f:
                try:
                    records.append(json.loads(line))
                except ValueError:
                    pass
    except FileNotFoundError:
        pass
    return records


def _env_int(name):
    value = os.environ.get(name)
    return int(value) if value else None


def parse_args(argv):
    default_build = os.environ.get("NYX_BINARY_DIR") or os.path.join(
        os.path.dirname(__file__), "..", "..", "..", "build")
    parser = argparse.ArgumentParser(
        prog="tests/soak/run",
        description="Runs nyxd under a supervisor against the mock messaging server and the "
                    "device simulators with a seeded schedule of faults, then checks that no "
                    "message was lost, the registration cache agrees with the server, memory "
                    "returned after a storm of push triggers and every exit had a cause.")
    parser.add_argument("--duration", type=float, default=120, help="seconds of faults (default 120)")
    parser.add_argument("--seed", type=int, default=_env_int("NYX_SOAK_SEED"),
                        help="seed of the schedule (default $NYX_SOAK_SEED, else the time)")
    parser.add_argument("--build-dir", default=default_build,
                        help="CMake build directory with daemon/nyxd (default $NYX_BINARY_DIR)")
    parser.add_argument("--workdir", help="keep everything here (default: a temporary directory, "
                                          "removed after a passing run)")
    parser.add_argument("--settle", type=float, default=90,
                        help="seconds allowed for the server's queue to drain at the end")
    parser.add_argument("--stop-timeout", type=float, default=20,
                        help="seconds a SIGTERM may take before the supervisor kills")
    parser.add_argument("--verbose", action="store_true", help="print every action as it happens")
    args = parser.parse_args(argv)
    if args.seed is None:
        args.seed = int(time.time()) % 100000
    return args


def main(argv=None):
    args = parse_args(argv)
    soak = Soak(args)
    # A SIGTERM to the soak (ctest's time-out) still stops every child.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    passed = False
    try:
        soak.setup()
        soak.chaos()
        soak.settle()
        passed = soak.report(*soak.check())
    except Failure as failure:
        print("soak: FAILED: %s" % failure, flush=True)
    finally:
        soak.teardown()
        if passed and not args.workdir:
            shutil.rmtree(soak.work, ignore_errors=True)
        elif not passed:
            print("soak: logs kept in %s" % soak.work, flush=True)
    return 0 if passed else 1
