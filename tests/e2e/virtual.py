"""Virtual threads as qorctl shows them are those of the JVM's own dump."""
import glob
import json
import os
import re
import unittest

from harness import SETTINGS, Case, Program, folder, run_tool, wait_until

FIRST = 21  # the JDK with virtual threads
WITH_SNAPSHOTS = 25  # and the one that reports their monitors


def newest_jdk():
    """The JDK of the tests, or a newer one that is installed beside it."""
    if SETTINGS.version >= FIRST:
        return SETTINGS.jdk
    named = os.environ.get("QOR_TEST_JDK", "")
    found = {int(number): path for path in [named, *glob.glob("/usr/lib/jvm/*")]
             for number in re.findall(r"(?:java|jdk)-(\d+)", path) if os.path.exists(f"{path}/bin/jcmd")}
    return found[max(found)] if found and max(found) >= FIRST and not SETTINGS.root else None


class Virtual(Case):
    @classmethod
    def setUpClass(cls):
        jdk = newest_jdk()
        if not jdk:
            raise unittest.SkipTest(f"virtual threads, for want of a JDK of {FIRST} or later")
        source = os.path.join(os.path.dirname(os.path.abspath(__file__)), "Virtual.java")
        cls.jdk = jdk
        cls.app = Program("-Xcheck:jni", "-Djdk.virtualThreadScheduler.parallelism=8", source, jdk=jdk)
        cls.addClassCleanup(cls.app.__exit__)

    def dump(self):
        """What the JVM dumps of its virtual threads: by id, name and calls from the top."""
        path, inside = folder(self)
        run_tool("jcmd", self.app.pid, "Thread.dump_to_file", "-format=json", inside + "/dump", jdk=self.jdk)
        with open(path + "/dump", encoding="utf-8") as file:
            containers = json.load(file)["threadDump"]["threadContainers"]
        threads = [thread for container in containers for thread in container["threads"]]
        return {int(t["tid"]): (t["name"], [re.sub(r"\(.*|^.*/", "", frame) for frame in t["stack"]])
                for t in threads}

    def test_mounted_ones_are_rows_with_their_own_frames(self):
        threads = self.json("threads", self.app.pid, "--all", "--details")["threads"]
        shown = {t["id"]: t for t in threads if t.get("virtual") and t["name"][:2] != "m-"}
        truth = {tid: (name, calls) for tid, (name, calls) in self.dump().items() if "Virtual.spin" in calls}
        self.assertEqual({tid: t["name"] for tid, t in shown.items()},
                         {tid: name for tid, (name, _) in truth.items()})
        for tid, thread in shown.items():  # the dump hides the JVM's own frames
            calls = [f'{f["class"]}.{f["method"]}' for f in thread["stack"]]
            self.assertEqual([c for i, c in enumerate(calls) if not i or c in truth[tid][1]], truth[tid][1])
        self.assertEqual({(t["state"], t["call"]["method"]) for t in shown.values()}, {("Runnable", "spin")})
        self.assertEqual({t["key"]: t["carries"] for t in threads if "carries" in t},
                         {t["carrier"]: t["key"] for t in threads if t.get("virtual")})
        listed = self.json("threads", self.app.pid, "--all")["threads"]
        for word in ("carrier", "carries"):
            self.assertEqual(*({t["key"]: t[word] for t in rows if word in t} for rows in (threads, listed)))
        self.assertNotRegex(self.app.output(), "WARNING in native|FATAL ERROR")

    def test_others_are_in_groups_own_locks_and_are_found_by_id(self):
        truth = self.dump()
        resting = {tid for tid, (_, calls) in truth.items() if "Virtual.rest" in calls}
        view = self.json("threads", self.app.pid, "--virtual", "--details", "--match", "Virtual.rest")
        (group,) = view["groups"]
        self.assertEqual((group["count"], group["state"], group["call"]["method"]),
                         (len(resting), "Object Wait", "rest"))
        self.assertEqual(group["stack"][0]["method"], "rest")
        self.assertIn(group["id"], resting)
        self.assertEqual(view["count"],
                         sum("java.lang.VirtualThread.run" in calls for _, calls in truth.values()))

        def waits():
            return [w for w in self.json("locks", self.app.pid)["waits"] if w["waiter"]["name"] == "p-wants"]
        wait_until("p-wants waits", waits)
        holder = waits()[0]["holder"]
        self.assertEqual((holder["name"], holder["virtual"]), ("v-owner", True))
        (owner,) = self.json("stack", self.app.pid, holder["id"])["threads"]
        self.assertEqual((owner["name"], owner["stack"][0]["method"], truth[holder["id"]][0]),
                         ("v-owner", "own", "v-owner"))
        said = f"held by virtual thread #{holder['id']} v-owner"
        self.assertIn(said, self.answer("locks", self.app.pid).out)

    def test_monitors_have_virtual_owners_and_waiters(self):
        ids = {name: tid for tid, (name, _) in self.dump().items()}
        hashes = dict(re.findall(r"(monitor|class) (\d+)", self.app.output()))
        for waiter, lock, holder in (("m-wants", "monitor", "m-holds"), ("m-wants-class", "class", "m-wants"),
                                     ("m-platform", "monitor", "m-holds")):
            (thread,) = self.json("stack", self.app.pid, ids[waiter])["threads"]
            said = self.answer("locks", self.app.pid, ids[waiter]).out
            self.assertEqual((thread["state"], str(thread["waits_for"]["lock"])), ("Lock", hashes[lock]))
            self.assertIn(f"<{hashes[lock]}>", said)
            self.assertIn(f'held by "{holder}" #{ids[holder]} ', said)
            text = self.answer("stack", self.app.pid, ids[waiter]).out
            self.assertIn(f"held by virtual thread #{ids[holder]} {holder}\n", text)
        held = self.json("locals", self.app.pid, ids["m-platform"], 0)["locals"]  # listed after a carrier
        self.assertEqual(held[0]["type"], "java.util.concurrent.CountDownLatch")
        if SETTINGS.version >= WITH_SNAPSHOTS:
            (thread,) = self.json("stack", self.app.pid, ids["m-holds"])["threads"]
            owned = [(str(o["lock"]), thread["stack"][o["depth"]]["method"]) for o in thread["owns"]]
            self.assertEqual(owned, [(hashes["monitor"], "hold")])
        self.assertNotRegex(self.app.output(), "WARNING in native|FATAL ERROR")
