#!/usr/bin/env python3
"""Costs of the module as the agent would see them, measured on cr-host.

Each scenario starts its own cr-host in a scratch folder, drives it over its
JSON-lines console, reads the process's figures from /proc (threads, resident
memory, CPU time, context switches) and prints one JSON object with the
results on standard output. Scenarios that need a private network namespace
(a DNS server that never answers) re-run this script inside
`unshare -n -m`; when that is impossible their result says why.

    crhost_costs.py --crhost build/bench/bin/cr-host [--scenario NAME ...]
                    [--idle-seconds 30] [--window-seconds 10]

Wake-ups are context switches (voluntary and involuntary) summed over every
thread of the process: a thread that ends inside the window takes its
switches with it, one that starts inside it counts all of its own.
"""

import argparse
import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "tools"))
sys.dont_write_bytecode = True  # no __pycache__ in the source tree

from crhost_console import Host  # noqa: E402

SCENARIOS = ("hung_dns", "idle_files", "threads", "rss", "idle_typical")
# Scenarios run in a private namespace, and what answers DNS there: "silent"
# (a server that takes queries and never answers) or "none" (nothing listens,
# so every query fails at once without leaving the machine). Outside a
# namespace "threads" asks the machine's own resolver instead.
NAMESPACE_SCENARIOS = {"hung_dns": "silent", "threads": "none"}
NAMESPACE_OPTIONAL = ("threads",)

CLOCK_TICKS = os.sysconf("SC_CLK_TCK")
PAGE_KB = os.sysconf("SC_PAGE_SIZE") // 1024


# --- /proc readings -------------------------------------------------------------

def task_ids(pid):
    return [int(t) for t in os.listdir(f"/proc/{pid}/task")]


def switches_by_task(pid):
    """{tid: voluntary + involuntary context switches} of every live thread."""
    counts = {}
    for tid in task_ids(pid):
        try:
            with open(f"/proc/{pid}/task/{tid}/status") as f:
                total = 0
                for line in f:
                    if line.startswith(("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches")):
                        total += int(line.split()[1])
                counts[tid] = total
        except FileNotFoundError:
            pass  # the thread ended while being read
    return counts


def cpu_seconds(pid):
    """User plus system time of the whole process (ended threads included)."""
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    # Fields after the command: state is index 0, utime 11, stime 12.
    return (int(fields[11]) + int(fields[12])) / CLOCK_TICKS


def rss_kb(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    raise RuntimeError("no VmRSS in /proc/%d/status" % pid)


class Window:
    """Figures of a process over a stretch of time in which nothing is sent."""

    def __init__(self, pid):
        self.pid = pid
        self.start = time.monotonic()
        self.switches = switches_by_task(pid)
        self.cpu = cpu_seconds(pid)

    def close(self):
        seconds = time.monotonic() - self.start
        after = switches_by_task(self.pid)
        woke = sum(count - self.switches.get(tid, 0) for tid, count in after.items())
        return {
            "seconds": round(seconds, 3),
            "wake_ups": woke,
            "wake_ups_per_s": round(woke / seconds, 3),
            "cpu_ms_per_s": round((cpu_seconds(self.pid) - self.cpu) * 1000 / seconds, 3),
            "threads": len(after),
            "rss_kb": rss_kb(self.pid),
        }


def module_threads(pid, module_name="libConditionalRunner"):
    """Threads whose stack holds a frame of the module, found with gdb
    (None when gdb is missing or cannot attach). Attaching stops the process
    for a moment: read it after any timed window."""
    gdb = shutil.which("gdb")
    if gdb is None:
        return None
    try:
        out = subprocess.run([gdb, "-nx", "-batch", "-p", str(pid), "-ex", "thread apply all bt"],
                             capture_output=True, text=True, timeout=60).stdout
    except subprocess.TimeoutExpired:
        return None
    stacks, current = [], None
    for line in out.splitlines():
        if line.startswith("Thread "):
            current = []
            stacks.append(current)
        elif current is not None and line.startswith("#"):
            current.append(line)
    if not stacks:
        return None
    return sum(1 for frames in stacks if any(module_name in f for f in frames))


# --- cr-host over its console ---------------------------------------------------

def checked(host, name, request, timeout=120):
    """Calls a console method that must succeed: (answer, seconds)."""
    answer, seconds = host.method(name, request, timeout)
    if answer is None:
        raise RuntimeError(f"{name}: no answer within {timeout} s ({host.error_text().strip()[-500:]})")
    if answer.get("status") != 0:
        raise RuntimeError(f"{name}: status {answer.get('status')}: {answer}")
    return answer, seconds


def timed(stop, timeout):
    """Seconds until `stop(timeout)` (quit or terminate) saw the process end,
    or None when it had to be killed."""
    started = time.monotonic()
    status = stop(timeout)
    return None if status is None else time.monotonic() - started


class Session:
    """A scratch folder and a cr-host set up for quick evaluations."""

    def __init__(self, crhost):
        self.folder = tempfile.mkdtemp(prefix="cr-bench-")
        self.host = Host(crhost, os.path.join(self.folder, "state.json"), self.folder, name="bench")
        # One second of quiet starts an evaluation, so the rules settle soon.
        checked(self.host, "SetSettings", {"settings": {"minEvalTime": 1, "maxPostponeTime": 10}})
        checked(self.host, "SetMethodSet",
                {"id": "M", "displayName": "m", "methods": [{"plugin": "P", "method": "m"}]})

    def set_rules(self, rules, timeout=120):
        return checked(self.host, "SetRules", {"rules": rules}, timeout)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.host.close(gently=True)
        shutil.rmtree(self.folder, ignore_errors=True)


# --- rule sets ------------------------------------------------------------------

def rule(ident, match_if):
    return {"id": ident, "displayName": "", "methodSetId": "M", "matchIf": match_if}


def typical_rule(i):
    """An AND of an address prefix and a DNS suffix, as most rules are."""
    return rule(f"typical{i}", {"type": "boolean.AND", "data": {"conditions": [
        {"type": "network.IP", "data": {"address": f"10.{i // 256 % 256}.{i % 256}.0/24"}},
        {"type": "network.DNSSuffix", "data": {"suffix": f"site{i}.example"}}]}})


def network_rule(i):
    return rule(f"net{i}", {"type": "network.IP", "data": {"address": f"10.{i // 256 % 256}.{i % 256}.0/24"}})


def file_rule(i, folder):
    # Every other file exists, so both answers are polled.
    path = os.path.join(folder, f"file{i}")
    if i % 2 == 0:
        open(path, "w").close()
    return rule(f"file{i}", {"type": "Test.FileExists", "data": {"filePath": path}})


def resolve_rule(i, name):
    return rule(f"resolve{i}", {"type": "network.canResolveHost", "data": {"address": name}})


# --- scenarios ------------------------------------------------------------------

def settle(seconds=3.0, host=None):
    """Lets the first evaluation and its run pass. With `host`, waits (up to
    30 s) until its status says no evaluation is pending or due, then
    `seconds` more, so that threads that end when idle have ended."""
    if host is not None:
        deadline = time.monotonic() + 30
        while time.monotonic() < deadline:
            answer = host.call({"host": "status"}, 120)[0] or {}
            evaluation = answer.get("evaluation", {})
            if answer.get("status") == 0 and not evaluation.get("evaluationPending") \
                    and evaluation.get("evaluationDueAt") is None and evaluation.get("lastEvaluation"):
                break
            time.sleep(0.2)
    time.sleep(seconds)


def scenario_hung_dns(args):
    """Two resolution rules while the DNS server takes every query and never
    answers: how long SetRules takes to answer and how long quit then takes
    (the console handles lines in order, so a quit sent while SetRules hangs
    waits for it); then, in a second cr-host, how long a SIGTERM stop takes
    while SetRules may still be hanging."""
    rules = [resolve_rule(i, f"host{i}.bench.example") for i in range(2)]
    result = {"limit_s": args.hung_timeout}
    with Session(args.crhost) as s:
        answer, seconds = s.host.method("SetRules", {"rules": rules}, args.hung_timeout)
        result["setrules_s"] = None if answer is None else round(seconds, 4)
        if answer is not None and answer.get("status") != 0:
            result["setrules_error"] = f"status {answer.get('status')}"
        # Stop while the resolutions are still waiting for the server.
        time.sleep(0.5)
        stop = timed(s.host.quit, args.hung_timeout)
        result["quit_s"] = None if stop is None else round(stop, 4)
        result["quit_behind_setrules"] = answer is None
    with Session(args.crhost) as s:
        s.host.send({"method": "SetRules", "request": {"rules": rules}})
        time.sleep(1)
        stop = timed(s.host.terminate, args.hung_timeout)
        result["sigterm_s"] = None if stop is None else round(stop, 4)
    return result


def scenario_idle_files(args):
    """Ten file rules on local paths, nothing changing: wake-ups per second."""
    with Session(args.crhost) as s:
        s.set_rules([file_rule(i, s.folder) for i in range(10)])
        settle(2.0, s.host)
        window = Window(s.host.pid)
        time.sleep(args.window_seconds)
        return window.close()


def scenario_threads(args):
    """Threads with 1,000 network, 100 file and 20 resolution rules."""
    with Session(args.crhost) as s:
        names = [f"host{i}.bench.example" for i in range(20)]
        rules = [network_rule(i) for i in range(1000)]
        rules += [file_rule(i, s.folder) for i in range(100)]
        rules += [resolve_rule(i, name) for i, name in enumerate(names)]
        _, seconds = s.set_rules(rules, timeout=args.hung_timeout)
        settle()
        result = {"setrules_s": round(seconds, 4), "threads": len(task_ids(s.host.pid))}
        result["module_threads"] = module_threads(s.host.pid)
        return result


def rss_after(crhost, rules):
    """(RSS in kB once settled, SetRules seconds) of a cr-host given `rules`."""
    with Session(crhost) as s:
        _, seconds = s.set_rules(rules, timeout=600)
        settle()
        return rss_kb(s.host.pid), seconds


def scenario_rss(args):
    """Resident memory with 0, 100, 1,000 and 10,000 typical rules, each in a
    fresh cr-host; also the SetRules answer time of each."""
    result = {"rss_kb": {}, "setrules_s": {}}
    for count in (0, 100, 1000, 10000):
        kb, seconds = rss_after(args.crhost, [typical_rule(i) for i in range(count)])
        result["rss_kb"][str(count)] = kb
        result["setrules_s"][str(count)] = round(seconds, 4)
    base = result["rss_kb"]["0"]
    result["rss_delta_kb"] = {k: v - base for k, v in result["rss_kb"].items() if k != "0"}
    return result


def scenario_idle_typical(args):
    """A typical rule set (the examples' rules and 100 typical network rules)
    left alone for the idle window: threads, RSS, CPU, wake-ups."""
    examples = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "examples")
    with Session(args.crhost) as s:
        with open(os.path.join(examples, "method-sets.json")) as f:
            for method_set in json.load(f)["methods"]:
                checked(s.host, "SetMethodSet", method_set)
        with open(os.path.join(examples, "rules.json")) as f:
            rules = json.load(f)["rules"]
        for r in rules:  # relative paths are made absolute inside the scratch folder
            _absolute_paths(r["matchIf"], s.folder)
        rules += [typical_rule(i) for i in range(100)]
        s.set_rules(rules)
        settle()
        window = Window(s.host.pid)
        time.sleep(args.idle_seconds)
        return window.close()


def _absolute_paths(node, folder):
    if isinstance(node, dict):
        if node.get("type") == "Test.FileExists":
            node["data"]["filePath"] = os.path.join(folder, node["data"]["filePath"])
        for value in node.values():
            _absolute_paths(value, folder)
    elif isinstance(node, list):
        for value in node:
            _absolute_paths(value, folder)


# --- the private network namespace ----------------------------------------------

class SilentDnsServer:
    """A UDP socket on 127.0.0.1:53 that reads every query and never replies."""

    def __init__(self):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind(("127.0.0.1", 53))
        self.queries = 0
        threading.Thread(target=self._drain, daemon=True).start()

    def _drain(self):
        while True:
            try:
                self.sock.recv(4096)
                self.queries += 1
            except OSError:
                return


def enter_namespace_setup(dns):
    """Inside `unshare -n -m`: loopback up, a resolver file pointing at it
    bind-mounted over /etc/resolv.conf, and with `dns` "silent" a server that
    never answers."""
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    conf = tempfile.NamedTemporaryFile("w", prefix="cr-bench-resolv-", delete=False)
    conf.write("nameserver 127.0.0.1\noptions timeout:5 attempts:2\n")
    conf.close()
    subprocess.run(["mount", "--bind", conf.name, "/etc/resolv.conf"], check=True)
    os.unlink(conf.name)  # the mount keeps it
    return SilentDnsServer() if dns == "silent" else None


def namespace_unavailable():
    """Why no private namespace can be made here, or None."""
    if os.geteuid() != 0:
        return "needs root for a private network namespace (unshare -n -m)"
    if shutil.which("unshare") is None:
        return "unshare is not installed"
    return None


def run_in_namespace(name, argv):
    """Runs one scenario inside a private network and mount namespace; the
    result, or {"not_measured": reason}."""
    unshare = shutil.which("unshare")
    command = [unshare, "-n", "-m", sys.executable, os.path.abspath(__file__), "--inside-namespace",
               "--scenario", name] + argv
    done = subprocess.run(command, capture_output=True, text=True)
    if done.returncode != 0:
        reason = (done.stderr.strip().splitlines() or ["no reason given"])[-1]
        return {"not_measured": f"the namespace run failed: {reason}"}
    return json.loads(done.stdout)[name]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--crhost", required=True)
    parser.add_argument("--scenario", action="append", choices=SCENARIOS)
    parser.add_argument("--idle-seconds", type=float, default=30)
    parser.add_argument("--window-seconds", type=float, default=10)
    parser.add_argument("--hung-timeout", type=float, default=60,
                        help="longest wait for an answer or a stop while DNS hangs")
    parser.add_argument("--inside-namespace", action="store_true", help=argparse.SUPPRESS)
    args = parser.parse_args()
    args.crhost = os.path.abspath(args.crhost)
    names = args.scenario or list(SCENARIOS)
    passed_on = ["--crhost", args.crhost, "--idle-seconds", str(args.idle_seconds),
                 "--window-seconds", str(args.window_seconds), "--hung-timeout", str(args.hung_timeout)]

    results = {}
    if args.inside_namespace:
        name = names[0]
        server = enter_namespace_setup(NAMESPACE_SCENARIOS[name])
        results[name] = globals()["scenario_" + name](args)
        results[name]["dns"] = NAMESPACE_SCENARIOS[name]
        if server is not None:
            results[name]["dns_queries_seen"] = server.queries
    else:
        for name in names:
            print(f"crhost_costs: {name}", file=sys.stderr, flush=True)
            unavailable = namespace_unavailable()
            if name in NAMESPACE_SCENARIOS and not (unavailable and name in NAMESPACE_OPTIONAL):
                results[name] = {"not_measured": unavailable} if unavailable else run_in_namespace(name, passed_on)
            else:
                try:
                    results[name] = globals()["scenario_" + name](args)
                except (RuntimeError, OSError) as error:
                    results[name] = {"not_measured": str(error)}
    json.dump(results, sys.stdout, indent=1)
    print()


if __name__ == "__main__":
    main()
