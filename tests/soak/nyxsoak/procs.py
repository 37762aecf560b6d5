"""The supervisor that keeps nyxd running through a soak. The rest of the rig
(bus, root, helpers, memory) comes from nyxtools.rig."""

import signal
import subprocess
import threading
import time

from nyxtools import rig

from . import ledger

WAITING = "Waiting for tasks."


class Supervisor:
    """Runs nyxd and starts it again whenever it ends, as a service manager
    with Restart=on-failure would, and as the soak wants after a stop it
    asked for. Every line of every run goes to `lines` and to one log file.

    `stop` is the device supervisor's SIGTERM: repeated every few seconds
    (the daemon forgets a signal that arrives while it waits for work, when a
    task comes in before the wait ends) and forced with SIGKILL after
    `stop_timeout`.
    """

    def __init__(self, argv, env, log_path, stop_timeout=20.0):
        self._argv, self._env, self._stop_timeout = argv, env, stop_timeout
        self._log = open(log_path, "a", encoding="utf-8", errors="replace")
        self._cond = threading.Condition()
        self.lines, self.exits, self.starts = [], [], 0   # exits: a ledger.Exit per run
        self._proc, self._run_lines, self._last_line_at = None, [], 0.0
        self._requested, self._escalated, self._closing = None, False, False
        self._thread = threading.Thread(target=self._supervise, name="supervisor", daemon=True)

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
                lambda: self.pid is not None and any(WAITING in l for l in self._run_lines),
                timeout)

    def wait_idle(self, timeout, quiet=1.5):
        """Waits until nyxd is up, its last line says it waits for tasks and
        it has said nothing for `quiet` seconds."""
        def idle():
            with self._cond:
                return (self.pid is not None and self._run_lines[-1:] != []
                        and self._run_lines[-1].endswith(WAITING)
                        and time.monotonic() - self._last_line_at >= quiet)
        return rig.wait_for(idle, timeout, 0.2)

    def kill(self):
        """SIGKILL now, as a power cut or an out-of-memory kill would."""
        with self._cond:
            if self.pid is None:
                return False
            self._requested = "kill"
            self._proc.send_signal(signal.SIGKILL)
            return True

    def stop(self):
        """Asks the running nyxd to stop and waits until it has ended."""
        with self._cond:
            proc = self._proc
            if self.pid is None:
                return
            self._requested = "term"
        deadline = time.monotonic() + self._stop_timeout
        while proc.poll() is None:
            if time.monotonic() >= deadline:
                with self._cond:
                    self._escalated = True
                proc.send_signal(signal.SIGKILL)
            else:
                proc.send_signal(signal.SIGTERM)
            try:
                proc.wait(3.0)
            except subprocess.TimeoutExpired:
                pass

    def close(self):
        """Stops nyxd for good."""
        self._closing = True
        self.stop()
        self._thread.join(30.0)
        self._log.close()

    def _supervise(self):
        while True:
            with self._cond:
                if self._closing:
                    return
                proc = subprocess.Popen(self._argv, env=self._env, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
                self._proc, self._run_lines = proc, []
                self._requested, self._escalated = None, False
                self.starts += 1
                self._write("--- supervisor: started nyxd pid %d" % proc.pid)
            for raw in proc.stdout:
                text = raw.decode("utf-8", "replace").rstrip("\n")
                with self._cond:
                    self.lines.append(text)
                    self._run_lines.append(text)
                    self._last_line_at = time.monotonic()
                    self._write(text)
                    self._cond.notify_all()
            code = proc.wait()
            with self._cond:
                self.exits.append(ledger.Exit(proc.pid, code if code >= 0 else None,
                                              -code if code < 0 else None, self._requested,
                                              self._escalated, list(self._run_lines)))
                self._write("--- supervisor: nyxd pid %d ended with %s (requested %s)" % (
                    proc.pid, "status %d" % code if code >= 0 else "signal %d" % -code,
                    self._requested))
                self._cond.notify_all()
            time.sleep(0.5)

    def _write(self, text):
        self._log.write(text + "\n")
        self._log.flush()
