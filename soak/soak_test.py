#!/usr/bin/env python3
"""Tests of scripts/soak's own judgement: its reader of the state file (a
journal applied in order, a cut last line dropped, other damage refused),
what a start must run from the stored state, and the model of what
acknowledged commands leave stored. They start no cr-host."""

import json
import os
import shutil
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import state_file  # noqa: E402
import workload  # noqa: E402


def record(at, values=None, removed=()):
    commit = json.dumps({"at": at, "values": values or {}, "removed": list(removed)}, separators=(",", ":"))
    return '{"check":"%08x","commit":%s}\n' % (state_file.fnv1a(commit.encode()), commit)


def rule(ident, path, method_set="M"):
    return {"id": ident, "displayName": "", "methodSetId": method_set,
            "matchIf": {"type": "Test.FileExists", "data": {"filePath": path}}}


def rules_entry(rules):
    return {"": {"json": {"data": rules}}}


TREE = '{"children":{"Methods_M":{"values":{"id":{"string":"M"},"displayName":{"string":"m"},' \
       '"methods":{"json":[{"plugin":"P","method":"m"}]}}}}}\n'


class ReaderTest(unittest.TestCase):
    def test_journal_applies_in_order_and_removes_children(self):
        data = TREE + record(["MethodsRunner", "Rules"], rules_entry([rule("a", "/x")])) + \
            record(["MethodsRunner"], {"enabled": {"bool": False}}) + \
            record(["Methods_N"], {"id": {"string": "N"}, "methods": {"json": []}}) + \
            record([], removed=["Methods_M"]) + \
            record(["MethodsRunner", "Rules"], rules_entry([rule("b", "/y")]))
        state = state_file.State(state_file.read_tree(data.encode()))
        self.assertEqual([r["id"] for r in state.rules], ["b"])
        self.assertEqual(list(state.method_sets), ["N"])
        self.assertIs(state.enabled, False)
        self.assertIsNone(state.run_started)

    def test_cut_or_corrupt_last_line_is_dropped_but_an_earlier_one_refuses(self):
        good = record(["MethodsRunner"], {"enabled": {"bool": False}})
        for tail in (good[:len(good) // 2], good.replace('false', 'true ', 1)):
            state = state_file.State(state_file.read_tree((TREE + tail).encode()))
            self.assertIsNone(state.enabled, tail)
        with self.assertRaises(state_file.Unreadable):
            state_file.read_tree((TREE + good[:20] + "\n" + good).encode())
        with self.assertRaises(state_file.Unreadable):
            state_file.read_tree(TREE[:30].encode())

    def test_a_file_written_indented_reads_like_a_compact_one(self):
        indented = json.dumps(json.loads(TREE), indent=2) + "\n"
        state = state_file.State(state_file.read_tree(indented.encode()))
        self.assertEqual(state.method_sets["M"]["methods"], [{"plugin": "P", "method": "m"}])


class ExpectedRunsTest(unittest.TestCase):
    def state(self, run_started, last, enabled=None, rules=None):
        s = state_file.State(state_file.read_tree(TREE.encode()))
        s.rules = rules if rules is not None else [rule("a", "/x"), rule("b", "/y"), rule("c", "/z", "Gone")]
        s.last_run = last
        s.run_started = run_started
        s.enabled = enabled
        return s

    def test_run_started_flag_discards_the_stored_last_run(self):
        every = lambda r: True  # noqa: E731
        same = [rule("a", "/x"), rule("b", "/y")]
        self.assertEqual(state_file.expected_first_runs(self.state(False, same), every), [])
        self.assertEqual(state_file.expected_first_runs(self.state(True, same), every), ["M"])
        # A flag that was never stored cannot be read: nothing is trusted.
        self.assertEqual(state_file.expected_first_runs(self.state(None, same), every), ["M"])

    def test_change_of_true_rules_order_or_content_runs_again(self):
        only_a = lambda r: r["id"] == "a"  # noqa: E731
        self.assertEqual(state_file.expected_first_runs(self.state(False, [rule("a", "/x")]), only_a), [])
        self.assertEqual(state_file.expected_first_runs(
            self.state(False, [rule("a", "/x"), rule("b", "/y")]), only_a), ["M"])
        swapped = [rule("b", "/y"), rule("a", "/x")]
        self.assertEqual(state_file.expected_first_runs(self.state(False, swapped), lambda r: True), ["M"])
        edited = [dict(rule("a", "/x"), displayName="old"), rule("b", "/y")]
        self.assertEqual(state_file.expected_first_runs(self.state(False, edited), lambda r: True), ["M"])

    def test_rules_of_unknown_method_sets_and_a_disabled_runner_run_nothing(self):
        only_c = lambda r: r["id"] == "c"  # noqa: E731
        self.assertEqual(state_file.expected_first_runs(self.state(True, []), only_c), [])
        self.assertEqual(state_file.expected_first_runs(self.state(True, [], enabled=False), lambda r: True), [])


class ModelTest(unittest.TestCase):
    def test_console_update_resumes_in_memory_only(self):
        m = workload.Model().after(("SetEnabled", {"enabled": False}))
        self.assertEqual((m.enabled, m.running), (False, False))
        m = m.after(("SetRules", {"rules": []}))
        self.assertEqual((m.enabled, m.running), (False, True))
        # Enabling an enabled runner stores nothing, so the stored flag stays.
        self.assertFalse(m.after(("SetEnabled", {"enabled": True})).enabled)
        self.assertFalse(m.restarted().running)
        m = m.restarted().after(("SetEnabled", {"enabled": True}))
        self.assertTrue(m.enabled)

    def test_method_sets_and_truth_of_trees(self):
        folder = tempfile.mkdtemp(prefix="cr-soak-test-")
        try:
            pool = workload.rule_pool(folder)
            open(workload.file_path(folder, 0), "w").close()
            truth = [workload.is_true(r["matchIf"]) for r in pool]
            self.assertEqual(truth, [True, False, False, False, True, True, True, True])
            m = workload.Model().after(("SetMethodSet", workload.random_method_set(workload.rng_from(1), "M2")))
            self.assertEqual(list(m.method_sets), ["M2"])
            self.assertEqual(m.after(("DeleteMethodSet", {"id": "M2"})).method_sets, {})
        finally:
            shutil.rmtree(folder)


if __name__ == "__main__":
    unittest.main()
