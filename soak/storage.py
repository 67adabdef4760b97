"""Storage faults under cr-host's state file.

  full disk   the state file on a 1 MiB tmpfs, filled up to the last byte
              while cr-host runs;
  immutable   the state file marked immutable (chattr +i);
  read-only   the tmpfs remounted read-only;
  cut file    a file written by a session of commands, cut at every line
              boundary and in the middle of every line.

While saving fails, every command that changes something answers either 0
(and then what it stored is in the file) or a failure (and then cr-host's
memory and the file are unchanged); cr-host keeps answering; once the fault
is gone, commands succeed again and a restart resumes the last acknowledged
state. A cut file either opens at its last complete commit, exactly what this
folder's own reader finds in it, or is refused (exit status 3) with a reason
and left untouched; nothing crashes.

Needs root (mount, chattr). Every mount is undone on the way out.
"""

import os
import shutil
import subprocess
import time

import state_file
import workload
from crhost_console import Host

ANSWER_BOUND = 30.0


class StorageSoak:
    def __init__(self, crhost, folder, report):
        self.crhost = crhost
        self.folder = folder
        self.report = report
        self.files = os.path.join(folder, "files")
        os.makedirs(self.files, exist_ok=True)
        self.pool = workload.rule_pool(self.files)
        self.mounts = []
        self.figures = {"full_failed": 0, "full_ok": 0, "immutable_failed": 0, "readonly_failed": 0,
                        "cuts": 0, "cuts_opened": 0, "cuts_refused": 0, "violations": 0}

    def fail(self, text):
        self.figures["violations"] += 1
        self.report(text)

    # --- helpers ----------------------------------------------------------------

    def mount_tmpfs(self, name, size="1m"):
        point = os.path.join(self.folder, name)
        os.makedirs(point)
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size}", "tmpfs", point], check=True)
        self.mounts.append(point)
        return point

    def unmount_all(self):
        for point in reversed(self.mounts):
            for path in (os.path.join(point, "state.json"),):
                subprocess.run(["chattr", "-i", path], capture_output=True)
            subprocess.run(["umount", "-l", point], capture_output=True)
        self.mounts = []

    def memory(self, host):
        """What cr-host answers for rules, method sets and the enabled flag
        (None when it does not answer)."""
        rules, _ = host.method("GetRules", {}, ANSWER_BOUND)
        ids, _ = host.method("GetMethodSetIds", {}, ANSWER_BOUND)
        enabled, _ = host.method("IsEnabled", {}, ANSWER_BOUND)
        if None in (rules, ids, enabled):
            return None
        sets = {}
        for ident in ids["response"].get("ids", []):
            got, _ = host.method("GetMethodSet", {"id": ident}, ANSWER_BOUND)
            if got is None:
                return None
            sets[ident] = {"displayName": got["response"].get("displayName"),
                           "methods": got["response"].get("methods")}
        return {"rules": rules["response"].get("rules"), "methodSets": sets,
                "enabled": enabled["response"].get("enabled")}

    def stored(self, path):
        try:
            return state_file.read_state(path).summary()
        except state_file.Unreadable as e:
            self.fail(f"{path} cannot be read: {e}")
            return None

    @staticmethod
    def comparable(summary):
        """Method sets as GetMethodSet answers them (it leaves out the
        display name) and the rest as stored."""
        if summary is None:
            return None
        return {"rules": summary["rules"], "enabled": summary["enabled"],
                "methodSets": {k: v["methods"] for k, v in summary["methodSets"].items()}}

    def commands(self, rng, big=False):
        """Commands that each change what is stored."""
        rules = workload.random_rules(rng, self.pool, changed=True) or [dict(self.pool[0])]
        if big:  # a rule set too large for any free space left
            rules = []
            for k in range(300):
                r = dict(self.pool[k % len(self.pool)])
                r["id"] = f"big{k}"
                r["displayName"] = "x" * 200
                rules.append(r)
        method_set = workload.random_method_set(rng)
        if big:
            method_set["methods"] = [{"plugin": "P", "method": f"m{k}-" + "y" * 100} for k in range(100)]
        return [("SetRules", {"rules": rules}),
                ("SetMethodSet", method_set),
                ("SetEnabled", {"enabled": False}),
                ("SetEnabled", {"enabled": True}),
                ("DeleteMethodSet", {"id": rng.choice(workload.METHOD_SET_IDS)})]

    def faulty_saves(self, host, state, rng, figure):
        """Sends changes while saving fails; checks each answer against
        memory and file. Returns how many failed. A command may still
        answer 0 when it had nothing to store (SetEnabled(true) while
        enabled) or, on a full disk, when its bytes fitted in the space
        left in the file's last page; its change must then be in the file.
        Returns (failed, saved): the commands that failed and those that
        answered 0."""
        failed = saved = 0
        for big in (False, True):
            for name, request in self.commands(rng, big):
                before_memory = self.memory(host)
                before_file = open(state, "rb").read() if os.path.exists(state) else b""
                answer, _ = host.method(name, request, ANSWER_BOUND)
                if answer is None:
                    self.fail(f"{figure}: {name} got no answer within {ANSWER_BOUND} s: {host.error_text()[-300:]}")
                    return failed, saved
                after_memory = self.memory(host)
                if after_memory is None:
                    self.fail(f"{figure}: no answer after {name}")
                    return failed, saved
                if answer["status"] != 0:
                    failed += 1
                    if answer["status"] != 1627:
                        self.fail(f"{figure}: {name} failed with {answer['status']}, not 1627: {answer}")
                    if after_memory != before_memory:
                        self.fail(f"{figure}: {name} failed ({answer['status']}) but changed memory: "
                                  f"{before_memory} -> {after_memory}")
                    now = open(state, "rb").read() if os.path.exists(state) else b""
                    if now != before_file and self.stored_differs(before_file, now):
                        self.fail(f"{figure}: {name} failed but the file's state changed")
                else:
                    saved += 1
                    # The enabled flag in memory may run ahead of the stored
                    # one (a console update resumes the runner in memory only).
                    stored = self.comparable(self.stored(state))
                    held = self.comparable(after_memory)
                    if stored is None or (stored["rules"], stored["methodSets"]) != (held["rules"], held["methodSets"]) \
                            or (name == "SetEnabled" and stored["enabled"] != held["enabled"]):
                        self.fail(f"{figure}: {name} answered 0 but the file holds {stored}, memory {held}")
        return failed, saved

    def stored_differs(self, before, after):
        try:
            return state_file.State(state_file.read_tree(before)).summary() != \
                state_file.State(state_file.read_tree(after)).summary()
        except state_file.Unreadable:
            return True

    def settle(self, host, rng, figure):
        """Once the fault is gone: a change succeeds, quit is clean, and a
        restart resumes what memory held."""
        name, request = self.commands(rng)[0]
        answer, _ = host.method(name, request, ANSWER_BOUND)
        if answer is None or answer["status"] != 0:
            self.fail(f"{figure}: after the fault, {name} answered {answer}")
        expected = self.memory(host)
        status = host.quit(ANSWER_BOUND)
        if status != 0:
            self.fail(f"{figure}: cr-host ended with {status}: {host.error_text()[-300:]}")
        self.check_reports(host, figure)
        host.close()
        again = Host(self.crhost, host_state(host), self.folder, name="storage")
        try:
            resumed = self.memory(again)
            if resumed != expected:
                self.fail(f"{figure}: a restart resumed {resumed}, memory held {expected}")
            again.quit(ANSWER_BOUND)
            self.check_reports(again, figure)
        finally:
            again.close()

    def check_reports(self, host, figure):
        reports = host.sanitizer_reports()
        if reports:
            self.fail(f"{figure}: sanitizer reports: {reports[:3]}")

    def start(self, state):
        host = Host(self.crhost, state, self.folder, name="storage")
        host.state_path = state
        return host

    def prepare(self, host, rng):
        for command in [("SetMethodSet", workload.random_method_set(rng, "M1")),
                        ("SetRules", {"rules": workload.random_rules(rng, self.pool)})]:
            answer, _ = host.method(*command, ANSWER_BOUND)
            if answer is None or answer["status"] != 0:
                self.fail(f"setting up: {command[0]} answered {answer}")

    # --- the faults ---------------------------------------------------------------

    def under_fault(self, rng, name, figure, inject, undo):
        """cr-host on a fresh tmpfs with its state set up; then saves while
        `inject(point, state)` holds a fault, until `undo(point, state)`
        lifts it: some save must fail, each as a save may, and all must work
        again afterwards. Adds the failed saves to `figure`; returns how many
        saves succeeded all the same."""
        point = self.mount_tmpfs(figure)
        state = os.path.join(point, "state.json")
        host = self.start(state)
        try:
            self.prepare(host, rng)
            inject(point, state)
            try:
                failed, saved = self.faulty_saves(host, state, rng, name)
            finally:
                undo(point, state)
            self.figures[figure] += failed
            if failed == 0:
                self.fail(f"{name}: no save failed")
            self.settle(host, rng, name)
            return saved
        finally:
            host.close()

    def full_disk(self, rng):
        filler = lambda point: os.path.join(point, "filler")  # noqa: E731
        self.figures["full_ok"] += self.under_fault(rng, "full disk", "full_failed",
                                                    lambda point, state: fill_up(filler(point)),
                                                    lambda point, state: os.remove(filler(point)))

    def immutable(self, rng):
        self.under_fault(rng, "immutable file", "immutable_failed",
                         lambda point, state: subprocess.run(["chattr", "+i", state], check=True),
                         lambda point, state: subprocess.run(["chattr", "-i", state], check=True))

    def read_only(self, rng):
        self.under_fault(rng, "read-only mount", "readonly_failed",
                         lambda point, state: subprocess.run(["mount", "-o", "remount,ro", point], check=True),
                         lambda point, state: subprocess.run(["mount", "-o", "remount,rw", point], check=True))

    def cut_files(self, rng):
        """A session's file, then a start on every cut of it."""
        state = os.path.join(self.folder, "whole.json")
        host = self.start(state)
        acked = {}  # file size after an acknowledged command -> the stored state then
        try:
            for k in range(12):
                for command in self.commands(rng)[:4 if k % 3 else 5]:
                    answer, _ = host.method(*command, ANSWER_BOUND)
                    if answer is None:
                        self.fail(f"cut files: {command[0]} got no answer")
                        return
                    if answer["status"] == 0:
                        acked[os.path.getsize(state)] = self.stored(state)
            host.quit(ANSWER_BOUND)
            self.check_reports(host, "cut files")
        finally:
            host.close()
        data = open(state, "rb").read()
        cuts = set()
        start = 0
        for i, byte in enumerate(data):
            if byte == 0x0A:
                cuts.add(i + 1)
                cuts.add((start + i) // 2)  # the middle of the line
                start = i + 1
        cuts.discard(len(data))
        for cut in sorted(cuts):
            self.check_cut(data[:cut], cut, acked)

    def check_cut(self, data, offset, acked):
        self.figures["cuts"] += 1
        path = os.path.join(self.folder, "cut.json")
        with open(path, "wb") as f:
            f.write(data)
        try:
            expected = state_file.State(state_file.read_tree(data)).summary()
        except state_file.Unreadable:
            expected = None
        if expected is not None and offset in acked and acked[offset] != expected:
            self.fail(f"cut at {offset}: the reader finds {expected}, the commands had stored {acked[offset]}")
        host = Host(self.crhost, path, self.folder, name="cut")
        try:
            resumed = self.memory(host)
            if resumed is None:
                host.process.wait(ANSWER_BOUND)
                status = host.process.returncode
                reason = host.error_text().strip()
                if status != 3 or not reason:
                    self.fail(f"cut at {offset}: cr-host ended with {status}, reason {reason[-300:]!r}")
                elif open(path, "rb").read() != data:
                    self.fail(f"cut at {offset}: a refused file was changed")
                elif expected is not None and offset > 0:
                    self.fail(f"cut at {offset}: refused ({reason[-200:]}) but it holds {expected}")
                else:
                    self.figures["cuts_refused"] += 1
            else:
                if expected is None:
                    self.fail(f"cut at {offset}: the file holds no tree, cr-host resumed {resumed}")
                elif self.comparable(expected) != self.comparable(resumed):
                    self.fail(f"cut at {offset}: cr-host resumed {resumed}, the file holds {expected}")
                else:
                    self.figures["cuts_opened"] += 1
                status = host.quit(ANSWER_BOUND)
                if status != 0:
                    self.fail(f"cut at {offset}: cr-host ended with {status}: {host.error_text()[-300:]}")
            self.check_reports(host, f"cut at {offset}")
        finally:
            host.close()
            os.remove(path)
            if os.path.exists(os.path.join(self.folder, "cut-stderr.txt")):
                os.remove(os.path.join(self.folder, "cut-stderr.txt"))

    def run(self, rng):
        try:
            self.full_disk(rng)
            self.unmount_all()
            self.immutable(rng)
            self.unmount_all()
            self.read_only(rng)
            self.unmount_all()
            self.cut_files(rng)
        finally:
            self.unmount_all()
        return self.figures


def fill_up(path):
    """Writes to `path` until the file system has no byte left."""
    fd = os.open(path, os.O_WRONLY | os.O_CREAT, 0o600)
    try:
        for chunk in (b"\0" * 65536, b"\0" * 4096, b"\0"):
            try:
                while True:
                    os.write(fd, chunk)
            except OSError:
                pass
    finally:
        os.close(fd)


def host_state(host):
    return host.state_path
