"""Heap dumps: what is in them, what a failed one is told as, and one that outlasts the agent's patience."""
import contextlib
import os
import pty
import socket
import subprocess
import tempfile
import threading
import time

import hprof
from harness import LIMIT, SETTINGS, Case, OfTheDemo

MARK = b"|\t|\t\t||"


class Relay(threading.Thread):
    """Stands in for an agent in a process of its own, `process`, whose socket it is.

    `answer(request)` is what it says to each, None for nothing.
    """

    def __init__(self, answer):
        super().__init__(daemon=True)
        self.answer = answer
        self.server = socket.create_server(("127.0.0.1", 0))
        self.process = subprocess.Popen(["sleep", "170"], pass_fds=[self.server.fileno()])
        pid = self.process.pid
        directory = f"/tmp/qoragent-{os.geteuid()}"
        with contextlib.suppress(FileExistsError):
            os.mkdir(directory, 0o700)
        self.endpoint = f"{directory}/{pid}.endpoint"
        token = "0" * 32
        text = f"port={self.server.getsockname()[1]}\ntoken={token}\npid={pid}\nversion=1\n"
        with open(os.open(self.endpoint, os.O_WRONLY | os.O_CREAT, 0o600), "w", encoding="ascii") as file:
            file.write(text)
        self.start()

    def run(self):
        with contextlib.suppress(OSError):
            while True:
                client, _ = self.server.accept()
                threading.Thread(target=self.serve, args=(client,), daemon=True).start()

    def serve(self, client):
        with client, client.makefile("rb") as lines:
            if lines.readline():
                client.sendall(b"OK\n")
            for line in lines:
                reply = self.answer(line.decode().rstrip("\n"))
                if reply is not None:
                    client.sendall(reply.encode() + MARK)

    def close(self):
        self.server.shutdown(socket.SHUT_RDWR)
        self.server.close()
        os.unlink(self.endpoint)
        self.process.kill()
        self.process.wait()


class Dumps(OfTheDemo):
    def setUp(self):
        # A directory that the JVM sees as well.
        holder = tempfile.TemporaryDirectory(prefix="qor-dumps-", dir=SETTINGS.root + "/tmp")
        self.addCleanup(holder.cleanup)
        self.here, self.inside = holder.name, holder.name[len(SETTINGS.root):]

    def dump(self, name, *options):
        return self.answer("dump", self.app.pid, f"{self.inside}/{name}", "--json", *options).json()

    def read(self, name, *options):
        return self.answer("dump", "--read", f"{self.here}/{name}", "--json", *options).json()

    def test_a_text_dump_has_what_the_jvms_own_has(self):
        own = self.dump("own", "--hprof", "--live")
        self.assertEqual((own["form"], own["file"]), ("hprof", f"{self.inside}/own.hprof"))
        text = self.dump("text")
        self.assertEqual(text["bytes"], os.stat(f"{self.here}/text").st_size)
        for name in ("own.hprof", "text"):
            self.assertEqual(os.stat(f"{self.here}/{name}").st_mode & 0o777, 0o600)
        summary = self.read("text", "--top", 100000)
        self.assertTrue(summary["complete"])
        counts = {entry["class"]: entry["objects"] for entry in summary["classes"] if entry["class"]}
        truth = {name: count for name, count in hprof.instances(f"{self.here}/own.hprof").items()
                 if name.startswith("qoragent.demo.")}
        self.assertGreater(len(truth), 8)
        self.assertEqual({name: counts.get(name) for name in truth}, truth)
        self.assertGreater(summary["roots"]["threads"], 15)
        self.assertGreater(summary["roots"]["system_classes"], 300)
        self.assertGreater(summary["references"], summary["objects"])
        self.assertEqual(sum(entry["objects"] for entry in summary["classes"]), summary["objects"])
        sizes = [array["bytes"] for array in summary["largest_arrays"]]
        self.assertEqual((len(sizes), sizes), (10, sorted(sizes, reverse=True)))

    def test_the_summary_for_people(self):
        self.dump("text")
        text = self.answer("dump", "--read", f"{self.here}/text", "--top", 5).out
        for told in (r"\d objects of \d+ classes", r"(?m)^ *[\d,]+ +[\d.]+ [KM]  byte\[\]$|char\[\]", "Locals on stacks",
                     "ELEMENTS", "the largest 5 of"):
            self.assertRegex(text, told)

    def test_sizes_agree_with_the_histogram(self):
        self.dump("text")
        summary = {entry["class"]: entry for entry in self.read("text")["classes"]}
        rows = self.answer("histogram", self.app.pid, "--json").json()["classes"]
        histogram = {row["class"]: row for row in rows}
        name = "java.lang.String"
        self.assertTrue(summary[name]["bytes_complete"])
        size = histogram[name]["kib"] * 1024 / histogram[name]["instances"]
        self.assertAlmostEqual(summary[name]["bytes"] / summary[name]["objects"], size, delta=1)

    def test_failures_are_told_and_leave_the_agent_usable(self):
        os.symlink(f"{self.here}/victim", f"{self.here}/link")
        with open(f"{self.here}/victim", "w", encoding="ascii") as victim:
            victim.write("mine")
        os.mkdir(f"{self.here}/taken")
        self.dump("own", "--hprof")
        rows = [("sees no directory", f"{self.inside}/nowhere/x", 1), ("could not write", "/proc/x", 1),
                ("is a link", f"{self.inside}/link", 1), ("no plain file", f"{self.inside}/taken", 1),
                ("is there already", f"{self.inside}/own", 1, "--hprof"), ("could not write", "/proc/x", 1, "--hprof"),
                ("own form", "x.hprof", 2), ("no absolute path", "a/b", 2)]
        for told, name, code, *options in rows:
            with self.subTest(name=name, options=options):
                self.refused(told, "dump", self.app.pid, name, *options, code=code)
                self.answer("summary", self.app.pid)
        with open(f"{self.here}/victim", encoding="ascii") as victim:
            self.assertEqual(victim.read(), "mine")
        self.refused("needs a process and a name", "dump", self.app.pid, code=2)
        self.refused("can't read", "dump", "--read", "/nowhere")
        self.refused("Hprof", "dump", "--read", f"{self.here}/own.hprof")
        self.refused("no text dump", "dump", "--read", f"{self.here}/victim")

    def test_dumping_again_replaces_the_file(self):
        first, second = self.dump("text"), self.read("text")
        self.dump("text")
        again = self.read("text")
        self.assertNotEqual(second["heap_id"], again["heap_id"])
        self.assertTrue(again["complete"])
        self.assertGreater(first["bytes"], 1000)


    def test_a_copy_of_the_jvm_dumps_the_same(self):
        self.assertFalse(self.dump("own")["copied"])
        self.assertIn("paused meanwhile: 64 MiB", self.answer("histogram", self.app.pid).out)
        self.assertIn("Changed forkdump to 1", self.answer("forkdump", self.app.pid, "on").out)
        self.assertTrue(self.dump("copied")["copied"])
        self.assertFalse(self.dump("stopped", "--stop")["copied"])
        self.assertIn("paused meanwhile: by --stop", self.answer("histogram", self.app.pid, "--stop").out)
        histogram = self.answer("histogram", self.app.pid, "--json").json()
        self.assertTrue(histogram["copied"])
        histogram = histogram["classes"]
        self.assertIn("Changed forkdump to 0", self.answer("forkdump", self.app.pid, "off").out)
        demo = [{entry["class"]: entry["objects"] for entry in self.read(name, "--top", 100000)["classes"]
                 if entry["class"].startswith("qoragent.demo.")} for name in ("own", "copied")]
        self.assertGreater(len(demo[0]), 8)
        self.assertEqual(demo[0], demo[1])
        self.assertIn("java.lang.String", [row["class"] for row in histogram])
        self.refused("on", "forkdump", self.app.pid, "maybe", code=2)


class Slow(threading.Event):
    """A dump that goes on behind the agent's time-out."""

    def __init__(self, directory):
        super().__init__()
        self.path = directory + "/slow"
        self.told = "Request TIMED OUT"
        self.flags = set()
        self.histograms = ["Class histogram still being made, ask again.\x1f",
                           "JVM Class Details\x1e[B\x1d7\x1d8\x1d\x1e\x1fJVM Class Details Age\x1e61\x1d\x1f"]

    def answer(self, request):
        if "forkstate" in request:
            return "forkstate=1 forkdump=0 "
        self.flags.add(int(request.split("|")[0]) & 6144)
        if "ClassHistogramOnly" in request:
            return self.histograms.pop(0)
        if "qorheapdir" in request:
            return "Changed qorheapdir to " + request.split("|")[3]
        self.write("w", f"heap_id={request.split('|')[4]}|T1|h||V|1|1|System|1|1\nSf100000||\n")
        self.set()
        return self.told

    def write(self, mode, text):
        with open(self.path, mode, encoding="ascii") as file:
            file.write(text)


class LateDumps(Case):
    """The agent gives up waiting, its worker does not."""

    def setUp(self):
        holder = tempfile.TemporaryDirectory(prefix="qor-dumps-")
        self.addCleanup(holder.cleanup)
        self.slow = Slow(holder.name)
        relay = Relay(self.slow.answer)
        self.addCleanup(relay.close)
        self.process = relay.process

    def start(self, *options, **streams):
        command = [SETTINGS.qorctl, "dump", str(self.process.pid), self.slow.path, *options]
        return subprocess.Popen(command, text=True, **streams)

    def test_it_is_waited_for_until_its_end(self):
        master, slave = pty.openpty()
        with self.start(stdout=subprocess.PIPE, stderr=slave) as dump:
            os.close(slave)
            self.assertTrue(self.slow.wait(LIMIT))
            progress = b""
            while b" B written" not in progress:  # the file, without its end, is watched
                progress += os.read(master, 4096)
            self.slow.write("a", "x" * 4000 + "\n")
            while b"3 K written" not in progress:
                progress += os.read(master, 4096)
            self.assertIsNone(dump.poll())
            self.slow.write("a", " Finished 9 secs")
            out, _ = dump.communicate(timeout=LIMIT)
        os.close(master)
        self.assertEqual(dump.returncode, 0, progress)
        self.assertIn("slow: 3 K in ", out)

    def test_a_histogram_is_asked_for_until_its_copy_is_ready(self):
        histogram = self.answer("histogram", self.process.pid, "--json").json()
        self.assertEqual((histogram["classes"][0]["instances"], histogram["age_seconds"]), (7, 61))
        self.assertEqual(self.slow.flags, {2048})

    def test_one_that_stands_still_is_given_up(self):
        for told in ("Request TIMED OUT", None):
            self.slow.told = told
            started = time.monotonic()
            with self.start("--timeout", "1", stdout=subprocess.PIPE, stderr=subprocess.PIPE) as dump:
                out, err = dump.communicate(timeout=LIMIT)
            self.assertEqual((dump.returncode, out), (1, ""))
            self.assertIn("stands still at", err)
            self.assertGreaterEqual(time.monotonic() - started, 1)

    def test_an_answer_without_a_whole_file_is_a_failure(self):
        self.slow.told = ""
        with self.start(stdout=subprocess.PIPE, stderr=subprocess.PIPE) as dump:
            out, err = dump.communicate(timeout=LIMIT)
        self.assertEqual((dump.returncode, out), (1, ""))
        self.assertIn("lacks its end", err)

    def test_one_whose_process_ends_is_lost(self):
        with self.start(stdout=subprocess.PIPE, stderr=subprocess.PIPE) as dump:
            self.assertTrue(self.slow.wait(LIMIT))
            self.process.kill()
            self.process.wait()
            _, err = dump.communicate(timeout=LIMIT)
        self.assertEqual(dump.returncode, 1)
        self.assertIn("has ended", err)
