"""Views of one thread, of objects and of the heap, compared with what the JVM's own tools tell."""
import re

import jstack
from harness import SETTINGS, OfTheDemo, on_terminal, run_tool


class Views(OfTheDemo):
    def dump(self):
        return {t.name: t for t in jstack.parse(run_tool("jstack", "-l", self.app.pid))}

    def stack(self, thread):
        sample = self.answer("stack", self.app.pid, thread, "--json").json()
        self.assertFalse(sample["cut"])
        self.assertEqual(len(sample["threads"]), 1)
        return sample["threads"][0]

    def test_stacks_are_whole_and_those_of_jstack(self):
        dump = self.dump()
        for name in ("demo-lock-holder", "demo-lock-wanter", "demo-queue-wait", "demo-wait", "demo-deep-stack"):
            with self.subTest(thread=name):
                thread, truth = self.stack(name), dump[name]
                self.assertEqual([(f'{row["class"]}.{row["method"]}', row["line"]) for row in thread["stack"]],
                                 [(frame.call, frame.line) for frame in truth.frames])
                self.assertEqual([row["index"] for row in thread["stack"]], list(range(len(truth.frames))))
                self.assertEqual(sorted((lock["depth"], lock["class"]) for lock in thread["owns"]),
                                 sorted((lock.depth, lock.class_name) for lock in truth.held()))
        self.assertGreater(len(dump["demo-deep-stack"].frames), 390)  # no frame is skipped

    def test_a_thread_by_id_key_and_name(self):
        by_name = self.stack("demo-lock-wanter")
        self.assertEqual(by_name["stack"], self.stack(by_name["id"])["stack"])
        self.assertEqual(by_name["stack"], self.stack(by_name["key"])["stack"])
        self.assertEqual(self.stack("LOCK-WANT")["name"], "demo-lock-wanter")
        refusal = self.refused('"demo-lock" is the name of 2 threads', "stack", self.app.pid, "demo-lock")
        self.assertIn('"demo-lock-holder"', refusal.err)
        self.refused("no thread's name", "stack", self.app.pid, "nobody")
        self.refused("no thread 999999", "stack", self.app.pid, 999999)

    def test_application_frames_are_told(self):
        self.answer("rules", self.app.pid, "-", text="demo|systemcall|java.*\ndemo|systemcall|sun.*\n")
        rows = self.stack("demo-lock-holder")["stack"]
        self.answer("rules", self.app.pid, "-", text="")
        self.assertEqual({row["application"] for row in rows if row["class"].startswith(("java.", "sun."))},
                         {False})
        self.assertEqual({row["application"] for row in rows if row["class"].startswith("qoragent.")}, {True})

    def test_locks_and_their_holders(self):
        dump = self.dump()
        locks = self.answer("locks", self.app.pid, "--json").json()
        self.assertEqual(locks["deadlocks"], [])
        waits = {wait["waiter"]["name"]: wait for wait in locks["waits"]}
        for name in ("demo-lock-wanter", "demo-queue-wait"):
            self.assertEqual(waits[name]["class"], dump[name].wanted.class_name)
            holder = next(t for t in dump.values() if t.holds(dump[name].wanted))
            self.assertEqual((waits[name]["holder"]["id"], waits[name]["holder"]["name"]), (holder.id, holder.name))
        self.assertNotIn("demo-lock-holder", waits)
        one = self.answer("locks", self.app.pid, "demo-lock-wanter", "--json").json()
        self.assertEqual(one["lock"], waits["demo-lock-wanter"]["lock"])
        self.assertEqual(one["holder"]["name"], "demo-lock-holder")
        self.assertEqual(one["holder"]["state"], "Network Wait")
        text = self.answer("locks", self.app.pid, "demo-lock-wanter").out
        self.assertRegex(text, r'^"demo-lock-wanter" #\d+ waits for <\d+> \(a qoragent\.demo\.\S+\)\n'
                               r'held by "demo-lock-holder" #\d+ Network Wait in \S+\(')
        self.assertIn("waits for no lock", self.answer("locks", self.app.pid, "demo-sleep").out)
        self.assertEqual(len(self.watch("locks", self.app.pid)), 3)

    def locals_of(self, thread, method):
        frame = next(row["index"] for row in self.stack(thread)["stack"] if row["method"] == method)
        return self.answer("locals", self.app.pid, thread, frame, "--json").json()

    def settlement(self):
        rows = self.locals_of("demo-lock-holder", "charge")["locals"]
        return next(row["tag"] for row in rows if row["type"] == "qoragent.demo.Payments$Settlement")

    def test_locals_of_known_frames(self):
        shown = self.locals_of("demo-lock-holder", "charge")
        self.assertEqual([row["type"] for row in shown["locals"]],
                         ["qoragent.demo.Payments$Settlement", "qoragent.demo.Payments$Account"])
        self.assertEqual(shown["frames_of_method"], 1)
        deep = self.locals_of("demo-deep-stack", "descend")
        self.assertGreater(deep["frames_of_method"], 390)
        self.assertEqual({row["type"] for row in deep["locals"]}, {"qoragent.demo.Tasks$CategoryTree"})
        self.refused("no frame 99999", "locals", self.app.pid, "demo-wait", 99999)

    def fields(self, tag, *options):
        shown = self.answer("object", self.app.pid, tag, "--json", *options).json()["objects"][0]
        return shown, {f["name"]: f for c in reversed(shown["classes"]) for f in c["fields"]}

    def test_objects_field_by_field(self):
        shown, fields = self.fields(self.settlement())
        self.assertEqual([c["class"] for c in shown["classes"]],
                         ["qoragent.demo.Payments$Settlement", "qoragent.demo.Actor", "java.lang.Thread"])
        known = {"LIMIT_NANOS": ("static", "Long", "30000000000"), "name": ("private", "String", "demo-lock-holder")}
        for name, (modifier, kind, value) in known.items():
            if name == "name" and SETTINGS.version < 9:
                modifier = fields[name]["modifier"]
            self.assertEqual((fields[name]["modifier"], fields[name]["type"], fields[name]["value"]),
                             (modifier, kind, value))
        self.assertEqual(fields["failure"]["kind"], "null")
        self.assertEqual((fields["bank"]["kind"], fields["bank"]["type"]), ("reference", "java.net.Socket"))
        by_tag, _ = self.fields(fields["bank"]["tag"])
        self.assertEqual(by_tag["classes"][0]["class"], "java.net.Socket")

    def test_following_fields(self):
        shown, _ = self.fields(self.settlement(), "--follow", "bank")
        self.assertEqual(shown["classes"][0]["class"], "java.net.Socket")
        shown, _ = self.fields(self.settlement(), "--follow", "bank.impl")
        self.assertIn("java.net.SocketImpl", [c["class"] for c in shown["classes"]])
        tag = self.settlement()
        self.refused("is null", "object", self.app.pid, tag, "--follow", "failure")
        self.refused("no field nothing", "object", self.app.pid, self.settlement(), "--follow", "nothing")
        self.refused("holds a value", "object", self.app.pid, self.settlement(), "--follow", "name")
        self.refused("shows nothing for tag 4711", "object", self.app.pid, 4711)

    def test_browsing_on_a_terminal(self):
        code, output = on_terminal("bank\nnothing\n\n", "object", self.app.pid, self.settlement())
        self.assertEqual(code, 0, output)
        self.assertLess(output.index("qoragent.demo.Payments$Settlement tag"), output.index("java.net.Socket tag"))
        self.assertIn("has no field nothing", output)
        self.assertEqual(output.count("nothing to end> "), 3)


class Memory(OfTheDemo):
    FLAGS = ("-XX:+UseSerialGC", "-Xmx64m")

    def heap(self):
        return self.answer("heap", self.app.pid, "--json").json()

    def test_the_heap_is_as_large_as_it_was_told_to_be(self):
        heap = self.heap()
        self.assertTrue(0.8 * 65536 <= heap["max_kib"] <= 65536, heap)
        self.assertTrue(500 < heap["used_kib"] <= heap["max_kib"], heap)
        pool = heap["pools"][0]
        self.assertEqual(pool["name"], "Old")
        self.assertEqual(pool["used_kib"] + pool["available_kib"], pool["max_kib"])
        self.assertEqual(pool["used_percent"], pool["used_kib"] * 100 // pool["max_kib"])
        self.assertRegex(self.answer("heap", self.app.pid).out, r"(?m)^Old +\S+ [KM] +\S+ M +\S+ M +\d+$")
        self.assertEqual({d["max_kib"] for d in self.watch("heap", self.app.pid)}, {heap["max_kib"]})

    def collections(self):
        rows = self.answer("gc", self.app.pid, "--json").json()["collectors"]
        return {row["name"]: row["count"] for row in rows}

    def test_a_full_collection_counts(self):
        before = self.collections()
        self.assertEqual(set(before), {"Major", "Minor"})
        run_tool("jcmd", self.app.pid, "GC.run")
        self.assertEqual(self.collections()["Major"], before["Major"] + 1)
        self.assertEqual(len(self.watch("gc", self.app.pid)), 3)

    def test_processor_figures(self):
        cpu = self.answer("cpu", self.app.pid, "--interval", "0.5", "--json").json()
        self.assertEqual(set(cpu), {"system_cpu_percent", "process_cpu_percent", "os_response_microseconds",
                                    "threads_runnable"})
        self.assertTrue(0 < cpu["system_cpu_percent"] <= 100, cpu)  # demo-compute never rests
        self.assertGreaterEqual(cpu["threads_runnable"], 1)
        self.assertEqual(len(self.watch("cpu", self.app.pid)), 3)

    def histogram(self):
        rows = self.answer("histogram", self.app.pid, "--top", 302, "--json").json()["classes"]
        return {row["class"]: (row["instances"], row["kib"]) for row in rows}

    SIGNS = {"Z": "boolean", "B": "byte", "C": "char", "S": "short", "I": "int", "J": "long", "F": "float", "D": "double"}

    def java_name(self, name):
        element = name.lstrip("[")
        if element == name:
            return name
        element = element[1:-1] if element.startswith("L") else self.SIGNS[element]
        return element + "[]" * (len(name) - len(name.lstrip("[")))

    def truth(self):
        counts = {}
        for line in run_tool("jcmd", self.app.pid, "GC.class_histogram", "-all").splitlines():
            if match := re.match(r" *\d+: +(\d+) +(\d+)  (\S+)", line):
                counts[self.java_name(match[3])] = (int(match[1]), int(match[2]))
        return counts

    def test_the_histogram_is_that_of_jcmd(self):
        run_tool("jcmd", self.app.pid, "GC.run")
        first, truth, second = self.histogram(), self.truth(), self.histogram()
        self.assertGreater(len(first), 200)
        compared = 0
        for name, (count, kib) in first.items():
            if name not in truth or "Lambda" in name:
                continue
            with self.subTest(name=name):
                compared += 1
                told, size = truth[name]
                # The tools themselves make objects between the counts.
                low, high = sorted([count, second.get(name, (count, 0))[0]])
                spare = 64 + told // 20
                self.assertTrue(low - spare <= told <= high + spare, (count, told))
                if count == told and "[]" not in name and name != "java.lang.Class":  # of one size
                    self.assertEqual(kib, size // 1024)
        self.assertGreater(compared, 190)
        self.assertEqual([kib for _, kib in first.values()], sorted((kib for _, kib in first.values()), reverse=True))

    def test_the_top_of_the_histogram(self):
        rows = self.answer("histogram", self.app.pid, "--top", 5, "--json").json()["classes"]
        self.assertEqual(len(rows), 5)
        text = self.answer("histogram", self.app.pid, "--top", 3).out
        self.assertEqual(len(text.splitlines()), 7, text)
        self.refused("top", "histogram", self.app.pid, "--top", 0, code=2)
        self.assertEqual(len(self.watch("histogram", self.app.pid)), 3)
