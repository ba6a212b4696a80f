"""What qorctl says of a JVM that doesn't answer, read from outside, beside what the JVM's own tools say."""
import contextlib
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile

import jstack
from harness import LIMIT, NOBODY, SETTINGS, Case, Program, folder, in_root, run_tool, wait_until

SERIAL = ("-XX:+UseSerialGC", "-Xmx128m")
SPIN = r"^qoragent\.testing\.Hang\.spin \[C2( osr)?\]$"
# Each kind of cgroup: how it is mounted, and a group of it frozen and let go.
FREEZERS = (("-t cgroup -o freezer", "freezer.state", "FROZEN", "THAWED"),
            ("-t cgroup2", "cgroup.freeze", 1, 0))


class Hang(Program):
    """The JVM of the test class that hangs on request."""

    def __init__(self, *flags, words=(), **how):
        shutil.copytree(f"{SETTINGS.build}/test-classes/qoragent/testing",
                        f"{SETTINGS.root}{SETTINGS.classes}/qoragent/testing", dirs_exist_ok=True)
        super().__init__(*(flags or SERIAL), "-cp", SETTINGS.classes, "qoragent.testing.Hang", *words, **how)

    def tell(self, *words):
        for word in words:
            super().tell(word)
            if word == "hang":
                self.wait_for("hangs\n")


# Keeps every task of a process stopped, as a debugger does, until its standard input ends.
DEBUGGER = """
import ctypes, os, sys
call = ctypes.CDLL(None).ptrace
call.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
for tid in map(int, os.listdir(f"/proc/{sys.argv[1]}/task")):
    assert call(0x4206, tid, 0, 0) == 0 and call(0x4207, tid, 0, 0) == 0
    os.waitpid(tid, 0x40000000)
print("held", flush=True)
sys.stdin.read()
"""

# Runs a program to which the kernel refuses samples, as a container's filter of system calls does.
FILTERED = """
import ctypes, os, struct, sys
code = struct.pack("HBBIHBBIHBBIHBBI", 0x20, 0, 0, 0, 0x15, 0, 1, 298, 6, 0, 0, 0x5000d, 6, 0, 0, 0x7fff0000)
kept = ctypes.create_string_buffer(code)
program = ctypes.c_char_p(struct.pack("HxxxxxxQ", 4, ctypes.addressof(kept)))
prctl = ctypes.CDLL(None).prctl
assert prctl(38, 1, 0, 0, 0) == 0 and prctl(22, 2, program) == 0
os.execv(sys.argv[1], sys.argv[1:])
"""


class Hung(Case):
    def setUp(self):
        self.has_symbols = SETTINGS.version > 8  # Debian's JDK 8 is stripped
        self.runs = "runs" if self.has_symbols else "safepoint unknown"

    def until(self, verdict, further=lambda found: True):
        """What is found once that is the verdict, and it is so further."""
        def is_it():
            found = self.json("hung")
            return found["verdict"] == verdict and further(found) and found
        return wait_until(verdict, is_it)

    @staticmethod
    def frames(texts):
        """Frames of a text as values, without "[C2 inlined]" after them, which only the reader knows."""
        found = (jstack.FRAME.match("\tat " + re.sub(r" \[[^]]*\]$", "", text)) for text in texts)
        return Hung.plain(jstack.parse_frame(frame["call"], frame["place"]) for frame in found)

    @staticmethod
    def plain(frames):
        """Frames without the number of a hidden class, which JDK 8 and 11 compute when they are asked."""
        return [frame._replace(call=re.sub(r"(\$\$Lambda\$\d+)[./]\w+(?=\.)", r"\1", frame.call))
                for frame in frames]

    def test_stacks_are_those_of_jstack(self):
        for flags in (SERIAL, ("-XX:+UseG1GC", "-Xmx128m"), *self.more_layouts()):
            with self.subTest(flags=flags), Hang(*flags) as self.app:
                truth, seen = {}, {}

                def differing(truth=truth, seen=seen):
                    before = run_tool("jstack", self.app.pid)
                    seen.update((t["name"], t) for t in self.json("hung", "--all")["threads"])
                    truth.update((t.name, self.plain(t.frames)) for t in jstack.parse(before) if t.frames)
                    truth.pop("Attach Listener", None)
                    return {name: (seen[name], frames) for name, frames in truth.items()
                            if self.frames(seen[name]["frames"]) != frames or not seen[name]["whole"]
                            or seen[name]["proof"] != "did not run while it was read"}
                wait_until(differing, lambda: not differing(), 10)
                self.assertGreater(sum(map(len, truth.values())), 250)
                self.assertTrue(any("[C" in f and "inlined" in f for t in seen.values() for f in t["frames"]))

    def test_a_virtual_thread_on_its_carrier(self):
        if SETTINGS.version < 21:
            self.skipTest("no virtual threads")
        with Hang() as self.app:
            self.app.tell("virtual")

            def pinned():
                threads = {t["name"]: t for t in self.json("hung", "--all")["threads"]}
                carrier = threads.get("ForkJoinPool-1-worker-1", {"frames": []})
                calls = [frame.call for frame in self.frames(carrier["frames"])]
                return "qoragent.testing.Hang$Pinned.<clinit>" in calls and carrier["whole"] and calls
            calls = wait_until("it stays on its carrier", pinned)
            self.assertEqual(calls.count("qoragent.testing.Hang.deep"), 101, calls)
            entry = calls.index("jdk.internal.vm.Continuation.enterSpecial")
            self.assertEqual((calls[entry + 1], calls[-1]), ("jdk.internal.vm.Continuation.run",
                                                             "java.util.concurrent.ForkJoinWorkerThread.run"))

    def more_layouts(self):
        """Other collectors and layouts of objects, where the matrix runs on several JDKs."""
        if not SETTINGS.root:
            return []
        flags = ["-UseCompressedOops", "-UseCompressedClassPointers", "+UseParallelGC"]
        flags += ["+UseZGC", "+UseShenandoahGC"] * (SETTINGS.version >= 17)
        flags += ["+UseCompactObjectHeaders"] * (SETTINGS.version >= 25)
        return [("-Xmx128m", "-XX:" + flag) for flag in flags]

    def need_samples(self, thread):
        """Without them, as in some containers, a thread in Java can't be compared."""
        if thread.get("unavailable", "").startswith("perf_event_open"):
            self.skipTest(f"no samples here: {thread['unavailable']}")

    def test_the_thread_that_keeps_the_jvm_from_its_safepoint(self):
        """Named while other commands of ours wait."""
        if not self.has_symbols:
            self.skipTest("no symbols")
        with Hang() as self.app:
            self.answer("attach")
            self.app.tell("hang", "gc")
            command = [SETTINGS.qorctl, "threads", str(self.app.pid), "--timeout", "12"]
            with subprocess.Popen(command, text=True, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE) as waits:
                self.assertEqual(waits.stderr.readline(), "qorctl: no answer for 5 s\n")
                self.assertIsNone(waits.poll())
                self.check_culprit()
                wait_until("list shows it", lambda: "no safepoint since" in (self.listed()["note"] or ""))
                err, out = waits.stderr.read(), waits.stdout.read()
                self.assertEqual((waits.wait(LIMIT), out), (1, ""))
                self.assertIn('"runaway"  in Java, on CPU', err)
                self.assertRegex(err.splitlines()[-1],
                                 r'^qorctl: JVM \d+ waits for a safepoint.*"runaway" doesn\'t reach it')

    def check_culprit(self):
        """Once it had a processor while it was looked at; and where the kernel refuses samples."""
        def is_sampled(seen):
            self.assertEqual([t["name"] for t in seen["threads"]], ["runaway"], seen)
            self.need_samples(seen["threads"][0])
            return seen["threads"][0]["samples"] > 0
        seen = self.until("safepoint not reached", is_sampled)
        self.assertEqual(seen["safepoint"]["phase"], 1)
        culprit = seen["threads"][0]
        self.assertEqual((culprit["state"], culprit["proof"], culprit["whole"]),
                         ("in Java", "one moment", True))
        self.assertEqual([top["samples"] for top in culprit["top"]], [culprit["samples"]])
        self.assertRegex(culprit["top"][0]["method"], SPIN)
        self.assertTrue(culprit["frames"][-1].startswith("java.lang.Thread.run("), culprit)

        def without_samples(*options):
            done = subprocess.run([sys.executable, "-c", FILTERED, SETTINGS.qorctl, "hung", str(self.app.pid),
                                   "--json", *options], stdout=subprocess.PIPE, check=True)
            return json.loads(done.stdout)["threads"][0]
        refused = without_samples()
        self.assertEqual((refused["name"], refused["samples"]), ("runaway", 0))
        self.assertTrue(refused["frames"] or refused["unavailable"] == "perf_event_open: Permission denied",
                        refused)
        wait_until("a stack", lambda: without_samples("--stop-thread")["whole"])

    def test_a_jvm_that_is_not_let_run(self):
        with Hang() as self.app:
            with subprocess.Popen([sys.executable, "-c", DEBUGGER, str(self.app.pid)], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE) as debugger:
                self.assertEqual(debugger.stdout.readline(), b"held\n")
                self.assertIn(f"is stopped by a debugger, process {debugger.pid} (python",
                              self.answer("hung").out)
                debugger.stdin.close()
            self.until(self.runs)
            os.kill(self.app.pid, signal.SIGSTOP)
            seen = self.until("stopped")
            self.assertIn(f"kill -CONT {self.app.pid}", seen["sentence"])
            os.kill(self.app.pid, signal.SIGCONT)
            self.until(self.runs)
            for kind in FREEZERS:
                with self.subTest(kind=kind), self.frozen(*kind):
                    self.until("frozen")
                self.until(self.runs)

    @contextlib.contextmanager
    def frozen(self, kind, state, on, off):
        """In a frozen cgroup."""
        def sh(script):
            return subprocess.run(["sh", "-c", script], cwd=place, stderr=subprocess.DEVNULL, check=False)
        group = f"qor-hung-{self.app.pid}"
        with tempfile.TemporaryDirectory() as place:
            try:
                if sh(f"mount {kind} none {place} && cd {place} && mkdir {group}").returncode != 0:
                    self.skipTest("no cgroup of this kind here")
                sh(f"echo {self.app.pid} >{group}/cgroup.procs; echo {on} >{group}/{state}")
                yield
            finally:
                sh(f"echo {off} >{group}/{state}; echo {self.app.pid} >cgroup.procs;"
                   f"while [ -d {group} ]; do rmdir {group}; done; umount -l {place}")

    def test_nobody_is_accused_where_nobody_hangs(self):
        """A JVM that collects all the time, whose threads run, come and go: what is proven is whole."""
        with Hang("-XX:+UseParallelGC", "-Xmx128m", words=["busy"]) as self.app:
            self.app.tell("collect")
            still = 0
            for _ in range(30):
                seen = self.json("hung", "--all")
                self.assertNotEqual(seen["verdict"], "safepoint not reached", seen)
                for thread in seen["threads"]:
                    self.assertFalse(self.has_symbols and thread["concerned"], thread)
                    if thread["proof"] == "did not run while it was read":
                        still += 1
                        self.assertTrue(thread["whole"], thread)
            self.assertGreater(still, 30)

    def test_a_long_collection(self):
        with Hang() as self.app:
            if not self.has_symbols:
                self.skipTest("no symbols")
            self.app.tell("fill", "collect")
            seen = self.until("in a safepoint", lambda seen: seen["safepoint"]["collects"])
            self.assertRegex(seen["safepoint"]["operation"], "^VM_")
            self.assertIn("VM Thread", [worker["name"] for worker in seen["workers"]])
            self.assertEqual(seen["threads"], [])

    def test_a_library_without_symbols(self):
        """Nothing is known of safepoints, so there are candidates and no culprits."""
        _, inside = folder(self)
        script = 'cp -rL "$1/." "$2/" 2>/dev/null; strip "$(find "$2" -name libjvm.so | head -n 1)"'
        subprocess.run(in_root(["sh", "-c", script, "sh", SETTINGS.jdk, inside]), check=True)
        with Hang(jdk=inside) as self.app:
            self.app.tell("hang", "gc")
            seen = self.until("safepoint unknown",
                              lambda seen: [t["name"] for t in seen["threads"]] == ["runaway"])
            self.assertIn("safepoint state unknown (no symbols)", seen["sentence"])
            self.need_samples(seen["threads"][0])
            self.assertRegex(seen["threads"][0]["top"][0]["method"], SPIN)

    def test_who_may_look(self):
        with Hang() as self.app:
            self.refused(f"can't be read: /proc/{self.app.pid}/maps: Permission denied", "hung",
                         user=NOBODY)
        apart = ["unshare", "--pid", "--fork", "--kill-child"]
        if subprocess.run([*apart, "true"], check=False).returncode != 0:
            self.skipTest("no namespaces here")
        with Hang(before=apart) as self.app:
            self.app.pid = int(subprocess.check_output(["pgrep", "-P", str(self.app.pid)]))
            names = {t["name"]: t for t in self.json("hung", "--all")["threads"]}
            self.assertTrue(names["parker"]["whole"], names)
