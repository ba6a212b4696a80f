"""Heap dumps: what is in them, how a failed one is reported, and one that outlasts the agent's patience."""
import os
import re
import socketserver
import threading

import pexpect

from harness import Case, OfTheDemo, folder, on_terminal, qorctl, run_tool

MARK = b"|\t|\t\t||"


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
        text = self.dump("text")
        self.assertEqual(text["bytes"], os.stat(f"{self.here}/text").st_size)
        self.assertEqual([os.stat(f"{self.here}/{name}").st_mode & 0o777 for name in ("own.hprof", "text")],
                         2 * [0o600])
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
        with open(victim, "w", encoding="ascii") as file:
            file.write("mine")
        os.symlink(victim, f"{self.here}/link")
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
        self.assertIn("Changed forkdump to 0", self.answer("forkdump", "off").out)
        self.assertEqual(self.demo_classes("copied"), self.demo_classes("own"))
        self.refused("on", "forkdump", "maybe", code=2)


class SlowAgent(socketserver.ThreadingTCPServer):
    """An agent, of this process for once, whose dump goes on after it has given up waiting."""
    daemon_threads = True

    def __init__(self, path):
        super().__init__(("127.0.0.1", 0), None)
        self.path, self.pid, self.reply = path, os.getpid(), "Request TIMED OUT"
        self.histograms = ["Class histogram still being made, ask again.\x1f",
                           "JVM Class Details\x1e[B\x1d7\x1d8\x1d\x1e\x1fJVM Class Details Age\x1e61\x1d\x1f"]
        directory = f"/tmp/qoragent-{os.geteuid()}"
        os.makedirs(directory, 0o700, exist_ok=True)
        self.endpoint = f"{directory}/{self.pid}.endpoint"
        with open(os.open(self.endpoint, os.O_WRONLY | os.O_CREAT, 0o600), "w", encoding="ascii") as file:
            port = self.server_address[1]
            file.write(f"port={port}\ntoken={32 * '0'}\npid={self.pid}\nversion=1\n")
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def finish_request(self, request, _):
        """Serves a connection: its token, then requests."""
        with request.makefile("rb") as lines:
            lines.readline()
            request.sendall(b"OK\n")
            for line in lines:
                request.sendall(self.answer(line.decode().rstrip("\n")).encode() + MARK)

    def answer(self, request):
        if request.endswith("|version"):
            return qorctl("--version").out.strip().replace("qorctl ", "version=")
        if "forkstate" in request:
            return "forkstate=1 forkdump=0 "
        if "ClassHistogramOnly" in request:
            return self.histograms.pop(0)
        if "qorheapdir" in request:
            return "Changed qorheapdir to " + request.split("|")[3]
        self.write("w", f"heap_id={request.split('|')[4]}|T1|h||V|1|1|System|1|1\nSf100000||\n")
        return self.reply

    def write(self, mode, text):
        with open(self.path, mode, encoding="ascii") as file:
            file.write(text)

    def close(self):
        self.shutdown()
        self.server_close()
        os.unlink(self.endpoint)


class LateDumps(Case):
    """The agent gives up waiting, its worker does not."""

    def setUp(self):
        self.app = SlowAgent(folder(self)[0] + "/slow")
        self.addCleanup(self.app.close)

    def test_it_is_waited_for_until_its_end(self):
        with on_terminal("dump", self.app.pid, self.app.path) as dump:
            dump.expect(r" [1-9]\d* B written")  # the file, without its end, is watched
            self.app.write("a", "x" * 4000 + "\n")
            dump.expect("3 K written")
            self.app.write("a", " Finished 9 secs")
            dump.expect("slow: 3 K in ")
            dump.expect(pexpect.EOF)
            dump.close()
            self.assertEqual(dump.exitstatus, 0)

    def test_a_histogram_is_asked_for_until_its_copy_is_ready(self):
        histogram = self.json("histogram")
        self.assertEqual((histogram["classes"][0]["instances"], histogram["age_seconds"]), (7, 61))

    def test_one_without_an_end_is_a_failure(self):
        for reply, why in (("Request TIMED OUT", "stopped growing at"), ("", "lacks its end")):
            self.app.reply = reply
            self.refused(why, "dump", self.app.path, "--timeout", 1)
