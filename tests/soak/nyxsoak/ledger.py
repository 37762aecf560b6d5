"""The end-of-run checks, kept free of processes so that they can be tested
on their own: what became of every message, whether the registration cache
agrees with the server, and why the daemon ended each time it did.

Every function takes plain records gathered by the soak and returns a result
object; nothing here talks to the bus, the server or the file system.
"""

import collections
import re

DISPATCHED = 1
UNHANDLED = 103


# ---------------------------------------------------------------------------
# Messages


class Outages:
    """When each receiving service could not take a delivery: it was not on
    the bus, or it refused every write with a status the daemon reads as
    "no such service or property" (3 or 8). An application's service is gone
    for good once the application quit; a topic nobody serves is always gone.
    """

    def __init__(self, never_served=()):
        self._never = set(never_served)
        self._open = {}
        self._spans = collections.defaultdict(list)

    def down(self, target, at):
        self._open.setdefault(target, at)

    def up(self, target, at):
        start = self._open.pop(target, None)
        if start is not None:
            self._spans[target].append((start, at))

    def overlaps(self, target, start, end, slack=1.0):
        """True when `target` was unavailable at some moment of [start, end],
        widened by `slack` seconds for the clocks of different processes."""
        if target in self._never:
            return True
        spans = list(self._spans.get(target, ()))
        if target in self._open:
            spans.append((self._open[target], float("inf")))
        return any(s <= end + slack and e >= start - slack for s, e in spans)


class MessageResult:
    def __init__(self):
        self.messages = 0
        self.acknowledged = 0
        self.still_offered = 0
        self.lost = []            # (id, why)
        self.duplicates = 0       # deliveries beyond the first
        self.duplicate_acks = 0   # outcomes reported for a message already removed
        self.unearned = []        # (id, status, why): acks the delivery did not justify
        self.by_status = collections.Counter()

    @property
    def ok(self):
        return not self.lost and not self.unearned


def check_messages(enqueued, pending, acks, deliveries, outages):
    """Accounts for every message the server was given.

    enqueued:   {id: (target service, enqueue time)}
    pending:    ids the server still offers at the end
    acks:       server acknowledgements in arrival order, each a dict with
                id, status, retry, removed, flag and time (seconds)
    deliveries: {id: number of times the target logged the delivery}
    outages:    an Outages

    A message is acknowledged when an ack removed it with a status it earned:
    1 only if its receiver logged the delivery, 103 only if the receiver was
    unavailable while the message was on its way. An ack with retry true, an
    unknown id or any other status is unearned whatever the message. A
    message that is neither still offered nor acknowledged so is lost.
    """
    result = MessageResult()
    result.messages = len(enqueued)
    final = {}
    for ack in acks:
        msg_id, status = ack["id"], ack["status"]
        result.by_status[status] += 1
        why = _unearned(ack, enqueued, deliveries, outages)
        if why:
            result.unearned.append((msg_id, status, why))
        if ack.get("flag") == "not pending":
            result.duplicate_acks += 1
        if ack.get("removed") and msg_id not in final:
            final[msg_id] = (status, why)
    for msg_id in enqueued:
        if msg_id in pending:
            result.still_offered += 1
        elif msg_id not in final:
            result.lost.append((msg_id, "removed from the server without an acknowledgement"))
        elif final[msg_id][1]:
            result.lost.append((msg_id, "acknowledged with status %d: %s"
                                % (final[msg_id][0], final[msg_id][1])))
        else:
            result.acknowledged += 1
    for msg_id, count in deliveries.items():
        if count > 1:
            result.duplicates += count - 1
    return result


def _unearned(ack, enqueued, deliveries, outages):
    msg_id, status = ack["id"], ack["status"]
    if ack.get("retry"):
        return "a message to be retried was purged"
    if ack.get("flag") == "unknown id" or msg_id not in enqueued:
        return "no such message was ever queued"
    target, queued_at = enqueued[msg_id]
    if status == DISPATCHED:
        if deliveries.get(msg_id, 0) == 0:
            return "%s never logged the delivery" % target
        return None
    if status == UNHANDLED:
        if not outages.overlaps(target, queued_at, ack["time"]):
            return "%s was available the whole time" % target
        return None
    return "status %d is not a final outcome" % status


# ---------------------------------------------------------------------------
# Registration cache


class CacheResult:
    def __init__(self):
        self.integrity = None
        self.rows = 0
        self.matching = 0
        self.intended = collections.Counter()   # reason -> count
        self.mismatches = []                      # text

    @property
    def ok(self):
        return self.integrity == "ok" and not self.mismatches


REGISTERED = re.compile(
    r"NYXRegistrar: Successfully registered app '(?P<app>.*)'\. RegistrationId is '(?P<id>.*)'")
UNREGISTER_REQUEST = re.compile(r"NYXRegistrar: Request to unregister app '(?P<app>.*)' due to")

# Why a registration the server still grants may be missing from the cache,
# as the design allows it.
LOST_ANSWER = ("the server's answer never reached the cache (connection lost, "
               "or the daemon stopped before writing it)")
REMOVED_FIRST = "removed from the cache before an unregistration the server did not complete"
SUPERSEDED = "replaced in the cache by a later registration of the same app"


def registration_events(log_lines):
    """("registered", app, id) and ("unregister", app, None) in log order."""
    events = []
    for line in log_lines:
        match = REGISTERED.search(line)
        if match:
            events.append(("registered", match["app"], match["id"]))
            continue
        match = UNREGISTER_REQUEST.search(line)
        if match:
            events.append(("unregister", match["app"], None))
    return events


def render_app(app_info):
    """The cache's rendering of an appInfo map."""
    return ", ".join("%s=>%s" % (k, app_info[k]) for k in sorted(app_info))


def check_cache(integrity, rows, server_registrations, events):
    """Compares the cache with what the server granted.

    integrity: output of PRAGMA integrity_check
    rows:      [(registration_id, app_info)] from the cache
    server_registrations: the server's records (id, appInfo, revoked)
    events:    registration_events of the daemon's whole log

    Every cache row must be a registration the server holds, active, for the
    same app. A registration the server holds that the cache lacks is
    intended when the log explains it (LOST_ANSWER, REMOVED_FIRST,
    SUPERSEDED); one the daemon logged as stored, and neither replaced nor
    unregistered since, is a mismatch.
    """
    result = CacheResult()
    result.integrity = integrity.strip()
    result.rows = len(rows)
    server = {r["id"]: r for r in server_registrations}
    cached = {}
    for reg_id, app in rows:
        cached[reg_id] = app
        record = server.get(reg_id)
        if record is None:
            result.mismatches.append("cache holds %s, which the server never granted" % reg_id)
        elif record["revoked"]:
            result.mismatches.append("cache holds %s, which the server has revoked" % reg_id)
        elif render_app(record["appInfo"]) != app:
            result.mismatches.append("cache holds %s for %s, the server for %s"
                                     % (reg_id, app, render_app(record["appInfo"])))
        else:
            result.matching += 1
    for record in server_registrations:
        if record["revoked"] or record["id"] in cached:
            continue
        why = _explain_missing(record["id"], render_app(record["appInfo"]), events)
        if why is None:
            result.mismatches.append(
                "server grants %s, logged as stored, still current, but not in the cache"
                % record["id"])
        else:
            result.intended[why] += 1
    return result


def _explain_missing(reg_id, app, events):
    stored_at = None
    for index, (kind, event_app, event_id) in enumerate(events):
        if kind == "registered" and event_id == reg_id:
            stored_at = index
    if stored_at is None:
        return LOST_ANSWER
    for kind, event_app, event_id in events[stored_at + 1:]:
        if event_app != app:
            continue
        if kind == "unregister":
            return REMOVED_FIRST
        if kind == "registered" and event_id != reg_id:
            return SUPERSEDED
    return None


# ---------------------------------------------------------------------------
# Exits

UNCAUGHT = re.compile(r"Uncaught exception, terminating: (?P<cause>.*)")


class Exit:
    """One end of the daemon: `status` is the exit status or None, `signal`
    the killing signal or None, `requested` "term", "kill" or None (what the
    soak itself asked for), `escalated` when a requested stop had to be
    forced, `log` the lines of that run."""

    def __init__(self, pid, status, signal, requested, escalated, log):
        self.pid, self.status, self.signal = pid, status, signal
        self.requested, self.escalated, self.log = requested, escalated, log


class ExitResult:
    def __init__(self):
        self.stops = 0          # requested SIGTERM, clean exit
        self.restarts = 0       # ends a Restart=on-failure supervisor restarts
        self.intended = 0
        self.causes = collections.Counter()
        self.failures = []

    @property
    def ok(self):
        return not self.failures


SIGKILL = 9
SIGTERM = 15


def check_exits(exits):
    """Classifies every end of the daemon.

    A requested SIGTERM that ends with status 0 (or the signal itself, before
    the handler is installed) is a stop. Anything else is an abnormal end
    that the supervisor restarts: intended when the soak killed the daemon,
    when a stop had to be forced because a task was still running, or when
    the log names an exception that nothing catches; a failure otherwise.
    """
    result = ExitResult()
    for end in exits:
        clean = end.status == 0 or end.signal == SIGTERM
        if end.requested == "term" and clean and not end.escalated:
            result.stops += 1
            continue
        result.restarts += 1
        cause = None
        for line in end.log:
            match = UNCAUGHT.search(line)
            if match:
                cause = "uncaught exception: " + _short(match["cause"])
        if end.requested == "kill" and end.signal == SIGKILL:
            cause = "SIGKILL from the soak"
        elif end.escalated and end.signal == SIGKILL:
            if any("Received termination signal." in line for line in end.log):
                # The worker loop had ended: nothing was left to wait for.
                result.failures.append("pid %d hung on its way out after the worker loop ended"
                                       % end.pid)
                continue
            else:
                cause = "SIGKILL after SIGTERM went unheeded (a task was still running)"
        if cause is None:
            how = "status %s" % end.status if end.signal is None else "signal %d" % end.signal
            tail = " | ".join(end.log[-5:])
            result.failures.append("pid %d ended with %s and no cause in its log: %s"
                                   % (end.pid, how, tail))
            continue
        result.intended += 1
        result.causes[cause] += 1
    return result


def _short(cause):
    """The first line of an exception text, which for an HTTP error is its status."""
    return cause.strip()[:120]
