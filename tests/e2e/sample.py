"""What qorctl shows of the demo is what jstack shows of it."""
import re
import tempfile

import jstack
from harness import COMPUTES, SETTINGS, OfTheDemo, qorctl, run_tool


class Sample(OfTheDemo):
    FLAGS = (COMPUTES,)
    OURS = re.compile(r"qoragent-relay|QORD Agent|Attach Listener|process reaper")

    def test_threads_and_frames_are_those_of_jstack(self):
        sample = self.json("threads", "--details", "--all")
        self.assertFalse(sample["cut"])
        shown = {t["id"]: t for t in sample["threads"] if not self.OURS.search(t["name"])}
        dump = {t.id: t for t in jstack.parse(run_tool("jstack", self.app.pid))
                if t.frames and not self.OURS.search(t.name)}
        self.assertEqual({i: t["name"] for i, t in shown.items()}, {i: t.name for i, t in dump.items()})
        for number, thread in shown.items():
            self.compare_frames(thread, dump[number])

    def compare_frames(self, thread, truth):
        rows, frames = thread["stack"], [(frame.call, frame.line) for frame in truth.frames]
        told = [(row["index"], (f'{row["class"]}.{row["method"]}', row["line"]))
                for row in rows if "skipped" not in row]
        if thread["name"] == "demo-compute":  # only the frames at the bottom stay between two looks
            self.assertEqual([frame[0] for _, frame in told[-2:]], [frame[0] for frame in frames[-2:]])
            return
        self.assertEqual(told, [(index, frames[index]) for index, _ in told])
        self.assertEqual(sum(row.get("skipped", 1) for row in rows), len(frames))

    def test_active_threads_and_one_thread(self):
        active, every = self.threads(), self.threads("--all")
        self.assertLess(set(active), set(every))
        for name, state in {"compute": "Runnable", "lock-wanter": "Lock", "wait": "Object Wait",
                            "sleep": "Sleeping", "socket-read": "Network Wait",
                            "file-read": "IO Wait"}.items():
            self.assertEqual(every["demo-" + name]["state"], state)
            self.assertEqual("demo-" + name in active, name not in ("wait", "sleep"), name)
        wanted = every["demo-deep-stack"]
        by_id, by_key = (self.threads("--thread", wanted[key]) for key in ("id", "key"))
        self.assertEqual(list(by_id), ["demo-deep-stack"])
        self.assertEqual(by_id["demo-deep-stack"]["stack"], by_key["demo-deep-stack"]["stack"])
        self.refused("no thread 999999", "threads", "--thread", "999999")

    def test_settings_and_raw(self):
        self.assertIn("qorloglevel to 2", self.answer("log", 2).out)
        self.answer("log", 1)
        summary = self.json("summary")
        self.assertRegex(self.answer("summary").out, rf"(?m)^Threads in Lock +{summary['threads_lock']}$")
        self.assertRegex(self.answer("raw", "516|showstack|256").out,
                         r"^\d+(<29>-?\d+){12}Time spent in JVM for processing request<30>\n\d+ usec<31>\n$")
        self.assertEqual(self.answer("raw", "516|showstack|256", "--bytes").out.count("\x1d"), 12)
        self.assertIn("Invalid Request nonsense", self.answer("raw", "4|nonsense").out)
        self.refused("at most 20480", "raw", "4|" + "x" * 30000)
        self.refused("no reply", "raw", "SHUTDOWN", code=2)

    def test_the_rules_of_a_start_show_the_application(self):
        """Until a console's own replace them, which keep what is at work elsewhere only if they say so."""
        at_work = {"demo-lock-wanter", "demo-database", "demo-web"}
        for option, every in (("default", False), ("none", True)):
            self.answer("shutdown")
            self.answer("attach", "--options", f"{self.OPTIONS},rules={option}")
            active = self.threads()
            self.assertLessEqual(at_work | {"demo-compute", "demo-socket-read", "main"}, set(active))
            self.assertEqual("Reference Handler" in active, every and SETTINGS.version > 8)  # it waits there
        system = "".join(f"any_|systemcall|{start}.\n"
                         for start in ("java", "javax", "jdk", "sun", "qoragent", "tessar", "ferrule"))
        for rules, shown in (("", set()), ("any_|keep|work\nany_|threadname|demo-\n", at_work)):
            self.answer("rules", "-", text=rules + system)
            self.assertEqual(set(self.threads()), shown)
            self.assertEqual(self.json("summary")["threads_lock"] > 0, bool(shown))
        self.answer("rules", "-", text="")

    def test_rules_hide_threads_until_they_are_reset(self):
        rules = "# idle\nabcd|threadname|demo-compute*\nabcd|systemcall|java.*\n"
        self.assertIn("Added Idle Thread Rules", self.answer("rules", "-", text=rules).out)
        self.assertNotIn("demo-compute", self.threads())
        rows = self.stack("demo-lock-holder")["stack"]
        for package, known in (("java.", False), ("qoragent.", True)):
            self.assertEqual({row["application"] for row in rows if row["class"].startswith(package)},
                             {known})
        with tempfile.NamedTemporaryFile("w", suffix=".rules") as empty:
            self.answer("rules", empty.name)
        self.assertIn("demo-compute", self.threads())
        odd = qorctl("rules", self.app.pid, "-", text="abc|threadname|x\nabcd|threadname|x\nabcd||x\n")
        self.assertEqual((odd.code, re.findall(r"line (\d) has no effect", odd.err)), (0, ["1", "3"]), odd)
        self.answer("rules", "-", text="")
