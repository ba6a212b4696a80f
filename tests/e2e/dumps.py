"""Heap dumps: what is in them, how a failed one is reported, and one that outlasts the agent's patience."""
import os
import re
import socketserver
import subprocess
import threading

import pexpect

from harness import LIMIT, SETTINGS, Case, OfTheDemo, folder, on_terminal, qorctl, run_tool

MARK = b"|\t|\t\t||"


class Dumps(OfTheDemo):
    def setUp(self):
        self.here, self.inside = folder(self)

    def dump(self, name, *options):
        return self.json("dump", self.app.pid, f"{self.inside}/{name}", *options)

    def read(self, name, *options):
        return self.json("dump", "--read", f"{self.here}/{name}", *options)

    def demo_classes(self, name):
        return {row["class"]: row["objects"] for row in self.read(name, "--top", 100000)["classes"]
                if row["class"].startswith("qoragent.demo.")}

    def test_a_dump_has_what_the_jvm_counts(self):
        own = self.dump("own", "--hprof", "--live")
        self.assertEqual((own["form"], own["file"]), ("hprof", f"{self.inside}/own.hprof"))
        text = self.dump("text")
        self.assertEqual(text["bytes"], os.stat(f"{self.here}/text").st_size)
        self.assertEqual([os.stat(f"{self.here}/{name}").st_mode & 0o777 for name in ("own.hprof", "text")],
                         2 * [0o600])
        truth = {name: int(count) for count, name in re.findall(
            r"(?m)^ *\d+: +(\d+) +\d+  (qoragent\.demo\.[\w.$]+)",
            run_tool("jcmd", self.app.pid, "GC.class_histogram"))}
        self.assertGreater(len(truth), 8)
        counts = self.demo_classes("text")
        self.assertEqual({name: counts.get(name) for name in truth}, truth)
        summary = self.read("text", "--top", 100000)
        self.assertTrue(summary["complete"])
        self.assertGreater(summary["roots"]["threads"], 15)
        people = self.answer("dump", "--read", f"{self.here}/text", "--top", 5).out
        self.assertRegex(people, r"(?s)\d objects of \d+ classes.*the largest 5 of")
        self.dump("text")  # once more takes its place
        self.assertNotEqual(self.read("text")["heap_id"], summary["heap_id"])

    def test_failures_are_told_and_leave_the_agent_usable(self):
        os.symlink(f"{self.here}/victim", f"{self.here}/link")
        with open(f"{self.here}/victim", "w", encoding="ascii") as victim:
            victim.write("mine")
        self.dump("own", "--hprof")
        for why, name, code, *options in (
                ("sees no directory", f"{self.inside}/nowhere/x", 1), ("could not write", "/proc/x", 1),
                ("is a link", f"{self.inside}/link", 1), ("no plain file", self.inside, 1),
                ("is there already", f"{self.inside}/own", 1, "--hprof"),
                ("could not write", "/proc/x", 1, "--hprof"),
                ("own form", "x.hprof", 2), ("an absolute path", "a/b", 2)):
            with self.subTest(name=name, options=options):
                self.refused(why, "dump", self.app.pid, name, *options, code=code)
                self.answer("summary", self.app.pid)
        for why, name in (("can't read", "/nowhere"), ("Hprof", f"{self.here}/own.hprof"),
                          ("a text dump", f"{self.here}/victim")):
            self.refused(why, "dump", "--read", name)
        with open(f"{self.here}/victim", encoding="ascii") as victim:
            self.assertEqual(victim.read(), "mine")

    def test_a_copy_of_the_jvm_dumps_the_same(self):
        self.assertFalse(self.dump("own")["copied"])
        self.assertIn("paused for it: 64 MiB", self.answer("histogram", self.app.pid).out)
        self.assertIn("Changed forkdump to 1", self.answer("forkdump", self.app.pid, "on").out)
        self.assertTrue(self.dump("copied")["copied"])
        self.assertFalse(self.dump("stopped", "--stop")["copied"])
        self.assertIn("paused for it: by --stop", self.answer("histogram", self.app.pid, "--stop").out)
        histogram = self.json("histogram", self.app.pid)
        self.assertTrue(histogram["copied"])
        self.assertIn("java.lang.String", [row["class"] for row in histogram["classes"]])
        self.assertIn("Changed forkdump to 0", self.answer("forkdump", self.app.pid, "off").out)
        self.assertEqual(self.demo_classes("copied"), self.demo_classes("own"))
        self.refused("on", "forkdump", self.app.pid, "maybe", code=2)


class SlowAgent(socketserver.ThreadingTCPServer):
    """An agent in a process of its own, whose dump goes on after it has given up waiting."""
    daemon_threads = True

    def __init__(self, path):
        super().__init__(("127.0.0.1", 0), None)
        self.path, self.reply, self.flags, self.asked = path, "Request TIMED OUT", set(), threading.Event()
        self.histograms = ["Class histogram still being made, ask again.\x1f",
                           "JVM Class Details\x1e[B\x1d7\x1d8\x1d\x1e\x1fJVM Class Details Age\x1e61\x1d\x1f"]
        self.process = subprocess.Popen(["sleep", "170"], pass_fds=[self.fileno()])
        directory = f"/tmp/qoragent-{os.geteuid()}"
        os.makedirs(directory, 0o700, exist_ok=True)
        self.endpoint = f"{directory}/{self.process.pid}.endpoint"
        with open(os.open(self.endpoint, os.O_WRONLY | os.O_CREAT, 0o600), "w", encoding="ascii") as file:
            port, pid = self.server_address[1], self.process.pid
            file.write(f"port={port}\ntoken={32 * '0'}\npid={pid}\nversion=1\n")
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def finish_request(self, request, _):
        """Serves a connection: its token, then requests."""
        with request.makefile("rb") as lines:
            lines.readline()
            request.sendall(b"OK\n")
            for line in lines:
                reply = self.answer(line.decode().rstrip("\n"))
                if reply is not None:
                    request.sendall(reply.encode() + MARK)

    def answer(self, request):
        if request.endswith("|version"):
            return "version=" + qorctl("--version").out.split()[1]
        if "forkstate" in request:
            return "forkstate=1 forkdump=0 "
        self.flags.add(int(request.split("|")[0]) & 6144)
        if "ClassHistogramOnly" in request:
            return self.histograms.pop(0)
        if "qorheapdir" in request:
            return "Changed qorheapdir to " + request.split("|")[3]
        self.write("w", f"heap_id={request.split('|')[4]}|T1|h||V|1|1|System|1|1\nSf100000||\n")
        self.asked.set()
        return self.reply

    def write(self, mode, text):
        with open(self.path, mode, encoding="ascii") as file:
            file.write(text)

    def close(self):
        self.shutdown()
        self.server_close()
        os.unlink(self.endpoint)
        self.process.kill()
        self.process.wait()


class LateDumps(Case):
    """The agent gives up waiting, its worker does not."""

    def setUp(self):
        self.agent = SlowAgent(folder(self)[0] + "/slow")
        self.addCleanup(self.agent.close)

    def fails(self, why, *options, after=lambda: None):
        with subprocess.Popen([SETTINGS.qorctl, "dump", str(self.agent.process.pid), self.agent.path,
                               *options], text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as dump:
            after()
            out, err = dump.communicate(timeout=LIMIT)
        self.assertEqual((dump.returncode, out), (1, ""))
        self.assertIn(why, err)

    def test_it_is_waited_for_until_its_end(self):
        with on_terminal("dump", self.agent.process.pid, self.agent.path) as dump:
            dump.expect(r" [1-9]\d* B written")  # the file, without its end, is watched
            self.agent.write("a", "x" * 4000 + "\n")
            dump.expect("3 K written")
            self.agent.write("a", " Finished 9 secs")
            dump.expect("slow: 3 K in ")
            dump.expect(pexpect.EOF)
            dump.close()
            self.assertEqual(dump.exitstatus, 0)

    def test_a_histogram_is_asked_for_until_its_copy_is_ready(self):
        histogram = self.json("histogram", self.agent.process.pid)
        self.assertEqual((histogram["classes"][0]["instances"], histogram["age_seconds"]), (7, 61))
        self.assertEqual(self.agent.flags, {2048})

    def test_one_that_ends_otherwise_is_a_failure(self):
        for reply in ("Request TIMED OUT", None):
            self.agent.reply = reply
            self.fails("stopped growing at", "--timeout", "1")
        self.agent.reply = ""
        self.fails("lacks its end")
        self.agent.reply = "Request TIMED OUT"
        self.agent.asked.clear()
        self.fails("has ended", after=lambda: (self.agent.asked.wait(LIMIT), self.agent.process.kill(),
                                               self.agent.process.wait()))
