"""Shared code of the device simulators.

The simulators stand in for the device services that nyxd talks to over the
property bus: each owns a bus name (or, like an application, only its unique
name), exports `/hbus` with the interface `hbus.Properties` and answers the
four property methods with the bus's own error names. Everything here runs on
the GLib main loop of the simulator's main thread; only `Output` is also used
from helper threads.
"""

import argparse
import datetime
import json
import os
import re
import signal
import sys
import threading
import time
import traceback

# The simulators run from the source tree; the rig they share with the other
# tools is one folder up.
sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
from nyxtools import bus, rig  # noqa: E402
from nyxtools.bus import INTERFACE, OBJECT_PATH  # noqa: E402
from gi.repository import Gio, GLib  # noqa: E402  (versions asked for by nyxtools.bus)
ERROR_NO_SUCH_PROPERTY = "hbus.Error.NoSuchProperty"
ERROR_STATUS = "hbus.Error.Status"

# Exit statuses shared by all simulators (argparse uses 2 for usage errors).
EXIT_BUS_FAILURE = 1
EXIT_NAME_TAKEN = 3

# Statuses a property write returns to its caller, as the bus library maps
# them; a simulator that writes into another service reports these numbers.
STATUS_OK = 0
STATUS_FAILED = 1
STATUS_NO_OWNER = 3
STATUS_NO_PROPERTY = 8

STATUS_TEXT = {
    STATUS_OK: "ok",
    STATUS_FAILED: "no answer in time or other failure",
    STATUS_NO_OWNER: "no such service",
    STATUS_NO_PROPERTY: "no such property",
}

_NO_OWNER_ERRORS = {
    "org.freedesktop.DBus.Error.ServiceUnknown",
    "org.freedesktop.DBus.Error.NameHasNoOwner",
}
_NO_PROPERTY_ERRORS = {
    ERROR_NO_SUCH_PROPERTY,
    "org.freedesktop.DBus.Error.UnknownObject",
    "org.freedesktop.DBus.Error.UnknownInterface",
    "org.freedesktop.DBus.Error.UnknownMethod",
}

_INTROSPECTION = """
<node>
  <interface name="hbus.Properties">
    <method name="SetString">
      <arg name="property" type="s" direction="in"/>
      <arg name="value" type="s" direction="in"/>
    </method>
    <method name="SetInt">
      <arg name="property" type="s" direction="in"/>
      <arg name="value" type="i" direction="in"/>
    </method>
    <method name="GetString">
      <arg name="property" type="s" direction="in"/>
      <arg name="value" type="s" direction="out"/>
    </method>
    <method name="GetInt">
      <arg name="property" type="s" direction="in"/>
      <arg name="value" type="i" direction="out"/>
    </method>
  </interface>
</node>
"""

# method name -> (property type, is a write)
_METHODS = {
    "SetString": ("s", True),
    "SetInt": ("i", True),
    "GetString": ("s", False),
    "GetInt": ("i", False),
}


class BusFailure(Exception):
    """The bus cannot be reached, or the simulator's name cannot be owned."""

    def __init__(self, message, exit_status=EXIT_BUS_FAILURE):
        super().__init__(message)
        self.exit_status = exit_status


class HbusStatus(Exception):
    """Raised by a property handler to answer with `hbus.Error.Status`."""

    def __init__(self, status):
        super().__init__(str(status))
        self.status = int(status)


# ---------------------------------------------------------------------------
# Output


class Output:
    """One line per event on standard output, readable or JSON, plus an
    optional JSON-lines log file. Safe to call from any thread."""

    def __init__(self, json_mode=False, log_path=None):
        self._json = json_mode
        self._lock = threading.Lock()
        self._log = open(log_path, "a", encoding="utf-8") if log_path else None
        sys.stdout.reconfigure(line_buffering=True)

    def event(self, kind, text, **fields):
        """Prints one event: `text` for people, `kind` and `fields` for --json."""
        if self._json:
            record = {"time": round(time.time(), 3), "event": kind}
            record.update(fields)
            line = json.dumps(record, ensure_ascii=False)
        else:
            line = datetime.datetime.now().strftime("%H:%M:%S.%f")[:-3] + " " + text
        with self._lock:
            try:
                print(line)
            except BrokenPipeError:
                # Whoever read our output has gone (`| head`); the service
                # itself keeps answering on the bus.
                devnull = os.open(os.devnull, os.O_WRONLY)
                os.dup2(devnull, sys.stdout.fileno())
                os.close(devnull)

    def log(self, record):
        """Appends one JSON line to the --log file, if there is one."""
        if self._log is None:
            return
        line = dict(record)
        line.setdefault("time", round(time.time(), 3))
        with self._lock:
            self._log.write(json.dumps(line, ensure_ascii=False) + "\n")
            self._log.flush()

    def error(self, text):
        with self._lock:
            print(text, file=sys.stderr, flush=True)

    def close(self):
        if self._log is not None:
            self._log.close()
            self._log = None


def quote(text):
    """Text for a one-line event: bare when it is a plain word, else a JSON string."""
    if text and re.fullmatch(r"[\w.:/@+,-]+", text):
        return text
    return json.dumps(text, ensure_ascii=False)


def is_compact(text):
    """True when the JSON text has no white space outside its strings."""
    in_string = escaped = False
    for ch in text:
        if in_string:
            if escaped:
                escaped = False
            elif ch == "\\":
                escaped = True
            elif ch == '"':
                in_string = False
        elif ch == '"':
            in_string = True
        elif ch in " \t\r\n":
            return False
    return True


def describe_bytes(data):
    """(kind, shown) for a payload: ("text", str) when it is printable UTF-8,
    ("hex", lower-case hex) otherwise."""
    try:
        text = data.decode("utf-8")
    except UnicodeDecodeError:
        return "hex", data.hex()
    if all(ch.isprintable() or ch in "\t\n\r" for ch in text):
        return "text", text
    return "hex", data.hex()


# ---------------------------------------------------------------------------
# Connecting and owning a name


def bus_type():
    return Gio.BusType.SYSTEM if os.environ.get("HBUS_BUS") == "system" else Gio.BusType.SESSION


def connect():
    """Connects to the session bus, or the system bus with HBUS_BUS=system.
    Raises BusFailure when the bus cannot be reached."""
    which = "system" if bus_type() == Gio.BusType.SYSTEM else "session"
    try:
        conn = Gio.bus_get_sync(bus_type(), None)
    except GLib.Error as err:
        raise BusFailure(f"cannot reach the {which} bus: {err.message}") from None
    # The default would raise SIGTERM on ourselves when the bus goes away;
    # the simulators report it and exit on their own instead.
    conn.set_exit_on_close(False)
    return conn


def own_name(conn, name):
    """Owns `name` without queueing. Raises BusFailure (exit status 3) when
    another connection owns it already."""
    try:
        reply = conn.call_sync(
            "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "RequestName", GLib.Variant("(su)", (name, 4)),  # 4: do not queue
            GLib.VariantType.new("(u)"), Gio.DBusCallFlags.NONE, -1, None)
    except GLib.Error as err:
        raise BusFailure(f"cannot own the name {name}: {err.message}") from None
    result = reply.unpack()[0]
    if result in (1, 4):  # primary owner, or already ours
        return
    owner = "another connection"
    try:
        owner = conn.call_sync(
            "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "GetNameOwner", GLib.Variant("(s)", (name,)), GLib.VariantType.new("(s)"),
            Gio.DBusCallFlags.NONE, -1, None).unpack()[0]
    except GLib.Error:
        pass
    raise BusFailure(f"the name {name} is already owned by {owner}", EXIT_NAME_TAKEN)


def valid_service_name(text):
    """argparse type for a well-known bus name."""
    if text.startswith(":") or not Gio.dbus_is_name(text):
        raise argparse.ArgumentTypeError(f"{text!r} is not a valid D-Bus well-known name")
    return text


def write_ready_file(path, name, conn):
    """Writes {"name", "unique_name", "pid"} atomically, so that a reader
    polling for the file never sees half of it."""
    rig.write_ready_file(path, {"name": name, "unique_name": conn.get_unique_name(),
                                "pid": os.getpid()})


# ---------------------------------------------------------------------------
# The exported /hbus object


class Property:
    """One typed property: `signature` is "s" or "i". `on_write(prop, value,
    sender)` runs for an accepted write after the value is stored; it may raise
    HbusStatus. `faults` (a Faults) can delay or refuse writes."""

    def __init__(self, name, signature, value, on_write=None, faults=None):
        self.name = name
        self.signature = signature
        self.value = value
        self.on_write = on_write
        self.faults = faults


class HbusObject:
    """The `/hbus` object of one connection with a table of typed properties.

    A call for a property that is not in the table, or that has the other
    type, is answered with `hbus.Error.NoSuchProperty`. `read_hook(prop_name,
    signature)` may raise HbusStatus to make reads fail."""

    def __init__(self, conn, output):
        self._conn = conn
        self._out = output
        self._props = {}
        self._registration = 0
        self.read_hook = None

    def add(self, prop):
        self._props[prop.name] = prop
        return prop

    def export(self):
        info = Gio.DBusNodeInfo.new_for_xml(_INTROSPECTION).interfaces[0]
        self._registration = self._conn.register_object(OBJECT_PATH, info, self._on_call, None, None)

    def unexport(self):
        if self._registration:
            self._conn.unregister_object(self._registration)
            self._registration = 0

    def _on_call(self, conn, sender, path, interface, method, params, invocation):
        signature, is_write = _METHODS[method]
        args = params.unpack()
        name = args[0]
        prop = self._props.get(name)
        try:
            if not is_write and self.read_hook is not None:
                self.read_hook(name, signature)
            if prop is None or prop.signature != signature:
                invocation.return_dbus_error(ERROR_NO_SUCH_PROPERTY, f"no {signature} property {name}")
                return
            if not is_write:
                invocation.return_value(GLib.Variant(f"({signature})", (prop.value,)))
                return
        except HbusStatus as status:
            invocation.return_dbus_error(ERROR_STATUS, str(status.status))
            return
        value = args[1]
        faults = prop.faults
        if faults is not None and faults.hang > 0:
            self._out.event("hang", f"holding the write of {name} for {faults.hang:g} s",
                            property=name, seconds=faults.hang, sender=sender)
            GLib.timeout_add(int(faults.hang * 1000), self._finish_write, prop, value, sender, invocation)
        else:
            self._finish_write(prop, value, sender, invocation)

    def _finish_write(self, prop, value, sender, invocation):
        # The fault is read when the answer goes out, so that a control write
        # during a hang decides the answer of the writes being held.
        faults = prop.faults
        if faults is not None and faults.refuse != 0:
            self._out.event("refused", f"refused the write of {prop.name} with status {faults.refuse}",
                            property=prop.name, status=faults.refuse, sender=sender)
            invocation.return_dbus_error(ERROR_STATUS, str(faults.refuse))
            return False
        old = prop.value
        prop.value = value
        try:
            if prop.on_write is not None:
                prop.on_write(prop, value, sender)
        except HbusStatus as status:
            prop.value = old
            invocation.return_dbus_error(ERROR_STATUS, str(status.status))
            return False
        except Exception:  # a simulator bug must not take the service down
            prop.value = old
            self._out.error(traceback.format_exc().rstrip())
            invocation.return_dbus_error(ERROR_STATUS, str(STATUS_FAILED))
            return False
        invocation.return_value(None)
        return False  # one-shot when run from a timeout


class Faults:
    """Refusal and delay of writes, set from the command line and changed at
    run time through the integer control properties "refuseStatus" (0 =
    accept) and "hangSeconds" on the simulator's own `/hbus`."""

    def __init__(self, output, refuse=0, hang=0.0):
        self._out = output
        self.refuse = refuse
        self.hang = hang

    @staticmethod
    def add_arguments(parser):
        parser.add_argument("--refuse", type=int, default=0, metavar="N",
                            help="answer every write with hbus.Error.Status N (0 = accept; "
                                 "changed at run time by SetInt refuseStatus)")
        parser.add_argument("--hang", type=non_negative_float, default=0.0, metavar="S",
                            help="wait S seconds before answering each write (nyxd gives up "
                                 "after 10 s; changed at run time by SetInt hangSeconds)")

    def install(self, obj):
        obj.add(Property("refuseStatus", "i", self.refuse, on_write=self._set_refuse))
        obj.add(Property("hangSeconds", "i", int(self.hang), on_write=self._set_hang))

    def _set_refuse(self, prop, value, sender):
        self.refuse = value
        text = "accept writes" if value == 0 else f"refuse writes with status {value}"
        self._out.event("control", f"control: refuseStatus = {value} ({text})",
                        property=prop.name, value=value, sender=sender)

    def _set_hang(self, prop, value, sender):
        if not 0 <= value <= 86400:  # GLib timeouts count milliseconds in 32 bits
            raise HbusStatus(STATUS_FAILED)
        self.hang = float(value)
        self._out.event("control", f"control: hangSeconds = {value}",
                        property=prop.name, value=value, sender=sender)


def non_negative_float(text):
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"{text!r} is not a number") from None
    if not 0 <= value <= 86400:
        raise argparse.ArgumentTypeError(f"{text!r} is not between 0 and 86400 seconds")
    return value


# ---------------------------------------------------------------------------
# Writing properties of other services


def status_of_error(err):
    """The bus status of a failed call, as the bus library reports it."""
    if err.matches(Gio.io_error_quark(), Gio.IOErrorEnum.TIMED_OUT):
        return STATUS_FAILED
    match = re.match(r"GDBus\.Error:([^\s:]+):? ?(.*)\Z", err.message or "", re.DOTALL)
    if not match:
        return STATUS_FAILED
    name, text = match.group(1), match.group(2).strip()
    if name in _NO_OWNER_ERRORS:
        return STATUS_NO_OWNER
    if name in _NO_PROPERTY_ERRORS:
        return STATUS_NO_PROPERTY
    if name == ERROR_STATUS:
        try:
            return int(text, 10)
        except ValueError:
            return STATUS_FAILED
    return STATUS_FAILED


def call_timeout_ms():
    try:
        return int(os.environ.get("HBUS_TIMEOUT_MS", "10000"))
    except ValueError:
        return 10000


def set_property(conn, service, prop, value, on_done):
    """Writes a property of another service without blocking the main loop.
    `value` is a str (SetString) or an int (SetInt); `on_done(status)` runs on
    the main loop with the bus status (0 = accepted)."""
    if not Gio.dbus_is_name(service):
        def report():
            on_done(STATUS_NO_OWNER)
            return GLib.SOURCE_REMOVE

        GLib.idle_add(report)
        return
    method = "SetInt" if isinstance(value, int) else "SetString"
    params = bus.parameters(method, prop, value)

    def finished(source, result):
        try:
            conn.call_finish(result)
            status = STATUS_OK
        except GLib.Error as err:
            status = status_of_error(err)
        on_done(status)

    conn.call(service, OBJECT_PATH, INTERFACE, method, params, None,
              Gio.DBusCallFlags.NONE, call_timeout_ms(), None, finished)


def status_text(status):
    return STATUS_TEXT.get(status, "refused by the service")


# ---------------------------------------------------------------------------
# Running


def add_common_arguments(parser):
    parser.add_argument("--json", action="store_true",
                        help="print one JSON object per line instead of readable lines")
    parser.add_argument("--log", metavar="FILE",
                        help="append a JSON line per received value to FILE")
    parser.add_argument("--ready-file", metavar="FILE",
                        help='write {"name", "unique_name", "pid"} as JSON to FILE once the '
                             "bus name is owned")


class Simulator:
    """Connects, exports `/hbus`, owns the name, writes the ready file and runs
    the main loop until SIGINT or SIGTERM or the bus goes away.

    `setup(sim)` runs after the object is made and before it is exported, to
    add properties; `started(sim)` runs once the name is owned."""

    def __init__(self, args, name=None):
        self.args = args
        self.name = name  # None: the unique name is the service name
        self.out = Output(args.json, args.log)
        self.conn = None
        self.obj = None
        self.loop = GLib.MainLoop()
        self.exit_status = 0
        self._stoppers = []

    def on_stop(self, fn):
        self._stoppers.append(fn)

    def stop(self, status=0):
        self.exit_status = status
        self.loop.quit()

    def run(self, setup, started=None):
        try:
            self.conn = connect()
            self.obj = HbusObject(self.conn, self.out)
            setup(self)
            # Export before owning the name: a call that arrives the moment the
            # name is ours must find the object.
            self.obj.export()
            if self.name is not None:
                own_name(self.conn, self.name)
        except BusFailure as failure:
            self.out.error(f"{os.path.basename(sys.argv[0])}: {failure}")
            return failure.exit_status
        service = self.name or self.conn.get_unique_name()
        self.conn.connect("closed", self._on_closed)
        for signum in (signal.SIGINT, signal.SIGTERM):
            GLib.unix_signal_add(GLib.PRIORITY_HIGH, signum, self._on_signal, signum)
        if self.args.ready_file:
            write_ready_file(self.args.ready_file, service, self.conn)
        self.out.event("ready", f"serving {service} (unique name {self.conn.get_unique_name()}, "
                                f"pid {os.getpid()})",
                       name=service, unique_name=self.conn.get_unique_name(), pid=os.getpid())
        if started is not None:
            started(self)
        self.loop.run()
        for fn in self._stoppers:
            fn()
        self.obj.unexport()
        if not self.conn.is_closed():
            try:
                self.conn.flush_sync(None)
            except GLib.Error:
                pass
        self.out.event("stopped", "stopped")
        self.out.close()
        return self.exit_status

    def _on_signal(self, signum):
        self.out.event("signal", f"received {signal.Signals(signum).name}, stopping",
                       signal=signal.Signals(signum).name)
        self.stop(0)
        return GLib.SOURCE_REMOVE

    def _on_closed(self, conn, remote_peer_vanished, error):
        reason = error.message if error is not None else "closed"
        self.out.error(f"{os.path.basename(sys.argv[0])}: lost the bus connection: {reason}")
        self.stop(EXIT_BUS_FAILURE)
