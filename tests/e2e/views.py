"""Views of one thread, of objects and of the heap, compared with what the JVM's own tools say."""
import pexpect

from harness import COMPUTES, OfTheDemo, on_terminal, qorctl, run_tool


class Views(OfTheDemo):
    def test_stacks_are_whole_and_locks_have_their_holders(self):
        deep = [row["index"] for row in self.stack("demo-deep-stack")["stack"]]
        self.assertEqual(deep, [*range(len(deep))])
        self.assertGreater(len(deep), 390)
        self.assertTrue(self.stack("demo-lock-holder")["owns"])
        locks = self.json("locks")
        waits = {wait["waiter"]["name"]: wait for wait in locks["waits"]}
        self.assertEqual(("demo-lock-holder" in waits, locks["deadlocks"]), (False, []))
        one = self.json("locks", "demo-lock-wanter")
        self.assertEqual((one["lock"], one["holder"]["name"], one["holder"]["state"]),
                         (waits["demo-lock-wanter"]["lock"], "demo-lock-holder", "Network Wait"))
        self.assertRegex(self.answer("locks", "demo-lock-wanter").out,
                         r'^"demo-lock-wanter" #\d+ waits for <\d+> \(a qoragent\.demo\.\S+\)\n'
                         r'held by "demo-lock-holder" #\d+ Network Wait in \S+\(')
        self.assertIn("waits for no lock", self.answer("locks", "demo-sleep").out)

    def test_a_thread_by_its_name(self):
        self.assertEqual(self.stack("LOCK-WANT")["name"], "demo-lock-wanter")
        self.refused('"demo-lock" is the name of 2 threads', "stack", "demo-lock")
        self.refused("no thread's name", "stack", "nobody")
        self.refused("no thread 999999", "stack", 999999)

    def locals_of(self, thread, method):
        frame = next(row["index"] for row in self.stack(thread)["stack"] if row["method"] == method)
        return self.json("locals", thread, frame)

    def settlement(self):
        rows = self.locals_of("demo-lock-holder", "charge")["locals"]
        self.assertEqual([row["type"] for row in rows],
                         ["qoragent.demo.Payments$Settlement", "qoragent.demo.Payments$Account"])
        return rows[0]["tag"]

    def test_locals_of_a_method_in_many_frames(self):
        deep = self.locals_of("demo-deep-stack", "descend")
        self.assertGreater(deep["frames_of_method"], 390)
        self.assertEqual({row["type"] for row in deep["locals"]}, {"qoragent.demo.Tasks$CategoryTree"})
        self.refused("no frame 99999", "locals", "demo-wait", 99999)

    def fields(self, tag, *options):
        classes = self.json("object", tag, *options)["objects"][0]["classes"]
        return [c["class"] for c in classes], {f["name"]: f for c in reversed(classes) for f in c["fields"]}

    def test_objects_field_by_field(self):
        classes, fields = self.fields(self.settlement())
        self.assertEqual(classes[1:], ["qoragent.demo.Actor", "java.lang.Thread"])
        for name, facts in {"LIMIT_NANOS": {"modifier": "static", "type": "Long", "value": "30000000000"},
                            "name": {"type": "String", "value": "demo-lock-holder"},
                            "failure": {"kind": "null"},
                            "bank": {"kind": "reference", "type": "java.net.Socket"}}.items():
            self.assertLessEqual(facts.items(), fields[name].items())
        self.assertIn("java.net.SocketImpl", self.fields(self.settlement(), "--follow", "bank.impl")[0])
        for why, field in (("is null", "failure"), ("no field nothing", "nothing"),
                           ("holds a value", "name")):
            self.refused(why, "object", self.settlement(), "--follow", field)

    def test_browsing_on_a_terminal(self):
        with on_terminal("object", self.app.pid, self.settlement()) as browser:
            for shown, typed in (("Payments$Settlement tag", "bank"), ("java.net.Socket tag", "nothing"),
                                 ("has no field nothing", "")):
                browser.expect_exact(shown)
                browser.expect_exact("nothing to end> ")
                browser.sendline(typed)
            browser.expect(pexpect.EOF)


class Memory(OfTheDemo):
    FLAGS = (COMPUTES, "-XX:+UseSerialGC", "-Xmx64m")

    def test_what_a_request_cost_and_keeping_to_a_budget(self):
        self.answer("shutdown")
        self.answer("attach", "--options", self.OPTIONS)  # with nothing known of earlier requests
        for budget, note, told in ((60, "such a walk may take 200 ms, and none", False), (250, "", True)):
            answer = qorctl("threads", self.app.pid, "--budget", budget)
            self.assertEqual((answer.code, "/shop/cart" in answer.out), (0, told), answer)
            self.assertIn(note, answer.err)
        for words in (("threads", "--details"), ("locks",), ("histogram", "--stop")):
            self.assertRegex(self.answer(*words, "--cost").out,
                             r"stopped for \S+ ms at most at a time, \S+ ms in all, in [1-9]\d* calls?\n$")
            reply = self.json(*words)
            cost = reply["stopped_at_most_ms"]
            self.assertTrue(0 < cost["largest"] <= cost["sum"], cost)
            self.assertLess(cost["sum"], 1 + reply.get("jvm_microseconds", 1e9) / 1000)
        # No copy is made of so small a heap.
        self.refused("only a copy of the JVM would keep to the budget: ", "histogram", "--budget",
                     cost["largest"] * 0.9)
        self.refused("the last look at the stacks stopped the JVM", "threads", "--budget", "0.001ms")

    def test_heap_and_collections(self):
        heap = self.json("heap")
        self.assertTrue(0.8 * 65536 <= heap["max_kib"] <= 65536, heap)
        self.assertTrue(500 < heap["used_kib"] <= heap["max_kib"], heap)
        pool = heap["pools"][0]
        self.assertEqual((pool["name"], pool["used_kib"] + pool["available_kib"], pool["used_percent"]),
                         ("Old", pool["max_kib"], pool["used_kib"] * 100 // pool["max_kib"]))
        self.assertRegex(self.answer("heap").out, r"(?m)^Old +\S+ [KM] +\S+ M +\S+ M +\d+$")
        counts = []
        for _ in range(2):
            counts.append({row["name"]: row["count"] for row in self.json("gc")["collectors"]})
            run_tool("jcmd", self.app.pid, "GC.run")
        self.assertEqual(set(counts[0]), {"Major", "Minor"})
        self.assertEqual(counts[1]["Major"], counts[0]["Major"] + 1)

    def test_processor_figures(self):
        cpu = self.json("cpu", "--interval", "0.5")
        self.assertTrue(0 < cpu["system_cpu_percent"] <= 100, cpu)  # demo-compute never rests
        self.assertGreaterEqual(cpu["threads_runnable"], 1)

    def test_the_top_of_the_histogram(self):
        sizes = [row["kib"] for row in self.json("histogram", "--top", 5)["classes"]]
        self.assertEqual((len(sizes), sizes), (5, sorted(sizes, reverse=True)))
