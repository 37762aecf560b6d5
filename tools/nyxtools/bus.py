"""Calls on the property bus through GDBus: every device service exports
`/hbus` with the interface `hbus.Properties` and its four methods."""

import gi

gi.require_version("Gio", "2.0")
gi.require_version("GLib", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

OBJECT_PATH = "/hbus"
INTERFACE = "hbus.Properties"
DAEMON = "cobalt.device.messaging"
SHELL = "com.corvid.shell"
OUTBOX = "com.corvid.outbox"


def connect(address):
    """A connection of its own to the bus at `address`, with a unique name."""
    return Gio.DBusConnection.new_for_address_sync(
        address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
        | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)


def parameters(method, prop, value=None):
    """The method's arguments: SetInt and SetString take the property and a
    value, GetInt and GetString the property alone."""
    if method.startswith("Get"):
        return GLib.Variant("(s)", (prop,))
    return GLib.Variant("(si)" if method == "SetInt" else "(ss)", (prop, value))


def call(conn, service, method, prop, value=None, timeout_ms=3000):
    """Calls `method` on `service` and waits; returns what it answered as a
    tuple. Raises GLib.Error with the bus's error name in its message."""
    return conn.call_sync(service, OBJECT_PATH, INTERFACE, method,
                          parameters(method, prop, value), None, Gio.DBusCallFlags.NONE,
                          timeout_ms, None).unpack()


def write(conn, service, prop, value, timeout_ms=3000):
    """Writes an int or a string property; 0 when accepted, else the error's text."""
    try:
        call(conn, service, "SetInt" if isinstance(value, int) else "SetString", prop, value,
             timeout_ms)
        return 0
    except GLib.Error as error:
        return error.message
