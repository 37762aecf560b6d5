"""The soak's end-of-run checks on hand-made records, in one table: a check
that passes a lost message, an unearned acknowledgement, a stale cache row or
an exit without a cause would make every soak meaningless."""

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))
import ledger  # noqa: E402

T0 = 1000.0
ENQUEUED = {"m1": ("com.r", T0), "m2": ("com.flaky", T0), "m3": ("com.nobody", T0)}
APP_A = {"service.name": ":1.5", "sender.id": "s.a"}
APP_B = {"service.name": ":1.6", "sender.id": "s.b"}
A, B = ledger.render_app(APP_A), ledger.render_app(APP_B)
# The daemon's lines that store a registration and that start an unregistration.
REGISTERED = "I NYXRegistrar: Successfully registered app '%s'. RegistrationId is '%s'"
UNREGISTER = "I NYXRegistrar: Request to unregister app '%s' due to request"
SERVER = [{"id": "r1", "appInfo": APP_A, "revoked": False},
          {"id": "r2", "appInfo": APP_B, "revoked": False},
          {"id": "r0", "appInfo": APP_A, "revoked": True}]
# com.flaky was down from T0+2 to T0+4, com.gone from T0+1 on; com.nobody is never served.
OUTAGES = ledger.Outages(["com.nobody"])
OUTAGES.down("com.flaky", T0 + 2)
OUTAGES.up("com.flaky", T0 + 4)
OUTAGES.down("com.gone", T0 + 1)


def ack(msg_id, status, at=T0 + 5, retry=False, removed=True):
    return {"id": msg_id, "status": status, "time": at, "retry": retry, "removed": removed}


def messages(pending, acks, deliveries=None):
    """(lost, unearned, acknowledged, still offered, duplicates)."""
    r = ledger.check_messages(ENQUEUED, set(pending), acks, deliveries or {}, OUTAGES)
    return (sorted(i for i, _ in r.lost), sorted(i for i, _, _ in r.unearned), r.acknowledged,
            r.still_offered, r.duplicates)


def cache(rows, log, server=SERVER, integrity="ok\n"):
    """(mismatches, intended reasons)."""
    r = ledger.check_cache(integrity, rows, server, log)
    return len(r.mismatches), sorted(r.intended.elements())


def exits(code, requested=None, escalated=False, log=()):
    """(stops, intended, failures, causes)."""
    r = ledger.check_exits([ledger.Exit(4242, code, requested, escalated, list(log))])
    assert r.restarts == 1 - r.stops
    return r.stops, r.intended, len(r.failures), sorted(r.causes)


UNCAUGHT = "E Main: Uncaught exception, terminating: unable to open database file"
CASES = [
    # Messages: what became of each, and whether its outcome was earned.
    ("dispatched but never delivered", lambda: messages(["m2", "m3"], [ack("m1", 1)]),
     (["m1"], ["m1"], 0, 2, 0)),
    ("unhandled just before the outage, within the slack",
     lambda: messages(["m1", "m3"], [ack("m2", 103, at=T0 + 1)]), ([], [], 1, 2, 0)),
    ("unhandled while the receiver was up",
     lambda: messages(["m1", "m3"], [ack("m2", 103, at=T0 + 0.5)]),
     (["m2"], ["m2"], 0, 2, 0)),
    ("a retry purged", lambda: messages(["m2", "m3"], [ack("m1", 1, retry=True)], {"m1": 1}),
     (["m1"], ["m1"], 0, 2, 0)),
    ("a status that is not final", lambda: messages(["m1", "m2"], [ack("m3", 5)], {"m3": 1}),
     (["m3"], ["m3"], 0, 2, 0)),
    ("an ack for an id never queued", lambda: messages(["m1", "m2", "m3"], [ack("zz", 1)]),
     ([], ["zz"], 0, 3, 0)),
    ("a not-removing ack is not final",
     lambda: messages(["m2", "m3"], [ack("m1", 1, removed=False)], {"m1": 1}),
     (["m1"], [], 0, 2, 0)),
    ("all earned, duplicates counted, a repeated outcome is no loss", lambda: messages(
        [], [ack("m1", 1), ack("m1", 1), ack("m2", 103), ack("m3", 103)],
        {"m1": 3}), ([], [], 3, 0, 2)),
    # Outages: when a receiver counts as unavailable, with one second of slack.
    ("after the outage", lambda: OUTAGES.overlaps("com.flaky", T0 + 6, T0 + 9), False),
    ("an open outage lasts to the end", lambda: OUTAGES.overlaps("com.gone", T0 + 100, T0 + 200),
     True),
    # The registration cache against what the server granted.
    ("unregistration started", lambda: cache([("r1", A)], [
        REGISTERED % (A, "r1"), REGISTERED % (B, "r2"), UNREGISTER % B]),
     (0, [ledger.REPLACED])),
    ("stored and then lost, other apps' events around it", lambda: cache([("r1", A)], [
        UNREGISTER % B, REGISTERED % (B, "r2"), REGISTERED % (A, "r1")]), (1, [])),
    ("a revoked row", lambda: cache([("r0", A), ("r1", A), ("r2", B)], []), (1, [])),
    ("a row for another app", lambda: cache([("r1", B), ("r2", B)], []), (1, [])),
    ("replaced by a cached grant killed before its line, one never logged", lambda: cache(
        [("r3", A)], [REGISTERED % (A, "r1")],
        server=SERVER + [{"id": "r3", "appInfo": APP_A, "revoked": False}]),
     (0, [ledger.REPLACED, ledger.LOST_ANSWER])),
    ("a damaged file", lambda: cache([], [], [], "*** in database main ***\nPage 3"), (1, [])),
    # Every end of the daemon has a cause.
    ("requested stop", lambda: exits(0, requested="term"), (1, 0, 0, [])),
    ("stopped before the handler", lambda: exits(-15, requested="term"), (1, 0, 0, [])),
    ("killed by the soak", lambda: exits(-9, requested="kill"),
     (0, 1, 0, ["SIGKILL from the soak"])),
    ("forced after an unheeded SIGTERM", lambda: exits(-9, requested="term", escalated=True),
     (0, 1, 0, ["SIGKILL after SIGTERM went unheeded (a task was still running)"])),
    ("forced although the loop had ended", lambda: exits(
        -9, requested="term", escalated=True, log=["I Main: Received termination signal."]),
     (0, 0, 1, [])),
    ("an uncaught exception, named from the log",
     lambda: exits(-6, log=["I Main: Waiting for tasks.", UNCAUGHT]),
     (0, 1, 0, ["uncaught exception: unable to open database file"])),
    ("an end nobody asked for", lambda: exits(0), (0, 0, 1, [])),
    ("a stop that failed", lambda: exits(1, requested="term"), (0, 0, 1, [])),
]


class LedgerTest(unittest.TestCase):
    def test_each_record_is_judged_as_the_soak_needs(self):
        for name, check, expected in CASES:
            with self.subTest(name):
                self.assertEqual(check(), expected)


if __name__ == "__main__":
    unittest.main()
