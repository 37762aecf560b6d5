"""One soak run: sets up a private device (bus, root, simulators, mock
server), runs nyxd under the supervisor through a seeded schedule of faults,
lets everything settle, and checks what became of every message, the
registration cache, the daemon's memory after a storm of push triggers and
every end of the daemon. See docs/soak.md.
"""

import argparse
import base64
import calendar
import collections
import contextlib
import json
import os
import random
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
from gi.repository import Gio  # after nyxtools.bus, which asks for its version

from . import ledger, procs

TOPICS = ["com.soak.r0", "com.soak.r1", "com.soak.r2"]
NOBODY = "com.soak.nobody"          # a topic no service ever serves
SENDERS = ["s.alpha", "s.beta", "s.gamma"]
REJECTED = "soak.rejected"          # the server answers 499 for it
APPS = 6
HBUS_TIMEOUT_MS = 2000              # the daemon's bus time-out during the soak
HANG_SECONDS = 3                    # longer than that: a held write times out
SETTLE_SECONDS = 90                 # for the server's queue to drain at the end
STORM = 1000
RSS_TOLERANCE = 0.10
FAULT_PATIENCE = 6.0                # seconds a scheduled server fault waits to fire

App = collections.namedtuple("App", "proc unique log")   # a nyx-sample-app; its service


class Soak:
    def __init__(self, args):
        self.args = args
        self.rng = random.Random(args.seed)
        self.source = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", "..", ".."))
        self.work = args.workdir or tempfile.mkdtemp(prefix="nyx-soak-")
        os.makedirs(self.work, exist_ok=True)
        self.root = self.path("root")
        self.t0 = time.monotonic()
        self.helpers, self.receivers, self.apps = [], {}, []   # receivers: topic -> process
        self.enqueued = {}           # id -> (target, wall time)
        self.outages = ledger.Outages([NOBODY])
        self.reverts = []            # (monotonic due, text, fn)
        self.rss = None              # (before, after) the storm, (0, 0) if not measured
        self.failures = []
        self.fault_since = 0.0
        self.actions = open(self.path("actions.log"), "w", encoding="utf-8")
        self.bus = self.conn = self.server = self.sup = None

    def note(self, text):
        self.actions.write("[%7.1f] %s\n" % (time.monotonic() - self.t0, text))
        self.actions.flush()

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    def start_helper(self, tool, args, name, stdin=None):
        """Starts a tool that writes a ready file; returns (process, ready record)."""
        argv = [sys.executable, os.path.join(self.source, "tools", *tool)] + args
        ready = self.path("%s.%d.ready" % (name, len(self.helpers)))
        with open(self.path(name + ".out"), "ab") as out:
            proc, record = rig.start_helper(
                argv, ready, rig.device_env(self.bus.address, self.root), out, stdin)
        self.helpers.append(proc)
        return proc, record

    def call(self, service, prop, value):
        """Writes a property from the soak's own connection; 0 or the error."""
        return bus.write(self.conn, service, prop, value)

    # --- set-up ----------------------------------------------------------

    def setup(self):
        rig.make_device_root(self.root, "SOAK-0001", "soak-secret", "customer-soak")
        self.bus = rig.PrivateBus(self.work)
        self.conn = bus.connect(self.bus.address)
        _, info = self.start_helper(["mock-server", "nyx-mock-server"],
                                    ["--root", self.root, "--port", "0", "--configure", "--quiet",
                                     "--page-size", "40"], "mock-server")
        self.server = mock.Client(info["url"], None, 30)
        self.server.call("POST", "/admin/reject-sender", {"sender": REJECTED})
        self.start_helper(["simulators", "nyx-shell-sim"], [], "shell")
        self.start_helper(["simulators", "nyx-outbox-sim"],
                          ["--forward", info["url"], "--json", "--log", self.path("outbox.jsonl")],
                          "outbox")
        for topic in TOPICS:
            self.start_receiver(topic)
        for n in range(APPS):
            log = self.path("app-%d.jsonl" % n)
            proc, app = self.start_helper(["simulators", "nyx-sample-app"],
                                          ["--json", "--log", log], "app", stdin=subprocess.PIPE)
            self.apps.append(App(proc, app["unique_name"], log))
        # The service's environment as its systemd unit sets it.
        env = rig.device_env(self.bus.address, self.root, HBUS_TIMEOUT_MS=str(HBUS_TIMEOUT_MS),
                             G_SLICE="always-malloc")
        self.sup = procs.Supervisor([self.args.nyxd], env, self.path("nyxd.log"))
        self.sup.start()

    def start_receiver(self, topic):
        self.receivers[topic], _ = self.start_helper(
            ["simulators", "nyx-receiver-sim"],
            [topic, "--json", "--log", self.path(topic + ".jsonl")], topic)
        self.outages.up(topic, time.time())

    def later(self, delay, text, fn):
        self.reverts.append((time.monotonic() + delay, text, fn))

    def run_reverts(self, everything=False):
        now = time.monotonic()
        due = sorted((r for r in self.reverts if everything or r[0] <= now), key=lambda r: r[0])
        self.reverts = [r for r in self.reverts if r not in due]
        for _, text, fn in due:
            self.note("restore: " + text)
            fn()

    # --- load --------------------------------------------------------------

    def enqueue_plain(self):
        topic = NOBODY if self.rng.random() < 0.15 else self.rng.choice(TOPICS)
        body = {"topic": topic, "count": self.rng.randint(1, 4)}
        if self.rng.random() < 0.3:
            payload = self.rng.randbytes(self.rng.randint(0, 64))
            body["payload_b64"] = base64.b64encode(payload).decode()
        else:
            body["payload"] = "soak %d" % self.rng.randint(0, 10 ** 6)
        if self.rng.random() < 0.2:
            body["directedCustomerId"] = "customer-soak"
        self._enqueued(body, topic)

    def enqueue_app(self):
        active = [r for r in self.server.call("GET", "/admin/registrations")["registrations"]
                  if not r["revoked"]]
        if not active:
            return self.enqueue_plain()
        record = self.rng.choice(active)
        body = {"registration_id": record["id"], "sender": self.rng.choice(record["senders"]),
                "data": {"n": str(self.rng.randint(0, 999)), "from": "soak"},
                "count": self.rng.randint(1, 3)}
        with contextlib.suppress(mock.Failure):   # nyxd revoked the registration meanwhile
            self._enqueued(body, record["appInfo"]["service.name"])

    def _enqueued(self, body, target):
        answer, now = self.server.call("POST", "/admin/enqueue", body), time.time()
        self.enqueued.update((msg_id, (target, now)) for msg_id in answer.get("ids", []))

    def nudge(self):
        self.call(DAEMON, "wanRing", 1)

    def other_event(self):
        self.call(DAEMON, *self.rng.choice([
            ("credentialsInstalled", 1), ("resuming", 1), ("managementStateChanged", 0),
            ("managementStateChanged", 1), ("interfaceChange", "wlan0"), ("FrameworkStarted", "1")]))

    def app_register(self, app=None, senders=None):
        pool = SENDERS + [REJECTED] * (self.rng.random() < 0.15)
        tell(app or self.rng.choice(self.apps),
             "register " + (senders or ",".join(self.rng.sample(pool, self.rng.randint(1, 2)))))

    def app_unregister(self):
        tell(self.rng.choice(self.apps), "unregister")

    def app_churn(self):
        """Many apps register and unregister in quick succession."""
        for _ in range(3):
            for app in self.apps:
                self.app_register(app)
                tell(app, "unregister")
            for app in self.apps:
                self.app_register(app)
        self.note("registration churn")

    def storm(self):
        """A thousand push triggers within a second, sent to an idle daemon,
        with its resident memory before and once its queue has drained."""
        self.run_reverts(everything=True)
        self.server.call("POST", "/admin/clear-faults")
        self.sup.wait_ready(60)
        self.nudge()
        if not self.sup.wait_idle(120, quiet=2.0):
            return self.note("storm skipped: the daemon did not become idle")
        pid, start = self.sup.pid, len(self.sup.lines)
        before = rig.memory_kb(pid)["rss"]
        write = bus.parameters("SetInt", "wanRing", 1)
        started = time.monotonic()
        for _ in range(STORM):
            # With no callback no answer is awaited: the writes leave at once.
            self.conn.call(DAEMON, bus.OBJECT_PATH, bus.INTERFACE, "SetInt", write, None,
                           Gio.DBusCallFlags.NONE, -1, None, None, None)
        self.conn.flush_sync(None)
        sent = time.monotonic() - started
        drained = self.sup.wait_idle(600, quiet=2.0)
        heard = sum("Received NUDGE event: wanRing." in line for line in self.sup.lines[start:])
        if self.sup.pid != pid:
            return self.note("storm: the daemon restarted during the storm; no memory check")
        after = rig.memory_kb(pid)["rss"]
        self.note("storm: %d writes sent in %.2f s, %d heard, drained=%s, rss %d -> %d KB"
                  % (STORM, sent, heard, drained, before, after))
        if sent > 1.0:
            self.failures.append("storm: sending %d writes took %.2f s" % (STORM, sent))
        if heard != STORM or not drained:
            self.failures.append("storm: nyxd heard %d of %d writes and %s its queue" % (
                heard, STORM, "drained" if drained else "did not drain"))
        return before, after

    # --- faults --------------------------------------------------------------

    def server_fault(self, name, body):
        """Schedules one server fault; only one waits at a time, so that the
        retry waits of several faults never add up."""
        # A fault for a kind of request that has not come for a while (an
        # unregistration, say) gives way, so that every kind of fault gets
        # its turn in a short run.
        if self.server.call("GET", "/admin/faults")["scheduled"] and \
                time.monotonic() - self.fault_since < FAULT_PATIENCE:
            return False
        self.fault_since = time.monotonic()
        body.setdefault("only", self.rng.choice(["fetch", "fetch", "register", "unregister", "any"]))
        self.server.call("POST", "/admin/clear-faults")
        self.server.call("POST", "/admin/fault", body)
        self.note("server fault %s: %s" % (name, json.dumps(body)))

    def fault_table(self):
        """name -> (weight, action). An action returns False to be tried later."""
        rng = self.rng
        server = {
            "5xx": (3, lambda: {"kind": "status", "status": rng.choice([500, 502, 503])}),
            "5xx with Retry-After": (2, lambda: {
                "kind": "status", "status": 503,
                "retry_after": str(rng.randint(1, 12 if self.args.duration > 600 else 6))}),
            "5xx with Retry-After above 300": (2, lambda: {
                "kind": "status", "status": 503, "retry_after": str(rng.choice([301, 900, 86400]))}),
            "connection reset": (4, lambda: {"kind": "reset", "at": rng.choice(["headers", "body"])}),
            "truncated body": (2, lambda: {"kind": "truncate"}),
            "slow answer": (2, lambda: {"kind": "delay", "delay": rng.uniform(0.5, 3)}),
            "answer slower than the time-out": (1, lambda: {"kind": "delay", "delay": 31}),
            "page not JSON": (2, lambda: {"kind": "not-json", "only": "fetch"}),
            "corrupted CRCs": (2, lambda: {"kind": "corrupt-crc", "only": "fetch"}),
            "missing member": (3, lambda: {"kind": "missing-member", "only": "fetch",
                                           "member": rng.choice(["id", "topic", "payload", "crc"])}),
            "4xx on fetch": (1, lambda: {"kind": "status", "status": rng.choice([400, 401, 404]),
                                         "only": "fetch"}),
            "4xx on registration": (1, lambda: {"kind": "status", "status": 400,
                                                "only": rng.choice(["register", "unregister"])}),
        }
        table = {name: (weight, lambda name=name, body=body: self.server_fault(name, body()))
                 for name, (weight, body) in server.items()}
        table.update({
            "receiver refuses": (3, lambda: self.service_fault(
                None, "refuseStatus", rng.choice([1, 5, 42]), 0, 5)),
            "receiver hangs": (2, lambda: self.service_fault(None, "hangSeconds", HANG_SECONDS, 0, 4)),
            "receiver vanishes": (2, self.receiver_vanishes),
            "outbox refuses": (2, lambda: self.service_fault(
                OUTBOX, "refuseStatus", rng.choice([1, 5]), 0, 4)),
            "framework down": (1, lambda: self.service_fault(SHELL, "frameworkStarted", 0, 1, 3)),
            "registration churn": (1, self.app_churn),
            "SIGTERM": (1, self.sigterm),
            "SIGKILL": (1, self.sigkill),
            "SIGKILL during a cache write": (2, self.kill_during_registration),
        })
        return table

    def up_receiver(self):
        return self.rng.choice([t for t in TOPICS if self.receivers[t]] or [None])

    def service_fault(self, service, prop, value, normal, within):
        """Sets a simulator's control property to `value` and back to `normal`
        within `within` seconds. `service` None picks a receiver that is up;
        returns False when there is none or the write failed. (A refusal the
        daemon reads as a missing service takes the path of the topic nobody
        serves and of a receiver off the bus.)"""
        service = service or self.up_receiver()
        if service is None or self.call(service, prop, value) != 0:
            return False
        self.note("%s: %s = %s" % (service, prop, value))

        def revert():
            # A receiver off the bus now has nothing to undo.
            if self.receivers.get(service, True):
                self.call(service, prop, normal)
        self.later(self.rng.uniform(1, within), "%s: %s = %s" % (service, prop, normal), revert)

    def receiver_vanishes(self):
        topic = self.up_receiver()
        if topic is None:
            return False
        self.outages.down(topic, time.time())
        rig.stop_process(self.receivers[topic])
        self.receivers[topic] = None
        self.note("%s left the bus" % topic)
        self.later(self.rng.uniform(1, 6), "%s back on the bus" % topic,
                   lambda: self.start_receiver(topic))

    def sigterm(self):
        self.note("SIGTERM to nyxd")
        # An idle daemon takes up to 15 s to notice; the load goes on meanwhile.
        threading.Thread(target=self.sup.stop, name="sigterm", daemon=True).start()

    def sigkill(self):
        if not self.sup.kill():
            return False
        self.note("SIGKILL to nyxd")

    def kill_during_registration(self):
        """Registers an app with senders never used before, so that the
        daemon must ask the server and write the cache, and kills the daemon
        a few milliseconds after it started the request."""
        if self.sup.pid is None:
            return False
        app, start = self.rng.choice(self.apps), len(self.sup.lines)
        self.app_register(app, "s.k%d" % self.rng.randint(0, 10 ** 9))
        needle = "Request to register app '%s'" % ledger.render_app({"service.name": app.unique})
        if not rig.wait_for(lambda: any(needle in l for l in self.sup.lines[start:]), 15.0, 0.002):
            return False
        time.sleep(self.rng.uniform(0, 0.03))
        if self.sup.kill():
            self.note("SIGKILL to nyxd while it registers %s" % app.unique)

    # --- the run -----------------------------------------------------------

    def chaos(self):
        """The fault schedule: every kind of fault once, spread over the first
        ten minutes in a seeded order, then more at random in a long run,
        over a steady load of messages, triggers and registrations."""
        table, duration = self.fault_table(), self.args.duration
        names = list(table)
        self.rng.shuffle(names)
        due = [(5 + min(duration, 600) * 0.8 * i / len(names), n) for i, n in enumerate(names)]
        load = {self.enqueue_plain: 10, self.enqueue_app: 5, self.nudge: 10, self.other_event: 2,
                self.app_register: 4, self.app_unregister: 2}
        for app in self.apps:
            self.app_register(app)
        while time.monotonic() - self.t0 < duration:
            elapsed = time.monotonic() - self.t0
            self.run_reverts()
            if self.rss is None and elapsed >= duration * 0.45:
                self.rss = self.storm() or (0, 0)
                continue
            if due and elapsed >= due[0][0]:
                if table[due[0][1]][1]() is not False:
                    due.pop(0)
            elif duration > 600 and self.rng.random() < 0.08:
                table[self.rng.choices(names, [table[n][0] for n in names])[0]][1]()
            self.rng.choices(list(load), list(load.values()))[0]()
            time.sleep(self.rng.uniform(0.2, 0.8))
        if due:
            self.note("faults not reached before the end: " + ", ".join(n for _, n in due))

    def settle(self):
        """Takes every fault away and polls until the server has nothing left
        to offer, or the settle time runs out."""
        self.note("settling")
        self.run_reverts(everything=True)
        self.server.call("POST", "/admin/clear-faults")
        deadline = time.monotonic() + SETTLE_SECONDS
        pending = None
        while pending != 0 and time.monotonic() < deadline:
            self.sup.wait_ready(max(1.0, deadline - time.monotonic()))
            self.nudge()
            time.sleep(0.5)
            self.sup.wait_idle(max(1.0, deadline - time.monotonic()), quiet=1.0)
            time.sleep(0.5)    # the outbox forwards acknowledgements on its own thread
            pending = len(self.server.call("GET", "/admin/pending")["messages"])
        self.note("settled with %s message(s) still pending" % pending)

    def check(self):
        """The ledger's findings on messages, the registration cache and exits."""
        self.sup.close()
        acks = self.server.call("GET", "/admin/acks")["acks"]
        for ack in acks:
            ack["time"] = calendar.timegm(time.strptime(ack["time"], "%Y-%m-%dT%H:%M:%SZ")) + 1.0
        pending = {m["id"] for m in self.server.call("GET", "/admin/pending")["messages"]}
        messages = ledger.check_messages(self.enqueued, pending, acks, self.deliveries(),
                                         self.outages)
        integrity, rows = read_cache(os.path.join(self.root, "var/local/nyx_registration_cache.db"))
        cache = ledger.check_cache(integrity, rows,
                                   self.server.call("GET", "/admin/registrations")["registrations"],
                                   ledger.registration_events(self.sup.lines))
        return messages, cache, ledger.check_exits(self.sup.exits)

    def deliveries(self):
        """How often each message reached its own target, from the receivers'
        and apps' logs; an envelope a simulator found fault with is a failure."""
        seen = collections.Counter()
        logs = [(t, self.path(t + ".jsonl")) for t in TOPICS] + [("the outbox", self.path(
            "outbox.jsonl"))] + [(a.unique, a.log) for a in self.apps]
        for target, path in logs:
            for record in read_jsonl(path):
                if record.get("problems"):
                    self.failures.append("%s got a malformed entry: %s" % (target, record))
                elif (record.get("property") == "wisp_message" or record.get("kind") == "message") \
                        and self.enqueued.get(record.get("id"), (None,))[0] == target:
                    seen[record["id"]] += 1
        return seen

    def report(self, messages, cache, exits):
        out = ["seed %d, %d s, work directory %s" % (self.args.seed, self.args.duration, self.work)]
        out += ["LOST %s: %s" % lost for lost in messages.lost[:20]]
        out += ["UNEARNED ack %s status %s: %s" % ack for ack in messages.unearned[:20]]
        out.append("cache: integrity %s, %d rows, %d match the server" % (
            cache.integrity, cache.rows, cache.matching))
        out += ["cache: intended difference x%d: %s" % (n, why)
                for why, n in sorted(cache.intended.items())]
        out += ["CACHE MISMATCH: " + text for text in cache.mismatches]
        out.append("daemon: %d starts, %d requested stops, %d restarts" % (
            self.sup.starts, exits.stops, exits.restarts))
        out += ["restart (intended) x%d: %s" % (n, cause)
                for cause, n in sorted(exits.causes.items())]
        out += ["UNEXPECTED EXIT: " + text for text in exits.failures]
        unchecked = os.environ.get("NYX_SOAK_NO_MEMORY_CHECK")
        before, after = self.rss or (0, 0)
        if not before:
            self.failures.append("no storm was measured")
        elif unchecked:
            out.append("storm: memory not checked in %s" % unchecked)
        elif after > before * (1 + RSS_TOLERANCE):
            self.failures.append("rss after the storm %d KB > %d KB + 10%%" % (after, before))
        out += ["FAILURE: " + text for text in self.failures]
        out.append("soak: %d messages, %d acknowledged, %d still offered, %d lost, %d duplicates, "
                   "%d restarts (%d intended), rss before/after %d/%d KB" % (
                       messages.messages, messages.acknowledged, messages.still_offered,
                       len(messages.lost), messages.duplicates, exits.restarts, exits.intended,
                       before, after))
        print("\n".join(out), flush=True)
        return not (messages.lost or messages.unearned or cache.mismatches or exits.failures
                    or self.failures)

    def teardown(self):
        if self.sup is not None:
            self.sup.close()
        for proc in reversed(self.helpers):
            rig.stop_process(proc)
        if self.conn is not None:
            self.conn.close_sync(None)
        if self.bus is not None:
            self.bus.stop()
        self.actions.close()


def tell(app, line):
    """One command on a nyx-sample-app's standard input."""
    with contextlib.suppress(OSError):
        app.proc.stdin.write((line + "\n").encode())
        app.proc.stdin.flush()


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
    """The records of a JSON-lines log; a line cut short by a kill is skipped."""
    records = []
    with contextlib.suppress(FileNotFoundError), open(path, encoding="utf-8") as f:
        for line in f:
            with contextlib.suppress(ValueError):
                records.append(json.loads(line))
    return records


def parse_args(argv):
    parser = argparse.ArgumentParser(prog="tests/soak/run", description=__doc__)
    parser.add_argument("--duration", type=float, default=120, help="seconds of faults (default 120)")
    parser.add_argument("--seed", type=int,
                        default=int(os.environ.get("NYX_SOAK_SEED") or time.time() % 100000),
                        help="seed of the schedule (default $NYX_SOAK_SEED, else the time)")
    parser.add_argument("--build-dir", default=os.environ.get("NYX_BINARY_DIR") or os.path.join(
        os.path.dirname(__file__), "..", "..", "..", "build"),
        help="CMake build directory with daemon/nyxd (default $NYX_BINARY_DIR)")
    parser.add_argument("--workdir", help="keep everything here (default: a temporary directory, "
                                          "removed after a passing run)")
    args = parser.parse_args(argv)
    args.nyxd = os.path.join(os.path.realpath(args.build_dir), "daemon", "nyxd")
    if not os.access(args.nyxd, os.X_OK):
        parser.error("no nyxd at %s (build first, or pass --build-dir)" % args.nyxd)
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
    except mock.Failure as failure:
        print("soak: FAILED: %s" % failure, flush=True)
    finally:
        soak.teardown()
        if passed and not args.workdir:
            shutil.rmtree(soak.work, ignore_errors=True)
        elif not passed:
            print("soak: logs kept in %s" % soak.work, flush=True)
    return 0 if passed else 1
