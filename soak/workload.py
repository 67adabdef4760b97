"""The rules, method sets and commands that the soak modes send, and the
model of what the acknowledged commands leave stored.

Rules watch files in one folder ("Test.FileExists", some under
"boolean.NOT"), so that the soak decides which are true by creating and
removing those files. Method sets name plug-in "P"; its methods answer what
the soak configures with "policy.result".
"""

import copy
import os
import random

METHOD_SET_IDS = ["M1", "M2", "M3", "M4"]
METHODS = ["m1", "m2", "m3", "m4", "m5"]
FILE_COUNT = 4


def scratch(folder):
    """(state file, folder of the watched files) of a run in `folder`; the
    latter is made."""
    files = os.path.join(folder, "files")
    os.makedirs(files, exist_ok=True)
    return os.path.join(folder, "state.json"), files


def file_path(folder, k):
    return os.path.join(folder, f"flag{k}")


def rule_pool(folder):
    """Eight rules: a file present or absent, each naming one of M1..M3 (M4
    is named by none until a rule set says so)."""
    pool = []
    for k in range(8):
        leaf = {"type": "Test.FileExists", "data": {"filePath": file_path(folder, k % FILE_COUNT)}}
        match_if = leaf if k < 5 else {"type": "boolean.NOT", "data": {"condition": leaf}}
        pool.append({"id": f"r{k}", "displayName": f"rule {k}", "methodSetId": METHOD_SET_IDS[k % 4],
                     "matchIf": match_if})
    return pool


def is_true(match_if):
    """Whether a condition tree of the pool holds now."""
    kind, data = match_if["type"], match_if.get("data", {})
    if kind == "Test.FileExists":
        return os.path.exists(data["filePath"])
    if kind == "boolean.NOT":
        return not is_true(data["condition"])
    if kind == "boolean.AND":
        return all(is_true(c) for c in data["conditions"])
    if kind == "boolean.OR":
        return any(is_true(c) for c in data["conditions"])
    raise ValueError(f"no truth for condition type {kind}")


class Model:
    """What the acknowledged commands leave stored, in the form of
    state_file.State.summary().

    The runner's enabled flag has two values: the stored one, which only
    SetEnabled writes when it switches the runner, and the one in memory,
    which a console update (new rules, a method set) also switches on
    without storing it. So after a kill the stored flag may say disabled
    although the runner ran enabled, and SetEnabled(true) then stores
    nothing."""

    def __init__(self):
        self.rules = []
        self.method_sets = {}
        self.enabled = True  # stored
        self.running = True  # in memory

    def summary(self):
        return {"rules": self.rules, "methodSets": self.method_sets, "enabled": self.enabled}

    def copy(self):
        return copy.deepcopy(self)

    @classmethod
    def of(cls, summary):
        model = cls()
        model.rules = copy.deepcopy(summary["rules"])
        model.method_sets = copy.deepcopy(summary["methodSets"])
        model.enabled = model.running = summary["enabled"]
        return model

    def restarted(self):
        """The model once a start has read the stored flag."""
        after = self.copy()
        after.running = after.enabled
        return after

    def after(self, command):
        """The model once `command` (method, request) has succeeded."""
        name, request = command
        after = self.copy()
        if name == "SetRules":
            after.rules = copy.deepcopy(request["rules"])
            after.running = True
        elif name == "SetMethodSet":
            after.method_sets[request["id"]] = {"displayName": request["displayName"],
                                                "methods": copy.deepcopy(request["methods"])}
            after.running = True
        elif name == "DeleteMethodSet":
            after.method_sets.pop(request["id"], None)
        elif name == "SetEnabled":
            if request["enabled"] != self.running:
                after.enabled = after.running = request["enabled"]
        else:
            raise ValueError(f"the model does not follow {name}")
        return after


def random_rules(rng, pool, changed=False):
    """A rule set of up to five rules of the pool in random order; with
    `changed`, every display name gets a mark of its own so that the set
    differs from any set before it."""
    rules = copy.deepcopy(rng.sample(pool, rng.randint(0, 5)))
    if changed:
        mark = rng.randrange(1 << 30)
        for r in rules:
            r["displayName"] += f" #{mark}"
    return rules


def random_method_set(rng, ident=None):
    return {"id": ident or rng.choice(METHOD_SET_IDS), "displayName": f"set {rng.randrange(100)}",
            "methods": [{"plugin": "P", "method": m} for m in rng.sample(METHODS, rng.randint(1, 3))]}


def random_command(rng, pool):
    """One state-changing console command: (method, request)."""
    roll = rng.random()
    if roll < 0.4:
        return "SetRules", {"rules": random_rules(rng, pool, changed=rng.random() < 0.3)}
    if roll < 0.7:
        return "SetMethodSet", random_method_set(rng)
    if roll < 0.85:
        return "DeleteMethodSet", {"id": rng.choice(METHOD_SET_IDS)}
    return "SetEnabled", {"enabled": rng.random() < 0.7}


def flip_files(rng, folder):
    for k in range(FILE_COUNT):
        if rng.random() < 0.5:
            path = file_path(folder, k)
            if os.path.exists(path):
                os.remove(path)
            else:
                open(path, "w").close()


def rng_from(seed):
    return random.Random(seed)
