"""What threads do in other tiers, compared with what the demo says of its own sockets and files."""
import os
import re
import shutil
import socket

from harness import Case, OfTheDemo, Program, folder, qorctl, run_tool, wait_until

FOLDER = os.path.dirname(os.path.realpath(__file__))


def text_of(path):
    with open(f"{FOLDER}/{path}", encoding="utf-8") as file:
        return file.read()


class Tiers(OfTheDemo):
    OPTIONS = "dbquery=1,handquota=100,localquota=100"
    SQL = re.compile(r"select id, total from orders where state = 'open' order by placed$")

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        truths = cls.app.truths()
        cls.database, cls.web, cls.file = (truths[f"demo-{name}"]
                                           for name in ("database", "web", "file-read"))

    def check_threads(self, threads):
        database, web = threads["demo-database"], threads["demo-web"]
        call, truth = database["db"], self.database
        self.assertEqual((database["state"], call["type"], call["url"], call["user"], call["remote_host"],
                          call["local_port"], call["remote_port"]),
                         ("DB Wait", "DEEPDIVE_TESSAR_DB", truth["url"], truth["user"], "127.0.0.1",
                          int(truth["local_port"]), int(truth["remote_port"])))
        self.assertRegex(call["sql"], self.SQL)
        self.assertEqual((web["request"]["url"], threads["demo-file-read"]["file"]),
                         (self.web["url"], self.file["file"]))
        self.assertFalse({"request"} & {*database} or {"db", "file"} & {*web})

    def test_samples_show_database_url_and_file(self):
        threads = self.threads(self.app, "--details", "--all")
        self.check_threads(threads)
        self.check_threads({name: self.json("stack", self.app.pid, name)["threads"][0]
                            for name in ("demo-database", "demo-web", "demo-file-read")})
        self.assertGreater(threads["demo-compute"]["cpu_nanoseconds"], 0)
        self.assertGreater(threads["main"]["allocated_bytes"], 0)
        self.assertNotIn(self.web["url"], self.answer("raw", self.app.pid,
                                                      "8964|showstack|32768").out)  # no locals
        self.assertEqual(list(self.threads(self.app, "--match", "FROM ORDERS")), ["demo-database"])

    def test_samples_by_hand_have_a_share_of_time(self):
        quota, state = "516|NoProcessing|handquota|", "516|NoProcessing|walkstate"
        self.assertRegex(self.answer("raw", self.app.pid, state).out,
                         r"\Awalk=-?\d+ leftout=0 handquota=100 cut=0 localquota=100\n\Z")
        self.assertEqual(self.answer("raw", self.app.pid, quota + "1").out.strip(), "Changed handquota to 1")
        self.addCleanup(self.answer, "raw", self.app.pid, quota + "100")
        asked = qorctl("threads", self.app.pid, "--json")
        while not asked.err:
            self.check_threads({t["name"]: t for t in asked.json()["threads"]})
            asked = qorctl("threads", self.app.pid, "--json")
        self.assertRegex(asked.err, r"\Aqorctl: without data of other tiers, .*handquota.*\n\Z")
        self.assertNotIn("request", {t["name"]: t for t in asked.json()["threads"]}["demo-web"])
        self.assertRegex(self.answer("raw", self.app.pid, state).out,
                         r"\Awalk=\d+ leftout=1 handquota=1 cut=0 localquota=100\n\Z")

    def test_rules_are_shown_and_replaced(self):
        shipped = text_of("../../java/tiers.rules")
        self.assertEqual(self.answer("tiers", self.app.pid).out, shipped)
        self.refused("line 2: a field needs an object above it", "tiers", self.app.pid, "-",
                     text="#\nurl f,La;\n")
        self.assertEqual(self.answer("tiers", self.app.pid).out, shipped)
        long = "# \U0001f697\n" + "".join(f"frame web a.B{'x' * 45} m{n}\n" for n in range(1899))
        self.assertIn("1900 lines", self.answer("tiers", self.app.pid, "-", text=long).out)
        self.assertEqual(self.json("tiers", self.app.pid)["rules"], long)
        self.check_threads(self.threads(self.app))  # by the tables
        self.answer("tiers", self.app.pid, "-", text="frame web qoragent.demo.Payments$Settlement *\n"
                    "object web Lqoragent/demo/Payments$Settlement; read\nurl name,Ljava/lang/String;\n")
        holder = self.threads(self.app)["demo-lock-holder"]
        self.assertEqual((holder["request"]["url"], holder["rule"]), ("demo-lock-holder", "read"))

    def test_connections(self):
        thread = self.threads(self.app)["demo-database"]
        port = self.database["local_port"]
        self.assertRegex(self.answer("connections", self.app.pid).out, rf"(?m)^ *{port}  127\.")
        holder = self.json("connections", self.app.pid, "--port", port)
        self.assertEqual((holder["client_port"], holder["now"], holder["thread"]), (
            int(port), True, {key: thread[key] for key in ("name", "id", "key")}))
        self.refused("no connection with client port 1", "connections", self.app.pid, "--port", 1)
        self.assertTrue(self.threads(self.app))  # the look-up leaves nothing that a sample could find

    def test_sessions(self):
        """This process is the database server, which may listen for both families by one socket."""
        me = os.getpid()
        for address, family in (("127.0.0.1", socket.AF_INET), ("::", socket.AF_INET6)):
            with self.subTest(address), socket.create_server((address, 0), family=family,
                                                             dualstack_ipv6=address == "::") as server:
                port = server.getsockname()[1]
                sessions = ("sessions", self.app.pid, "--port", port, "--host", "127.0.0.1")
                with socket.create_connection(("127.0.0.1", port)) as client:
                    self.assertEqual(self.json(*sessions, me, 1 << 22),
                                     {"sessions": [], "without": [me, 1 << 22]})
                    with server.accept()[0]:
                        found = self.json(*sessions, *range(1 << 22, (1 << 22) + 3000), me)
                        own = client.getsockname()[1]
                        self.assertEqual((found["sessions"], len(found["without"])),
                                         ([{"process": me, "client_port": own}], 3000))
                        self.assertRegex(self.answer(*sessions, me).out, rf"(?m)^ *{me}  +{own}$")
                        paths = f"./{me},../proc/{me},{me}/.,{me}/task/{me},+{me}"
                        reply = self.answer("raw", self.app.pid, f"516|xtier01|{port}|127.0.0.1|{paths}").out
                        self.assertRegex(reply, r"\A\|Time")
        for why, *host in (("an IPv4 address", "::1", 1), ("process", "10.0.0.1")):
            self.refused(why, "sessions", self.app.pid, "--port", port, "--host", *host, code=2)


class OwnDriver(Case):
    """A driver that no rule knows, products/Acme.java, read by the rule that the documentation has for it."""

    def test_the_rule_of_the_documentation_reads_it(self):
        place, inside = folder(self)
        shutil.copy(f"{FOLDER}/products/Acme.java", place)
        run_tool("javac", "-d", inside, f"{inside}/Acme.java")
        with Program("-cp", inside, "org.acme.db.Acme") as acme:
            port = int(re.search("ready (.*)", acme.output())[1])
            self.answer("attach", acme.pid, "--options", Tiers.OPTIONS)
            hint = "2 threads wait in org.acme.db.*: no rule; see docs/cross-tier.md\n"
            wait_until("the calls are hinted at", lambda: self.answer("threads", acme.pid).out.endswith(hint))
            for view in ("threads", "connections"):
                self.assertEqual(self.json(view, acme.pid)["unknown_products"],
                                 [{"package": "org.acme.db", "kind": "db", "lacks_state": False,
                                   "threads": 2}])
            rule = re.search(r"(?s)   ```\n(   state  db org.acme.*?)   ```",
                             text_of("../../docs/cross-tier.md"))[1]
            shipped = self.answer("tiers", acme.pid).out
            self.answer("tiers", acme.pid, "-", text=re.sub("(?m)^   ", "", rule) + shipped)
            shown = self.json("connections", acme.pid)
            self.assertEqual((shown["unknown_products"], [
                (c["url"], c["user"], c["remote_port"], c["database"]) for c in shown["connections"]]),
                ([], 2 * [(f"jdbc:acme://127.0.0.1:{port}/depot", "scott", port, "depot")]))
            for call in shown["connections"]:
                self.assertEqual(call["threads"][0]["sql"], f'select {call["local_port"]}')
