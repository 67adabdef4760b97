#!/usr/bin/env python3
"""Gathers the figures of one scripts/bench run into one JSON file, prints
the table of measures against their targets, and draws cost against the
number of rules (gnuplot, PNG).

    report.py --folder build/bench/results

reads from the folder: runner.json and network.json (Google Benchmark
output), crhost.json (crhost_costs.py), file.json when the file benchmark
exists; writes bench-results.json, scaling.dat and scaling.png there.
Exit status 1 when a measured figure misses its target.
"""

import argparse
import json
import os
import shutil
import subprocess
import sys


def load(folder, name):
    path = os.path.join(folder, name)
    if not os.path.exists(path):
        return None
    with open(path) as f:
        return json.load(f)


TO_MS = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}


def benchmarks(doc):
    """{run name: entry} of Google Benchmark output, the median when the run
    was repeated; an entry holds "ms" (wall time per iteration), its counters,
    or "error"."""
    found = {}
    if doc is None:
        return found
    for b in doc.get("benchmarks", []):
        name = b.get("run_name", b["name"])
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
            continue
        entry = {"ms": b.get("real_time", 0) * TO_MS.get(b.get("time_unit", "ns"), 1e-6),
                 "cpu_ms": b.get("cpu_time", 0) * TO_MS.get(b.get("time_unit", "ns"), 1e-6)}
        entry.update({k: v for k, v in b.items() if k not in (
            "name", "run_name", "run_type", "aggregate_name", "aggregate_unit", "family_index",
            "per_family_instance_index", "repetitions", "repetition_index", "threads", "iterations",
            "real_time", "cpu_time", "time_unit")})
        if b.get("error_occurred"):
            entry = {"error": b.get("error_message", "error")}
        if name not in found or b.get("aggregate_name") == "median":
            found[name] = entry
    return found


def find(results, prefix):
    """The entry whose run name is `prefix` or starts with `prefix/`+options."""
    for name, entry in results.items():
        if name == prefix or name.startswith(prefix + "/"):
            return entry
    return None


class Table:
    def __init__(self):
        self.rows = []

    def target(self, measure, figure, unit, target, ok, why="", note=""):
        """A row with a target; `figure` None means not measured (`why`)."""
        if figure is None:
            self.rows.append({"measure": measure, "figure": None, "target": target,
                              "result": "not measured: " + (why or "no figure")})
        else:
            self.rows.append({"measure": measure, "figure": round(figure, 3), "unit": unit, "target": target,
                              "result": "pass" if ok(figure) else "FAIL", **({"note": note} if note else {})})

    def info(self, measure, figure, unit, note=""):
        self.rows.append({"measure": measure, "figure": None if figure is None else round(figure, 3),
                          "unit": unit, "target": "", "result": "" if figure is not None else
                          "not measured: " + (note or "no figure"), **({"note": note} if note and figure is not None else {})})

    def print(self):
        def show(v):
            return "-" if v is None else (f"{v:,.3f}".rstrip("0").rstrip(".") if isinstance(v, float) else f"{v:,}")
        width = max(len(r["measure"]) for r in self.rows)
        print(f"{'measure':<{width}}  {'figure':>14}  {'target':<10}  result")
        print("-" * (width + 40))
        for r in self.rows:
            figure = show(r["figure"]) + (" " + r["unit"] if r["figure"] is not None else "")
            note = f" ({r['note']})" if r.get("note") else ""
            print(f"{r['measure']:<{width}}  {figure:>14}  {r['target']:<10}  {r['result']}{note}")


def scenario(crhost, name):
    """A cr-host scenario's result and, when it has none, the reason."""
    if crhost is None:
        return None, "cr-host figures were not gathered"
    result = crhost.get(name)
    if result is None:
        return None, "scenario not run"
    if "not_measured" in result:
        return None, result["not_measured"]
    return result, ""


def build_table(runner, network, crhost, files, file_reason):
    t = Table()
    ms = "ms"

    # --- targets -----------------------------------------------------------------
    hung, why = scenario(crhost, "hung_dns")
    setrules = "hung DNS, 2 resolve rules: SetRules answer"
    quit = "hung DNS, 2 resolve rules: quit (stop time)"
    if hung:
        limit = hung["limit_s"]
        ms_or_limit = lambda key: limit * 1000 if hung.get(key) is None else hung[key] * 1000
        t.target(setrules, ms_or_limit("setrules_s"), ms, "< 50 ms", lambda v: v < 50,
                 note="" if hung.get("setrules_s") is not None else f"no answer within {limit:g} s")
        quit_note = "" if hung.get("quit_s") is not None else f"not ended within {limit:g} s"
        if hung.get("quit_behind_setrules"):
            quit_note += ("; " if quit_note else "") + "the quit waited behind the unanswered SetRules"
        t.target(quit, ms_or_limit("quit_s"), ms, "< 1 s", lambda v: v < 1000, note=quit_note)
    else:
        t.target(setrules, None, ms, "< 50 ms", None, why)
        t.target(quit, None, ms, "< 1 s", None, why)

    other = find(files, "BM_OtherFileRulesWhileOneCheckHangs") if files else None
    if other and "error" not in other:
        t.target("one 1.5 s file check: latency of the other file rules", other["ms"], ms, "<= 100 ms",
                 lambda v: v <= 100)
    else:
        t.target("one 1.5 s file check: latency of the other file rules", None, ms, "<= 100 ms", None,
                 other["error"] if other else file_reason)

    idle_files, why = scenario(crhost, "idle_files")
    t.target("idle wake-ups, 10 file rules on local paths", idle_files and idle_files["wake_ups_per_s"], "/s",
             "0", lambda v: v == 0, why, idle_files and f"{idle_files['seconds']:g} s window")

    threads, why = scenario(crhost, "threads")
    module = threads and threads.get("module_threads")
    if threads and module is None:
        why = "gdb missing or could not attach to tell the module's threads from the host's"
    t.target("module threads, 1,000 network + 100 file + 20 resolve rules", module, "", "<= 8",
             lambda v: v <= 8, why, threads and f"cr-host has {threads['threads']} in all")

    rss, why = scenario(crhost, "rss")
    per_1000 = rss and rss["rss_delta_kb"]["1000"] / 1024
    t.target("RSS per 1,000 typical rules (IP AND suffix)", per_1000, "MB", "<= 10 MB", lambda v: v <= 10, why)

    flip = find(runner, "BM_EvaluationWithOneRuleFlipped/10000")
    t.target("one rule flips among 10,000 true rules", flip and flip.get("ms"), ms, "< 20 ms", lambda v: v < 20,
             (flip or {}).get("error", "bench_runner gave no figure"))
    null_flip = find(runner, "BM_EvaluationWithOneRuleFlippedNullStore/10000")
    t.target("  module's share (null settings store)", null_flip and null_flip.get("ms"), ms, "< 5 ms",
             lambda v: v < 5, (null_flip or {}).get("error", "bench_runner has no null-store variant yet"))

    # --- figures without a target --------------------------------------------------
    for prefix, label in (("BM_EvaluationWithNothingChanged", "evaluation, nothing changed"),
                          ("BM_EvaluationWithOneRuleFlipped", "evaluation, one rule flipped"),
                          ("BM_EvaluationWithOneRuleFlippedNullStore", "one rule flipped, null store"),
                          ("BM_SetRules", "SetRules (runner)"), ("BM_StartOverStoredRules", "Start over stored rules")):
        for count in (100, 1000, 10000):
            entry = find(runner, f"{prefix}/{count}")
            if entry:
                t.info(f"{label}, {count:,} rules", entry.get("ms"), ms, entry.get("error", ""))
    for name, entry in sorted(network.items()):
        # Drop the options Google Benchmark adds to the name.
        short = "/".join(p for p in name.split("/") if not p.startswith("iterations:") and p != "manual_time")
        if "error" in entry:
            t.info(f"network: {short}", None, "", entry["error"])
            continue
        counters = [c for c in ("worst_us", "wake_ups", "snapshots") if c in entry]
        if "wake_ups" not in counters:  # the idle benchmark's time is its window
            t.info(f"network: {short}", entry["ms"] * 1000, "us")
        for counter in counters:
            unit = "us" if counter.endswith("_us") else ""
            t.info(f"network: {short}: {counter.removesuffix('_us')}", entry[counter], unit)
    if rss:
        for count in ("100", "10000"):
            t.info(f"RSS, {int(count):,} typical rules minus none", rss["rss_delta_kb"][count] / 1024, "MB")
        for count in ("100", "1000", "10000"):
            t.info(f"SetRules through cr-host, {int(count):,} typical rules", rss["setrules_s"][count] * 1000, ms)
    if hung:
        ended = hung.get("sigterm_s") is not None
        t.info("hung DNS: stop on SIGTERM 1 s after SetRules", hung["sigterm_s"] * 1000 if ended
               else hung["limit_s"] * 1000, ms, "" if ended else f"not ended within {hung['limit_s']:g} s, killed")
    idle, why = scenario(crhost, "idle_typical")
    if idle:
        window = f"{idle['seconds']:g} s"
        t.info(f"cr-host idle, typical rules: threads", idle["threads"], "")
        t.info(f"cr-host idle, typical rules: RSS", idle["rss_kb"] / 1024, "MB")
        t.info(f"cr-host idle, typical rules: CPU", idle["cpu_ms_per_s"], "ms/s", window)
        t.info(f"cr-host idle, typical rules: wake-ups", idle["wake_ups_per_s"], "/s", window)
    else:
        t.info("cr-host idle, typical rules", None, "", why)
    return t


def chart(folder, runner, crhost):
    """scaling.dat and, with gnuplot, scaling.png; returns a note on failure."""
    rss = (crhost or {}).get("rss", {})
    lines = ["# rules eval_unchanged_ms one_flip_ms setrules_runner_ms setrules_crhost_ms rss_mb"]
    for count in (100, 1000, 10000):
        def ms(prefix):
            e = find(runner, f"{prefix}/{count}")
            return f"{e['ms']:.6g}" if e and "ms" in e else "NaN"
        crhost_set = rss.get("setrules_s", {}).get(str(count))
        delta = rss.get("rss_delta_kb", {}).get(str(count))
        lines.append(" ".join([str(count), ms("BM_EvaluationWithNothingChanged"), ms("BM_EvaluationWithOneRuleFlipped"),
                               ms("BM_SetRules"), "NaN" if crhost_set is None else f"{crhost_set * 1000:.6g}",
                               "NaN" if delta is None or delta <= 0 else f"{delta / 1024:.6g}"]))
    data = os.path.join(folder, "scaling.dat")
    with open(data, "w") as f:
        f.write("\n".join(lines) + "\n")
    gnuplot = shutil.which("gnuplot")
    if gnuplot is None:
        return "gnuplot is not installed: no chart"
    png = os.path.join(folder, "scaling.png")
    script = f"""
set terminal pngcairo size 900,600
set output '{png}'
set title 'Cost against the number of rules'
set logscale xy
set logscale y2
set xlabel 'rules'
set ylabel 'time (ms)'
set y2label 'RSS (MB)'
set ytics nomirror
set y2tics
set key top left
set datafile missing 'NaN'
plot '{data}' using 1:2 with linespoints title 'evaluation, nothing changed', \\
     '' using 1:3 with linespoints title 'evaluation, one rule flipped', \\
     '' using 1:4 with linespoints title 'SetRules (runner)', \\
     '' using 1:5 with linespoints title 'SetRules (cr-host)', \\
     '' using 1:6 axes x1y2 with linespoints dashtype 2 title 'RSS above none (MB)'
"""
    done = subprocess.run([gnuplot], input=script, capture_output=True, text=True)
    if done.returncode != 0:
        return "gnuplot failed: " + done.stderr.strip()[-300:]
    return None


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--folder", required=True)
    parser.add_argument("--file-reason", default="the file conditions have no injectable existence check yet")
    args = parser.parse_args()

    runner = benchmarks(load(args.folder, "runner.json"))
    network = benchmarks(load(args.folder, "network.json"))
    crhost = load(args.folder, "crhost.json")
    files = benchmarks(load(args.folder, "file.json")) if load(args.folder, "file.json") else None
    table = build_table(runner, network, crhost, files, args.file_reason)
    table.print()

    note = chart(args.folder, runner, crhost)
    print()
    print(note or f"chart: {os.path.join(args.folder, 'scaling.png')}")
    results = os.path.join(args.folder, "bench-results.json")
    with open(results, "w") as f:
        json.dump({"table": table.rows, "runner": runner, "network": network, "crhost": crhost, "file": files},
                  f, indent=1)
    print(f"figures: {results}")

    verdicts = [r["result"] for r in table.rows if r["target"]]
    passed = verdicts.count("pass")
    failed = verdicts.count("FAIL")
    print(f"targets: {passed} pass, {failed} fail, {len(verdicts) - passed - failed} not measured")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
