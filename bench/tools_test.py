#!/usr/bin/env python3
"""Tests of the measuring tools of scripts/bench: the report's verdicts and
chart data, the /proc readings of the cr-host scenarios, and the callgrind
check's comparison with its baseline (over a stand-in for valgrind)."""

import json
import os
import shutil
import stat
import subprocess
import sys
import tempfile
import textwrap
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import crhost_costs  # noqa: E402


def benchmark_doc(*entries):
    return {"context": {}, "benchmarks": list(entries)}


def run(name, ms, **extra):
    return {"name": name, "run_name": name, "run_type": "iteration", "real_time": ms, "cpu_time": ms,
            "time_unit": "ms", **extra}


def aggregate(name, which, ms):
    return {**run(name, ms), "name": f"{name}_{which}", "run_type": "aggregate", "aggregate_name": which}


def crhost_figures(**overrides):
    figures = {
        "hung_dns": {"limit_s": 20, "setrules_s": 0.01, "quit_s": 0.2, "quit_behind_setrules": False, "sigterm_s": 0.1},
        "idle_files": {"seconds": 10, "wake_ups": 0, "wake_ups_per_s": 0.0},
        "threads": {"threads": 9, "module_threads": 5},
        "rss": {"rss_kb": {"0": 6000, "100": 6500, "1000": 6000 + 10 * 1024, "10000": 60000},
                "rss_delta_kb": {"100": 500, "1000": 10 * 1024, "10000": 54000},
                "setrules_s": {"0": 0, "100": 0.01, "1000": 0.1, "10000": 1.0}},
        "idle_typical": {"seconds": 30, "threads": 7, "rss_kb": 8000, "cpu_ms_per_s": 0.1, "wake_ups_per_s": 0.0},
    }
    figures.update(overrides)
    return figures


class ReportTest(unittest.TestCase):
    def report(self, runner, crhost, network=None):
        """Runs report.py over the given inputs: (exit status, rows by measure, folder)."""
        folder = tempfile.mkdtemp(prefix="cr-report-test-")
        self.addCleanup(shutil.rmtree, folder, True)
        for name, doc in (("runner.json", runner), ("network.json", network), ("crhost.json", crhost)):
            if doc is not None:
                with open(os.path.join(folder, name), "w") as f:
                    json.dump(doc, f)
        done = subprocess.run([sys.executable, os.path.join(HERE, "report.py"), "--folder", folder],
                              capture_output=True, text=True)
        with open(os.path.join(folder, "bench-results.json")) as f:
            rows = {r["measure"]: r for r in json.load(f)["table"]}
        return done.returncode, rows, folder

    def flip_runs(self, flip_ms, null_ms=None):
        entries = [aggregate("BM_EvaluationWithOneRuleFlipped/10000", "mean", 500),
                   aggregate("BM_EvaluationWithOneRuleFlipped/10000", "median", flip_ms),
                   aggregate("BM_EvaluationWithOneRuleFlipped/10000", "stddev", 400)]
        if null_ms is not None:
            entries.append(run("BM_EvaluationWithOneRuleFlippedNullStore/10000", null_ms))
        return benchmark_doc(*entries)

    def test_targets_met_at_their_bounds_pass_and_the_median_is_the_figure(self):
        status, rows, _ = self.report(self.flip_runs(19.9, null_ms=4.9), crhost_figures())
        self.assertEqual(status, 0)
        self.assertEqual(rows["one rule flips among 10,000 true rules"]["figure"], 19.9)
        self.assertEqual(rows["  module's share (null settings store)"]["figure"], 4.9)
        for measure in ("RSS per 1,000 typical rules (IP AND suffix)", "idle wake-ups, 10 file rules on local paths",
                        "hung DNS, 2 resolve rules: quit (stop time)"):
            self.assertEqual(rows[measure]["result"], "pass", measure)

    def test_a_missed_target_fails_the_run(self):
        figures = crhost_figures(threads={"threads": 12, "module_threads": 9})
        status, rows, _ = self.report(self.flip_runs(20.0), figures)
        self.assertEqual(status, 1)
        self.assertEqual(rows["one rule flips among 10,000 true rules"]["result"], "FAIL")
        self.assertEqual(rows["module threads, 1,000 network + 100 file + 20 resolve rules"]["result"], "FAIL")

    def test_no_answer_while_dns_hangs_fails_at_the_limit(self):
        hung = {"limit_s": 20, "setrules_s": None, "quit_s": None, "quit_behind_setrules": True, "sigterm_s": None}
        status, rows, _ = self.report(self.flip_runs(1), crhost_figures(hung_dns=hung))
        self.assertEqual(status, 1)
        answer = rows["hung DNS, 2 resolve rules: SetRules answer"]
        self.assertEqual((answer["figure"], answer["result"]), (20000, "FAIL"))
        self.assertIn("behind the unanswered SetRules", rows["hung DNS, 2 resolve rules: quit (stop time)"]["note"])

    def test_what_could_not_run_is_not_measured_with_its_reason_and_fails_nothing(self):
        runner = benchmark_doc({**run("BM_EvaluationWithOneRuleFlipped/10000", 0), "error_occurred": True,
                                "error_message": "no settings file"})
        figures = crhost_figures(hung_dns={"not_measured": "needs root"}, threads={"threads": 9, "module_threads": None})
        status, rows, _ = self.report(runner, figures)
        self.assertEqual(status, 0)
        self.assertEqual(rows["one rule flips among 10,000 true rules"]["result"], "not measured: no settings file")
        self.assertEqual(rows["hung DNS, 2 resolve rules: SetRules answer"]["result"], "not measured: needs root")
        self.assertIn("gdb", rows["module threads, 1,000 network + 100 file + 20 resolve rules"]["result"])
        self.assertIn("no null-store variant", rows["  module's share (null settings store)"]["result"])
        self.assertTrue(rows["one 1.5 s file check: latency of the other file rules"]["result"].startswith("not measured"))

    def test_chart_data_per_rule_count_with_gaps_for_missing_figures(self):
        runner = benchmark_doc(run("BM_EvaluationWithNothingChanged/100", 0.5),
                               run("BM_EvaluationWithNothingChanged/10000", 2.0),
                               run("BM_SetRules/1000", 30))
        _, _, folder = self.report(runner, crhost_figures())
        with open(os.path.join(folder, "scaling.dat")) as f:
            lines = [line.split() for line in f if not line.startswith("#")]
        self.assertEqual([line[0] for line in lines], ["100", "1000", "10000"])
        self.assertEqual([line[1] for line in lines], ["0.5", "NaN", "2"])
        self.assertEqual(lines[1][3], "30")
        self.assertEqual([line[4] for line in lines], ["10", "100", "1000"])  # SetRules through cr-host, ms
        self.assertEqual(lines[1][5], "10")  # 10 MB above none at 1,000 rules


class ProcReadingTest(unittest.TestCase):
    def child(self, code):
        process = subprocess.Popen([sys.executable, "-c", code])
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        time.sleep(0.3)  # past the interpreter's start
        return process

    def test_wake_ups_count_a_waking_thread_and_not_a_sleeping_process(self):
        sleeping = self.child("import time; time.sleep(30)")
        waking = self.child(textwrap.dedent("""
            import threading, time
            def tick():
                while True: time.sleep(0.01)
            threading.Thread(target=tick).start()
            time.sleep(30)"""))
        quiet, busy = crhost_costs.Window(sleeping.pid), crhost_costs.Window(waking.pid)
        time.sleep(0.5)
        quiet, busy = quiet.close(), busy.close()
        self.assertEqual(quiet["wake_ups"], 0)
        self.assertGreater(busy["wake_ups"], 10)
        self.assertEqual((quiet["threads"], busy["threads"]), (1, 2))
        self.assertGreater(busy["rss_kb"], 0)


class CallgrindCheckTest(unittest.TestCase):
    """The check over a stand-in valgrind that writes one dump per call:
    the set-up's call (large) first, then the timed call."""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="cr-callgrind-test-")
        self.addCleanup(shutil.rmtree, self.folder, True)
        fake = os.path.join(self.folder, "valgrind")
        with open(fake, "w") as f:
            f.write(textwrap.dedent("""\
                #!/bin/sh
                for a in "$@"; do case $a in --callgrind-out-file=*) out=${a#*=} ;; esac; done
                echo "totals: 999999999" > "$out.1"
                echo "totals: $FAKE_INSTRUCTIONS" > "$out.2"
                """))
        os.chmod(fake, os.stat(fake).st_mode | stat.S_IEXEC)
        self.baseline = os.path.join(self.folder, "baseline.json")

    def check(self, instructions, *extra):
        env = dict(os.environ, PATH=self.folder + os.pathsep + os.environ["PATH"], FAKE_INSTRUCTIONS=str(instructions))
        return subprocess.run([sys.executable, os.path.join(HERE, "callgrind_check.py"), "--bin", self.folder,
                               "--baseline", self.baseline, *extra], capture_output=True, text=True, env=env)

    def test_the_timed_call_is_compared_and_a_rise_over_the_tolerance_fails(self):
        self.assertEqual(self.check(1000).returncode, 1, "no baseline yet")
        self.assertEqual(self.check(1000, "--update-baseline").returncode, 0)
        with open(self.baseline) as f:
            self.assertEqual(set(json.load(f)["instructions"].values()), {1000})
        self.assertEqual(self.check(1200).returncode, 0)
        done = self.check(1201)
        self.assertEqual(done.returncode, 1)
        self.assertIn("FAIL", done.stdout)
        self.assertEqual(self.check(500).returncode, 0)


if __name__ == "__main__":
    unittest.main()
