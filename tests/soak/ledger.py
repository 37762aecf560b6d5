"""The soak's end-of-run checks on plain records, free of processes so that
they can be tested on their own: what became of every message, whether the
registration cache agrees with the server, why the daemon ended each time."""

import collections
import math
import re
from types import SimpleNamespace

DISPATCHED, UNHANDLED = 1, 103
SIGKILL, SIGTERM = 9, 15


class Outages:
    """When each receiving service was off the bus and could not take a
    delivery. A topic nobody serves is always unavailable."""

    def __init__(self, never_served=()):
        self._never = set(never_served)
        self._spans = collections.defaultdict(list)   # target -> [[down, up or inf]]

    def down(self, target, at):
        self._spans[target].append([at, math.inf])

    def up(self, target, at):
        for span in self._spans[target][-1:]:
            span[1] = at

    def overlaps(self, target, start, end, slack=1.0):
        """True when `target` was unavailable at some moment of [start, end],
        widened by `slack` seconds for the clocks of different processes."""
        return target in self._never or any(s <= end + slack and e >= start - slack
                                            for s, e in self._spans[target])


def check_messages(enqueued, pending, acks, deliveries, outages):
    """Accounts for every message the server was given: `enqueued` maps its
    id to (target, enqueue time), `pending` is the set of ids still offered,
    `acks` the server's acknowledgements in arrival order, `deliveries` maps
    an id to how often its target logged it. A message is acknowledged when
    an ack removed it with a status it earned: 1 only if its target logged
    the delivery, 103 only if the target was unavailable meanwhile. A message
    neither still offered nor acknowledged so is lost."""
    final, unearned, lost = {}, [], []
    for ack in acks:
        why = _unearned(ack, enqueued, deliveries, outages)
        if why:
            unearned.append((ack["id"], ack["status"], why))
        if ack.get("removed"):
            final.setdefault(ack["id"], (ack["status"], why))
    for msg_id in enqueued:
        if msg_id in pending:
            continue
        if msg_id not in final:
            lost.append((msg_id, "removed from the server without an acknowledgement"))
        elif final[msg_id][1]:
            lost.append((msg_id, "acknowledged with status %d: %s" % final[msg_id]))
    offered = len(pending & set(enqueued))
    return SimpleNamespace(messages=len(enqueued), acknowledged=len(enqueued) - offered - len(lost),
                           still_offered=offered, lost=lost, unearned=unearned,
                           duplicates=sum(n - 1 for n in deliveries.values() if n > 1))


def _unearned(ack, enqueued, deliveries, outages):
    msg_id, status = ack["id"], ack["status"]
    if ack.get("retry"):
        return "a message to be retried was purged"
    if msg_id not in enqueued:
        return "no such message was ever queued"
    target, queued_at = enqueued[msg_id]
    if status == DISPATCHED:
        return None if deliveries.get(msg_id) else "%s never logged the delivery" % target
    if status == UNHANDLED:
        return None if outages.overlaps(target, queued_at, ack["time"]) else \
            "%s was available the whole time" % target
    return "status %d is not a final outcome" % status


# The daemon's log lines that store a registration in the cache or start
# taking one out; an unregistration has no id.
REGISTRATION = re.compile(r"NYXRegistrar: (?:Successfully registered app '(?P<app>.*)'\. "
                          r"RegistrationId is '(?P<id>.*)'"
                          r"|Request to unregister app '(?P<gone>.*)' due to)")

# Why a registration the server still grants may be missing from the cache,
# as the design allows it.
LOST_ANSWER = ("the server's answer never reached the cache (connection lost, "
               "or the daemon stopped before writing it)")
REPLACED = "removed or replaced in the cache by a later unregistration or registration of the app"


def render_app(app_info):
    """The cache's rendering of an appInfo map."""
    return ", ".join("%s=>%s" % (k, app_info[k]) for k in sorted(app_info))


def check_cache(integrity, rows, server_registrations, log_lines):
    """Compares the cache (PRAGMA integrity_check's text and its rows of
    registration id and app) with the server's registrations and the
    registration lines of the daemon's whole log. Every row must be an
    active registration the server holds for the same app. One the server
    holds and the cache lacks is intended when the log or a later grant
    in the cache explains it; otherwise it is a mismatch, and so is a
    damaged file. `server_registrations` come in the order of their grant."""
    result = SimpleNamespace(integrity=integrity.strip(), rows=len(rows), matching=0,
                             intended=collections.Counter(), mismatches=[])
    # (app, registration id or None for an unregistration) in log order
    events = [(m["app"] or m["gone"], m["id"])
              for m in filter(None, map(REGISTRATION.search, log_lines))]
    if result.integrity != "ok":
        result.mismatches.append("the integrity check says: " + result.integrity)
    active = {r["id"]: render_app(r["appInfo"]) for r in server_registrations if not r["revoked"]}
    for reg_id, app in rows:
        if active.get(reg_id) == app:
            result.matching += 1
        else:
            result.mismatches.append("cache holds %s for %s; the server grants it to %s"
                                     % (reg_id, app, active.get(reg_id, "no one")))
    cached, replaced = {reg_id for reg_id, _ in rows}, set()
    # Newest grant first: a cached grant replaced the app's earlier ones, also
    # when the daemon was killed between writing it and logging it.
    for reg_id, app in reversed(active.items()):
        if reg_id in cached:
            replaced.add(app)
            continue
        why = REPLACED if app in replaced else _explain_missing(reg_id, app, events)
        if why is None:
            result.mismatches.append(
                "server grants %s, logged as stored, still current, but not in the cache" % reg_id)
        else:
            result.intended[why] += 1
    return result


def _explain_missing(reg_id, app, events):
    stored = [i for i, (_, event_id) in enumerate(events) if event_id == reg_id]
    if not stored:
        return LOST_ANSWER
    if any(event_app == app and event_id != reg_id for event_app, event_id in events[stored[-1]:]):
        return REPLACED
    return None


UNCAUGHT = re.compile(r"Uncaught exception, terminating: (?P<cause>.*)")

# One end of the daemon: `code` its exit status, or minus the signal that
# ended it; `requested` "term", "kill" or None (what the soak itself asked
# for); `escalated` when a requested stop had to be forced; `log` the lines
# of that run.
Exit = collections.namedtuple("Exit", "pid code requested escalated log")


def check_exits(exits):
    """Classifies every end of the daemon. A requested SIGTERM that ends with
    status 0 (or the signal itself, before the handler is installed) is a
    stop. Any other end is a restart: intended when the soak killed the
    daemon, when a stop had to be forced because a task was still running,
    or when the log names an exception that nothing catches; else a failure."""
    result = SimpleNamespace(stops=0, restarts=0, intended=0, causes=collections.Counter(),
                             failures=[])
    for end in exits:
        if end.requested == "term" and end.code in (0, -SIGTERM):
            result.stops += 1
            continue
        result.restarts += 1
        cause = next(("uncaught exception: " + m["cause"].strip()[:120]
                      for m in map(UNCAUGHT.search, reversed(end.log)) if m), None)
        if end.code == -SIGKILL and end.requested == "kill":
            cause = "SIGKILL from the soak"
        elif end.code == -SIGKILL and end.escalated:
            if any("Received termination signal." in line for line in end.log):
                # The worker loop had ended: nothing was left to wait for.
                result.failures.append("pid %d hung on its way out after the worker loop ended"
                                       % end.pid)
                continue
            cause = "SIGKILL after SIGTERM went unheeded (a task was still running)"
        if cause is None:
            result.failures.append("pid %d ended with %d and no cause in its log: %s"
                                   % (end.pid, end.code, " | ".join(end.log[-5:])))
        else:
            result.intended += 1
            result.causes[cause] += 1
    return result
