"""Recordings: what the file says is what the JVM did, and how it ends."""
import collections
import contextlib
import gzip
import json
import os
import signal
import subprocess
import unittest

import jstack
from harness import LIMIT, SETTINGS, Application, Case, environment, folder, qorctl, wait_until
from report import samples_of

LAST_PID = "/proc/sys/kernel/ns_last_pid"


def lines_of(path):
    with (gzip.open if path.endswith(".gz") else open)(path, "rt", encoding="utf-8") as file:
        return [json.loads(line) for line in file.read().rpartition("\n")[0].splitlines()]


class Record(Case):
    def setUp(self):
        self.place, _ = folder(self)
        self.app = Application()
        self.addCleanup(lambda: self.app.__exit__())  # of the last one

    def start(self, file, *words, before=(), until=None):
        command = [*before, SETTINGS.qorctl, "record", str(self.app.pid), "--out", file, "--share", "100",
                   "--every", "100ms", *words]
        record = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                  env=environment())
        self.addCleanup(record.communicate)
        self.addCleanup(record.kill)
        wait_until("a recording", lambda: os.path.exists(until or file) or record.poll() is not None)
        return record

    @staticmethod
    def wait_for_sample(file):
        """As the last line of a recording."""
        wait_until(file, lambda: os.path.exists(file) and "threads" in ["", *lines_of(file)][-1])

    def check(self, lines, reason):
        self.assertEqual((lines[0]["type"], lines[-1]["type"], lines[-1]["reason"]), ("meta", "end", reason))
        self.assertEqual({(line["pid"], line["jvm"]) for line in lines}, {(self.app.pid, lines[0]["jvm"])})
        samples = [line for line in lines if line["type"] == "sample"]
        self.assertEqual(lines[-1]["samples"], len(samples))
        return samples

    def test_what_it_says_of_threads(self):
        file = f"{self.place}/a.ndjson.gz"
        told = self.json("record", "--options", "localquota=100", "--share", "100", "--every", "200ms",
                         "--for", "1s", "--out", file)
        lines = lines_of(file)
        samples = self.check(lines, "finished")
        self.assertEqual((told["samples"], told["parts"], told["bytes"]),
                         (len(samples), 1, os.path.getsize(file)))
        self.assertEqual(os.stat(file).st_mode & 0o777, 0o600)
        first = {row["name"]: row for row in samples[0]["threads"]}
        self.assertEqual(first["demo-web"]["request"], {"url": self.app.truths()["demo-web"]["url"]})
        self.assertEqual(first["demo-lock-wanter"]["waits_for"]["owner"], first["demo-lock-holder"]["id"])
        self.assertIn(first["demo-sleep"]["id"], samples[-1]["same"])
        self.assertEqual(sum(samples[-1]["states"].values()),
                         len(samples[-1]["threads"]) + len(samples[-1]["same"]))
        self.assertGreater(samples[-1]["heap"]["used_kib"], 0)
        self.check_forms(file, lines)
        self.refused("File exists", "record", "--out", file)

    def check_forms(self, file, lines):
        """Folded stacks and a thread dump have what the lines have."""
        counts, samples = collections.Counter(), samples_of(lines)
        stacks = {line["n"]: line["frames"] for line in lines if line["type"] == "stack"}
        for row in sum(samples, []):
            calls = [frame.rpartition("(")[0] if isinstance(frame, str) else f"[{frame} frames skipped]"
                     for frame in stacks[row["stack"]] if not isinstance(frame, dict)]
            counts[";".join(reversed(calls)).replace(" ", "_")] += 1
        folded = [line.rpartition(" ") for line in qorctl("report", file, "--folded").out.splitlines()]
        self.assertEqual({stack: int(count) for stack, _, count in folded}, counts)
        dump = jstack.parse(qorctl("report", file, "--jstack", len(samples)).out)
        self.assertEqual({(thread.id, thread.name, len(thread.frames)) for thread in dump},
                         {(row["id"], row["name"], sum(isinstance(f, str) for f in stacks[row["stack"]]))
                          for row in samples[-1]})
        live = self.answer("threads", "--format", "jstack").out
        self.assertIn("\n   java.lang.Thread.State: BLOCKED (on object monitor)\n", live)
        self.assertIn("Tasks$NightReport.act;", self.answer("threads", "--format", "folded", "--all").out)

    def test_parts_stand_alone(self):
        """And a part of an earlier recording is kept."""
        file, earlier = f"{self.place}/b.ndjson", f"{self.place}/b.2.ndjson"
        with open(earlier, "w", encoding="utf-8"):
            pass
        record = self.start(file, "--for", "0", "--json", "--part-size", "10k", "--parts", "2",
                            until=f"{self.place}/b.4.ndjson")  # a part a sample
        record.send_signal(signal.SIGINT)
        told = json.loads(record.communicate()[0])
        names = [f"{self.place}/b.{told['parts'] - back}.ndjson" for back in (0, -1)]
        self.assertEqual(sorted(os.listdir(self.place)), sorted(map(os.path.basename, (earlier, *names))))
        parts = [self.check(lines_of(name), end) for name, end in zip(names, ("rotated", "interrupted"))]
        for samples in parts:
            self.assertEqual(samples[0]["same"], [])
        self.assertGreater(parts[1][0]["time"] - parts[0][-1]["time"], 60)

    def test_ends_in_good_order(self):
        """By Ctrl-C; a JVM that doesn't answer for a while is said to, and one that ends too."""
        file = f"{self.place}/c.ndjson.gz"
        record = self.start(file, "--for", "0")
        record.send_signal(signal.SIGINT)
        self.assertEqual((record.wait(LIMIT), record.stderr.read()), (0, ""))
        self.check(lines_of(file), "interrupted")
        file = f"{self.place}/d.ndjson"
        record = self.start(file, "--for", "0", "--timeout", "1")
        self.app.process.send_signal(signal.SIGSTOP)
        wait_until("said to be stopped",
                   lambda: any("is stopped" in line.get("unanswered", "") for line in lines_of(file)))
        self.app.process.send_signal(signal.SIGCONT)
        self.wait_for_sample(file)
        self.app.process.kill()
        self.assertEqual(record.wait(LIMIT), 0)
        self.check(lines_of(file), "jvm ended")

    @unittest.skipUnless(os.geteuid() == 0 and os.access(LAST_PID, os.W_OK), "process ids can't be chosen")
    def test_goes_on_with_another_jvm_of_the_same_process_id(self):
        first, second = files = [f"{self.place}/{name}.ndjson" for name in ("f", "f.2")]
        record = self.start(first, "--for", "0")
        self.wait_for_sample(first)
        record.send_signal(signal.SIGSTOP)
        pid = self.app.pid
        self.app.__exit__()

        def restarted():
            with open(LAST_PID, "w", encoding="ascii") as last:
                last.write(str(pid - 1))
            with contextlib.suppress(AssertionError):  # which ends at once where it has another one
                self.app = Application(before=("sh", "-c", f'[ $$ = {pid} ] && exec "$@"', "sh"))
                return True
        wait_until("the same process id", restarted)
        record.send_signal(signal.SIGCONT)
        self.wait_for_sample(second)
        record.send_signal(signal.SIGINT)
        self.assertEqual(record.wait(LIMIT), 0)
        for file, reason in zip(files, ("jvm restarted", "interrupted")):
            self.check(lines_of(file), reason)
        self.assertEqual(len({lines_of(file)[0]["jvm"] for file in files}), 2)

    def test_says_that_nothing_more_can_be_written(self):
        file = f"{self.place}/e.ndjson"
        record = self.start(file, before=["prlimit", "--fsize=34000"])
        self.assertEqual((record.wait(LIMIT), record.stderr.read().count("File too large")), (1, 1))
        self.assertGreater(os.path.getsize(file), 30000)
        with open(file, encoding="utf-8") as text:
            self.assertTrue(text.read().endswith("}\n"))
