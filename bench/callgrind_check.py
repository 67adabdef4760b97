#!/usr/bin/env python3
"""Instruction counts of a few deterministic benchmarks, under callgrind,
compared with a committed baseline.

Each case runs one benchmark of a benchmark program for a single iteration
(--benchmark_min_time=0) under callgrind, collecting only inside one
function and dumping after each of its calls; the figure is the last dump:
the instructions of the one timed call, without the benchmark's set-up.

    callgrind_check.py --bin build/bench/bin --baseline bench/baseline.json
                       [--update-baseline] [--tolerance 0.20] [--out FILE]

Exit status 0 when no case is more than the tolerance above its baseline,
1 when one is (or a case could not be measured), 2 for bad usage.
"""

import argparse
import glob
import json
import os
import shutil
import subprocess
import sys
import tempfile

RUNNER_AL = "Product::Integration::ConditionalRunner::ConditionalRunnerAL::"
RULE_LISTS = ("qv::IList<Product::Integration::ConditionalRunner::IConditionalRunner::Rule> const&, "
              "qv::IList<Product::Integration::ConditionalRunner::IConditionalRunner::RuleError>&")

# name: (program, benchmark filter, function whose calls are counted)
CASES = {
    "evaluation_unchanged_1000": ("bench_runner", "BM_EvaluationWithNothingChanged/1000$",
                                  RUNNER_AL + "ReEvalRules()"),
    "evaluation_one_flip_1000": ("bench_runner", "BM_EvaluationWithOneRuleFlipped/1000$",
                                 RUNNER_AL + "ReEvalRules()"),
    # The module's own share of a flip: the host's services are stand-ins.
    "evaluation_flip_share_10000": ("bench_runner", "BM_EvaluationWithOneRuleFlippedNullStore/10000$",
                                    RUNNER_AL + "ReEvalRules()"),
    "set_rules_1000": ("bench_runner", "BM_SetRules/1000$", RUNNER_AL + f"SetRules({RULE_LISTS})"),
    "network_snapshot_32x16": ("bench_network", "BM_Snapshot/32/16$",
                               "Product::Integration::NetworkProvider::DoUpdateState(bool*)"),
    "network_merge_32x16": ("bench_network", "BM_Merge/32/16$",
                            "Product::Integration::NetworkState::Merge(Product::Integration::NetworkState const&)"),
}


def totals(path):
    with open(path) as f:
        for line in f:
            if line.startswith("totals:"):
                return int(line.split()[1])
    return None


def measure(valgrind, program, bench_filter, function):
    """Instructions of the last call of `function`; raises RuntimeError."""
    folder = tempfile.mkdtemp(prefix="cr-callgrind-")
    try:
        out = os.path.join(folder, "callgrind.out")
        command = [valgrind, "--tool=callgrind", f"--callgrind-out-file={out}", "--collect-atstart=no",
                   f"--toggle-collect={function}", f"--dump-after={function}",
                   program, f"--benchmark_filter={bench_filter}", "--benchmark_min_time=0"]
        done = subprocess.run(command, capture_output=True, text=True, cwd=folder)
        if done.returncode != 0:
            raise RuntimeError(f"{os.path.basename(program)} ended with status {done.returncode}: "
                               f"{done.stderr.strip()[-300:]}")
        dumps = sorted(glob.glob(out + ".*"), key=lambda p: int(p.rsplit(".", 1)[1]))
        if not dumps:
            raise RuntimeError(f"no call of {function} was seen (renamed, or the filter matched nothing)")
        count = totals(dumps[-1])
        if count is None:
            raise RuntimeError(f"no totals in {dumps[-1]}")
        return count
    finally:
        shutil.rmtree(folder, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--bin", required=True, help="folder of the benchmark programs")
    parser.add_argument("--baseline", required=True)
    parser.add_argument("--update-baseline", action="store_true")
    parser.add_argument("--tolerance", type=float, default=0.20)
    parser.add_argument("--out", help="also write the figures here as JSON")
    args = parser.parse_args()
    args.bin = os.path.abspath(args.bin)

    valgrind = shutil.which("valgrind")
    if valgrind is None:
        print("callgrind_check: valgrind is not installed", file=sys.stderr)
        return 1
    baseline = {}
    if os.path.exists(args.baseline):
        with open(args.baseline) as f:
            baseline = json.load(f).get("instructions", {})

    figures, failed = {}, False
    print(f"{'case':<28} {'instructions':>14} {'baseline':>14} {'change':>8}  result")
    for name, (program, bench_filter, function) in CASES.items():
        try:
            figures[name] = measure(valgrind, os.path.join(args.bin, program), bench_filter, function)
        except RuntimeError as error:
            shown = f"{baseline[name]:,}" if name in baseline else "-"
            print(f"{name:<28} {'-':>14} {shown:>14} {'':>8}  FAIL: {error}")
            failed = True
            continue
        base = baseline.get(name)
        if base is None:
            verdict, change = ("new" if args.update_baseline else "FAIL: no baseline"), ""
            failed = failed or not args.update_baseline
        else:
            ratio = figures[name] / base - 1
            change = f"{ratio:+.1%}"
            verdict = "pass" if ratio <= args.tolerance else f"FAIL: more than {args.tolerance:.0%} above"
            failed = failed or (ratio > args.tolerance and not args.update_baseline)
        shown = f"{base:,}" if base is not None else "-"
        print(f"{name:<28} {figures[name]:>14,} {shown:>14} {change:>8}  {verdict}")

    if args.out:
        with open(args.out, "w") as f:
            json.dump({"instructions": figures, "baseline": baseline}, f, indent=1)
    if args.update_baseline:
        if len(figures) != len(CASES):
            print("callgrind_check: baseline not written: some cases were not measured", file=sys.stderr)
            return 1
        with open(args.baseline, "w") as f:
            json.dump({"tool": "callgrind, instructions of one timed call (--benchmark_min_time=0)",
                       "instructions": figures}, f, indent=1, sort_keys=True)
            f.write("\n")
        print(f"callgrind_check: baseline written to {args.baseline}")
        return 0
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
