"""Injectable server faults.

A fault is scheduled with POST /admin/fault and applies to the next `count`
protocol requests of one kind (fetch, register, unregister or any). Faults
wait in a queue; each request takes at most one, the first that matches.

Every kind is one row of KINDS: its parameters with their checks and
defaults, whether it only makes sense for a fetch, and the stage at which it
acts on a request:

  replace  answers instead of the server (the request is not processed)
  before   runs before the request is processed normally
  page     alters the messages of the fetch page being built
  send     alters how the normal answer goes on the wire

Adding a kind means adding a row here and, for a new stage, one branch in
the server's request handler.
"""

import threading

REQUEST_KINDS = ("fetch", "register", "unregister", "any")
PAGE_MEMBERS = ("id", "topic", "payload", "crc")


def _int_in(lo, hi):
    def check(value):
        if isinstance(value, bool) or not isinstance(value, (int, float, str)):
            raise ValueError("must be an integer")
        number = int(value)
        if not lo <= number <= hi:
            raise ValueError("must be from %d to %d" % (lo, hi))
        return number
    return check


def _seconds(value):
    if isinstance(value, bool):
        raise ValueError("must be a number of seconds")
    number = float(value)
    if not 0 <= number <= 600:
        raise ValueError("must be from 0 to 600 seconds")
    return number


def _one_of(*choices):
    def check(value):
        if value not in choices:
            raise ValueError("must be one of " + ", ".join(choices))
        return value
    return check


def _text(value):
    if not isinstance(value, (str, int)) or isinstance(value, bool):
        raise ValueError("must be text")
    return str(value)


def _any_json(value):
    return value


class Param:
    def __init__(self, check, default=None, required=False, help=""):
        self.check, self.default, self.required, self.help = check, default, required, help


class Kind:
    def __init__(self, stage, help, params=None, fetch_only=False):
        self.stage, self.help, self.params, self.fetch_only = stage, help, params or {}, fetch_only


KINDS = {
    "status": Kind("replace", "answer with an HTTP status instead of processing the request", {
        "status": Param(_int_in(100, 599), required=True, help="HTTP status code"),
        "retry_after": Param(_text, help="value of a Retry-After header"),
        "body": Param(_any_json, help="JSON body (default: an error object)"),
    }),
    "delay": Kind("before", "wait before processing and answering", {
        "delay": Param(_seconds, 1.0, help="seconds to wait"),
    }),
    "reset": Kind("send", "process, then reset the connection part way through the answer", {
        "at": Param(_one_of("headers", "body"), "headers",
                    help="cut inside the headers or inside the body"),
    }),
    "truncate": Kind("send", "process, then announce a longer body than is sent and close"),
    "not-json": Kind("replace", "answer 200 with a body that is not JSON", {
        "body": Param(_text, "<html><body>Service temporarily moved</body></html>",
                      help="the text to send"),
    }),
    "corrupt-crc": Kind("page", "give the page's messages a wrong crc (they stay pending)",
                        fetch_only=True),
    "missing-member": Kind("page", "leave a member out of each of the page's messages", {
        "member": Param(_one_of(*PAGE_MEMBERS), "id", help="member to leave out"),
    }, fetch_only=True),
}


class FaultError(ValueError):
    pass


class FaultQueue:
    """The scheduled faults; safe to use from every request thread."""

    def __init__(self):
        self._lock = threading.Lock()
        self._queue = []
        self._next_id = 1
        self.fired = {}

    def schedule(self, wanted):
        """Checks a fault description and appends it; returns the stored fault."""
        if not isinstance(wanted, dict):
            raise FaultError("fault must be a JSON object")
        name = wanted.get("kind")
        kind = KINDS.get(name)
        if kind is None:
            raise FaultError("unknown fault kind %r; known: %s" % (name, ", ".join(KINDS)))
        only = wanted.get("only") or ("fetch" if kind.fetch_only else "any")
        if only not in REQUEST_KINDS:
            raise FaultError("only must be one of " + ", ".join(REQUEST_KINDS))
        if kind.fetch_only and only != "fetch":
            raise FaultError("fault %s applies to fetch requests only" % name)
        try:
            count = _int_in(1, 1000000)(wanted.get("count", 1))
        except (ValueError, TypeError) as e:
            raise FaultError("count %s" % e) from None
        unknown = set(wanted) - set(kind.params) - {"kind", "only", "count"}
        if unknown:
            raise FaultError("fault %s takes no %s" % (name, ", ".join(sorted(unknown))))
        params = {}
        for pname, param in kind.params.items():
            if wanted.get(pname) is None:
                if param.required:
                    raise FaultError("fault %s needs %s" % (name, pname))
                params[pname] = param.default
                continue
            try:
                params[pname] = param.check(wanted[pname])
            except (ValueError, TypeError) as e:
                raise FaultError("%s %s" % (pname, e)) from None
        with self._lock:
            fault = {"id": self._next_id, "kind": name, "only": only,
                     "remaining": count, "params": params}
            self._next_id += 1
            self._queue.append(fault)
            return dict(fault)

    def take(self, request_kind):
        """Consumes one use of the first fault that matches; None when none does."""
        with self._lock:
            for fault in self._queue:
                if fault["only"] in ("any", request_kind):
                    fault["remaining"] -= 1
                    if fault["remaining"] == 0:
                        self._queue.remove(fault)
                    self.fired[fault["kind"]] = self.fired.get(fault["kind"], 0) + 1
                    return fault
        return None

    def list(self):
        with self._lock:
            return [dict(f) for f in self._queue]

    def clear(self):
        with self._lock:
            self._queue.clear()
            self.fired.clear()


def describe():
    """The table of kinds, for GET /admin/faults and the client's help."""
    return {name: {"stage": k.stage, "help": k.help, "fetch_only": k.fetch_only,
                   "params": {p: v.help for p, v in k.params.items()}}
            for name, k in KINDS.items()}
