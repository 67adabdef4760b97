"""Stress: several clients interleaved on one cr-host for minutes.

cr-host has one console (its standard input), so the clients are threads
that each write whole lines to it and wait for the answers to their own ids;
cr-host handles the lines one after another in arrival order, so the clients'
commands interleave at line granularity. Roles, given out in turn:

  rules        SetRules (file, agent-connection, user and computer-group rules),
               and GetRules, which must answer what it last set;
  methodSets   SetMethodSet / DeleteMethodSet, GetMethodSetIds checked likewise;
  files        creates and removes the watched files, explain, rules;
  agent        agent.connected true / false / null, service.connected;
  users        users.logon / users.logoff of its own users;
  computer     computer.groups, computer.ou, status, history.

Every answer must come within the bound; at the end the rules and method
sets equal the last acknowledged ones, quit ends cr-host with status 0, a
restart resumes them, and standard error holds no sanitizer report.
"""

import os
import threading
import time

import workload
from crhost_console import Host

ROLES = ("rules", "methodSets", "files", "agent", "users", "computer")
STOP_BOUND = 120.0


def stress_rules(folder):
    pool = workload.rule_pool(folder)
    pool += [
        {"id": "agent", "displayName": "agent online", "methodSetId": "M1",
         "matchIf": {"type": "qv.isOvraConnected", "data": {"connected": True}}},
        {"id": "user", "displayName": "user 1001", "methodSetId": "M2",
         "matchIf": {"type": "ad.User", "data": {"sid": "S-1-5-21-7-8-9-1001"}}},
        {"id": "group", "displayName": "group 513", "methodSetId": "M3",
         "matchIf": {"type": "boolean.OR", "data": {"conditions": [
             {"type": "ad.Group", "data": {"sid": "S-1-5-21-7-8-9-513"}},
             {"type": "ad.ComputerGroup", "data": {"sid": "S-1-5-21-7-8-9-515"}}]}}},
        {"id": "ou", "displayName": "servers", "methodSetId": "M4",
         "matchIf": {"type": "ad.ComputerGroup.OU", "data": {"distinguishedName": "OU=Servers,DC=corp,DC=local"}}},
    ]
    return pool


class StressSoak:
    def __init__(self, crhost, folder, report, clients=6, bound=5.0):
        self.crhost = crhost
        self.folder = folder
        self.state, self.files = workload.scratch(folder)
        self.report = report
        self.clients = clients
        self.bound = bound
        self.pool = stress_rules(self.files)
        self.lock = threading.Lock()
        self.latencies = []
        self.rules = None        # the rules last acknowledged
        self.method_sets = {}    # the method sets as acknowledged
        self.flips = 0
        self.violations = 0
        self.stop = threading.Event()

    def fail(self, text):
        with self.lock:
            self.violations += 1
        self.report(text)

    def call(self, host, client, obj, ok=(0,)):
        """Sends `obj` for `client`; checks the bound and the status."""
        with self.lock:
            self.sequence += 1
            ident = f"{client}-{self.sequence}"
        answer, seconds = host.call(obj, self.bound * 4, ident=ident)
        with self.lock:
            self.latencies.append(seconds)
        if answer is None:
            self.fail(f"{client}: no answer within {self.bound * 4} s to {str(obj)[:200]}")
            self.stop.set()
            return None
        if seconds > self.bound:
            self.fail(f"{client}: answered after {seconds:.2f} s (bound {self.bound} s): {str(obj)[:200]}")
        if ok is not None and answer.get("status") not in ok:
            self.fail(f"{client}: {str(obj)[:200]} answered {str(answer)[:300]}")
        return answer

    # --- the roles ----------------------------------------------------------------

    def client(self, host, number, rng):
        role = ROLES[number % len(ROLES)]
        name = f"c{number}"
        users = {}
        step = 0
        try:
            while not self.stop.is_set():
                step += 1
                getattr(self, "role_" + role.lower())(host, name, rng, step, users)
                time.sleep(rng.uniform(0.0, 0.02))
        except Exception as e:  # a fault of the soak itself still ends the run
            self.fail(f"{name}: {type(e).__name__}: {e}")
            self.stop.set()

    def role_rules(self, host, name, rng, step, users):
        if step % 4 == 0:
            answer = self.call(host, name, {"method": "GetRules", "request": {}})
            if answer and self.rules is not None and answer["response"].get("rules") != self.rules:
                self.fail(f"{name}: GetRules answers {answer['response']}, last set {self.rules}")
            return
        rules = workload.random_rules(rng, self.pool, changed=rng.random() < 0.5)
        answer = self.call(host, name, {"method": "SetRules", "request": {"rules": rules}})
        if answer and answer.get("status") == 0:
            if answer["response"].get("rulesErrors"):
                self.fail(f"{name}: valid rules refused: {answer}")
            self.rules = rules

    def role_methodsets(self, host, name, rng, step, users):
        if step % 4 == 0:
            answer = self.call(host, name, {"method": "GetMethodSetIds", "request": {}})
            if answer and sorted(answer["response"].get("ids", [])) != sorted(self.method_sets):
                self.fail(f"{name}: GetMethodSetIds answers {answer['response']}, set {sorted(self.method_sets)}")
            return
        if rng.random() < 0.75:
            request = workload.random_method_set(rng)
            if self.call(host, name, {"method": "SetMethodSet", "request": request}):
                self.method_sets[request["id"]] = request["methods"]
        else:
            ident = rng.choice(workload.METHOD_SET_IDS)
            answer = self.call(host, name, {"method": "DeleteMethodSet", "request": {"id": ident}}, ok=None)
            if answer and answer.get("status") == 0:
                self.method_sets.pop(ident, None)
            elif answer and ident in self.method_sets:
                self.fail(f"{name}: DeleteMethodSet {ident} answered {answer}")

    def role_files(self, host, name, rng, step, users):
        roll = rng.random()
        if roll < 0.6:
            workload.flip_files(rng, self.files)
            with self.lock:
                self.flips += 1
        elif roll < 0.8:
            rule = rng.choice(self.pool)
            self.call(host, name, {"host": "explain", "condition": rule["matchIf"]})
        else:
            self.call(host, name, {"host": "rules"})

    def role_agent(self, host, name, rng, step, users):
        if rng.random() < 0.8:
            self.call(host, name, {"host": "agent.connected", "value": rng.choice([True, False, None])})
        else:
            self.call(host, name, {"host": "service.connected"})

    def role_users(self, host, name, rng, step, users):
        sid = f"S-1-5-21-7-8-9-{1000 + rng.randrange(4)}"
        if sid in users:
            self.call(host, name, {"host": "users.logoff", "user": {"sid": sid}})
            del users[sid]
        else:
            groups = rng.sample(["S-1-5-21-7-8-9-513", "S-1-5-21-7-8-9-514"], rng.randint(0, 2))
            self.call(host, name, {"host": "users.logon", "user": {
                "sid": sid, "name": f"user{sid[-4:]}", "domain": "CORP", "groups": groups}})
            users[sid] = True

    def role_computer(self, host, name, rng, step, users):
        roll = rng.random()
        if roll < 0.35:
            groups = [{"dn": f"CN=G{k},DC=corp,DC=local", "sid": f"S-1-5-21-7-8-9-{515 + k}"}
                      for k in range(rng.randint(0, 2))]
            self.call(host, name, {"host": "computer.groups", "groups": groups})
        elif roll < 0.7:
            ou = rng.choice(["CN=PC1,OU=Servers,DC=corp,DC=local", "CN=PC1,OU=Desks,DC=corp,DC=local"])
            self.call(host, name, {"host": "computer.ou", "ou": ou})
        elif roll < 0.85:
            self.call(host, name, {"host": "status"})
        else:
            self.call(host, name, {"host": "history"})

    # --- the run --------------------------------------------------------------------

    def run(self, seconds, rng):
        self.sequence = 0
        host = Host(self.crhost, self.state, self.folder, name="stress")
        figures = {"clients": self.clients, "answers": 0, "p50_ms": 0.0, "p99_ms": 0.0, "max_ms": 0.0,
                   "runs": 0, "file_flips": 0, "final_equal": False, "sanitizer_reports": 0}
        try:
            self.call(host, "setup", {"method": "SetSettings",
                                      "request": {"settings": {"minEvalTime": 1, "maxPostponeTime": 5}}})
            for m in workload.METHODS:
                self.call(host, "setup", {"host": "policy.result", "plugin": "P", "method": m,
                                          "result": rng.choice([0, 0, 0, 5]), "delayMs": rng.randint(0, 20)})
            threads = [threading.Thread(target=self.client, args=(host, n, rng.__class__(rng.random())))
                       for n in range(self.clients)]
            for t in threads:
                t.start()
            self.stop.wait(seconds)
            self.stop.set()
            for t in threads:
                t.join()
            figures["final_equal"] = self.final_check(host, "the end")
            status = host.quit(STOP_BOUND)
            if status != 0:
                self.fail(f"cr-host ended with {status} after quit: {host.error_text()[-500:]}")
            figures["runs"] = len(host.runs)
            reports = host.sanitizer_reports()
            if reports:
                self.fail(f"sanitizer reports: {reports[:5]}")
            figures["sanitizer_reports"] += len(reports)
            host.close()
            host = Host(self.crhost, self.state, self.folder, name="restart")
            figures["final_equal"] &= self.final_check(host, "a restart")
            if host.quit(STOP_BOUND) != 0:
                self.fail(f"the restarted cr-host did not stop cleanly: {host.error_text()[-500:]}")
            reports = host.sanitizer_reports()
            if reports:
                self.fail(f"sanitizer reports after the restart: {reports[:5]}")
            figures["sanitizer_reports"] += len(reports)
        finally:
            host.close()
        times = sorted(self.latencies)
        if times:
            figures["answers"] = len(times)
            figures["p50_ms"] = times[len(times) // 2] * 1000
            figures["p99_ms"] = times[min(len(times) - 1, int(len(times) * 0.99))] * 1000
            figures["max_ms"] = times[-1] * 1000
        figures["file_flips"] = self.flips
        figures["violations"] = self.violations
        return figures

    def final_check(self, host, when):
        equal = True
        answer = self.call(host, "final", {"method": "GetRules", "request": {}})
        if answer is None or answer["response"].get("rules") != (self.rules or []):
            self.fail(f"at {when} GetRules answers {answer}, the last acknowledged rules are {self.rules}")
            equal = False
        for ident, methods in self.method_sets.items():
            got = self.call(host, "final", {"method": "GetMethodSet", "request": {"id": ident}})
            if got is None or got["response"].get("methods") != methods:
                self.fail(f"at {when} GetMethodSet {ident} answers {got}, last set {methods}")
                equal = False
        ids = self.call(host, "final", {"method": "GetMethodSetIds", "request": {}})
        if ids is None or sorted(ids["response"].get("ids", [])) != sorted(self.method_sets):
            self.fail(f"at {when} GetMethodSetIds answers {ids}, acknowledged {sorted(self.method_sets)}")
            equal = False
        return equal
