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
import time

import jstack
from harness import LIMIT, SETTINGS, Case, Program, folder, in_root, run_tool, wait_until

SERIAL = ("-XX:+UseSerialGC", "-Xmx128m")
SPIN = r"^qoragent\.testing\.Hang\.spin \[C2( osr)?\]$"
# How each kind of cgroup is mounted, and a group of it frozen and let go.
FREEZERS = {"freezer": (["-t", "cgroup", "-o", "freezer"], "freezer.state", "FROZEN", "THAWED"),
            "unified": (["-t", "cgroup2"], "cgroup.freeze", "1", "0")}


class Hang(Program):
    """The JVM of the test class that hangs on request."""

    def __init__(self, *flags, words=(), **how):
        shutil.copytree(f"{SETTINGS.build}/test-classes/qoragent/testing",
                        f"{SETTINGS.root}{SETTINGS.classes}/qoragent/testing", dirs_exist_ok=True)
        super().__init__(*(flags or SERIAL), "-cp", SETTINGS.classes, "qoragent.testing.Hang",
                         *words, **how)

    def tell(self, *words):
        for word in words:
            super().tell(word)
            if word == "hang":
                self.wait_for("hangs\n")


# Keeps every task of a process stopped, as a debugger does, until its standard input ends.
DEBUGGER = """
import ctypes, os, sys
call = ctypes.CDLL(None, use_errno=True).ptrace
call.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
for tid in map(int, os.listdir(f"/proc/{sys.argv[1]}/task")):
    assert call(0x4206, tid, 0, 0) == 0 and call(0x4207, tid, 0, 0) == 0, ctypes.get_errno()
    os.waitpid(tid, 0x40000000)
print("held", flush=True)
sys.stdin.read()
"""

# Runs a program to which the kernel refuses samples, as a container's filter of system calls does.
FILTERED = """
import ctypes, os, struct, sys
code = struct.pack("HBBIHBBIHBBIHBBI", 0x20, 0, 0, 0, 0x15, 0, 1, 298, 6, 0, 0, 0x5000d, 6, 0, 0, 0x7fff0000)
kept = ctypes.create_string_buffer(code)
libc = ctypes.CDLL(None, use_errno=True)
assert libc.prctl(38, 1, 0, 0, 0) == 0
assert libc.prctl(22, 2, ctypes.c_char_p(struct.pack("HxxxxxxQ", 4,
                                                     ctypes.addressof(kept)))) == 0, ctypes.get_errno()
os.execv(sys.argv[1], sys.argv[1:])
"""


class Hung(Case):
    def look(self, app, *options):
        return self.json("hung", app.pid, *options)

    @classmethod
    def has_symbols(cls):
        """Debian's JDK 8 is stripped."""
        return SETTINGS.version > 8

    def runs(self):
        return "runs" if self.has_symbols() else "safepoint unknown"

    def until(self, app, verdict, further=lambda found: True):
        """What is found once that is the verdict, and it is so further."""
        found = {}

        def is_it():
            found.update(self.look(app))
            return found["verdict"] == verdict and further(found)
        wait_until(verdict, is_it)
        return found

    @staticmethod
    def frames(texts):
        """Frames of a text as values, without "[C2 inlined]" after them, which only the reader knows."""
        found = (jstack.FRAME.match("\tat " + re.sub(r" \[[^]]*\]$", "", text)) for text in texts)
        return Hung.plain(jstack.parse_frame(frame["call"], frame["place"]) for frame in found)

    @staticmethod
    def plain(frames):
        """Frames without the number of a hidden class, which JDK 8 and 11 compute when they are asked."""
        return [(re.sub(r"(\$\$Lambda\$\d+)[./]\w+(?=\.)", r"\1", frame.call), frame.file, frame.line)
                for frame in frames]

    def test_stacks_are_those_of_jstack(self):
        for flags in (SERIAL, ("-XX:+UseG1GC", "-Xmx128m"), *self.more_layouts()):
            with self.subTest(flags=flags), Hang(*flags) as app:
                truth, seen = {}, {}

                def same(app=app, truth=truth, seen=seen):
                    before = run_tool("jstack", app.pid)
                    seen.update((t["name"], t) for t in self.look(app, "--all")["threads"])
                    truth.update((t.name, self.plain(t.frames)) for t in jstack.parse(before) if t.frames)
                    truth.pop("Attach Listener", None)
                    return all(self.frames(seen[name]["frames"]) == frames
                               and seen[name]["proof"] != "may be torn"
                               for name, frames in truth.items())
                try:
                    wait_until("the stacks are the same", same, 10)
                except AssertionError:
                    self.assertEqual({n: self.frames(seen[n]["frames"]) for n in truth}, truth)
                self.assertGreater(sum(map(len, truth.values())), 250)
                self.assertTrue(any("[C" in f and "inlined" in f for t in seen.values() for f in t["frames"]))
                for name in truth:
                    self.assertEqual((seen[name]["proof"], seen[name]["whole"]),
                                     ("did not run while it was read", True), seen[name])

    def test_a_virtual_thread_on_its_carrier(self):
        if SETTINGS.version < 21:
            self.skipTest("no virtual threads")
        with Hang() as app:
            app.tell("virtual")
            calls = []

            def pinned():
                carriers = [t for t in self.look(app, "--all")["threads"]
                            if t["name"] == "ForkJoinPool-1-worker-1"]
                calls[:] = [name for t in carriers for name, _, _ in self.frames(t["frames"])]
                return "qoragent.testing.Hang$Pinned.<clinit>" in calls and carriers[0]["whole"]
            wait_until("it stays on its carrier", pinned)
            self.assertEqual(calls.count("qoragent.testing.Hang.deep"), 101, calls)
            entry = calls.index("jdk.internal.vm.Continuation.enterSpecial")
            self.assertEqual((calls[entry + 1], calls[-1]), ("jdk.internal.vm.Continuation.run",
                                                             "java.util.concurrent.ForkJoinWorkerThread.run"))

    def more_layouts(self):
        """Other collectors and layouts of objects, where the matrix runs on several JDKs."""
        known = {17: ("+UseZGC", "+UseShenandoahGC"),
                 21: ("+UseZGC", "+UseZGC -XX:+ZGenerational", "+UseShenandoahGC"),
                 25: ("+UseZGC", "+UseShenandoahGC", "+UseCompactObjectHeaders")}
        if not SETTINGS.root:
            return []
        return [("-Xmx128m", *f"-XX:{flags}".split())
                for flags in ("-UseCompressedOops", "-UseCompressedClassPointers", "+UseParallelGC",
                              *known.get(SETTINGS.version, ()))]

    def need_samples(self, thread):
        """Without them, as in some containers, a thread in Java can't be compared."""
        if thread.get("unavailable", "").startswith("perf_event_open"):
            self.skipTest(f"no samples here: {thread['unavailable']}")

    def check_culprit(self, app):
        """Once it had a processor while it was looked at."""
        def is_sampled(seen):
            self.assertEqual([t["name"] for t in seen["threads"]], ["runaway"], seen)
            self.need_samples(seen["threads"][0])
            return seen["threads"][0]["samples"] > 0
        seen = self.until(app, "safepoint not reached", is_sampled)
        culprit = seen["threads"][0]
        self.assertEqual((culprit["state"], culprit["proof"], culprit["whole"]),
                         ("in Java", "one moment", True))
        self.assertEqual([top["samples"] for top in culprit["top"]], [culprit["samples"]])
        self.assertRegex(culprit["top"][0]["method"], SPIN)
        self.assertTrue(culprit["frames"][-1].startswith("java.lang.Thread.run("), culprit)
        return seen

    def test_the_thread_that_keeps_the_jvm_from_its_safepoint(self):
        """Named within a second, while the JVM's own tools are mute and other commands of ours wait."""
        if not self.has_symbols():
            self.skipTest("no symbols")
        with Hang() as app:
            self.answer("attach", app.pid)
            app.tell("hang", "gc")
            waiting = [subprocess.Popen([SETTINGS.qorctl, "threads", str(app.pid), "--timeout", "12"],
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True),
                       subprocess.Popen(in_root([f"{SETTINGS.jdk}/bin/jcmd", str(app.pid), "VM.version"]),
                                        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)]
            ours, jcmd = waiting
            first = ours.stderr.readline()
            self.assertEqual((first, ours.poll()), ("qorctl: no answer for 5 s\n", None))  # and it waits on
            seen = self.check_culprit(app)
            self.check_without_samples(app)
            self.assertEqual(seen["safepoint"]["phase"], 1)
            self.assertGreater(seen["safepoint"]["seconds"], 0)
            self.assertRegex(seen["safepoint"]["operation"], "^(VM_.*)?$")
            times = []

            def quick():
                start = time.monotonic()
                text = self.answer("hung", app.pid).out
                times.append(time.monotonic() - start)
                self.assertIn('"runaway" doesn\'t reach it', text.splitlines()[0])
                return times[-1] < 1
            wait_until(f"a look within a second: {times}", quick)
            wait_until("list shows it", lambda: any(
                jvm["pid"] == app.pid and "no safepoint since" in (jvm["note"] or "")
                for jvm in self.json("list")))
            err, out = ours.stderr.read(), ours.stdout.read()
            self.assertEqual((ours.wait(LIMIT), out), (1, ""), err)
            ours.communicate()
            self.assertIn('"runaway"  in Java, on CPU', err)
            self.assertRegex(err.splitlines()[-1],
                             r'^qorctl: JVM \d+ waits for a safepoint.*"runaway" doesn\'t reach it')
            self.assertIsNone(jcmd.poll())
            jcmd.kill()
            jcmd.communicate()

    def check_without_samples(self, app):
        """The reason is said where the kernel refuses them, unless the thread may be stopped."""
        def culprit(*options):
            done = subprocess.run([sys.executable, "-c", FILTERED, SETTINGS.qorctl, "hung", str(app.pid),
                                   "--json", *options],
                                  stdout=subprocess.PIPE, check=True)
            return json.loads(done.stdout)["threads"][0]
        refused = culprit()
        self.assertEqual((refused["name"], refused["samples"]), ("runaway", 0))
        self.assertTrue(refused["frames"] or refused["unavailable"] == "perf_event_open: Permission denied",
                        refused)
        wait_until("a stack", lambda: culprit("--stop-thread")["whole"])

    def test_a_jvm_that_is_not_let_run(self):
        with Hang() as app:
            with subprocess.Popen([sys.executable, "-c", DEBUGGER, str(app.pid)], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE) as debugger:
                self.assertEqual(debugger.stdout.readline(), b"held\n")
                self.assertIn(f"is stopped by a debugger, process {debugger.pid} (python",
                              self.answer("hung", app.pid).out)
                debugger.stdin.close()
            self.until(app, self.runs())
            os.kill(app.pid, signal.SIGSTOP)
            seen = self.until(app, "stopped")
            self.assertIn(f"kill -CONT {app.pid}", seen["sentence"])
            self.assertEqual([j["note"] for j in self.json("list")
                              if j["pid"] == app.pid], ["stopped"])
            os.kill(app.pid, signal.SIGCONT)
            self.until(app, self.runs())
            for kind in FREEZERS:
                with self.subTest(kind=kind):
                    with self.frozen(kind, app.pid):
                        self.until(app, "frozen")
                        self.assertIn("is frozen with its cgroup", self.answer("hung", app.pid).out)
                        if kind == "freezer":
                            self.check_where_its_cgroup_is_unknown(app)
                    self.until(app, self.runs())

    def check_where_its_cgroup_is_unknown(self, app):
        """A task that is frozen so is as one that waits in the kernel, in its ordinary place."""
        done = subprocess.run(["unshare", "--mount", "sh", "-c",
                               'umount -a -t cgroup && exec "$1" hung "$2"', "sh",
                               SETTINGS.qorctl, str(app.pid)], capture_output=True, text=True, check=True)
        self.assertRegex(done.stdout, r"^JVM \d+ waits in the kernel with all its tasks: (\d+ in \w+, )*"
                                      r"\d+ in \w+; whether frozen is unknown\n$")

    @contextlib.contextmanager
    def frozen(self, kind, pid):
        """In a frozen cgroup, of version 1's freezer or of version 2."""
        options, state, on, off = FREEZERS[kind]
        with contextlib.ExitStack() as undone:
            place = undone.enter_context(tempfile.TemporaryDirectory())
            group = f"{place}/qor-hung-{pid}"

            def write(file, text):
                with open(f"{place}/{file}", "w", encoding="ascii") as out:
                    out.write(str(text))

            def leave():
                with contextlib.suppress(OSError):
                    os.rmdir(group)
                return not os.path.exists(group)
            try:
                subprocess.run(["mount", *options, "none", place], check=True, capture_output=True)
                undone.callback(subprocess.run, ["umount", place], check=True)
                os.mkdir(group)
            except (OSError, subprocess.CalledProcessError) as refused:
                self.skipTest(f"no cgroup of this kind here: {refused}")
            undone.callback(wait_until, "the group is empty", leave)
            write(f"qor-hung-{pid}/cgroup.procs", pid)
            undone.callback(write, "cgroup.procs", pid)
            write(f"qor-hung-{pid}/{state}", on)
            undone.callback(write, f"qor-hung-{pid}/{state}", off)
            yield

    def test_nobody_is_accused_where_nobody_hangs(self):
        """A JVM that collects all the time, whose threads run, come and go: what is proven is whole."""
        with Hang("-XX:+UseParallelGC", "-Xmx128m", words=["busy"]) as app:
            app.tell("collect")
            still = 0
            for _ in range(60 if SETTINGS.root else 30):
                seen = self.look(app, "--all")
                self.assertNotEqual(seen["verdict"], "safepoint not reached", seen)
                for thread in seen["threads"]:
                    self.assertFalse(self.has_symbols() and thread["concerned"])
                    if thread["proof"] == "did not run while it was read":
                        still += 1
                        self.assertTrue(thread["whole"], thread)
            self.assertGreater(still, 30)

    def test_a_long_collection(self):
        with Hang() as app:
            if not self.has_symbols():
                self.skipTest("no symbols")
            app.tell("fill", "collect")
            seen = self.until(app, "in a safepoint", lambda seen: seen["safepoint"]["collects"])
            self.assertRegex(seen["safepoint"]["operation"], "^VM_")
            self.assertIn("VM Thread", [worker["name"] for worker in seen["workers"]])
            self.assertEqual(seen["threads"], [])

    def test_a_library_without_symbols(self):
        """Nothing is known of safepoints, so there are candidates and no culprits."""
        _, inside = folder(self)
        script = 'cp -rL "$1/." "$2/" 2>/dev/null; strip "$(find "$2" -name libjvm.so | head -n 1)"'
        subprocess.run(in_root(["sh", "-c", script, "sh", SETTINGS.jdk, inside]), check=True)
        with Hang(jdk=inside) as app:
            app.tell("hang", "gc")
            seen = self.until(app, "safepoint unknown",
                              lambda seen: [t["name"] for t in seen["threads"]] == ["runaway"])
            self.assertIn("safepoint state unknown (no symbols)", seen["sentence"])
            self.need_samples(seen["threads"][0])
            self.assertRegex(seen["threads"][0]["top"][0]["method"], SPIN)

    def test_who_may_look(self):
        with Hang() as app:
            self.refused(f"can't be read: /proc/{app.pid}/maps: Permission denied", "hung", app.pid,
                         user=65534)
        self.refused("there is no process", "hung", 999999999)
        self.refused("libjvm.so", "hung", os.getpid())
        apart = ["unshare", "--pid", "--fork", "--kill-child"]
        if subprocess.run([*apart, "true"], check=False).returncode != 0:
            self.skipTest("no namespaces here")
        with Hang(before=apart) as outer:
            children = f"/proc/{outer.pid}/task/{outer.pid}/children"
            with open(children, encoding="ascii") as file:
                outer.pid = int(file.read().split()[0])
            names = {t["name"]: t for t in self.look(outer, "--all")["threads"]}
            self.assertTrue(names["parker"]["whole"], names)
