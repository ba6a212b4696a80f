"""A JVM that is read by address, a simulated one: qorctl shows what its threads know of themselves."""
import json
import os
import re
import subprocess
import tempfile
from collections import Counter

from harness import LIMIT, SETTINGS, Case, leftovers, wait_until


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
        self.vm, self.truths = vm, {t["name"]: t for t in truths if "name" in t}
        self.heap = next((t["heap"] for t in truths if "heap" in t), None)
        self.sample = {}

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

    def test_shows_what_its_threads_do(self):
        pid, truths = self.vm.pid, self.truths
        wait_until("every thread has a stack", self.stopped)
        self.assertEqual({*self.sample}, {*truths, "main"})
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
