"""Wire-level rules shared by the server and its tests.

Everything here is a pure function: the request signature the device
computes, the CRC and JSON form of a message in a fetch page, the outbound
queue entry that acknowledges a message, and the dynconfig file format.
"""

import base64
import binascii
import hmac
import json
import os
import tempfile
import zlib

from nyxtools.wire import ACK_TOPIC, signature

HEADER_SERIAL = "X-Device-Serial"
HEADER_DATE = "X-Device-Date"
HEADER_CUSTOMER = "X-Device-Customer"
HEADER_SIGNATURE = "X-Device-Signature"

APP_TOPIC = "cobalt.device.messaging.nyx"
APP_TOPIC_PREFIX = "cobalt.device.messaging."
FINAL_STATUSES = (1, 103)
KNOWN_STATUSES = (1, 103, 200)

DYNCONFIG_KEYS = {
    "register": "url.devicemessaging.registration",
    "unregister": "url.devicemessaging.unregistration",
    "fetch": "url.devicemessaging.getmessages",
}

PATHS = {
    "register": "/v1/registrations",
    "unregister": "/v1/unregistrations",
    "fetch": "/v1/messages",
}


class ProtocolError(Exception):
    """A request that breaks the protocol; `status` is the HTTP answer."""

    def __init__(self, status, message, doc=None, **extra):
        super().__init__(message)
        self.status = status
        self.doc = doc
        self.extra = extra

    def body(self):
        """The JSON answer: doc when given, else {"error": message, **extra}."""
        if self.doc is not None:
            return self.doc
        doc = {"error": str(self)}
        doc.update(self.extra)
        return doc


# --- Request signatures ---------------------------------------------------

def origin_form(target):
    """The path-query of a request target.

    A request that went through a proxy arrives in absolute form
    (http://host:port/path?q); the device signed only the path and query.
    """
    for scheme in ("http://", "https://"):
        if target[: len(scheme)].lower() == scheme:
            rest = target[len(scheme):]
            cut = min((i for i in (rest.find("/"), rest.find("?")) if i >= 0),
                      default=len(rest))
            path = rest[cut:]
            return path if path.startswith("/") else "/" + path
    return target


def read_first_line(path):
    """First line of a platform file without its line ending; None if absent."""
    try:
        with open(path, "rb") as f:
            line = f.readline()
    except FileNotFoundError:
        return None
    return line.rstrip(b"\r\n").decode("utf-8", "replace")


def verify(root, method, target, headers, body):
    """Checks a request's signature against the device secret under root.

    headers is a case-insensitive mapping (http.client's message object).
    Returns None when the request is authentic, else the reason it is not.
    The secret and serial are read at every call so that a test may change
    them while the server runs.
    """
    for name in (HEADER_SERIAL, HEADER_DATE, HEADER_SIGNATURE):
        if not headers.get(name):
            return "missing header " + name
    host_dir = os.path.join(root, "etc", "nyx-host")
    secret = read_first_line(os.path.join(host_dir, "device-secret"))
    if not secret:
        return "no device secret in " + os.path.join(host_dir, "device-secret")
    serial = read_first_line(os.path.join(host_dir, "device-serial"))
    if serial and headers.get(HEADER_SERIAL) != serial:
        return "serial %r is not the device's %r" % (headers.get(HEADER_SERIAL), serial)
    expected = signature(secret, method, origin_form(target), headers.get(HEADER_DATE),
                    headers.get(HEADER_CUSTOMER), body)
    if not hmac.compare_digest(expected, headers.get(HEADER_SIGNATURE).strip()):
        return "signature does not match"
    return None


# --- Messages -------------------------------------------------------------

def crc_of(topic, payload):
    """CRC-32 of the topic bytes followed by the payload bytes, unsigned."""
    return zlib.crc32(payload, zlib.crc32(topic.encode())) & 0xFFFFFFFF


def message_member(msg_id, topic, payload_b64, crc, directed=None, drop=None):
    """The JSON text of one element of a page's "messages" array.

    drop leaves one member out, to serve a deliberately broken page.
    """
    inner = {"id": msg_id, "topic": topic, "payload": payload_b64, "crc": crc}
    if directed:
        inner["directedCustomerId"] = directed
    if drop:
        inner.pop(drop, None)
    return json.dumps({"message": inner}, separators=(",", ":"))


def page_body(members, next_page):
    """A fetch answer made of pre-rendered message members."""
    tail = "]" if next_page is None else "],\"nextPage\":" + json.dumps(next_page)
    return "{\"messages\":[" + ",".join(members) + tail + "}"


def app_envelope(registration_id, sender, app_info, data, consolidation_key=None,
                 app_instance_info=None):
    """The payload of an application message for one registration."""
    doc = {"registrationId": registration_id, "senderId": sender, "appInfo": app_info}
    if app_instance_info:
        doc["appInstanceInfo"] = app_instance_info
    if consolidation_key is not None:
        doc["consolidationKey"] = consolidation_key
    doc["data"] = data
    return json.dumps(doc, separators=(",", ":")).encode()


# --- Acknowledgements -----------------------------------------------------

def decode_b64(text, what):
    if not isinstance(text, str):
        raise ProtocolError(400, what + " must be a base64 string")
    try:
        return base64.b64decode(text, validate=True)
    except (binascii.Error, ValueError):
        raise ProtocolError(400, what + " is not valid base64") from None


def decode_ack(entry):
    """Reads an outbound queue entry; returns (id, status, retry).

    The entry is what the daemon hands to the outbound-message service:
    {"topic":"cobalt.messaging.response","payload":base64 of
    {"response":{"id":..,"status":..,"retry":..}},"gunzip":false,...}.
    """
    if not isinstance(entry, dict):
        raise ProtocolError(400, "ack body must be a JSON object")
    if entry.get("topic") != ACK_TOPIC:
        raise ProtocolError(400, "ack topic must be %r, got %r" % (ACK_TOPIC, entry.get("topic")))
    raw = decode_b64(entry.get("payload"), "ack payload")
    try:
        response = json.loads(raw)["response"]
    except (ValueError, TypeError, KeyError):
        raise ProtocolError(400, "ack payload is not {\"response\":{...}} JSON") from None
    if not isinstance(response, dict):
        raise ProtocolError(400, "ack \"response\" must be an object")
    msg_id, status, retry = response.get("id"), response.get("status"), response.get("retry")
    if not isinstance(msg_id, str):
        raise ProtocolError(400, "ack response \"id\" must be a string")
    if not isinstance(status, int) or isinstance(status, bool):
        raise ProtocolError(400, "ack response \"status\" must be an integer")
    if not isinstance(retry, bool):
        raise ProtocolError(400, "ack response \"retry\" must be true or false")
    return msg_id, status, retry


# --- Files under the device root -----------------------------------------

def write_atomically(path, data):
    """Replaces path by data so that a reader never sees half a file."""
    directory = os.path.dirname(path) or "."
    fd, tmp = tempfile.mkstemp(dir=directory, prefix="." + os.path.basename(path) + ".")
    try:
        with os.fdopen(fd, "wb") as f:
            f.write(data if isinstance(data, bytes) else data.encode())
        os.chmod(tmp, 0o644)
        os.replace(tmp, path)
    except BaseException:
        try:
            os.unlink(tmp)
        except OSError:
            pass
        raise


def update_dynconfig(path, values):
    """Sets keys in a dynconfig file, keeping every other line as it was.

    Earlier lines for the keys are dropped rather than shadowed, so the file
    reads the same to a person as to the device (where a later line wins).
    """
    try:
        with open(path, encoding="utf-8") as f:
            lines = f.read().splitlines()
    except FileNotFoundError:
        lines = []
    kept = []
    for line in lines:
        stripped = line.strip()
        if stripped and not stripped.startswith("#") and "=" in stripped:
            if stripped.split("=", 1)[0].strip() in values:
                continue
        kept.append(line)
    kept += ["%s=%s" % (k, v) for k, v in values.items()]
    write_atomically(path, "\n".join(kept) + "\n")
