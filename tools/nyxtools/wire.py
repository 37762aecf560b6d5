"""The device's wire formulas, written once for every Python user: the mock
server checks requests with them and the tests compute expected bytes with
them. nyxd's own implementation is C++, so the two check each other."""

import base64
import hashlib
import hmac
import json

ACK_TOPIC = "cobalt.messaging.response"


def signature(secret, method, target, date, customer, body):
    """X-Device-Signature: the hex HMAC-SHA256 under the device secret of the
    method, the target (path and query), X-Device-Date, X-Device-Customer (or
    nothing) and the hex SHA-256 of the body, joined by line feeds."""
    text = "\n".join([method, target, date, customer or "", hashlib.sha256(body).hexdigest()])
    return hmac.new(secret.encode(), text.encode(), hashlib.sha256).hexdigest()


def ack_entry(msg_id, status, retry):
    """The outbound queue entry nyxd writes for a message's outcome, byte for
    byte: compact JSON, the response itself base64 in "payload"."""
    response = json.dumps({"response": {"id": msg_id, "status": status, "retry": retry}},
                          separators=(",", ":"))
    return json.dumps({"topic": ACK_TOPIC, "payload": base64.b64encode(response.encode()).decode(),
                       "gunzip": False, "options": {"flushTime": 1}}, separators=(",", ":"))
