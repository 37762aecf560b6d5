"""The soak's end-of-run checks on hand-made records: a check that passes a
lost message, an unearned acknowledgement, a stale cache row or an exit
without a cause would make every soak meaningless."""

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))
from nyxsoak import ledger  # noqa: E402

T0 = 1000.0


def ack(msg_id, status, at=T0 + 5, retry=False, removed=True, flag=None):
    return {"id": msg_id, "status": status, "time": at, "retry": retry, "removed": removed,
            "flag": flag}


class CheckMessagesTest(unittest.TestCase):
    def setUp(self):
        self.outages = ledger.Outages(["com.nobody"])
        self.outages.down("com.flaky", T0 + 2)
        self.outages.up("com.flaky", T0 + 4)
        self.enqueued = {"m1": ("com.r", T0), "m2": ("com.flaky", T0), "m3": ("com.nobody", T0)}

    def test_every_message_is_accounted_for(self):
        # (case, pending, acks, deliveries, lost ids, unearned ids, acknowledged, still offered)
        cases = [
            ("all earned", set(), [ack("m1", 1), ack("m2", 103), ack("m3", 103)], {"m1": 1},
             [], [], 3, 0),
            ("still offered counts as kept", {"m1", "m2", "m3"}, [], {}, [], [], 0, 3),
            ("removed without an ack", {"m2", "m3"}, [], {}, ["m1"], [], 0, 2),
            ("dispatched but never delivered", {"m2", "m3"}, [ack("m1", 1)], {},
             ["m1"], ["m1"], 0, 2),
            ("unhandled just before the outage, within the slack", {"m1", "m3"},
             [ack("m2", 103, at=T0 + 1)], {}, [], [], 1, 2),
            ("unhandled while the receiver was up", {"m1", "m3"},
             [ack("m2", 103, at=T0 + 0.5)], {}, ["m2"], ["m2"], 0, 2),
            ("a retry purged", {"m2", "m3"}, [ack("m1", 1, retry=True)], {"m1": 1},
             ["m1"], ["m1"], 0, 2),
            ("a status that is not final", {"m2", "m3"}, [ack("m1", 5)], {"m1": 1},
             ["m1"], ["m1"], 0, 2),
            ("an ack for an id never queued", {"m1", "m2", "m3"}, [ack("zz", 1)], {},
             [], ["zz"], 0, 3),
            ("a not-removing ack is not final", {"m2", "m3"}, [ack("m1", 1, removed=False)],
             {"m1": 1}, ["m1"], [], 0, 2),
        ]
        for name, pending, acks, deliveries, lost, unearned, acknowledged, offered in cases:
            with self.subTest(name):
                result = ledger.check_messages(self.enqueued, pending, acks, deliveries,
                                               self.outages)
                self.assertEqual(sorted(i for i, _ in result.lost), lost)
                self.assertEqual(sorted(i for i, _, _ in result.unearned), unearned)
                self.assertEqual(result.acknowledged, acknowledged)
                self.assertEqual(result.still_offered, offered)
                self.assertEqual(result.ok, not lost and not unearned)

    def test_outage_windows(self):
        # An ack of 103 is earned only when the receiver was down at some
        # moment between queueing and the ack, with one second of slack.
        cases = [
            ("before the outage", T0, T0 + 0.5, False),
            ("touching its start within the slack", T0, T0 + 1.5, True),
            ("across it", T0, T0 + 10, True),
            ("after it", T0 + 6, T0 + 9, False),
            ("a service that never served", T0, T0, True),
        ]
        for name, start, end, expected in cases:
            with self.subTest(name):
                target = "com.nobody" if "never" in name else "com.flaky"
                self.assertEqual(self.outages.overlaps(target, start, end), expected)

    def test_an_open_outage_lasts_to_the_end(self):
        self.outages.down("com.gone", T0 + 1)
        self.assertTrue(self.outages.overlaps("com.gone", T0 + 100, T0 + 200))
        self.assertFalse(self.outages.overlaps("com.gone", T0 - 10, T0 - 5))

    def test_duplicates_and_repeated_outcomes_are_counted(self):
        acks = [ack("m1", 1), ack("m1", 1, flag="not pending"), ack("m2", 103), ack("m3", 103)]
        result = ledger.check_messages(self.enqueued, set(), acks, {"m1": 3}, self.outages)
        self.assertTrue(result.ok)
        self.assertEqual(result.duplicates, 2)
        self.assertEqual(result.duplicate_acks, 1)
        self.assertEqual(result.by_status, {1: 2, 103: 2})


APP_A = {"service.name": ":1.5", "sender.id": "s.a"}
APP_B = {"service.name": ":1.6", "sender.id": "s.b"}


def registered(app, reg_id):
    return "I NYXRegistrar: Successfully registered app '%s'. RegistrationId is '%s'" % (
        ledger.render_app(app), reg_id)


def unregister(app):
    return "I NYXRegistrar: Request to unregister app '%s' due to request" % ledger.render_app(app)


class CheckCacheTest(unittest.TestCase):
    def test_cache_against_server(self):
        server = [{"id": "r1", "appInfo": APP_A, "revoked": False},
                  {"id": "r2", "appInfo": APP_B, "revoked": False},
                  {"id": "r0", "appInfo": APP_A, "revoked": True}]
        a, b = ledger.render_app(APP_A), ledger.render_app(APP_B)
        # (case, rows, log, mismatch count, intended reasons)
        cases = [
            ("both cached", [("r1", a), ("r2", b)], [registered(APP_A, "r1"),
                                                     registered(APP_B, "r2")], 0, []),
            ("answer lost before the log", [("r1", a)], [registered(APP_A, "r1")], 0,
             [ledger.LOST_ANSWER]),
            ("unregistration started", [("r1", a)],
             [registered(APP_A, "r1"), registered(APP_B, "r2"), unregister(APP_B)], 0,
             [ledger.REMOVED_FIRST]),
            ("stored and then lost", [("r1", a)],
             [registered(APP_A, "r1"), registered(APP_B, "r2")], 1, []),
            ("a revoked row", [("r0", a), ("r1", a), ("r2", b)], [], 1, []),
            ("a row the server never granted", [("r1", a), ("r2", b), ("r9", b)], [], 1, []),
            ("a row for another app", [("r1", b), ("r2", b)], [], 1, []),
        ]
        for name, rows, log, mismatches, intended in cases:
            with self.subTest(name):
                result = ledger.check_cache("ok\n", rows, server,
                                            ledger.registration_events(log))
                self.assertEqual(len(result.mismatches), mismatches, result.mismatches)
                self.assertEqual(sorted(result.intended), intended)
                self.assertEqual(result.ok, mismatches == 0)

    def test_superseded_registration(self):
        server = [{"id": "r1", "appInfo": APP_A, "revoked": False},
                  {"id": "r3", "appInfo": APP_A, "revoked": False}]
        log = [registered(APP_A, "r1"), registered(APP_A, "r3")]
        result = ledger.check_cache("ok", [("r3", ledger.render_app(APP_A))], server,
                                    ledger.registration_events(log))
        self.assertTrue(result.ok, result.mismatches)
        self.assertEqual(dict(result.intended), {ledger.SUPERSEDED: 1})

    def test_a_damaged_file_fails(self):
        result = ledger.check_cache("*** in database main ***\nPage 3 is never used", [], [], [])
        self.assertFalse(result.ok)

    def test_render_app_sorts_its_keys(self):
        self.assertEqual(ledger.render_app({"z": "1", "a": "2"}), "a=>2, z=>1")


def end(status=None, sig=None, requested=None, escalated=False, log=()):
    return ledger.Exit(4242, status, sig, requested, escalated, list(log))


class CheckExitsTest(unittest.TestCase):
    def test_every_end_has_a_cause(self):
        uncaught = ["E Main: Uncaught exception, terminating: no key 'customer'"]
        # (case, exit, stops, intended, failures)
        cases = [
            ("requested stop", end(status=0, requested="term"), 1, 0, 0),
            ("stopped before the handler", end(sig=15, requested="term"), 1, 0, 0),
            ("killed by the soak", end(sig=9, requested="kill"), 0, 1, 0),
            ("forced after an unheeded SIGTERM", end(sig=9, requested="term", escalated=True),
             0, 1, 0),
            ("forced although the loop had ended", end(
                sig=9, requested="term", escalated=True,
                log=["I Main: Received termination signal."]), 0, 0, 1),
            ("an uncaught exception", end(sig=6, log=uncaught), 0, 1, 0),
            ("status 255 without a cause", end(status=255, log=["I Main: x"]), 0, 0, 1),
            ("a crash", end(sig=11), 0, 0, 1),
            ("an unrequested SIGKILL", end(sig=9), 0, 0, 1),
            ("a stop that failed", end(status=1, requested="term"), 0, 0, 1),
        ]
        for name, the_end, stops, intended, failures in cases:
            with self.subTest(name):
                result = ledger.check_exits([the_end])
                self.assertEqual(result.stops, stops)
                self.assertEqual(result.intended, intended)
                self.assertEqual(len(result.failures), failures, result.failures)
                self.assertEqual(result.restarts, 1 - stops)

    def test_the_cause_is_named_from_the_log(self):
        result = ledger.check_exits([end(sig=6, log=[
            "I Main: Waiting for tasks.",
            "E Main: Uncaught exception, terminating: unable to open database file"])])
        self.assertEqual(dict(result.causes),
                         {"uncaught exception: unable to open database file": 1})


if __name__ == "__main__":
    unittest.main()
