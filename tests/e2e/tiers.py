"""What threads do in other tiers, compared with what the demo application says of its own sockets and files."""
import contextlib
import os
import re
import shutil
import socket
import subprocess
import tempfile

from harness import SETTINGS, Case, OfTheDemo, in_root, on_terminal, qorctl, wait_until

FOLDER = os.path.dirname(os.path.realpath(__file__))


class Tiers(OfTheDemo):
    OPTIONS = ("--options", "dbquery=1,handquota=100,localquota=100")
    SQL = re.compile(r"select id, total from orders where state = 'open' order by placed$")

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        truths = cls.app.truths()
        cls.database, cls.web, cls.file = (truths[f"demo-{name}"] for name in ("database", "web", "file-read"))

    def check_database(self, call):
        self.assertEqual((call["url"], call["user"]), (self.database["url"], self.database["user"]))
        self.assertEqual(call["local_port"], int(self.database["local_port"]))
        self.assertEqual(call["remote_port"], int(self.database["remote_port"]))
        self.assertEqual((call["remote_host"], call["type"]), ("127.0.0.1", "DEEPDIVE_TESSAR_DB"))

    def check_threads(self, threads):
        database = threads["demo-database"]
        self.assertEqual(database["state"], "DB Wait")
        self.check_database(database["db"])
        self.assertRegex(database["db"]["sql"], self.SQL)
        self.assertNotIn("request", database)
        self.assertEqual(threads["demo-web"]["request"]["url"], self.web["url"])
        self.assertNotIn("db", threads["demo-web"])
        self.assertEqual(threads["demo-file-read"]["file"], self.file["file"])
        self.assertNotIn("file", threads["demo-web"])

    def test_samples_tell_database_url_and_file(self):
        self.check_threads({t["name"]: t for t in self.threads(self.app, "--details", "--all")})
        self.assertNotIn(self.web["url"], self.answer("raw", self.app.pid, "8964|showstack|32768").out)  # no locals
        found = self.threads(self.app, "--match", "FROM ORDERS")
        self.assertEqual([t["name"] for t in found], ["demo-database"])

    def test_one_thread_tells_them_with_its_stack(self):
        names = ("demo-database", "demo-web", "demo-file-read")
        one = {name: self.answer("stack", self.app.pid, name, "--json").json()["threads"][0] for name in names}
        self.check_threads(one)
        methods = [f'{frame["class"]}.{frame["method"]}' for frame in one["demo-database"]["stack"]]
        self.assertIn("tessar.jdbc.driver.TessarStatement.executeQuery", methods)
        text = self.answer("stack", self.app.pid, "demo-database").out
        self.assertRegex(text, r"(?m)^   sql: select id, total ")

    def test_samples_by_hand_have_a_share_of_time(self):
        quota, state = "516|NoProcessing|handquota|", "516|NoProcessing|walkstate"
        self.assertRegex(self.answer("raw", self.app.pid, state).out, r"\Awalk=-?\d+ leftout=0 handquota=100 cut=0\n\Z")
        self.assertEqual(self.answer("raw", self.app.pid, quota + "1").out.strip(), "Changed handquota to 1")
        self.addCleanup(self.answer, "raw", self.app.pid, quota + "100")
        asked = qorctl("threads", self.app.pid, "--json")
        while not asked.err:
            self.check_threads({t["name"]: t for t in asked.json()["threads"]})
            asked = qorctl("threads", self.app.pid, "--json")
        self.assertRegex(asked.err, r"\Aqorctl: without data of other tiers, .*handquota.*\n\Z")
        self.assertNotIn("request", {t["name"]: t for t in asked.json()["threads"]}["demo-web"])
        self.assertRegex(self.answer("raw", self.app.pid, state).out, r"\Awalk=\d+ leftout=1 handquota=1 cut=0\n\Z")

    def test_rules_are_shown_and_replaced(self):
        with open(f"{FOLDER}/../../java/tiers.rules", encoding="utf-8") as file:
            shipped = file.read()
        self.assertEqual(self.answer("tiers", self.app.pid).out, shipped)
        self.refused("line 2: a field needs an object above it", "tiers", self.app.pid, "-", text="#\nurl f,La;\n")
        self.assertEqual(self.answer("tiers", self.app.pid).out, shipped)
        long = "# \U0001f697\n" + "".join(f"frame web a.B{'x' * 45} m{n}\n" for n in range(1899))
        self.assertIn("1900 lines", self.answer("tiers", self.app.pid, "-", text=long).out)
        self.assertEqual(self.answer("tiers", self.app.pid, "--json").json()["rules"], long)
        self.check_threads({t["name"]: t for t in self.threads(self.app)})  # by the tables
        self.answer("tiers", self.app.pid, "-", text="frame web qoragent.demo.Payments$Settlement *\n"
                    "object web Lqoragent/demo/Payments$Settlement; read\nurl name,Ljava/lang/String;\n"
                    "frame db qoragent.demo.Payments$Refund *\n"
                    "object db Lqoragent/demo/Payments$Refund; read\nurl name,Ljava/lang/String;\n")
        threads = {t["name"]: t for t in self.threads(self.app)}
        holder = threads["demo-lock-holder"]
        self.assertEqual((holder["request"]["url"], holder["rule"]), ("demo-lock-holder", "read"))
        self.assertNotIn("rule", threads["demo-lock-wanter"])  # whose URL has no place in its row

    def test_figures_grow(self):
        cpu, allocated = [], []
        for _ in range(2):
            threads = {t["name"]: t for t in self.threads(self.app, "--details")}
            cpu.append(threads["demo-compute"]["cpu_nanoseconds"])
            allocated.append(threads["main"]["allocated_bytes"])
        self.assertTrue(0 < cpu[0] < cpu[1], cpu)  # it never rests
        self.assertTrue(0 < allocated[0] <= allocated[1], allocated)

    def test_the_table_is_whole_or_cut_to_the_terminal(self):
        wide = self.answer("threads", self.app.pid, "--wide").out
        row = next(line for line in wide.splitlines() if "demo-database" in line)
        for told in (self.database["url"], f'scott@127.0.0.1:{self.database["remote_port"]}',
                     f'from :{self.database["local_port"]}'):
            self.assertIn(told, row)
        self.assertRegex(row, self.SQL)
        self.assertRegex(wide, rf'(?m)^ *\d+ .*demo-web .* {self.web["url"]}$')
        self.assertIn(self.file["file"], wide)
        code, output = on_terminal("", "threads", self.app.pid, columns=90)
        self.assertEqual(code, 0, output)
        self.assertIn("demo-", output)
        self.assertLessEqual(max(len(line) for line in output.split("\r\n")), 90, output)

    def test_connections(self):
        thread = next(t for t in self.threads(self.app) if t["name"] == "demo-database")
        port = self.database["local_port"]
        self.assertRegex(self.answer("connections", self.app.pid).out, rf"(?m)^ *{port}  127\.")
        holder = self.answer("connections", self.app.pid, "--port", port, "--json").json()
        self.assertEqual((holder["client_port"], holder["now"], holder["thread"]), (
            int(port), True, {key: thread[key] for key in ("name", "id", "key")}))
        self.refused("no connection with client port 1", "connections", self.app.pid, "--port", 1)
        self.assertTrue(self.threads(self.app))  # the look-up leaves nothing behind that a sample could find

    def test_sessions(self):
        """This process is the database server."""
        with contextlib.ExitStack() as stack:
            server = stack.enter_context(socket.create_server(("127.0.0.1", 0)))
            port = server.getsockname()[1]
            client = stack.enter_context(socket.create_connection(("127.0.0.1", port)))
            sessions = ("sessions", self.app.pid, "--port", port, "--host", "127.0.0.1")
            none = self.answer(*sessions, os.getpid(), 1 << 22, "--json").json()
            self.assertEqual(none, {"sessions": [], "without": [os.getpid(), 1 << 22]})
            stack.enter_context(server.accept()[0])
            found = self.answer(*sessions, *range(1 << 22, (1 << 22) + 3000), os.getpid(), "--json").json()
            pair = {"process": os.getpid(), "client_port": client.getsockname()[1]}
            self.assertEqual((found["sessions"], len(found["without"])), ([pair], 3000))
            text = self.answer(*sessions, os.getpid()).out
            self.assertRegex(text, rf'(?m)^ *{pair["process"]}  +{pair["client_port"]}$')
        self.refused("no IPv4 address", "sessions", self.app.pid, "--port", port, "--host", "::1", 1, code=2)
        self.refused("process", "sessions", self.app.pid, "--port", port, "--host", "10.0.0.1", code=2)


class OwnDriver(Case):
    """A driver that no rule knows, products/Acme.java, read by the rule that the documentation writes for it."""

    def setUp(self):
        place = tempfile.mkdtemp(prefix="qor-e2e-", dir=SETTINGS.root + "/tmp")
        self.addCleanup(shutil.rmtree, place)
        shutil.copy(f"{FOLDER}/products/Acme.java", place)
        inside = place[len(SETTINGS.root):]
        subprocess.run(in_root([f"{SETTINGS.jdk}/bin/javac", "-d", inside, f"{inside}/Acme.java"]), check=True)
        self.process = subprocess.Popen(in_root([f"{SETTINGS.jdk}/bin/java", "-cp", inside, "org.acme.db.Acme"]),
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.addCleanup(self.process.communicate)
        self.port = int(self.process.stdout.readline().split()[1])
        self.pid = self.process.pid
        self.answer("attach", self.pid, "--options", "dbquery=1,handquota=100,localquota=100")

    def test_the_rule_of_the_documentation_reads_it(self):
        hint = "2 threads wait in org.acme.db.*: no rule; see docs/cross-tier.md\n"
        wait_until("the calls are hinted at", lambda: self.answer("threads", self.pid).out.endswith(hint))
        for view in ("threads", "connections"):
            told = self.answer(view, self.pid, "--json").json()["unknown_products"]
            self.assertEqual(told, [{"package": "org.acme.db", "kind": "db", "lacks_state": False, "threads": 2}])
        with open(f"{FOLDER}/../../docs/cross-tier.md", encoding="utf-8") as docs:
            rule = re.search(r"(?s)   ```\n(   state  db org.acme.*?)   ```", docs.read()).group(1)
        shipped = self.answer("tiers", self.pid).out
        self.answer("tiers", self.pid, "-", text=re.sub("(?m)^   ", "", rule) + shipped)
        told = self.answer("connections", self.pid, "--json").json()
        self.assertEqual(told["unknown_products"], [])
        self.assertEqual([(c["url"], c["user"], c["remote_port"], c["database"]) for c in told["connections"]],
                         2 * [(f"jdbc:acme://127.0.0.1:{self.port}/depot", "scott", self.port, "depot")])
        for call in told["connections"]:
            self.assertEqual(call["threads"][0]["sql"], f'select {call["local_port"]}')
