#!/usr/bin/env python3
"""Long checks of cr-host that take minutes: crash rounds, storage faults and
stress. Each mode prints its violations as they come, ends with one line of
figures, and exits 1 on any violation (2 for bad usage).

    soak.py crash   --crhost PATH [--rounds 50] [--seed N]
    soak.py storage --crhost PATH
    soak.py stress  --crhost PATH [--minutes 5] [--clients 6] [--bound-ms 5000]

Run through scripts/soak, which builds the sanitizer configurations first.
SOAK_TRACE=1 prints each command of the crash rounds with its status.
Every scratch folder, mount and process is removed on every way out.
"""

import argparse
import os
import random
import shutil
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(os.path.dirname(HERE), "tools"))
sys.dont_write_bytecode = True  # no __pycache__ in the source tree

import crash  # noqa: E402


def report(text):
    print(f"soak: VIOLATION: {text}", file=sys.stderr, flush=True)


def elapsed(since):
    seconds = int(time.monotonic() - since)
    return f"{seconds // 60}m{seconds % 60:02d}s"


def seed_of(args):
    """The run's seed: the one given, or a new one (printed with the figures,
    so that the run can be repeated)."""
    return args.seed if args.seed is not None else random.randrange(1 << 32)


def run_crash(args, folder):
    seed = seed_of(args)
    began = time.monotonic()
    f = crash.CrashSoak(args.crhost, folder, random.Random(seed), report).run(args.rounds)
    print(f"soak crash ({args.label}, seed {seed}): {f['rounds']} rounds "
          f"({f['random']} random, {f['command']} at a command, {f['run']} in a run), "
          f"{f['killed_in_run']} restarts after a run cut short, {f['reruns']} first evaluations that ran "
          f"and {f['quiet_starts']} that rightly ran nothing, in-flight commands {f['in_flight_applied']} "
          f"applied / {f['in_flight_not']} not, slowest start {f['slowest_start']:.2f} s, "
          f"{elapsed(began)}, {f['violations']} violations")
    return f["violations"]


def run_storage(args, folder):
    import storage
    began = time.monotonic()
    seed = seed_of(args)
    f = storage.StorageSoak(args.crhost, folder, report).run(random.Random(seed))
    print(f"soak storage ({args.label}, seed {seed}): full disk {f['full_failed']} failed saves / {f['full_ok']} that fit, "
          f"immutable file {f['immutable_failed']} failed saves, read-only mount {f['readonly_failed']} "
          f"failed saves, {f['cuts']} cut files ({f['cuts_opened']} opened at their last complete commit, "
          f"{f['cuts_refused']} refused with a reason), {elapsed(began)}, {f['violations']} violations")
    return f["violations"]


def run_stress(args, folder):
    import stress
    began = time.monotonic()
    seed = seed_of(args)
    f = stress.StressSoak(args.crhost, folder, report, clients=args.clients,
                          bound=args.bound_ms / 1000.0).run(args.minutes * 60, random.Random(seed))
    print(f"soak stress ({args.label}, seed {seed}): {f['clients']} clients, {f['answers']} answers in {elapsed(began)}, "
          f"p50 {f['p50_ms']:.0f} ms, p99 {f['p99_ms']:.0f} ms, max {f['max_ms']:.0f} ms "
          f"(bound {args.bound_ms} ms), {f['runs']} policy runs, {f['file_flips']} file flips, "
          f"final state {'equal to' if f['final_equal'] else 'DIFFERENT FROM'} the last acknowledged, "
          f"{f['sanitizer_reports']} sanitizer reports, {f['violations']} violations")
    return f["violations"]


def violations_kept(args, violations):
    return args.keep and violations != 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("mode", choices=("crash", "storage", "stress"))
    parser.add_argument("--crhost", required=True)
    parser.add_argument("--label", default="", help="the build's name, for the figures line")
    parser.add_argument("--rounds", type=int, default=50)
    parser.add_argument("--seed", type=int)
    parser.add_argument("--minutes", type=float, default=5)
    parser.add_argument("--clients", type=int, default=6)
    parser.add_argument("--keep", action="store_true", help="keep the scratch folder after a violation")
    parser.add_argument("--bound-ms", type=int, default=5000)
    args = parser.parse_args()
    args.crhost = os.path.abspath(args.crhost)
    args.label = args.label or os.path.basename(os.path.dirname(os.path.dirname(args.crhost)))
    folder = tempfile.mkdtemp(prefix=f"cr-soak-{args.mode}-")
    try:
        violations = {"crash": run_crash, "storage": run_storage, "stress": run_stress}[args.mode](args, folder)
    finally:
        if violations_kept(args, locals().get("violations")):
            print(f"soak: the scratch folder is kept: {folder}", file=sys.stderr)
        else:
            shutil.rmtree(folder, ignore_errors=True)
    return 1 if violations else 0


if __name__ == "__main__":
    sys.exit(main())
