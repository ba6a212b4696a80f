"""Recordings: what the file says is what the JVM did, and how it ends."""
import collections
import contextlib
import gzip
import json
import os
import re
import signal
import sqlite3
import subprocess

import jstack
from harness import LIMIT, SETTINGS, Application, Case, environment, folder, wait_until

DOCS = os.path.join(os.path.dirname(__file__), "../../docs")


def lines_of(path):
    with (gzip.open if path.endswith(".gz") else open)(path, "rt", encoding="utf-8") as file:
        return [json.loads(line) for line in file.read().rpartition("\n")[0].splitlines()]


class Record(Case):
    def setUp(self):
        self.place, _ = folder(self)
        self.app = Application()
        self.addCleanup(lambda: self.app.__exit__())

    def start(self, file, *words, before=()):
        command = [*before, SETTINGS.qorctl, "record", str(self.app.pid), "--out", file, *words]
        record = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                  env=environment())
        self.addCleanup(record.communicate)
        self.addCleanup(record.kill)
        wait_until("a recording", lambda: os.path.exists(file) or record.poll() is not None)
        return record

    def check(self, lines, reason):
        self.assertEqual((lines[0]["type"], lines[-1]["type"], lines[-1]["reason"]), ("meta", "end", reason))
        keys = {(line["host"], line["pid"], line["jvm"]) for line in lines}
        self.assertEqual((len(keys), next(iter(keys))[1]), (1, self.app.pid))
        self.assertEqual(lines[0]["version"], 1)
        samples = [line for line in lines if line["type"] == "sample"]
        self.assertEqual(lines[-1]["samples"], len(samples))
        return samples

    def test_what_it_says_of_threads(self):
        file = f"{self.place}/a.ndjson.gz"
        told = self.json("record", self.app.pid, "--options", "localquota=100", "--share", "100", "--every",
                         "200ms", "--for", "3s", "--out", file)
        lines = lines_of(file)
        samples = self.check(lines, "finished")
        self.assertEqual((told["samples"], told["parts"], told["bytes"]),
                         (len(samples), 1, os.path.getsize(file)))
        self.assertEqual(os.stat(file).st_mode & 0o777, 0o600)
        stacks = {line["n"]: line["frames"] for line in lines if line["type"] == "stack"}
        rows = {row["name"]: row for row in samples[-1]["threads"]}
        first = {row["name"]: row for row in samples[0]["threads"]}
        truths = self.app.truths()
        self.assertEqual(rows["demo-web"]["request"], {"url": truths["demo-web"]["url"]})
        self.assertEqual(rows["demo-lock-wanter"]["waits_for"]["owner"], first["demo-lock-holder"]["id"])
        self.assertIn(first["demo-sleep"]["id"], samples[-1]["same"])
        self.assertIn("Tasks$NightReport.act(Tasks.java:", " ".join(stacks[first["demo-sleep"]["stack"]]))
        self.assertEqual(sum(samples[-1]["states"].values()),
                         len(samples[-1]["threads"]) + len(samples[-1]["same"]))
        self.assertGreater(samples[-1]["heap"]["used_kib"], 0)
        self.check_forms(file, samples, stacks)
        self.refused("File exists", "record", self.app.pid, "--out", file)

    def check_questions(self, file, rows, samples):
        """The questions of docs/record.md, beside what the report counts."""
        with open(f"{DOCS}/record.md", encoding="utf-8") as docs:
            questions = re.findall("```sql\n(.*?)```", docs.read(), re.DOTALL)
        with gzip.open(file, "rt", encoding="utf-8") as text, \
                contextlib.closing(sqlite3.connect(":memory:")) as base:
            base.execute("create table lines (line text)")
            base.executemany("insert into lines values (?)", [(line,) for line in text])
            states, calls, owners = (base.execute(question).fetchall() for question in questions)
        self.assertEqual(sum(row[-1] for row in states), rows)
        for answer, key in ((calls, "request"), (owners, "waits_for")):
            self.assertEqual(sum(row[-1] for row in answer),
                             sum(key in row for sample in samples for row in sample["threads"]))

    def check_forms(self, file, samples, stacks):
        """Folded stacks and a thread dump have what the lines have."""
        counts, rows = collections.Counter(), {}
        for sample in samples:
            rows.update((row["id"], row) for row in sample["threads"])
            now = [rows[id] for id in sample["same"]] + sample["threads"]
            for row in now:
                calls = [frame.rpartition("(")[0] if isinstance(frame, str) else f"[{frame} frames skipped]"
                         for frame in stacks[row["stack"]] if not isinstance(frame, dict)]
                counts[";".join(reversed(calls)).replace(" ", "_")] += 1
        folded = [line.rpartition(" ") for line in self.answer("report", file, "--folded").out.splitlines()]
        self.assertEqual({stack: int(count) for stack, _, count in folded}, counts)
        self.check_questions(file, sum(counts.values()), samples)
        dump = jstack.parse(self.answer("report", file, "--jstack", len(samples)).out)
        self.assertEqual({(thread.id, thread.name, len(thread.frames)) for thread in dump},
                         {(row["id"], row["name"],
                           sum(isinstance(frame, str) for frame in stacks[row["stack"]])) for row in now})
        live = self.answer("threads", self.app.pid, "--format", "jstack").out
        self.assertGreaterEqual({t.id: t.name for t in jstack.parse(live)}.items(),
                                {(t.id, t.name) for t in dump if t.name.startswith("demo-")})
        self.assertIn("\n   java.lang.Thread.State: BLOCKED (on object monitor)\n", live)
        self.assertIn("Tasks$NightReport.act;",
                      self.answer("threads", self.app.pid, "--format", "folded", "--all").out)

    def test_parts_stand_alone(self):
        """And a part of an earlier recording is kept."""
        file, earlier = f"{self.place}/b.ndjson", f"{self.place}/b.2.ndjson"
        with open(earlier, "w", encoding="utf-8"):
            pass
        told = self.json("record", self.app.pid, "--share", "100", "--every", "100ms", "--for", "4s", "--out",
                         file, "--part-size", "20k", "--parts", "2")
        self.assertGreater(told["parts"], 2)
        names = [f"{self.place}/b.{told['parts'] - back}.ndjson" for back in (0, -1)]
        self.assertEqual(sorted(os.listdir(self.place)), sorted(map(os.path.basename, (earlier, *names))))
        for name, reason in zip(names, ("rotated", "finished")):
            samples = self.check(lines_of(name), reason)
            self.assertEqual(samples[0]["same"], [])

    def test_ends_in_good_order(self):
        """By Ctrl-C; a JVM that doesn't answer for a while is said to, and one that ends too."""
        file = f"{self.place}/c.ndjson.gz"
        record = self.start(file, "--share", "100", "--every", "200ms", "--for", "0")
        record.send_signal(signal.SIGINT)
        self.assertEqual((record.wait(LIMIT), record.stderr.read()), (0, ""))
        self.check(lines_of(file), "interrupted")
        file = f"{self.place}/d.ndjson"
        record = self.start(file, "--share", "100", "--every", "200ms", "--for", "0", "--timeout", "1")
        self.app.process.send_signal(signal.SIGSTOP)
        wait_until("said to be stopped",
                   lambda: any("is stopped" in line.get("unanswered", "") for line in lines_of(file)))
        self.app.process.send_signal(signal.SIGCONT)
        wait_until("sampled again", lambda: "threads" in lines_of(file)[-1])
        if os.geteuid() == 0:
            self.restart(record)
            again = f"{self.place}/d.2.ndjson"
            wait_until("sampled anew", lambda: os.path.exists(again) and
                       "threads" in ["", *lines_of(again)][-1])
            self.check(lines_of(file), "jvm restarted")
            file = again
        self.app.process.kill()
        self.assertEqual(record.wait(LIMIT), 0)
        self.check(lines_of(file), "jvm ended")

    def restart(self, record):
        """Another JVM under the number of the one that is recorded."""
        record.send_signal(signal.SIGSTOP)
        pid = self.app.pid
        is_same = False
        while not is_same:
            self.app.__exit__()
            with open("/proc/sys/kernel/ns_last_pid", "w", encoding="ascii") as last:
                last.write(str(pid - 1))
            self.app = Application()
            is_same = self.app.pid == pid
        record.send_signal(signal.SIGCONT)

    def test_says_that_nothing_more_can_be_written(self):
        file = f"{self.place}/e.ndjson"
        record = self.start(file, "--share", "100", "--every", "100ms", before=["prlimit", "--fsize=60000"])
        self.assertEqual((record.wait(LIMIT), record.stderr.read().count("File too large")), (1, 1))
        lines = lines_of(file)
        self.assertGreater(os.path.getsize(file), 50000)
        with open(file, encoding="utf-8") as text:
            self.assertTrue(text.read().endswith("}\n"))
        self.assertIn("samples" if lines[-1]["type"] == "end" else "threads", lines[-1])
