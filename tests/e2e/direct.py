"""A JVM that is read by address, a simulated one: qorctl shows what its threads know of themselves."""
import json
import os
import subprocess
from collections import Counter

from harness import LIMIT, SETTINGS, Case, folder, leftovers, wait_until

# The letters of a dump's records, by kind.
KINDS = {"instances": "8", "arrays": "[", "methods": "2F", "pools": "34", "symbols": "1"}


class Direct(Case):
    SCENE = ""

    def setUp(self):
        if SETTINGS.root:
            self.skipTest("the JDK plays no part")
        self.vm = subprocess.Popen([f"{SETTINGS.build}/simvm_host", "--scene", self.SCENE, "--truth"],
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(lambda: (self.vm.kill(), self.vm.communicate()))
        lines = list(iter(self.vm.stdout.readline, f"simvm_host: {self.vm.pid}\n"))
        self.assertEqual(lines.pop(), "initvar: 0\n")
        self.truths, self.heap, self.sample = {}, None, {}
        for truth in map(json.loads, lines):
            self.heap = truth.get("heap", self.heap)
            if "name" in truth:  # a thread's, and of the object of that name
                self.truths.setdefault(truth["name"], {}).update(truth)

    def stopped(self):
        """Samples until each thread that runs has stopped in time; on a busy machine some don't."""
        self.sample = self.threads(self.vm, "--details", "--all")
        return all("stack" in thread for thread in self.sample.values())

    @staticmethod
    def frames(thread):
        return [f'{row["class"]}->{row["method"]} {row["file"] or "Native Method"} {row["line"] or "^"}'
                for row in thread["stack"]]

    def stack(self, name):
        return self.json("stack", self.vm.pid, name)["threads"][0]

    def shut_down(self):
        self.answer("shutdown", self.vm.pid)
        self.assertEqual((self.vm.wait(LIMIT), leftovers(self.vm.pid)), (0, []))


class DirectRoad(Direct):
    SCENE = "shop"

    def test_shows_what_its_threads_do(self):
        wait_until("every thread has a stack", self.stopped)
        self.assertEqual({*self.sample}, {*self.truths, "main"})
        for name, truth in self.truths.items():
            with self.subTest(thread=name):
                thread, bottom = self.sample[name], -2 if truth["moving"] else 0
                self.assertEqual((thread["id"], thread["state"]), (truth["id"], truth["state"]))
                self.assertEqual(self.frames(thread)[bottom:], truth["frames"][bottom:])
                self.assertEqual(sorted(f'{lock["lock"]:x} {lock["class"]} {lock["depth"]}'
                                        for lock in thread["owns"]),
                                 truth["locks"])
                if truth["state"] != "Runnable":
                    self.assertEqual(self.frames(self.stack(name)), truth["frames"])
        waits = {wait["waiter"]["name"]: (f'{wait["lock"]:x} {wait["class"]}', wait["holder"]["name"])
                 for wait in self.json("locks", self.vm.pid)["waits"]}
        self.assertEqual(waits, {t["name"]: (t["waits"], next(
            holder["name"] for holder in self.truths.values() for lock in holder["locks"]
            if lock.startswith(t["waits"] + " "))) for t in self.truths.values() if t["waits"]})
        for keep, count in (("", 0), ("any_|keep|work", len(waits))):  # where all that waits is idle
            self.answer("rules", self.vm.pid, "-", text=f"any_|currcall|shop\nany_|monitor|shop\n{keep}\n")
            shown = Counter(thread["state"] for thread in self.threads(self.vm, "--details").values())
            summary = self.json("summary", self.vm.pid)
            self.assertEqual((summary["threads_lock"], shown["Lock"]), (count, count))
        self.shut_down()


class DirectHeap(Direct):
    SCENE = "heap"

    def test_dumps_and_counts_what_is_in_its_heap(self):
        spaces = {space["name"]: space for space in self.heap}
        classes = Counter()
        for space in self.heap:
            classes.update({name.replace("/", "."): row[0] for name, row in space["classes"].items()})
        path = folder(self)[0] + "/dump"
        self.assertEqual(self.json("dump", self.vm.pid, path)["bytes"], os.path.getsize(path))
        dump = self.json("dump", "--read", path, "--top", 10000)
        self.assertEqual((dump["complete"], dump["objects"], dump["bytes"]),
                         (True, *(sum(space[what] for space in self.heap) for what in ("objects", "bytes"))))
        read = {row["class"]: row["objects"] for row in dump["classes"] if not row["class"].startswith("(")}
        self.assertEqual(sum(read.values()), sum(classes.values()))
        self.assertLessEqual({item for item in classes.items() if item[0][0] != "["}, {*read.items()})
        self.assertGreater(dump["roots"]["stack_locals"], 0)
        heap = self.json("heap", self.vm.pid)
        self.assertEqual({pool["name"]: (pool["used_kib"], pool["max_kib"]) for pool in heap["pools"]},
                         {name: (space["used"] // 1024, space["capacity"] // 1024)
                          for name, space in spaces.items()})
        kinds = self.json("heap", self.vm.pid, "--kinds")["spaces"]
        self.assertEqual({row["name"]: [row["objects"], *(row["kinds"][kind]["objects"] for kind in KINDS)]
                          for row in kinds},
                         {name: [space["objects"], *(sum(space["types"].get(sign, [0])[0] for sign in kind)
                                                     for kind in KINDS.values())]
                          for name, space in spaces.items()})
        shown = self.json("histogram", self.vm.pid)["classes"]
        self.assertLessEqual({(row["class"], row["instances"])
                              for row in shown if row["class"].startswith("heap.")}, {*classes.items()})
        self.shut_down()
