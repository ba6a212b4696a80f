"""Heap dumps: what is in them, how a failed one is reported, and one that outlasts the agent's patience."""
import os
import re
import signal
import subprocess

import pexpect

from harness import Case, OfTheDemo, folder, on_terminal, qorctl, run_tool
from hung import Hang


class Dumps(OfTheDemo):
    def setUp(self):
        self.here, self.inside = folder(self)

    def dump(self, name, *options):
        return self.json("dump", f"{self.inside}/{name}", *options)

    def read(self, name):
        return qorctl("dump", "--read", f"{self.here}/{name}", "--top", 100000, "--json").json()

    def demo_classes(self, name):
        return {row["class"]: row["objects"] for row in self.read(name)["classes"]
                if row["class"].startswith("qoragent.demo.")}

    def test_a_dump_has_what_the_jvm_counts(self):
        own = self.dump("own", "--hprof", "--live")
        self.assertEqual((own["form"], own["file"]), ("hprof", f"{self.inside}/own.hprof"))
        self.assertEqual(os.stat(f"{self.here}/own.hprof").st_mode & 0o777, 0o600)
        self.assertEqual(self.dump("text")["bytes"], os.path.getsize(f"{self.here}/text"))
        truth = {name: int(count) for count, name in re.findall(
            r"(?m)^ *\d+: +(\d+) +\d+  (qoragent\.demo\.[\w.$]+)",
            run_tool("jcmd", self.app.pid, "GC.class_histogram"))}
        self.assertGreater(len(truth), 8)
        self.assertLessEqual(truth.items(), self.demo_classes("text").items())
        summary = self.read("text")
        self.assertTrue(summary["complete"])
        self.assertGreater(summary["roots"]["threads"], 15)
        people = qorctl("dump", "--read", f"{self.here}/text", "--top", 5).out
        self.assertRegex(people, r"(?s)\d objects of \d+ classes.*the largest 5 of")
        self.dump("text")  # once more takes its place
        self.assertNotEqual(self.read("text")["heap_id"], summary["heap_id"])

    def test_failures_leave_the_agent_usable(self):
        victim = f"{self.here}/victim"
        os.symlink(victim, f"{self.here}/link")
        with open(victim, "w", encoding="ascii") as file:
            file.write("mine")
        self.dump("own", "--hprof")
        for why, name, code, *options in (
                ("sees no directory", f"{self.inside}/nowhere/x", 1), ("could not write", "/proc/x", 1),
                ("is a link", f"{self.inside}/link", 1), ("no plain file", self.inside, 1),
                ("is there already", f"{self.inside}/own", 1, "--hprof"),
                ("could not write", "/proc/x", 1, "--hprof"),
                ("own form", "x.hprof", 2), ("an absolute path", "a/b", 2)):
            with self.subTest(name=name, options=options):
                self.refused(why, "dump", name, *options, code=code)
                self.answer("summary")
        for why, name in (("can't read", "/nowhere"), ("Hprof", f"{self.here}/own.hprof"),
                          ("a text dump", victim)):
            self.check_refusal(why, qorctl("dump", "--read", name))
        self.assertEqual(os.path.getsize(victim), 4)

    def test_a_copy_of_the_jvm_dumps_the_same(self):
        self.assertFalse(self.dump("own")["copied"])
        self.assertIn("Changed forkdump to 1", self.answer("forkdump", "on").out)
        self.assertTrue(self.dump("copied")["copied"])
        self.assertFalse(self.dump("stopped", "--stop")["copied"])
        self.assertIn("paused for it: by --stop", self.answer("histogram", "--stop").out)
        histogram = self.json("histogram")
        self.assertTrue(histogram["copied"])
        self.assertIn("java.lang.String", [row["class"] for row in histogram["classes"]])
        self.answer("forkdump", "off")
        self.assertEqual(self.demo_classes("copied"), self.demo_classes("own"))
        self.refused("on", "forkdump", "maybe", code=2)


class LateDumps(Case):
    """Of a heap for which the agent doesn't wait long enough; the dump goes on, and qorctl waits."""

    def watch(self, file, *options, said, code, then=lambda: None):
        with on_terminal("dump", self.app.pid, file, "--timeout", 3, *options) as dump:
            dump.expect(" M written")  # the file, without its end
            then()
            dump.expect(said)
            dump.expect(pexpect.EOF)
            dump.close()
            self.assertEqual(dump.exitstatus, code)

    def test_they_are_waited_for_until_their_end(self):
        file = folder(self)[1] + "/slow"
        with Hang("-XX:+UseSerialGC", "-Xmx256m") as self.app:
            self.app.tell("fill")
            self.answer("attach", "--options", "timeout=1")
            self.watch(file, "--stop", said=r"slow: [\d.]+ M in ", code=0)
            self.watch(file, said=r"slow: [\d.]+ M in .*\s+by a copy", code=0)
            self.watch(file, said="stopped growing at", code=1, then=lambda: os.kill(
                int(subprocess.check_output(["pgrep", "-P", str(self.app.pid)])), signal.SIGSTOP))
