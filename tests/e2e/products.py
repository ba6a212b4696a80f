"""Real drivers and containers: what the agent tells of their threads, compared with what the servers themselves say."""
import concurrent.futures
import contextlib
import glob
import os
import re
import shutil
import subprocess
import tempfile
import unittest
import urllib.request

from harness import SETTINGS, Case, in_root, qorctl, wait_until
from sessions import Server, programs

SHOP = f"{os.path.dirname(os.path.realpath(__file__))}/../../demo-app/qoragent/demo/shop/Shop.java"
JARS = "/usr/share/java"
SAMPLES = 20
FORMS = ("prepared", "plain", "callable", "batch", "fetch", "commit")
LOCK = 7
TABLES = """
create table late (key int);
create function wait_late() returns trigger language plpgsql as
  $$ begin perform pg_advisory_xact_lock_shared(new.key); return null; end $$;
create constraint trigger late after insert on late deferrable initially deferred
  for each row execute function wait_late();
"""
# Methods whose frames the rules name, as the compiler's list has them.
ANCHORS = ("PgStatement.executeInternal", "PgStatement.internalExecuteBatch", "PgResultSet.next",
           "PgConnection.executeTransactionCommand", "QueryExecutorImpl.processResults", "CoyoteAdapter.service")


def jars(*names):
    """Of each name the jar without a version in its name."""
    found = [path for name in names for path in glob.glob(f"{JARS}/{name}.jar") if not re.search(r"-\d", path)]
    return found if len(found) >= len(names) else []


def colons(method):
    return "::".join(method.rsplit(".", 1))


def compiled_soon(methods, scaling=0.02):
    """Flags by which the methods are compiled at the last tier as soon as they have been called a few times there."""
    if SETTINGS.version < 9:  # JDK 8 has no list of what is compiled
        return []
    return ["-XX:CompileCommand=quiet", "-XX:+PrintCompilation"] + [
        f"-XX:CompileCommand=option,*{colons(method)},double,CompileThresholdScaling,{scaling}" for method in methods]


class Program:
    """A Java program with real products in its JVM, which prints "ready" and listens to lines on its input."""

    def __init__(self, class_path, sources, flags, main, *arguments):
        """`sources`: the texts by file name. The program's first argument is its folder."""
        self.place = tempfile.mkdtemp(prefix="qor-e2e-", dir=SETTINGS.root + "/tmp")
        self.inside = self.place[len(SETTINGS.root):]
        for jar in class_path:
            shutil.copy(jar, self.place)
        for name, text in sources.items():
            with open(f"{self.place}/{name}", "w", encoding="utf-8") as source:
                source.write(text)
        self.prepare()
        path = f"{self.inside}/*:{self.inside}"
        subprocess.run(in_root([f"{SETTINGS.jdk}/bin/javac", "-nowarn", "-cp", path, "-d", self.inside,
                                *(f"{self.inside}/{name}" for name in sources)]), check=True, capture_output=True)
        self.log = open(f"{self.place}/log", "wb")
        self.process = subprocess.Popen(
            in_root([f"{SETTINGS.jdk}/bin/java", *flags, "-cp", path, main, self.inside, *arguments]),
            stdin=subprocess.PIPE, stdout=self.log, stderr=subprocess.STDOUT)
        wait_until(f"{main} is ready", lambda: self.output("(?m)^(ready)") or self.process.poll() is not None)
        assert self.process.poll() is None, self.output("(?s)(.*)")

    def prepare(self):
        """Puts more into the folder."""

    def output(self, pattern):
        with open(self.log.name, encoding="utf-8", errors="replace") as log:
            found = re.search(pattern, log.read())
        return found and found.group(1)

    def tell(self, line):
        self.process.stdin.write(line.encode() + b"\n")
        self.process.stdin.flush()

    def compiled(self, methods):
        """Those of the methods that are compiled at the last tier, by the JVM's own list."""
        told = subprocess.run(in_root([f"{SETTINGS.jdk}/bin/jcmd", str(self.process.pid), "Compiler.codelist"]),
                              capture_output=True, text=True, check=True).stdout
        return {m for m in methods if re.search(rf"(?m)^\d+ 4 0 \S*\b{re.escape(m)}\(", told)}

    def warm_up(self, anchors):
        self.tell("warm")
        for method in anchors:  # begun, by the compiler's log: asking for its list costs it time
            wait_until(f"{method} is compiled", lambda: self.output(rf"(?m)^.* 4 .*\b({re.escape(colons(method))}) "))
        wait_until(f"{anchors} are compiled", lambda: self.compiled(anchors) >= set(anchors))
        self.tell("rest")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.process.stdin.close()
        self.log.close()
        shutil.rmtree(self.place)


class Shop(Program):
    """The demo's shop in a Tomcat, with the database of a server."""

    def __init__(self, tomcat, package, server, options):
        with open(SHOP, encoding="utf-8") as source:
            text = source.read().replace("javax.servlet", f"{package}.servlet")
        self.url = f"jdbc:postgresql://127.0.0.1:{server.port}/postgres?user=test{options}"
        super().__init__(jars(f"tomcat{tomcat}-*", "postgresql"), {"Shop.java": text}, compiled_soon(ANCHORS),
                         "qoragent.demo.shop.Shop", self.url)
        self.port = self.output("ready (.*)")

    def ask(self, path):
        with urllib.request.urlopen(f"http://127.0.0.1:{self.port}{path}") as answer:
            return answer.status


@contextlib.contextmanager
def lock_held(server):
    holder = subprocess.Popen(server.psql("-c", f"select pg_advisory_lock({LOCK})", "-f", "-"), stdin=subprocess.PIPE,
                              stdout=subprocess.DEVNULL)
    wait_until("the lock is held", lambda: server.asks(
        f"select 1 from pg_locks where locktype = 'advisory' and objid = {LOCK} and granted")[1])
    try:
        yield
    finally:
        holder.stdin.close()
        holder.wait()


@unittest.skipUnless(programs(), "PostgreSQL isn't installed: install postgresql")
class Products(Case):
    @classmethod
    def setUpClass(cls):
        cls.server = Server()
        cls.addClassCleanup(cls.server.close)
        subprocess.run(cls.server.psql("-c", TABLES), check=True, capture_output=True)

    def test_postgresql_in_tomcat_9(self):
        self.tour(9, "javax", 8, ANCHORS[-1:], "")

    def test_postgresql_in_tomcat_10(self):
        self.tour(10, "jakarta", 11, ANCHORS, "&sslmode=require")

    def tour(self, tomcat, package, oldest, anchors, options):
        if not jars(f"tomcat{tomcat}-catalina", "postgresql"):
            self.skipTest(f"no jars: install libtomcat{tomcat}-java and libpostgresql-jdbc-java")
        if SETTINGS.version < oldest:
            self.skipTest(f"Tomcat {tomcat} needs Java {oldest}")
        with Shop(tomcat, package, self.server, options) as shop:
            self.answer("attach", shop.process.pid, "--options", "dbquery=1,handquota=100,localquota=100")
            self.check(shop, "cold")
            if SETTINGS.version >= 9:
                shop.warm_up(anchors)
                self.check(shop, "hot")

    def backends(self):
        """What the server says of the calls that wait: by client port, process and query."""
        rows = self.server.asks("select client_port, pid, query from pg_stat_activity where wait_event_type = 'Lock'")[1]
        return {int(port): (int(process), query) for port, process, query in rows}

    def check(self, shop, when):
        paths = {form: f"/shop/orders/{number}" for number, form in enumerate(FORMS)}
        with concurrent.futures.ThreadPoolExecutor(len(FORMS)) as clients, lock_held(self.server):
            answers = [clients.submit(shop.ask, f"{path}?form={form}&key={LOCK}") for form, path in paths.items()]
            wait_until("the calls wait", lambda: len(self.backends()) == len(FORMS))
            for _ in range(SAMPLES):
                self.check_sample(shop, paths, when)
            self.check_connections(shop)
        self.assertEqual([answer.result() for answer in answers], [200] * len(FORMS))

    def check_sample(self, shop, paths, when):
        threads = self.threads(shop.process, "--all")
        self.assertEqual(sum("db" in t or "request" in t for t in threads), len(paths))  # and no idle thread
        told = {t.get("request", {}).get("url"): t for t in threads}
        backends = self.backends()
        seen = set()
        for form, path in paths.items():
            with self.subTest(form=form, when=when):
                self.assertIn(path, told)
                thread = told[path]
                self.assertEqual(thread["state"], "DB Wait")
                call = thread["db"]
                self.assertEqual((call["url"], call["user"], call["remote_host"]), (shop.url, "test", "127.0.0.1"))
                self.assertEqual((call["remote_port"], call["type"]), (self.server.port, None))
                self.assertEqual(call["sql"], backends[call["local_port"]][1])
                seen.add(call["local_port"])
        self.assertEqual(seen, set(backends))

    def check_connections(self, shop):
        rows = self.answer("connections", shop.process.pid, "--json").json()["connections"]
        truth = {port: process for port, (process, _) in self.backends().items()}
        self.assertEqual({row["local_port"] for row in rows}, set(truth))
        self.assertEqual({row["database"] for row in rows}, {"postgres"})
        sessions = self.answer("sessions", shop.process.pid, "--port", self.server.port, "--host", "127.0.0.1", "--json",
                               *truth.values()).json()["sessions"]
        self.assertEqual({s["client_port"]: s["process"] for s in sessions}, truth)
