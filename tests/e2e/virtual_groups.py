"""Virtual threads that no carrier runs: numbers, stacks and states are those of the JVM's own dump."""
import collections
import os
import re
import unittest

from harness import SETTINGS, Case, Program, wait_until
from virtual import FIRST, Virtual, newest_jdk

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
MEMBERS = 2100


class VirtualGroups(Case):
    dump = Virtual.dump

    @classmethod
    def setUpClass(cls):
        cls.jdk = newest_jdk()
        if not cls.jdk:
            raise unittest.SkipTest(f"groups of virtual threads, for want of a JDK of {FIRST} or later")
        source = os.path.join(os.path.dirname(os.path.abspath(__file__)), "VirtualCrowd.java")
        cls.app = Program("-Xcheck:jni", "--add-exports=java.base/jdk.internal.misc=ALL-UNNAMED", "-cp",
                          SETTINGS.classes, source, jdk=cls.jdk)
        cls.addClassCleanup(cls.app.__exit__)

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
        raw = self.answer("raw", self.app.pid, f"793|showstack|65536|ARG=x,{arguments}").out
        view, *sections = raw.replace("\n", "").split("<31>")
        head, *groups = [record.split("<29>") for record in view.split("<30>")[1:-1]]
        stacks = [[frame.split("<29>")[0].replace("->", ".") for frame in section.split("<30>")[1:]]
                  for section in sections if section.startswith("Call Stack")]
        return head, groups, [tuple(c for c in calls if not HIDDEN.search(c)) for calls in stacks]

    def test_groups_are_those_of_the_dump(self):
        self.answer("attach", self.app.pid, "--options", "dbquery=1,handquota=100")
        wait_until("all are parked",
                   lambda: sum("VirtualCrowd" in str(c) for c in self.parked().values()) >= MEMBERS)
        truth = self.parked()
        head, groups, stacks = self.groups("0=4096,1=100000,2=2000")
        self.assertEqual([int(n) for n in head[:1] + head[2:6]], [len(truth), 0, len(truth), len(groups), 0])
        numbers = collections.Counter()
        for group, calls in zip(groups, stacks):
            numbers[calls] += int(group[0])
            self.assertEqual(truth[int(group[1].split("-")[1])], calls)
        self.assertEqual(numbers, collections.Counter(truth.values()))
        for call, (number, state) in CROWD.items():
            found = [(int(g[0]), g[11].split("<28>")[0]) for g, calls in zip(groups, stacks) if call in calls]
            self.assertIn((number, state), found, call)
        containers = collections.Counter({group[6]: 0 for group in groups})
        for group in groups:
            containers[group[6]] += int(group[0])
        self.assertEqual(containers["crowd-scope"], 35)
        self.assertGreaterEqual(containers["java.util.concurrent.ThreadPerTaskExecutor"], 700)
        waits, owner = next(group[4:6] for group in groups if group[4] != "^")
        self.assertEqual(waits, "java.util.concurrent.locks.ReentrantLock$NonfairSync")
        self.assertEqual(owner.split("-")[1], self.app.output().split()[1])
        (caller,) = [group for group in groups if "select total from " in str(group)]
        (thread,) = self.json("stack", self.app.pid, caller[1])["threads"]
        self.assertEqual(thread["state"], "DB Wait")
        self.assertIn(thread["db"]["sql"], str(caller))
        frame = next(f for f in thread["stack"] if f["method"] == "queryDatabase")
        objects = self.json("locals", self.app.pid, caller[1], frame["index"])["locals"]
        self.assertIn("tessar.jdbc.driver.TessarConnection", [o["type"] for o in objects])

        raw = self.answer("raw", self.app.pid, "777|showstack|65536|ARG=x,1=100000,2=2000,4=50").out
        self.assertEqual(set(re.findall(r"select total from (\w+)", raw)), {"bills", "offers", "orders"})

        head, groups, _ = self.groups("0=1,1=64,3=VirtualCrowd")
        self.assertEqual((head[3], len(groups), int(head[5]) & 1), ("64", 1, 1))
        self.assertNotRegex(self.app.output(), "WARNING in native|FATAL ERROR")
