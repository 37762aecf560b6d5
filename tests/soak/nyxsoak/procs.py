"""The supervisor that keeps nyxd running through a soak, and its memory
reading. The rest of the rig (bus, root, helpers) comes from nyxtools.rig.
"""

import os
import resource
import signal
import subprocess
import threading
import time

from nyxtools import rig

from . import ledger


class Supervisor:
    """Runs nyxd and starts it again whenever it ends, as a service manager
    with Restart=on-failure would, and as the soak wants after a stop it
    asked for. Its output goes to one log file and is kept per run, so that
    the soak can wait for a line and read why a run ended.

    `stop` is the device supervisor's SIGTERM: repeated every few seconds
    (the daemon forgets a signal that arrives while it waits for work, when a
    task comes in before the wait ends) and forced with SIGKILL after
    `stop_timeout`.
    """

    def __init__(self, argv, env, log_path, restart_delay=0.5, stop_timeout=20.0):
        self._argv, self._env = argv, env
        # An end nobody intended is easier to explain with its core file;
        # with the kernel's default pattern it lands in the working directory.
        self._cores = os.path.dirname(os.path.abspath(log_path))
        self._log = open(log_path, "a", encoding="utf-8", errors="replace")
        self._restart_delay, self._stop_timeout = restart_delay, stop_timeout
        self._cond = threading.Condition()
        self.lines = []           # every line of every run, in order
        self.last_line_at = time.monotonic()
        self.exits = []           # ledger.Exit per ended run
        self.starts = 0
        self._proc = None
        self._run_lines = []
        self._requested = None
        self._escalated = False
        self._held = False        # no restart while true
        self._closing = False
        self._thread = threading.Thread(target=self._supervise, name="supervisor", daemon=True)

    # --- control ---------------------------------------------------------

    def start(self, timeout=30.0):
        self._thread.start()
        if not self.wait_ready(timeout):
            raise RuntimeError("nyxd did not start:\n" + "\n".join(self.lines[-20:]))

    @property
    def pid(self):
        proc = self._proc
        return proc.pid if proc is not None and proc.poll() is None else None

    def wait_ready(self, timeout):
        """Waits until a run of nyxd has logged that it waits for tasks."""
        with self._cond:
            return self._cond.wait_for(
                lambda: self._proc is not None and self._proc.poll() is None
                and any("Waiting for tasks." in l for l in self._run_lines), timeout)

    def kill(self):
        """SIGKILL now, as a power cut or an out-of-memory kill would."""
        with self._cond:
            proc = self._proc
            if proc is None or proc.poll() is not None:
                return False
            self._requested = "kill"
            proc.send_signal(signal.SIGKILL)
            return True

    def stop(self, hold=False):
        """Asks the running nyxd to stop and waits until it has; with `hold`
        it is not started again until `release`."""
        with self._cond:
            self._held = hold
            proc = self._proc
            if proc is None or proc.poll() is not None:
                return
            self._requested = "term"
        deadline = time.monotonic() + self._stop_timeout
        while proc.poll() is None:
            if time.monotonic() >= deadline:
                with self._cond:
                    self._escalated = True
                proc.send_signal(signal.SIGKILL)
                proc.wait()
                break
            proc.send_signal(signal.SIGTERM)
            try:
                proc.wait(3.0)
            except subprocess.TimeoutExpired:
                pass
        with self._cond:
            self._cond.wait_for(lambda: proc is not self._proc or self._held, 10.0)

    def release(self):
        with self._cond:
            self._held = False
            self._cond.notify_all()

    def close(self):
        """Stops nyxd for good."""
        self._closing = True
        self.stop(hold=True)
        self._thread.join(30.0)
        self._log.close()

    # --- log -------------------------------------------------------------

    def line_count(self):
        with self._cond:
            return len(self.lines)

    def wait_line(self, needle, start, timeout):
        """Index of the first line from `start` on that contains `needle`, or None."""
        found = []

        def seen():
            for i in range(start, len(self.lines)):
                if needle in self.lines[i]:
                    found.append(i)
                    return True
            return False

        with self._cond:
            return found[0] if self._cond.wait_for(seen, timeout) else None

    def idle(self, quiet=1.5):
        """True when nyxd is up, its last line says it waits for tasks and it
        has said nothing for `quiet` seconds."""
        with self._cond:
            return (self.pid is not None and bool(self._run_lines)
                    and self._run_lines[-1].endswith("Waiting for tasks.")
                    and time.monotonic() - self.last_line_at >= quiet)

    def wait_idle(self, timeout, quiet=1.5):
        return rig.wait_for(lambda: self.idle(quiet), timeout, 0.2)

    # --- the supervising thread -----------------------------------------

    def _supervise(self):
        while True:
            with self._cond:
                self._cond.wait_for(lambda: not self._held or self._closing)
                if self._held:
                    return
                proc = subprocess.Popen(self._argv, env=self._env, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                        cwd=self._cores, preexec_fn=_allow_core_dumps)
                self._proc, self._run_lines = proc, []
                self._requested, self._escalated = None, False
                self.starts += 1
                self._write("--- supervisor: started nyxd pid %d" % proc.pid)
            for raw in proc.stdout:
                text = raw.decode("utf-8", "replace").rstrip("\n")
                with self._cond:
                    self.lines.append(text)
                    self._run_lines.append(text)
                    self.last_line_at = time.monotonic()
                    self._write(text)
                    self._cond.notify_all()
            proc.wait()
            code = proc.returncode
            core = os.path.join(self._cores, "core")
            if os.path.exists(core):
                os.replace(core, "%s.%d" % (core, proc.pid))
            with self._cond:
                end = ledger.Exit(proc.pid, code if code >= 0 else None,
                                  -code if code < 0 else None, self._requested,
                                  self._escalated, list(self._run_lines))
                self.exits.append(end)
                self._write("--- supervisor: nyxd pid %d ended with %s%s" % (
                    proc.pid, "status %d" % code if code >= 0 else "signal %d" % -code,
                    " (requested %s)" % self._requested if self._requested else ""))
                self._cond.notify_all()
                if self._closing and self._held:
                    return
            time.sleep(self._restart_delay)

    def _write(self, text):
        self._log.write(text + "\n")
        self._log.flush()


def _allow_core_dumps():
    _, hard = resource.getrlimit(resource.RLIMIT_CORE)
    resource.setrlimit(resource.RLIMIT_CORE, (hard, hard))
