"""The rig every run of nyxd outside a device stands on: a private
dbus-daemon, a device root with its provisioning files, and helpers that say
they serve by writing a ready file. Everything started here is stopped by its
own pid; nothing is looked up by name."""

import json
import os
import signal
import subprocess
import tempfile
import time


def wait_for(predicate, timeout, interval=0.05):
    """Polls `predicate` until it returns something true or `timeout` seconds
    have passed; returns its last value."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value or time.monotonic() >= deadline:
            return value
        time.sleep(interval)


def stop_process(proc, timeout=5.0):
    """SIGTERM, then SIGKILL after `timeout`; waits and returns the exit status."""
    if proc.poll() is None:
        proc.send_signal(signal.SIGTERM)
        try:
            proc.wait(timeout)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()
    return proc.returncode


def write_ready_file(path, record):
    """Writes `record` as JSON in one rename, so that a reader polling for the
    file never sees half of it."""
    fd, tmp = tempfile.mkstemp(dir=os.path.dirname(os.path.abspath(path)), prefix=".ready.")
    with os.fdopen(fd, "w", encoding="utf-8") as f:
        json.dump(record, f)
        f.write("\n")
    os.chmod(tmp, 0o644)
    os.replace(tmp, path)


def read_ready_file(path, proc, timeout=30.0):
    """The record `proc` writes to `path` once it serves. Raises RuntimeError
    when it ends first or writes nothing within `timeout` seconds."""
    def ready():
        if proc.poll() is not None:
            raise RuntimeError("%s ended with %s before it was ready" % (proc.args, proc.returncode))
        try:
            with open(path, encoding="utf-8") as f:
                return json.load(f)
        except (FileNotFoundError, ValueError):
            return None

    record = wait_for(ready, timeout, 0.02)
    if not record:
        raise RuntimeError("%s wrote no ready file %s" % (proc.args, path))
    return record


def start_helper(argv, ready, env, stdout=subprocess.DEVNULL, stdin=None, timeout=30.0):
    """Starts a helper with `--ready-file ready` added; returns (process, its
    ready record). A helper that never gets ready is stopped before the error."""
    proc = subprocess.Popen(list(argv) + ["--ready-file", ready], env=env, stdin=stdin,
                            stdout=stdout, stderr=subprocess.STDOUT)
    try:
        return proc, read_ready_file(ready, proc, timeout)
    except BaseException:
        stop_process(proc)
        raise


def bus_command(directory):
    """The argv of a private session bus listening in `directory`, printing its address."""
    return ["dbus-daemon", "--session", "--nofork", "--print-address=1",
            "--address=unix:tmpdir=" + directory]


class PrivateBus:
    """A dbus-daemon of our own; `address` goes into every child's environment.
    `prefix` runs it through a wrapper (taskset, say)."""

    name = "dbus-daemon"

    def __init__(self, directory, prefix=()):
        self.proc = subprocess.Popen(list(prefix) + bus_command(directory),
                                     stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.address = self.proc.stdout.readline().strip()
        self.proc.stdout.close()
        if not self.address.startswith("unix:"):
            self.stop()
            raise RuntimeError("dbus-daemon printed no address")

    @property
    def pid(self):
        return self.proc.pid

    def stop(self):
        stop_process(self.proc)


def make_device_root(root, serial, secret, customer):
    """The folders nyxd writes to and the provisioning files it reads, below `root`."""
    for sub in ("var/run", "var/local", "etc/nyx-host/tls"):
        os.makedirs(os.path.join(root, sub), exist_ok=True)
    for name, text in (("device-serial", serial), ("device-secret", secret),
                       ("customer", customer)):
        with open(os.path.join(root, "etc", "nyx-host", name), "w", encoding="utf-8") as f:
            f.write(text + "\n")


def device_env(bus_address, root, **extra):
    """This environment for a program of the private device: its bus, its
    root, the session bus even where HBUS_BUS says otherwise."""
    env = dict(os.environ)
    env.pop("HBUS_BUS", None)
    env.update(DBUS_SESSION_BUS_ADDRESS=bus_address, NYX_ROOT=root, PYTHONDONTWRITEBYTECODE="1",
               **extra)
    return env


def memory_kb(pid):
    """{"rss", "private_dirty"}: a process's resident and private dirty
    memory in KiB, all its mappings summed by the kernel."""
    values = {}
    with open("/proc/%d/smaps_rollup" % pid, encoding="ascii") as f:
        for line in f:
            fields = line.split()
            if len(fields) == 3 and fields[2] == "kB":
                values[fields[0]] = int(fields[1])
    return {"rss": values["Rss:"], "private_dirty": values["Private_Dirty:"]}
