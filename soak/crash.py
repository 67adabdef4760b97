"""Crash rounds: cr-host killed with SIGKILL at random and at chosen instants.

Each round reads the state file with this folder's own reader, checks that it
holds what the acknowledged commands left (a command sent but not answered
when the kill came may have happened or not), starts cr-host on it, checks
that it answers and resumes exactly that, and that its first evaluation runs
the method sets that the stored state calls for: every true rule when the
run-started flag is stored true (a run was cut short), otherwise only when the
true rules differ from the stored last-run rules. Then it changes things and
kills cr-host in one of three ways:

  random   a kill at a random instant while commands come one after another;
  command  a kill within a few milliseconds of sending a command;
  run      methods made slow, the true rules changed, and a kill once the
           state file says a run has started.
"""

import os
import time

import state_file
import workload
from crhost_console import Host

KINDS = ("random", "command", "run")


class CrashSoak:
    def __init__(self, crhost, folder, rng, report, start_bound=60.0, answer_bound=30.0):
        self.crhost = crhost
        self.folder = folder
        self.state, self.files = workload.scratch(folder)
        self.rng = rng
        self.report = report  # called with the text of each violation
        self.start_bound = start_bound
        self.answer_bound = answer_bound
        self.pool = workload.rule_pool(self.files)
        self.model = workload.Model()
        self.in_flight = None  # the model after a command sent but not answered
        self.figures = {"rounds": 0, "random": 0, "command": 0, "run": 0, "killed_in_run": 0,
                        "reruns": 0, "quiet_starts": 0, "in_flight_applied": 0, "in_flight_not": 0,
                        "slowest_start": 0.0, "violations": 0}
        self.host = None
        self.pending = None
        self.pending_id = None

    def fail(self, text):
        self.figures["violations"] += 1
        self.report(f"round {self.figures['rounds']}: {text}")

    # --- one restart, checked ------------------------------------------------

    def restart(self):
        """Checks the stored state, starts cr-host on it and checks what it
        resumes and runs first. False when it cannot go on."""
        try:
            stored = state_file.read_state(self.state)
        except state_file.Unreadable as e:
            self.fail(f"the state file cannot be read: {e}")
            return False
        summary = stored.summary()
        allowed = [self.model] + ([self.in_flight] if self.in_flight else [])
        matching = [m for m in allowed if m.summary() == summary]
        if not matching:
            self.fail(f"the state file holds {summary}, the acknowledged commands left {self.model.summary()}")
            self.model = workload.Model.of(summary)
        else:
            if self.in_flight is not None:
                self.figures["in_flight_applied" if matching[0] is self.in_flight else "in_flight_not"] += 1
            self.model = matching[0]
        self.model = self.model.restarted()
        self.in_flight = None
        if stored.run_started:
            self.figures["killed_in_run"] += 1
        expected_runs = state_file.expected_first_runs(stored, lambda r: workload.is_true(r["matchIf"]))

        self.host = Host(self.crhost, self.state, self.folder, name="crash")
        started = self.host.started
        answer, seconds = self.host.method("GetRules", {}, self.start_bound)
        if answer is None:
            self.fail(f"no answer within {self.start_bound} s after a restart: {self.host.error_text()[-400:]}")
            return False
        self.figures["slowest_start"] = max(self.figures["slowest_start"], time.monotonic() - started)
        if answer.get("response", {}).get("rules") != stored.rules:
            self.fail(f"GetRules answers {answer}, the file holds {stored.rules}")
        ids = self.ask("GetMethodSetIds", {})
        if ids is not None and sorted(ids.get("ids", [])) != sorted(stored.method_sets):
            self.fail(f"GetMethodSetIds answers {ids}, the file holds {sorted(stored.method_sets)}")
        for ident, stored_set in stored.method_sets.items():
            got = self.ask("GetMethodSet", {"id": ident})
            if got is not None and got.get("methods") != stored_set["methods"]:
                self.fail(f"GetMethodSet {ident} answers {got}, the file holds {stored_set}")
        enabled = self.ask("IsEnabled", {})
        if enabled is not None and enabled.get("enabled") != (stored.enabled is not False):
            self.fail(f"IsEnabled answers {enabled}, the file holds enabled={stored.enabled}")

        runs = self.first_runs(started, enabled=stored.enabled is not False)
        if runs is not None and runs != expected_runs:
            self.fail(f"the first evaluation ran {runs}, the stored state calls for {expected_runs} "
                      f"(run started: {stored.run_started}, last run: {[r['id'] for r in stored.last_run]}, "
                      f"rules: {[r['id'] for r in stored.rules]})")
        self.figures["reruns" if expected_runs else "quiet_starts"] += 1
        # Quick evaluations from now on (not stored: each start begins with
        # the module's own quiet period).
        self.ask("SetSettings", {"settings": {"minEvalTime": 1, "maxPostponeTime": 5}})
        return True

    def ask(self, name, request):
        """The response of a command expected to succeed, or None (reported)."""
        answer, _ = self.host.method(name, request, self.answer_bound)
        if answer is None:
            self.fail(f"{name}: no answer within {self.answer_bound} s")
            return None
        if answer.get("status") != 0:
            self.fail(f"{name} {request}: {answer}")
            return None
        return answer.get("response", {})

    def first_runs(self, started, enabled):
        """Method-set ids run by the first evaluation after the start (None
        when it could not be seen). A disabled runner must run nothing in the
        first quiet period and a bit."""
        if not enabled:
            time.sleep(max(0.0, started + 7.0 - time.monotonic()))
            answer, _ = self.host.call({"host": "history"}, self.answer_bound)
            if answer is None or answer.get("evaluations") or self.host.runs:
                self.fail(f"a disabled runner evaluated or ran: {answer}, runs {self.host.runs}")
            return []
        deadline = time.monotonic() + 40
        while time.monotonic() < deadline:
            answer, _ = self.host.call({"host": "history"}, self.answer_bound)
            if answer is None:
                self.fail("history: no answer")
                return None
            evaluations = answer.get("evaluations") or []
            if evaluations:
                return [run["methodSetId"] for run in evaluations[0].get("runs", [])]
            time.sleep(0.25)
        self.fail("no evaluation within 40 s of a start")
        return None

    # --- changes, then the kill -----------------------------------------------

    def follow(self, command, answer):
        name = command[0]
        if os.environ.get("SOAK_TRACE"):
            print(f"trace: {command} -> {answer.get('status')}", flush=True)
        if answer.get("status") == 0:
            if name == "SetRules" and answer["response"].get("rulesErrors"):
                self.fail(f"valid rules refused: {answer}")
            self.model = self.in_flight
        elif not (name == "DeleteMethodSet" and command[1]["id"] not in self.model.method_sets):
            self.fail(f"{name} failed: {answer}")
        self.in_flight = None

    def killed(self):
        """After the kill: an in-flight command whose answer did come out
        before the end counts as acknowledged."""
        self.host.kill()
        if self.in_flight is not None:
            answer = self.host.answers.get(self.pending_id)
            if answer is not None:
                self.follow(self.pending, answer)
        self.host.close()
        self.host = None

    def random_kill(self):
        at = time.monotonic() + self.rng.uniform(0.0, 4.0)
        while time.monotonic() < at:
            roll = self.rng.random()
            if roll < 0.7:
                self.pending = workload.random_command(self.rng, self.pool)
                self.in_flight = self.model.after(self.pending)
                self.pending_id = self.host.send({"method": self.pending[0], "request": self.pending[1]})
                answer = self.host.wait(self.pending_id, max(0.0, at - time.monotonic()))
                if answer is None:
                    break  # the kill comes while the command is under way
                self.follow(self.pending, answer)
            elif roll < 0.85:
                workload.flip_files(self.rng, self.files)
            else:
                time.sleep(self.rng.uniform(0.0, 0.5))
        self.killed()

    def command_kill(self):
        for _ in range(self.rng.randint(0, 3)):
            self.pending = workload.random_command(self.rng, self.pool)
            self.in_flight = self.model.after(self.pending)
            self.pending_id = None
            answer, _ = self.host.method(*self.pending, self.answer_bound)
            if answer is None:
                self.fail(f"{self.pending[0]}: no answer")
                break
            self.follow(self.pending, answer)
        self.pending = workload.random_command(self.rng, self.pool)
        self.in_flight = self.model.after(self.pending)
        self.pending_id = self.host.send({"method": self.pending[0], "request": self.pending[1]})
        # cr-host answers within about a millisecond: kill at once or soon.
        if self.rng.random() < 0.5:
            time.sleep(self.rng.uniform(0.0, 0.001))
        self.killed()

    def run_kill(self):
        """Slow methods, a change of the true rules, and a kill once a run
        has started (the run-started flag is stored true)."""
        delay = self.rng.randint(200, 800)
        for m in workload.METHODS:
            self.ask_host({"host": "policy.result", "plugin": "P", "method": m, "result": 0, "delayMs": delay})
        for k in range(workload.FILE_COUNT):
            if self.rng.random() < 0.75:
                open(workload.file_path(self.files, k), "w").close()
        steps = []
        if not self.model.enabled:
            steps.append(("SetEnabled", {"enabled": True}))
        for ident in workload.METHOD_SET_IDS:
            if ident not in self.model.method_sets:
                steps.append(("SetMethodSet", workload.random_method_set(self.rng, ident)))
        rules = workload.random_rules(self.rng, self.pool, changed=True)
        while not any(workload.is_true(r["matchIf"]) for r in rules):
            rules = workload.random_rules(self.rng, self.pool, changed=True)
        steps.append(("SetRules", {"rules": rules}))
        for step in steps:
            self.pending = step
            self.in_flight = self.model.after(step)
            self.pending_id = None
            answer, _ = self.host.method(*step, self.answer_bound)
            if answer is None:
                self.fail(f"{step[0]}: no answer")
                break
            self.follow(step, answer)
        deadline = time.monotonic() + 15
        seen = False
        while time.monotonic() < deadline and not seen:
            try:
                seen = bool(state_file.read_state(self.state).run_started)
            except state_file.Unreadable as e:
                self.fail(f"the state file cannot be read while cr-host runs: {e}")
                break
            time.sleep(0.005)
        if not seen:
            self.fail("no run started within 15 s of a change of the true rules")
        else:
            time.sleep(self.rng.uniform(0.0, delay / 1000.0))
        self.killed()

    def ask_host(self, action):
        answer, _ = self.host.call(action, self.answer_bound)
        if answer is None or answer.get("status") != 0:
            self.fail(f"{action}: {answer}")

    def round(self, kind):
        if os.environ.get("SOAK_TRACE"):
            print(f"trace: round {self.figures['rounds'] + 1} {kind}", flush=True)
        self.figures["rounds"] += 1
        self.figures[kind] += 1
        if not self.restart():
            if self.host is not None:
                self.host.close()
                self.host = None
            return False
        self.pending = None
        {"random": self.random_kill, "command": self.command_kill, "run": self.run_kill}[kind]()
        if self.rng.random() < 0.3:
            workload.flip_files(self.rng, self.files)
        return True

    def run(self, rounds):
        """`rounds` rounds, the kinds in turn from a random start, then a
        last restart that is checked and stopped cleanly."""
        first = self.rng.randrange(len(KINDS))
        try:
            for i in range(rounds):
                if not self.round(KINDS[(first + i) % len(KINDS)]):
                    break
            else:
                if self.restart():
                    status = self.host.quit(self.answer_bound)
                    if status != 0:
                        self.fail(f"cr-host ended with {status} after quit: {self.host.error_text()[-400:]}")
        finally:
            if self.host is not None:
                reports = self.host.sanitizer_reports()
                if reports:
                    self.fail(f"sanitizer reports: {reports[:3]}")
                self.host.close()
        return self.figures
