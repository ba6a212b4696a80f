"""Real JDBC drivers: what the agent shows of their calls, compared with what the databases say."""
import contextlib
import re
import shutil
import socketserver
import sqlite3
import struct
import threading
from dataclasses import dataclass, field

from harness import LIMIT, SETTINGS, Case, folder, free_port, wait_until
from products import SAMPLES, Compiled, Postgres, Server, jars

WAITING = ("sun.nio.ch.Net", "sun.nio.ch.SocketDispatcher", "java.net.SocketInputStream",
           "org.sqlite.core.NativeDB")
# A table whose rows are locked for as late as a transaction's end.
LATE = """create table late (key int);
  create function wait_late() returns trigger language plpgsql as
    $$ begin perform pg_advisory_xact_lock_shared(new.key); return null; end $$;
  create constraint trigger late after insert on late deferrable initially deferred
    for each row execute function wait_late()"""


class MariaDb(Server):
    USER = "mysql"
    PROGRAM = "mariadbd"
    LOCK = "select get_lock('held', 60);\n"
    HELD = "select 1 from dual where is_used_lock('held')"
    WAIT = "if({} = 0, 0, get_lock('held', 600) + release_lock('held'))"
    CALLS = ("select substring_index(host, ':', -1), replace(info, '?', '1') "
             "from information_schema.processlist where user = 'test' and state = 'User lock'")

    def prepare(self):
        self.run("mariadb-install-db", "--no-defaults", f"--datadir={self.data}", "--skip-test-db",
                 "--auth-root-authentication-method=normal", "--innodb-log-file-size=4M")

    def command(self):
        return [self.PROGRAM, "--no-defaults", f"--datadir={self.data}", f"--socket={self.place}/socket",
                f"--port={self.port}", "--bind-address=127.0.0.1", f"--pid-file={self.place}/pid",
                "--innodb-log-file-size=4M", "--skip-name-resolve"]

    def client(self):
        return ["mariadb", "--no-defaults", f"--socket={self.place}/socket", "-uroot", "-NB", "--unbuffered"]


class Tds(socketserver.ThreadingTCPServer):
    """A server of SQL Server's protocol 7.1 that answers calls with a row, some when the lock is released."""
    daemon_threads = True
    LOGIN = 0x10
    COLLATION = bytes.fromhex("e3 0800 07 05 0904d00034 00")
    ROW = bytes.fromhex("81 0100 0000 0000 38 00") + b"\xd1" + struct.pack("<i", 38)
    DONE = b"\xfd" + struct.pack("<HHi", 0x10, 0xC1, 1)

    def __init__(self):
        super().__init__(("127.0.0.1", 0), None)
        self.port, self.released = self.server_address[1], threading.Event()
        self.released.set()
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def finish_request(self, request, _):
        """Serves a connection: messages are of packets with heads of eight bytes."""
        with contextlib.suppress(struct.error, OSError), request.makefile("rb") as stream:  # or it is gone
            while True:
                text, last = b"", False
                while not last:
                    kind, status, length = struct.unpack(">BBH4x", stream.read(8))
                    text, last = text + stream.read(length - 8), status & 1
                answer = self.answer(kind, text)
                request.sendall(struct.pack(">BBHHBB", 4, 1, len(answer) + 8, 0, 1, 0) + answer)

    def answer(self, kind, text):
        if kind == self.LOGIN:
            name = "Tds".encode("utf-16le")
            told = b"\x01\x07\x01\x00\x00" + bytes([len(name) // 2]) + name + b"\x08\0\0\0"
            return self.COLLATION + b"\xad" + struct.pack("<H", len(told)) + told + self.DONE
        self.released.wait()
        return self.DONE if "update".encode("utf-16le") in text else self.ROW + self.DONE

    @contextlib.contextmanager
    def lock_held(self):
        self.released.clear()
        yield
        self.released.set()


class Sqlite:
    """A database's file, locked as another process would."""

    def __init__(self, path):
        self.path = path

    @contextlib.contextmanager
    def lock_held(self):
        with contextlib.closing(sqlite3.connect(self.path, isolation_level=None)) as holder:
            holder.execute("begin exclusive")
            yield


class Embedded:
    """Its calls wait in the function hold."""
    lock_held = contextlib.nullcontext


@dataclass
class Product:
    """A driver, the calls of its threads by form, and what is shown of them, with 1 as the key."""
    jar: str
    url: str
    user: str
    calls: dict
    setup: list = ()
    server: object = Embedded
    java: int = 8
    shown: str = None  # of the URL; None: all but its password
    texts: dict = field(default_factory=dict)  # SQL that isn't the call's own
    urls: dict = field(default_factory=dict)  # what a form has after the URL

    def __post_init__(self):
        port = re.search(r":(\d+)/", self.url)
        self.port = port and int(port[1])
        self.shown = self.shown or self.url.replace("secret", "***")

    def expected(self, form):
        sql = self.texts.get(form, self.calls[form].replace("#", "1"))
        return "DB Wait", self.shown + self.urls.get(form, ""), self.user, sql, self.port

    def arguments(self, name):
        for sql in self.setup:
            yield from (f"{name} setup", self.url, sql)
        for form, sql in self.calls.items():
            yield from (f"{name} {form}", self.url + self.urls.get(form, ""), sql)


def both(form, sql):
    return {f"prepared {form}": sql.format("?"), f"plain {form}": sql.format("#")}


# A table for each call to an embedded database, as they would wait for each other otherwise.
FORMS = {**both("query", "select hold(cast({} as int)) from t{{}}"),
         **both("update", "update t{{}} set a = 1 where hold(cast({} as int)) = 0"),
         **both("batch", "update t{{}} set a = 1 where hold(cast({} as int)) = 0")}
FORMS = {form: sql.format(i) for i, (form, sql) in enumerate(FORMS.items())}
TABLES = [sql.format(i) for sql in ("create table t{} (a int)", "insert into t{} values (1)")
          for i in range(len(FORMS))]
HOLD = "create function hold(k int) returns int language java {} external name '{}'"


def products(postgres, mariadb, tds, place):
    lock, held = "pg_advisory_xact_lock_shared({})", MariaDb.WAIT
    dollar = "select " + lock.format("$1")
    of_h2 = f"jdbc:h2:tcp://127.0.0.1:{free_port()}/mem:shop"
    return {
        "postgresql": Product(
            "postgresql",
            f"jdbc:postgresql://127.0.0.1:{postgres and postgres.port}/postgres?user=test", "test",
            {**both("query", "select " + lock), "callable": "select " + lock.format("?"),
             "plain batch": f"do $$ begin perform {lock.format('#')}; end $$",
             "plain update transaction": "insert into late values (#)",
             "plain query transaction": f"select case when i > 60 then {lock.format('#')}::text end "
                                        "from generate_series(1, 100) i"},
            [LATE], postgres, urls={"prepared query": "&sslmode=require"},
            texts={"plain update transaction": "COMMIT", "prepared query": dollar, "callable": dollar}),
        "mariadb": Product(
            "mariadb-java-client",
            f"jdbc:mariadb://127.0.0.1:{mariadb and mariadb.port}/shop?user=test&password=secret", "test",
            {**both("call", "do " + held), "prepared query": "select " + held.format("?"),
             "server prepared": "do " + held.format("?"),
             "plain query": f"select if(seq < 100, repeat('x', 1000), {held.format('#')}) from seq_1_to_100"},
            server=mariadb, urls={"server prepared": "&useServerPrepStmts=true"}),
        "h2": Product(
            "h2", "jdbc:h2:mem:shop;user=sa;password=secret", "SA",
            {**FORMS, "callable": "call hold(?)"}, ['create alias hold for "Calls.hold"', *TABLES],
            java=11, shown="jdbc:h2:mem:shop"),
        "h2tcp": Product(
            "h2", of_h2 + ";user=sa;password=secret", "SA", both("query", "select hold({})"), java=11,
            shown=of_h2),
        "hsqldb": Product(
            "hsqldb", "jdbc:hsqldb:mem:shop;user=sa;password=secret", "SA",
            {**FORMS, "callable": "call hold(cast(? as int))"},
            [HOLD.format("deterministic no sql", "CLASSPATH:Calls.hold"), *TABLES], java=17, shown="shop",
            texts={"plain batch": None}),
        "derby": Product(
            "derby", "jdbc:derby:memory:shop;create=true;user=app;password=secret", "app", FORMS,
            [HOLD.format("parameter style java no sql", "Calls.hold"), *TABLES]),
        "sqlite": Product(
            "xerial-sqlite-jdbc", f"jdbc:sqlite:{place[len(SETTINGS.root):]}/shop?busy_timeout=600000", None,
            {**both("query", "select a from t where a = {}"), **both("update", "update t set a = {}"),
             "prepared batch": "update t set a = ?"},
            ["create table t (a int)"], Sqlite(f"{place}/shop")),
        "jtds": Product(
            "jtds", f"jdbc:jtds:sqlserver://127.0.0.1:{tds.port}/shop;user=test;prepareSQL=2;password=secret",
            "test", {**both("query", "select held({})"), **both("update", "update held set a = {}")},
            server=tds, java=11, texts={"plain query": None, "plain update": None}),
    }


class Databases(Case):
    """All products in one JVM; those whose packages are missing are skipped."""

    def test_calls_cold_and_compiled(self):
        postgres, mariadb = (kind() if shutil.which(kind.PROGRAM) else None for kind in (Postgres, MariaDb))
        for server in filter(None, (postgres, mariadb)):
            self.addCleanup(server.close)
        if mariadb:
            mariadb.asks("create database shop; "
                         "grant all on shop.* to test@'127.0.0.1' identified by 'secret'")
        rows = products(postgres, mariadb, Tds(), folder(self)[0])
        for name, row in list(rows.items()):
            if not (row.server and jars(row.jar)) or row.java > SETTINGS.version:
                del rows[name]
                with self.subTest(name):
                    self.skipTest(f"lacks its driver, its server or Java {row.java}")
        if not rows:
            return
        flags = ["-Dhsqldb.method_class_names=Calls.*", "-Djdbc.drivers=net.sourceforge.jtds.jdbc.Driver",
                 "-Dh2.bindAddress=127.0.0.1"]
        with Compiled(self, sum((jars(row.jar) for row in rows.values()), []), "Calls",
                      *(word for name, row in rows.items() for word in row.arguments(name)),
                      flags=flags) as self.app:
            self.answer("attach", "--options", "dbquery=1,handquota=100,localquota=100")
            ruled = self.check(rows, "cold")
            if SETTINGS.version >= 9:  # JDK 8 has no list of what is compiled
                self.app.warm_up(ruled)
                self.check(rows, "hot")
            self.answer("tiers", "-", text="# none\n")
            with self.held(rows, "without rules"):
                wait_until("the calls are hinted at", lambda: re.search(
                    r"(?m)^\d+ threads wait in .*: no rule; see docs/cross-tier.md$",
                    self.answer("threads").out))
                self.assertTrue(self.json("connections")["unknown_products"])
            self.assertNotIn("failed: ", self.app.output())

    @contextlib.contextmanager
    def held(self, rows, when):
        """Each thread's call waits for its server's lock; "done" is printed when earlier calls are over."""
        self.app.tell(when)
        self.app.wait_for(f"(?m)^done {when}\n")
        with contextlib.ExitStack() as locks:
            for server in {row.server for row in rows.values()}:
                locks.enter_context(server.lock_held())
            self.app.tell("hold")
            yield
        self.app.tell("rest")

    def check(self, rows, when):
        """Returns the methods of rules that the calls are in."""
        expected = {f"{name} {form}": row.expected(form) for name, row in rows.items() for form in row.calls}
        with self.held(rows, when):
            wait_until(self.app.output, lambda: self.wait(rows, expected), 2 * LIMIT)
            for document in self.watch(SAMPLES):
                threads = {t["name"]: t for t in document["threads"] if t["name"] in expected}
                self.assertEqual({call: self.shown(t) for call, t in threads.items()}, expected, when)
            for name, row in rows.items():
                if row.port:
                    self.check_ports(row.server, [threads[f"{name} {form}"]["db"] for form in row.calls])
            return self.app.ruled()

    def wait(self, rows, names):
        """By what the servers list, and by the innermost frames: "call" is the application's."""
        if any(isinstance(row.server, Server) and len(row.server.asks(row.server.CALLS)) < len(row.calls)
               for row in rows.values()):
            return False
        threads = self.threads("--all", "--details")
        return all(name in threads and threads[name]["stack"][0]["class"] in WAITING for name in names)

    @staticmethod
    def shown(thread):
        return thread["state"], *(thread["db"][key] for key in ("url", "user", "sql", "remote_port"))

    def check_ports(self, server, calls):
        """Each call has its own connection to the server, the one that the server lists if it can."""
        shown = {call["local_port"]: re.sub(r"\?|\$1", "1", call["sql"] or "") for call in calls}
        self.assertEqual(len(shown), len(calls))
        if isinstance(server, Server):
            self.assertEqual(shown, {int(port): sql for port, sql in server.asks(server.CALLS)})
