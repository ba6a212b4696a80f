"""Virtual threads as qorctl shows them are those of the JVM's own dump."""
import collections
import contextlib
import glob
import json
import os
import re
import unittest

from harness import FOLDER, SETTINGS, Case, Program, folder, run_tool, wait_until

FIRST = 21  # the JDK with virtual threads
WITH_SNAPSHOTS = 25  # and the one that reports their monitors
# Frames on top of an unmounted thread, and those of the JVM's own that the dump doesn't show.
SCHEDULER = re.compile(r"java\.lang\.VirtualThread\.|\.parkVirtualThread|VirtualThreads\.|LockSupport\.park")
HIDDEN = re.compile(r"\$\$Lambda|\.runWith$|\$VThreadContinuation|^jdk\.internal\.vm\.Continuation\.")
CROWD = {  # a call in the stack: number, state
    "java.lang.Thread.sleep": (200, "Sleeping"),
    "java.util.concurrent.locks.ReentrantLock.lock": (100, "Object Wait"),
    "java.net.Socket$SocketInputStream.read": (20, "Network Wait"),
    "java.net.ServerSocket.accept": (1, "Object Wait"),
    "tessar.jdbc.driver.TessarStatement.executeQuery": (3, "DB Wait"),
}


def newest_jdk():
    """Version and place of the JDK of the tests, or of the newest that is installed beside it."""
    found = [(SETTINGS.version, SETTINGS.jdk)]
    if SETTINGS.version < FIRST:
        for tool in glob.glob(f"{SETTINGS.root}{os.path.dirname(SETTINGS.jdk)}/*/bin/jcmd"):
            jdk = tool[:-len("/bin/jcmd")]
            with contextlib.suppress(OSError), open(jdk + "/release", encoding="utf-8") as release:
                versions = re.findall(r'(?m)^JAVA_VERSION="(\d+)', release.read())
                found += [(int(version), jdk[len(SETTINGS.root):]) for version in versions]
    return max(found)


class OfVirtual(Case):
    """A group whose tests look into the program of its name."""

    @classmethod
    def setUpClass(cls):
        cls.version, cls.jdk = newest_jdk()
        if cls.version < FIRST:
            raise unittest.SkipTest(f"virtual threads, for want of a JDK of {FIRST} or later")
        cls.app = Program("-Xcheck:jni", *cls.FLAGS, "-cp", SETTINGS.classes,
                          f"{FOLDER}/{cls.__name__}.java", jdk=cls.jdk)
        cls.addClassCleanup(cls.app.__exit__)

    def tearDown(self):
        self.assertNotRegex(self.app.output(), "WARNING in native|FATAL ERROR")

    def dump(self):
        """What the JVM dumps of its virtual threads: by id, name and calls from the top."""
        path, inside = folder(self)
        run_tool("jcmd", self.app.pid, "Thread.dump_to_file", "-format=json", inside + "/dump",
                 jdk=self.jdk)
        with open(path + "/dump", encoding="utf-8") as file:
            containers = json.load(file)["threadDump"]["threadContainers"]
        return {int(t["tid"]): (t["name"], [re.sub(r"\(.*|^.*/", "", frame) for frame in t["stack"]])
                for container in containers for t in container["threads"]}


class Virtual(OfVirtual):
    FLAGS = ("-Djdk.virtualThreadScheduler.parallelism=8",)

    def test_mounted_ones_are_rows_with_their_own_frames(self):
        threads = self.json("threads", "--all", "--details")["threads"]
        shown = {t["id"]: t for t in threads if t.get("virtual") and t["name"][:2] != "m-"}
        truth = {tid: (name, calls) for tid, (name, calls) in self.dump().items() if "Virtual.spin" in calls}
        self.assertEqual({tid: t["name"] for tid, t in shown.items()},
                         {tid: name for tid, (name, _) in truth.items()})
        for tid, thread in shown.items():  # the dump hides the JVM's own frames
            calls = [f'{f["class"]}.{f["method"]}' for f in thread["stack"]]
            self.assertEqual([c for i, c in enumerate(calls) if not i or c in truth[tid][1]], truth[tid][1])
            self.assertEqual((thread["state"], thread["call"]["method"]), ("Runnable", "spin"))
        self.assertEqual({t["key"]: t["carries"] for t in threads if "carries" in t},
                         {t["carrier"]: t["key"] for t in threads if t.get("virtual")})

    def test_others_are_in_groups_own_locks_and_are_found_by_id(self):
        truth = self.dump()
        resting = {tid for tid, (_, calls) in truth.items() if "Virtual.rest" in calls}
        view = self.json("threads", "--virtual", "--details", "--match", "Virtual.rest")
        (group,) = view["groups"]
        self.assertEqual((group["count"], group["state"], group["stack"][0]["method"]),
                         (len(resting), "Object Wait", "rest"))
        self.assertIn(group["id"], resting)
        self.assertEqual(view["count"],
                         sum("java.lang.VirtualThread.run" in calls for _, calls in truth.values()))
        (holder,) = [w["holder"] for w in self.json("locks")["waits"] if w["waiter"]["name"] == "p-wants"]
        self.assertEqual((holder["name"], holder["virtual"]), ("v-owner", True))
        owner = self.stack(holder["id"])
        self.assertEqual((owner["name"], owner["stack"][0]["method"], truth[holder["id"]][0]),
                         ("v-owner", "own", "v-owner"))
        self.assertIn(f"held by virtual thread #{holder['id']} v-owner", self.answer("locks").out)

    def test_monitors_have_virtual_owners_and_waiters(self):
        ids = {name: tid for tid, (name, _) in self.dump().items()}
        hashes = dict(re.findall(r"(monitor|class) (\d+)", self.app.output()))
        for waiter, lock, holder in (("m-wants", "monitor", "m-holds"), ("m-wants-class", "class", "m-wants"),
                                     ("m-platform", "monitor", "m-holds")):
            thread, said = self.stack(ids[waiter]), self.answer("locks", ids[waiter]).out
            self.assertEqual((thread["state"], str(thread["waits_for"]["lock"])), ("Lock", hashes[lock]))
            self.assertIn(f"<{hashes[lock]}>", said)
            self.assertIn(f'held by "{holder}" #{ids[holder]} ', said)
            self.assertIn(f"held by virtual thread #{ids[holder]} {holder}\n",
                          self.answer("stack", ids[waiter]).out)
        held = self.json("locals", ids["m-platform"], 0)["locals"]  # listed after a carrier
        self.assertEqual(held[0]["type"], "java.util.concurrent.CountDownLatch")
        if self.version >= WITH_SNAPSHOTS:
            thread = self.stack(ids["m-holds"])
            owned = [(str(o["lock"]), thread["stack"][o["depth"]]["method"]) for o in thread["owns"]]
            self.assertEqual(owned, [(hashes["monitor"], "hold")])


class VirtualGroups(OfVirtual):
    """Of two thousand that no carrier runs."""
    FLAGS = ("--add-exports=java.base/jdk.internal.misc=ALL-UNNAMED",)

    def parked(self):
        """The unmounted threads of the dump, their calls after the scheduler's."""
        parked = {}
        for tid, (_, calls) in self.dump().items():
            own = list(calls)
            while len(own) > 1 and SCHEDULER.search(own[0]):
                own.pop(0)
            if calls and own != calls and calls[-1] == "java.lang.VirtualThread.run":
                parked[tid] = tuple(own)
        return parked

    def groups(self, arguments):
        """The first record's fields, the groups', and each group's calls."""
        raw = self.answer("raw", f"793|showstack|65536|ARG=x,{arguments}").out
        view, *sections = raw.replace("\n", "").split("<31>")
        head, *groups = [record.split("<29>") for record in view.split("<30>")[1:-1]]
        stacks = [[frame.split("<29>")[0].replace("->", ".") for frame in section.split("<30>")[1:]]
                  for section in sections if section.startswith("Call Stack")]
        return head, groups, [tuple(c for c in calls if not HIDDEN.search(c)) for calls in stacks]

    def test_groups_are_those_of_the_dump(self):
        self.answer("attach", "--options", "dbquery=1,handquota=100")
        wait_until("all are parked",
                   lambda: sum("VirtualGroups" in str(c) for c in self.parked().values()) >= 2100)
        truth = self.parked()
        head, groups, stacks = self.groups("0=4096,1=100000,2=2000")
        self.assertEqual([int(n) for n in head[:1] + head[2:6]], [len(truth), 0, len(truth), len(groups), 0])
        numbers, containers = collections.Counter(), collections.Counter()
        for group, calls in zip(groups, stacks):
            numbers[calls] += int(group[0])
            containers[group[6]] += int(group[0])
            self.assertEqual(truth[int(group[1].split("-")[1])], calls)
        self.assertEqual(numbers, collections.Counter(truth.values()))
        for call, (number, state) in CROWD.items():
            found = [(int(g[0]), g[11].split("<28>")[0]) for g, calls in zip(groups, stacks) if call in calls]
            self.assertIn((number, state), found, call)
        self.assertEqual(containers["crowd-scope"], 35)
        self.assertGreaterEqual(containers["java.util.concurrent.ThreadPerTaskExecutor"], 700)
        waits, owner = next(group[4:6] for group in groups if group[4] != "^")
        self.assertEqual(waits, "java.util.concurrent.locks.ReentrantLock$NonfairSync")
        self.assertEqual(owner.split("-")[1], self.app.output().split()[1])
        (caller,) = [group for group in groups if "select total from " in str(group)]
        thread = self.stack(caller[1])
        self.assertEqual(thread["state"], "DB Wait")
        self.assertIn(thread["db"]["sql"], str(caller))
        frame = next(f for f in thread["stack"] if f["method"] == "queryDatabase")
        objects = self.json("locals", caller[1], frame["index"])["locals"]
        self.assertIn("tessar.jdbc.driver.TessarConnection", [o["type"] for o in objects])

        raw = self.answer("raw", "777|showstack|65536|ARG=x,1=100000,2=2000,4=50").out
        self.assertEqual(set(re.findall(r"select total from (\w+)", raw)), {"bills", "offers", "orders"})

        head, groups, _ = self.groups("0=1,1=64,3=VirtualGroups")
        self.assertEqual((head[3], len(groups), int(head[5]) & 1), ("64", 1, 1))
