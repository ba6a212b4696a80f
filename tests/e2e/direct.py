"""A JVM that is read by address, a simulated one: qorctl shows what its threads know of themselves."""
import json
import os
import re
import subprocess
import tempfile
from collections import Counter

from harness import LIMIT, SETTINGS, Case, leftovers, wait_until


# The letters of a dump's records, by kind.
KINDS = {"instances": "8", "arrays": "[", "methods": "2F", "pools": "34", "symbols": "1"}


class DirectRoad(Case):
    SCENE = "shop"

    def setUp(self):
        if SETTINGS.root:
            self.skipTest("the JDK plays no part")
        vm = subprocess.Popen([f"{SETTINGS.build}/simvm_host", "--scene", self.SCENE, "--truth"],
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(lambda: (vm.kill(), vm.communicate()))
        lines = list(iter(vm.stdout.readline, f"simvm_host: {vm.pid}\n"))
        self.assertEqual(lines.pop(), "initvar: 0\n")
        truths = list(map(json.loads, lines))
        self.vm, self.truths = vm, {}
        for truth in truths:
            if "name" in truth:  # a thread's, and of the object of that name
                self.truths.setdefault(truth["name"], {}).update(truth)
        self.heap = next((t["heap"] for t in truths if "heap" in t), None)
        self.sample, self.owned = {}, {}

    def stopped(self):
        """Samples until each thread that runs has stopped in time; on a busy machine some don't."""
        sample = self.answer("threads", self.vm.pid, "--details", "--all", "--json").json()
        self.assertFalse(sample["cut"])
        self.sample = {t["name"]: t for t in sample["threads"]}
        return all("stack" in thread for thread in self.sample.values())

    @staticmethod
    def frames(thread):
        return [f'{row["class"]}->{row["method"]} {row["file"] or "Native Method"} {row["line"] or "^"}'
                for row in thread["stack"]]

    @staticmethod
    def locks(thread):
        return sorted(f'{lock["lock"]:x} {lock["class"]} {lock["depth"]}' for lock in thread["owns"])

    def compare(self, thread, truth):
        self.assertEqual((thread["id"], thread["state"]), (truth["id"], truth["state"]))
        shown, frames = self.frames(thread), truth["frames"]
        self.assertEqual(*(rows[-2:] if truth["moving"] else rows for rows in (shown, frames)))
        self.assertEqual(self.locks(thread), truth["locks"])
        wait = thread["waits_for"]
        self.assertEqual(f'{wait["lock"]:x} {wait["class"]}' if wait else "", truth["waits"])
        owner = next((i for i, locks in self.owned.items() if truth["waits"] and any(
            lock.startswith(truth["waits"] + " ") for lock in locks)), None)
        self.assertEqual(wait and wait["owner"], owner)

    def test_shows_what_its_threads_do(self):
        pid, truths = self.vm.pid, self.truths
        wait_until("every thread has a stack", self.stopped)
        self.assertEqual({*self.sample}, {*truths, "main"})
        self.owned = {t["id"]: self.locks(t) for t in self.sample.values()}
        table = self.answer("threads", pid, "--all").out
        for name, truth in truths.items():
            with self.subTest(thread=name):
                self.compare(self.sample[name], truth)
                self.assertRegex(table, rf'(?m)^ *{truth["id"]}  {truth["state"]} +{name} +\S')
                if truth["state"] != "Runnable":
                    one = self.answer("stack", pid, name, "--json").json()["threads"][0]
                    self.assertEqual(self.frames(one), truth["frames"])
        waits = self.answer("locks", pid, "--json").json()["waits"]
        self.assertEqual({w["waiter"]["name"]: (f'{w["lock"]:x} {w["class"]}', w["holder"]["name"]) for w in waits},
                         {t["name"]: (t["waits"], next(h["name"] for h in truths.values() for lock in h["locks"]
                                                       if lock.startswith(t["waits"] + " ")))
                          for t in truths.values() if t["waits"]})
        states = Counter(t["state"] for t in truths.values()) + Counter({"Object Wait": 1})  # main
        summary = self.answer("summary", pid, "--json").json()
        for state, count in states.items():
            self.assertEqual(summary["threads_" + state.lower().replace(" ", "_")], count, state)
        self.assertTrue(self.answer("raw", pid, "521|showstack|64").out.startswith(f'{states["Runnable"]}<29>0<29>'))
        self.answer("shutdown", pid)
        self.assertEqual(self.vm.wait(LIMIT), 0)
        self.assertEqual(leftovers(pid), [])


class DirectHeap(DirectRoad):
    SCENE = "heap"
    test_shows_what_its_threads_do = None

    def test_dumps_what_is_in_its_heap(self):
        place = tempfile.TemporaryDirectory(prefix="qor-dumps-")
        self.addCleanup(place.cleanup)
        path = os.path.join(place.name, "dump")
        made = self.answer("dump", self.vm.pid, path, "--json").json()
        self.assertEqual(made["bytes"], os.path.getsize(path))
        dump = self.answer("dump", "--read", path, "--top", "10000", "--json").json()
        classes = Counter()
        for space in self.heap:
            for name, (objects, _) in space["classes"].items():
                classes[name] += objects
        self.assertTrue(dump["complete"])
        self.assertEqual(dump["objects"], sum(space["objects"] for space in self.heap))
        self.assertEqual(dump["bytes"], sum(space["bytes"] for space in self.heap))
        read = {row["class"]: row["objects"] for row in dump["classes"] if not row["class"].startswith("(")}
        self.assertEqual(sum(read.values()), sum(classes.values()))
        for name, objects in classes.items():
            if not name.startswith("["):
                self.assertEqual(read.get(name.replace("/", ".")), objects, name)
        self.assertGreater(dump["roots"]["stack_locals"], 0)
        self.answer("shutdown", self.vm.pid)
        self.assertEqual(self.vm.wait(LIMIT), 0)


    def test_counts_what_is_in_its_heap(self):
        spaces = {space["name"]: space for space in self.heap}
        heap = self.answer("heap", self.vm.pid, "--json").json()
        self.assertEqual({pool["name"]: (pool["used_kib"], pool["max_kib"]) for pool in heap["pools"]},
                         {name: (space["used"] // 1024, space["capacity"] // 1024) for name, space in spaces.items()})
        kinds = self.answer("heap", self.vm.pid, "--kinds", "--json").json()["spaces"]
        self.assertEqual({row["name"]: [row["objects"], *(row["kinds"][kind]["objects"] for kind in KINDS)]
                          for row in kinds},
                         {name: [space["objects"], *(sum(space["types"].get(letter, [0])[0] for letter in letters)
                                                     for letters in KINDS.values())]
                          for name, space in spaces.items()})
        classes = Counter()
        for space in self.heap:
            for name, (objects, _) in space["classes"].items():
                classes[name.replace("/", ".")] += objects
        shown = self.answer("histogram", self.vm.pid, "--top", "302", "--json").json()["classes"]
        self.assertLessEqual({(row["class"], row["instances"]) for row in shown if row["class"].startswith("heap.")},
                             {*classes.items()})
        self.assertEqual(self.answer("gc", self.vm.pid, "--json").json()["collectors"], heap["collectors"])


class DirectTiers(DirectRoad):
    """Databases, and frames that stand for what a framework works on."""
    SCENE = "drivers"
    test_shows_what_its_threads_do = None

    def test_shows_databases(self):
        rows = self.answer("connections", self.vm.pid, "--json").json()["connections"]
        facts = {name: truth["facts"] for name, truth in self.truths.items() if truth.get("facts")}
        self.assertEqual({row["threads"][0]["name"]: [row["url"], row["user"], row["local_port"], row["remote_port"],
                                                      row["threads"][0]["sql"]] for row in rows},
                         {name: [fact["url"], fact["user"], int(fact["local port"]), int(fact["remote port"]),
                                 fact.get("sql")]
                          for name, fact in facts.items()})
        port = rows[0]["local_port"]
        holder = self.answer("connections", self.vm.pid, "--port", port, "--json").json()
        self.assertEqual(holder["thread"]["name"], rows[0]["threads"][0]["name"])


class DirectFrameworks(DirectTiers):
    SCENE = "tiers"
    test_shows_databases = None

    def test_shows_frameworks(self):
        wait_until("every thread has a stack", self.stopped)
        for name, truth in self.truths.items():
            for word in {"Entity_Object", "View_Object", "EL_Exp", "Groovy_Script"} & {*truth["facts"]}:
                one = self.answer("stack", self.vm.pid, name, "--json").json()["threads"][0]
                for thread in (one, self.sample[name]):  # of a script, the line
                    self.assertIn(truth["facts"][word], [value for row in thread["stack"] if row["class"] == word
                                                         for value in (row["method"], str(row["line"]))])


class DirectLocals(DirectRoad):
    """Locals of frames and the objects that they refer to."""
    SCENE = "readers"
    TYPES = {"I": "Integer", "J": "Long", "Z": "Boolean", "F": "Float", "D": "Double"}
    test_shows_what_its_threads_do = None

    def type_of(self, signature):
        element = signature.lstrip("[")
        name = element[1:-1].replace("/", ".") if element[0] == "L" else self.TYPES.get(element)
        return name and name + "[]" * (len(signature) - len(element))

    def test_shows_locals_and_what_they_refer_to(self):
        tags = set()
        for name, truth in self.truths.items():
            for index, frame in enumerate(truth.get("details", [])):
                rows = self.answer("locals", self.vm.pid, name, index, "--json").json()["locals"]
                for row, argument in zip(rows[1:], frame["arguments"]):
                    self.assertEqual(row["type"], self.type_of(argument["type"]) or row["type"], frame)
                    if argument["seen"] == "number" and argument["type"] in "IJ":
                        self.assertEqual(row["value"], str(argument["value"]), frame)
                tags.update(row["tag"] for row in rows if row["tag"])
        objects = {int(t["object"]["address"], 16): t["object"] for t in self.truths.values() if "object" in t}
        self.assertTrue(tags & {*objects})
        for tag in tags:  # each row opens what it shows
            classes = self.answer("object", self.vm.pid, tag, "--json").json()["objects"][0]["classes"]
            truth = objects.get(tag, {})
            if "fields" in truth:
                self.assertEqual(classes[0]["class"], truth["class"].replace("/", "."))
                self.assertLessEqual({f["name"] for f in truth["fields"]}, {f["name"] for c in classes for f in c["fields"]})
