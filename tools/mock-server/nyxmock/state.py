"""What the mock messaging server remembers between requests.

One State object is shared by all request threads and guarded by one lock.
Answering a fetch page must stay cheap with ten thousand messages queued:
each message's JSON member is rendered once, at enqueue time, and a page is
a walk of at most page-size entries along a snapshot taken by the first page
of a cycle.
"""

import base64
import collections
import secrets
import threading
import time

from . import protocol
from .protocol import ProtocolError

SNAPSHOTS_KEPT = 64
REQUESTS_KEPT = 500
ACKS_KEPT = 100000


def now():
    return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())


class Message:
    __slots__ = ("id", "topic", "payload", "payload_b64", "crc", "directed", "kind",
                 "registration_id", "enqueued_at", "offered", "member")

    def __init__(self, msg_id, topic, payload, directed, kind, registration_id=None):
        self.id, self.topic, self.payload = msg_id, topic, payload
        self.payload_b64 = base64.b64encode(payload).decode()
        self.crc = protocol.crc_of(topic, payload)
        self.directed, self.kind, self.registration_id = directed, kind, registration_id
        self.enqueued_at = now()
        self.offered = 0
        self.member = self.render()

    def render(self, crc=None, drop=None):
        return protocol.message_member(self.id, self.topic, self.payload_b64,
                                       self.crc if crc is None else crc, self.directed, drop)

    def to_json(self):
        try:
            text = self.payload.decode("utf-8")
        except UnicodeDecodeError:
            text = None
        return {"id": self.id, "kind": self.kind, "topic": self.topic, "payload": text,
                "payload_b64": self.payload_b64, "size": len(self.payload), "crc": self.crc,
                "directedCustomerId": self.directed, "registrationId": self.registration_id,
                "enqueued_at": self.enqueued_at, "offered": self.offered}


def _string(doc, name, required=True):
    value = doc.get(name)
    if value is None and not required:
        return None
    if not isinstance(value, str) or (required and not value):
        raise ProtocolError(400, "%r must be a %sstring" % (name, "non-empty " if required else ""))
    return value


def _string_map(doc, name, required=True):
    value = doc.get(name)
    if value is None and not required:
        return {}
    if not isinstance(value, dict) or not all(isinstance(v, str) for v in value.values()):
        raise ProtocolError(400, "%r must be an object of string values" % name)
    return value


class State:
    def __init__(self, page_size):
        self.page_size = page_size
        self.lock = threading.Lock()
        self._message_counter = 0
        self._snapshot_counter = 0
        self.reset()

    def reset(self):
        """Forgets everything except the id counters, so that ids stay unique."""
        with self.lock:
            self.pending = {}
            self.known_ids = set()
            self.registrations = {}
            self.rejected = set()
            self.snapshots = collections.OrderedDict()
            self.acks = collections.deque(maxlen=ACKS_KEPT)
            self.requests = collections.deque(maxlen=REQUESTS_KEPT)
            self.counts = collections.Counter()
            self.acks_by_status = collections.Counter()

    # --- Registrations ---------------------------------------------------

    def register(self, doc, headers):
        """Records a registration request; returns the new id or raises ProtocolError."""
        if not isinstance(doc, dict):
            raise ProtocolError(400, "registration body must be a JSON object")
        senders = doc.get("allowedSenders")
        if not isinstance(senders, list) or not senders or \
                not all(isinstance(s, str) for s in senders):
            raise ProtocolError(400, "'allowedSenders' must be a non-empty array of strings")
        record = {
            "platform": _string(doc, "platform"),
            "senders": senders,
            "appInfo": _string_map(doc, "appInfo"),
            "appInstanceInfo": _string_map(doc, "appInstanceInfo", required=False),
            "target": _string(doc, "target"),
        }
        if record["target"] not in ("Device", "DeviceCustomer"):
            raise ProtocolError(400, "'target' must be \"Device\" or \"DeviceCustomer\"")
        with self.lock:
            for sender in senders:
                if sender in self.rejected:
                    self.counts["registrations_rejected"] += 1
                    message = "Sender '%s' is not allowed." % sender
                    raise ProtocolError(499, message,
                                        doc={"reason": "InvalidSenderId", "message": message})
            self.counts["registrations"] += 1
            reg_id = "reg-%04d-%s" % (self.counts["registrations"], secrets.token_hex(4))
            record.update({"id": reg_id,
                           "customer": headers.get(protocol.HEADER_CUSTOMER),
                           "serial": headers.get(protocol.HEADER_SERIAL),
                           "reason": headers.get("x-zvo-reason"),
                           "created": now(), "revoked": False, "revoked_at": None})
            self.registrations[reg_id] = record
        return reg_id

    def unregister(self, doc):
        """Marks a registration revoked; returns whether it was known and active."""
        if not isinstance(doc, dict):
            raise ProtocolError(400, "unregistration body must be a JSON object")
        reg_id = _string(doc, "registrationId")
        with self.lock:
            record = self.registrations.get(reg_id)
            if record is None or record["revoked"]:
                self.counts["unregistrations_unknown"] += 1
                return False
            record["revoked"], record["revoked_at"] = True, now()
            self.counts["unregistrations"] += 1
            return True

    def reject_sender(self, sender, rejected=True):
        with self.lock:
            (self.rejected.add if rejected else self.rejected.discard)(sender)
            return sorted(self.rejected)

    # --- Queue -----------------------------------------------------------

    def _new_id(self):
        self._message_counter += 1
        return "msg-%06d" % self._message_counter

    def enqueue(self, doc):
        """Adds plain or application messages; returns their ids."""
        if not isinstance(doc, dict):
            raise ProtocolError(400, "enqueue body must be a JSON object")
        count = doc.get("count", 1)
        if isinstance(count, bool) or not isinstance(count, int) or not 1 <= count <= 1000000:
            raise ProtocolError(400, "'count' must be an integer from 1 to 1000000")
        given_id = _string(doc, "id", required=False)
        directed = _string(doc, "directedCustomerId", required=False)
        if "registration_id" in doc:
            build = self._app_builder(doc, directed)
        else:
            build = self._plain_builder(doc, directed)
        with self.lock:
            ids = []
            for i in range(count):
                if given_id is None:
                    msg_id = self._new_id()
                else:
                    msg_id = given_id if count == 1 else "%s-%d" % (given_id, i + 1)
                if msg_id in self.pending:
                    raise ProtocolError(409, "message %r is already pending" % msg_id,
                                        enqueued=ids)
                message = build(msg_id)
                self.pending[msg_id] = message
                self.known_ids.add(msg_id)
                ids.append(msg_id)
            self.counts["enqueued"] += count
            return ids

    def _plain_builder(self, doc, directed):
        topic = _string(doc, "topic")
        if "payload_b64" in doc:
            payload = protocol.decode_b64(doc["payload_b64"], "'payload_b64'")
        else:
            text = doc.get("payload", "")
            if not isinstance(text, str):
                raise ProtocolError(400, "'payload' must be text (or use 'payload_b64')")
            payload = text.encode()
        return lambda msg_id: Message(msg_id, topic, payload, directed, "plain")

    def _app_builder(self, doc, directed):
        reg_id = _string(doc, "registration_id")
        sender = _string(doc, "sender")
        data = _string_map(doc, "data", required=False)
        key = _string(doc, "consolidation_key", required=False)
        topic = _string(doc, "topic", required=False) or protocol.APP_TOPIC
        if not topic.startswith(protocol.APP_TOPIC_PREFIX):
            raise ProtocolError(400, "an application message topic must start with %r"
                                % protocol.APP_TOPIC_PREFIX)
        with self.lock:
            record = self.registrations.get(reg_id)
            if record is None:
                raise ProtocolError(404, "no registration %r" % reg_id)
            if record["revoked"]:
                raise ProtocolError(404, "registration %r is revoked" % reg_id)
            record = dict(record)
        payload = protocol.app_envelope(reg_id, sender, record["appInfo"], data, key,
                                        record["appInstanceInfo"])
        directed = directed or record["customer"]
        return lambda msg_id: Message(msg_id, topic, payload, directed, "app", reg_id)

    def page(self, cursor, mutate=None):
        """One fetch page: (member texts, next cursor or None).

        Without a cursor the page starts a snapshot of what is pending now;
        a cursor "S.P" continues snapshot S at position P. Messages acknowledged
        since the snapshot are skipped. Asking for the same cursor twice gives
        the same walk, so a client that retries a page loses nothing.
        """
        with self.lock:
            if cursor is None:
                self._snapshot_counter += 1
                sid, pos = str(self._snapshot_counter), 0
                snapshot = list(self.pending)
                self.snapshots[sid] = snapshot
                while len(self.snapshots) > SNAPSHOTS_KEPT:
                    self.snapshots.popitem(last=False)
                self.counts["cycles"] += 1
            else:
                sid, _, pos_text = cursor.partition(".")
                snapshot = self.snapshots.get(sid)
                if snapshot is None or not pos_text.isdigit():
                    raise ProtocolError(404, "unknown or expired page cursor %r" % cursor)
                self.snapshots.move_to_end(sid)
                pos = int(pos_text)
            members = []
            pending = self.pending
            while pos < len(snapshot) and len(members) < self.page_size:
                message = pending.get(snapshot[pos])
                pos += 1
                if message is None:
                    continue
                members.append(message.member if mutate is None else mutate(message))
                message.offered += 1
            while pos < len(snapshot) and snapshot[pos] not in pending:
                pos += 1
            self.counts["pages"] += 1
            self.counts["offered"] += len(members)
            return members, ("%s.%d" % (sid, pos) if pos < len(snapshot) else None)

    def ack(self, msg_id, status, retry):
        """Records an outcome; a final one (retry false) removes the message."""
        with self.lock:
            pending = msg_id in self.pending
            if msg_id not in self.known_ids:
                flag = "unknown id"
            elif not pending:
                flag = "not pending"
            elif status not in protocol.KNOWN_STATUSES:
                flag = "unusual status"
            else:
                flag = None
            removed = pending and not retry
            if removed:
                del self.pending[msg_id]
            record = {"time": now(), "id": msg_id, "status": status, "retry": retry,
                      "removed": removed, "flag": flag}
            self.acks.append(record)
            self.acks_by_status[str(status)] += 1
            if flag:
                self.counts["acks_flagged"] += 1
            return dict(record, pending=len(self.pending))

    # --- Views -----------------------------------------------------------

    def record_request(self, entry):
        with self.lock:
            self.requests.append(entry)

    def count(self, name, n=1):
        with self.lock:
            self.counts[name] += n

    def view_pending(self, limit=None):
        with self.lock:
            messages = list(self.pending.values())[:limit]
            return [m.to_json() for m in messages]

    def view_registrations(self):
        with self.lock:
            return [dict(r) for r in self.registrations.values()]

    def view_acks(self, last=None):
        with self.lock:
            acks = list(self.acks)
        return acks[-last:] if last else acks

    def view_requests(self, last=None):
        with self.lock:
            requests = list(self.requests)
        return requests[-last:] if last else requests

    def stats(self, faults_fired):
        with self.lock:
            revoked = sum(1 for r in self.registrations.values() if r["revoked"])
            c = self.counts
            return {
                "pending": len(self.pending),
                "enqueued": c["enqueued"],
                "offered": c["offered"],
                "pages": c["pages"],
                "cycles": c["cycles"],
                "acks": sum(self.acks_by_status.values()),
                "acks_by_status": dict(self.acks_by_status),
                "acks_flagged": c["acks_flagged"],
                "registrations": {"active": len(self.registrations) - revoked,
                                  "revoked": revoked,
                                  "rejected": c["registrations_rejected"]},
                "unregistrations_unknown": c["unregistrations_unknown"],
                "requests": {k[4:]: v for k, v in c.items() if k.startswith("req_")},
                "signature_failures": c["signature_failures"],
                "faults_fired": dict(faults_fired),
                "rejected_senders": sorted(self.rejected),
                "page_size": self.page_size,
            }
