"""Reads cr-host's state file on its own, to say what a restart must resume.

The file is the settings tree as JSON on its first line, {"values": {name:
entry}, "children": {name: node}} with each entry {"string": s}, {"bool": b}
or {"json": v}, followed by a journal: one line per commit since,
{"check":"<FNV-1a of C as 8 hex digits>","commit":C} with C =
{"at": [segment, ...], "values": {name: entry}, "removed": [name, ...]}.
A last line that is cut short or fails its checksum is an append that never
completed and is dropped; any other damage makes the file unreadable.

What the runner keeps there: "/MethodsRunner" value "enabled" (bool), the
rules as {"data": [...]} in the unnamed value of "/MethodsRunner/Rules", the
rules of the last completed run likewise in "/MethodsRunner/Info", the
run-started flag as the unnamed bool of "/MethodsRunner/methodsRunStarted",
and one node "Methods_<id>" under the root per method set.
"""

import json

RECORD_START = '{"check":"'
RECORD_MIDDLE = '","commit":'


class Unreadable(Exception):
    """The file does not hold a settings tree; the message says why."""


def fnv1a(data):
    h = 2166136261
    for byte in data:
        h = ((h ^ byte) * 16777619) & 0xFFFFFFFF
    return h


def _node():
    return {"values": {}, "children": {}}


def _read_node(obj, where):
    if not isinstance(obj, dict) or set(obj) - {"values", "children"}:
        raise Unreadable(f"{where} is not a node")
    node = _node()
    for name, entry in obj.get("values", {}).items():
        node["values"][name] = _read_entry(entry, f"{where} value {name!r}")
    for name, child in obj.get("children", {}).items():
        node["children"][name] = _read_node(child, f"{where}/{name}")
    return node


def _read_entry(entry, where):
    if not isinstance(entry, dict) or len(entry) != 1:
        raise Unreadable(f"{where} is not a value entry")
    (kind, value), = entry.items()
    if kind == "string" and isinstance(value, str):
        return value
    if kind == "bool" and isinstance(value, bool):
        return value
    if kind == "json":
        return value
    raise Unreadable(f"{where} is not a value entry")


def _parse_record(line):
    """The commit of one journal line (bytes without its line break), or None."""
    start = len(RECORD_START) + 8 + len(RECORD_MIDDLE)
    try:
        text = line.decode("utf-8")
    except UnicodeDecodeError:
        return None
    if not text.startswith(RECORD_START) or text[len(RECORD_START) + 8:start] != RECORD_MIDDLE or \
            not text.endswith("}") or len(line) <= start:
        return None
    commit = line[start:-1]
    if line[len(RECORD_START):len(RECORD_START) + 8].decode() != "%08x" % fnv1a(commit):
        return None
    try:
        parsed = json.loads(commit)
    except ValueError:
        return None
    if not isinstance(parsed, dict) or not isinstance(parsed.get("at"), list) or \
            not isinstance(parsed.get("values"), dict) or not isinstance(parsed.get("removed"), list):
        return None
    return parsed


def _apply(root, commit):
    node = root
    for segment in commit["at"]:
        node = node["children"].setdefault(segment, _node())
    for name, entry in commit["values"].items():
        node["values"][name] = _read_entry(entry, f"journal value {name!r}")
    for name in commit["removed"]:
        node["children"].pop(name, None)


def read_tree(data):
    """The settings tree that the bytes `data` of a state file hold.
    Raises Unreadable when they hold none."""
    if not data:
        return _node()
    journal = 0 if data.startswith(RECORD_START.encode()) else data.find(b"\n" + RECORD_START.encode())
    journal = len(data) if journal < 0 else journal + (1 if journal else 0)
    try:
        tree = json.loads(data[:journal]) if data[:journal].strip() else {}
    except ValueError as e:
        raise Unreadable(f"the tree is not JSON ({e})") from None
    root = _read_node(tree, "root")
    lines = data[journal:].split(b"\n")
    if lines and lines[-1] == b"":
        lines.pop()
    for number, line in enumerate(lines):
        last = number == len(lines) - 1
        commit = _parse_record(line)
        if commit is None:
            if last:
                break  # an append cut short: its commit never succeeded
            raise Unreadable(f"journal line {number + 1} is damaged")
        _apply(root, commit)
    return root


class State:
    """What the runner stored: rules (list of JSON objects), method sets
    ({id: {"displayName", "methods", "context"}}), enabled (None when not
    stored), run_started (None when not stored), last_run (list)."""

    def __init__(self, tree):
        runner = tree["children"].get("MethodsRunner", _node())
        self.enabled = runner["values"].get("enabled")
        self.rules = _rule_list(runner["children"].get("Rules"))
        self.last_run = _rule_list(runner["children"].get("Info"))
        flag = runner["children"].get("methodsRunStarted")
        self.run_started = None if flag is None else flag["values"].get("")
        self.method_sets = {}
        for name, node in sorted(tree["children"].items()):
            if not name.startswith("Methods_"):
                continue
            values = node["values"]
            self.method_sets[values.get("id", name[len("Methods_"):])] = {
                "displayName": values.get("displayName"),
                "methods": values.get("methods"),
            }

    def summary(self):
        return {"rules": self.rules, "methodSets": self.method_sets,
                "enabled": self.enabled is not False}


def _rule_list(node):
    if node is None:
        return []
    document = node["values"].get("")
    if isinstance(document, str):
        try:
            document = json.loads(document)
        except ValueError:
            return []
    if not isinstance(document, dict) or not isinstance(document.get("data"), list):
        return []
    return document["data"]


def read_state(path):
    """State of the file at `path` (an empty one when it does not exist)."""
    try:
        with open(path, "rb") as f:
            data = f.read()
    except FileNotFoundError:
        data = b""
    return State(read_tree(data))


def expected_first_runs(state, is_true):
    """Method-set ids that the first evaluation after a start runs, in order,
    from what is stored: `is_true(rule)` says whether a rule's condition holds
    now. The stored last-run rules count only when the run-started flag was
    stored as false; otherwise a run may have been cut short and every true
    rule runs again. A disabled runner runs nothing."""
    if state.enabled is False:
        return []
    last = state.last_run if state.run_started is False else []
    true_rules = [r for r in state.rules if r.get("methodSetId") in state.method_sets and is_true(r)]
    if true_rules == last:
        return []
    runs = []
    for rule in true_rules:
        if rule["methodSetId"] not in runs:
            runs.append(rule["methodSetId"])
    return runs
