"""One cr-host process driven over its JSON-lines console; used by the soak
runs (soak/) and the cost measurements (bench/).

Several threads may send at once: each line is written whole under a lock,
and answers are matched to their sender by id. Policy runs and events that
cr-host writes on its own are kept in arrival order. The process's standard
error goes to NAME-stderr.txt and its log to NAME-log.txt in `folder`.
"""

import json
import os
import re
import signal
import subprocess
import threading
import time

# What a sanitizer writes when it finds something.
SANITIZER_REPORT = re.compile(
    r"ERROR: AddressSanitizer|ERROR: LeakSanitizer|WARNING: ThreadSanitizer|"
    r"ThreadSanitizer: reported|runtime error:|ERROR: UndefinedBehaviorSanitizer")


class Host:
    def __init__(self, crhost, state, folder, name="host"):
        self.folder = folder
        self.stderr_path = os.path.join(folder, f"{name}-stderr.txt")
        self.stderr = open(self.stderr_path, "ab")
        self.started = time.monotonic()
        self.process = subprocess.Popen(
            [crhost, "--state", state, "--log", os.path.join(folder, f"{name}-log.txt")],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.stderr, cwd=folder)
        self.pid = self.process.pid
        self.answers = {}
        self.runs = []    # policyRun objects in arrival order
        self.events = []  # event lines
        self.arrived = threading.Condition()
        self.send_lock = threading.Lock()
        self.next_id = 0
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for raw in self.process.stdout:
            try:
                line = json.loads(raw)
            except ValueError:
                continue
            with self.arrived:
                if isinstance(line, dict) and "id" in line:
                    self.answers[line["id"]] = line
                elif isinstance(line, dict) and "policyRun" in line:
                    self.runs.append(line["policyRun"])
                elif isinstance(line, dict) and "event" in line:
                    self.events.append(line)
                self.arrived.notify_all()
        with self.arrived:
            self.arrived.notify_all()

    def send(self, obj, ident=None):
        """Writes one line; returns its id, or None when the process is gone."""
        with self.send_lock:
            if ident is None:
                self.next_id += 1
                ident = self.next_id
            data = (json.dumps(dict(obj, id=ident)) + "\n").encode()
            try:
                self.process.stdin.write(data)
                self.process.stdin.flush()
            except (BrokenPipeError, ValueError, OSError):
                return None
        return ident

    def wait(self, ident, timeout):
        """The answer to `ident`, or None when none came within `timeout` s
        or the process ended without one."""
        deadline = time.monotonic() + timeout
        with self.arrived:
            while ident not in self.answers:
                left = deadline - time.monotonic()
                if left <= 0 or not self.reader.is_alive():
                    return None
                self.arrived.wait(min(left, 0.5))
            return self.answers[ident]

    def call(self, obj, timeout, ident=None):
        """(answer or None, seconds it took)."""
        sent = time.monotonic()
        ident = self.send(obj, ident)
        if ident is None:
            return None, time.monotonic() - sent
        answer = self.wait(ident, timeout)
        return answer, time.monotonic() - sent

    def method(self, name, request, timeout):
        return self.call({"method": name, "request": request}, timeout)

    def kill(self):
        """SIGKILL, then waits for the process and its output to end."""
        if self.process.poll() is None:
            os.kill(self.pid, signal.SIGKILL)
        self.process.wait()
        self.reader.join(10)

    def quit(self, timeout):
        """Asks cr-host to stop; its exit status, or None (then killed)."""
        self.send({"host": "quit"})
        try:
            self.process.stdin.close()
        except OSError:
            pass
        return self._ended(timeout)

    def terminate(self, timeout):
        """SIGTERM; the exit status, or None when the process had not ended
        within `timeout` s (it is then killed)."""
        if self.process.poll() is None:
            self.process.terminate()
        return self._ended(timeout)

    def _ended(self, timeout):
        """Waits for the process and its output to end: its exit status, or
        None when it had not ended within `timeout` s (it is then killed)."""
        try:
            status = self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.kill()
            return None
        self.reader.join(10)
        return status

    def close(self, gently=False):
        """Ends the process if it still runs: at once with SIGKILL, or
        `gently` by closing its input (cr-host then stops as on quit) and
        killing it only when it has not ended within 30 s."""
        if self.process.poll() is None:
            if gently:
                try:
                    self.process.stdin.close()
                    self.process.wait(30)
                except (subprocess.TimeoutExpired, OSError):
                    pass
            self.kill()
        self.stderr.close()

    def error_text(self):
        self.stderr.flush()
        with open(self.stderr_path, errors="replace") as f:
            return f.read()

    def sanitizer_reports(self):
        return [line for line in self.error_text().splitlines() if SANITIZER_REPORT.search(line)]
