"""What threads do in other tiers, compared with what the demo says of its own sockets and files."""
import os
import re
import socket

from harness import COMPUTES, OfTheDemo, qorctl, text_of


class Tiers(OfTheDemo):
    FLAGS = (COMPUTES,)
    OPTIONS = "dbquery=1,handquota=100,localquota=100"
    SQL = "select id, total from orders where state = 'open' order by placed"

    def check_threads(self, threads):
        database, web, file = (threads[f"demo-{name}"] for name in ("database", "web", "file-read"))
        call, truths = database["db"], self.app.truths()
        truth = truths["demo-database"]
        self.assertEqual((database["state"], call["type"], call["url"], call["user"], call["remote_host"],
                          str(call["local_port"]), str(call["remote_port"]), call["sql"]),
                         ("DB Wait", "DEEPDIVE_TESSAR_DB", truth["url"], truth["user"], "127.0.0.1",
                          truth["local_port"], truth["remote_port"], self.SQL))
        self.assertEqual((web["request"]["url"], file["file"]),
                         (truths["demo-web"]["url"], truths["demo-file-read"]["file"]))
        self.assertFalse("request" in database or {"db", "file"} & {*web})

    def test_samples_show_database_url_and_file(self):
        threads = self.threads("--details", "--all")
        self.check_threads(threads)
        self.check_threads({name: self.stack(name)
                            for name in ("demo-database", "demo-web", "demo-file-read")})
        self.assertGreater(threads["demo-compute"]["cpu_nanoseconds"], 0)
        self.assertGreater(threads["main"]["allocated_bytes"], 0)
        without_locals = self.answer("raw", "8964|showstack|32768").out
        self.assertNotIn(threads["demo-web"]["request"]["url"], without_locals)
        self.assertEqual(list(self.threads("--match", "FROM ORDERS")), ["demo-database"])

    def test_samples_by_hand_have_a_share_of_time(self):
        quota = "516|NoProcessing|handquota|"
        self.assertEqual(self.answer("raw", quota + "1").out, "Changed handquota to 1\n")
        self.addCleanup(self.answer, "raw", quota + "100")
        asked = qorctl("threads", self.app.pid, "--json")
        while not asked.err:
            self.check_threads({t["name"]: t for t in asked.json()["threads"]})
            asked = qorctl("threads", self.app.pid, "--json")
        self.assertRegex(asked.err, r"\Aqorctl: without data of other tiers, .*handquota.*\n\Z")
        self.assertNotIn("request", {t["name"]: t for t in asked.json()["threads"]}["demo-web"])
        self.assertRegex(self.answer("raw", "516|NoProcessing|walkstate").out,
                         r"\Awalk=\d+ leftout=1 handquota=1 cut=0 localquota=100\n\Z")

    def test_rules_are_shown_and_replaced(self):
        shipped = text_of("../../java/tiers.rules")
        self.assertEqual(self.answer("tiers").out, shipped)
        self.refused("line 2: a field needs an object above it", "tiers", "-",
                     text="#\nurl f,La;\n")
        self.assertEqual(self.answer("tiers").out, shipped)
        long = "# \U0001f697\n" + "".join(f"frame web a.B{'x' * 45} m{n}\n" for n in range(1899))
        self.assertIn("1900 lines", self.answer("tiers", "-", text=long).out)
        self.assertEqual(self.json("tiers")["rules"], long)
        self.check_threads(self.threads())  # by the tables
        example = re.search(r"(?s)   ```\n(   state  db org.acme.*?)   ```",
                            text_of("../../docs/cross-tier.md"))[1]
        self.answer("tiers", "-", text=re.sub("(?m)^   ", "", example) + shipped)
        self.answer("tiers", "-", text="frame web qoragent.demo.Payments$Settlement *\n"
                    "object web Lqoragent/demo/Payments$Settlement; read\nurl name,Ljava/lang/String;\n")
        holder = self.threads()["demo-lock-holder"]
        self.assertEqual((holder["request"]["url"], holder["rule"]), ("demo-lock-holder", "read"))

    def test_connections(self):
        thread = self.threads()["demo-database"]
        port = self.app.truths()["demo-database"]["local_port"]
        self.assertRegex(self.answer("connections").out, rf"(?m)^ *{port}  127\.")
        holder = self.json("connections", "--port", port)
        self.assertEqual((holder["client_port"], holder["now"], holder["thread"]), (
            int(port), True, {key: thread[key] for key in ("name", "id", "key")}))
        self.refused("no connection with client port 1", "connections", "--port", 1)
        self.assertTrue(self.threads())  # the look-up leaves nothing that a sample could find

    def test_sessions(self):
        """This process is the database server, which may listen for both families by one socket."""
        me = os.getpid()
        for address, family in (("127.0.0.1", socket.AF_INET), ("::", socket.AF_INET6)):
            with self.subTest(address), socket.create_server((address, 0), family=family,
                                                             dualstack_ipv6=address == "::") as server:
                port = server.getsockname()[1]
                sessions = ("sessions", "--port", port, "--host", "127.0.0.1")
                with socket.create_connection(("127.0.0.1", port)) as client, server.accept()[0]:
                    found = self.json(*sessions, *range(1 << 22, (1 << 22) + 3000), me)
                    own = client.getsockname()[1]
                    self.assertEqual((found["sessions"], len(found["without"])),
                                     ([{"process": me, "client_port": own}], 3000))
                    self.assertRegex(self.answer(*sessions, me).out, rf"(?m)^ *{me}  +{own}$")
                    paths = f"./{me},../proc/{me},{me}/.,{me}/task/{me},+{me}"
                    reply = self.answer("raw", f"516|xtier01|{port}|127.0.0.1|{paths}").out
                    self.assertRegex(reply, r"\A\|Time")
        for why, *host in (("an IPv4 address", "::1", 1), ("process", "10.0.0.1")):
            self.refused(why, "sessions", "--port", port, "--host", *host, code=2)
