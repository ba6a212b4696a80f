"""Real JDBC drivers: what the agent shows of their calls, compared with what the databases say."""
import collections
import contextlib
import glob
import re
import shutil
import socket
import socketserver
import sqlite3
import struct
import threading
import zipfile
from dataclasses import dataclass, field

from harness import LIMIT, SETTINGS, Case, folder, wait_until
from products import FOLDER, SAMPLES, Compiled, Postgres, Server, jars

# What is compiled: the drivers, of embedded databases without their engines, and who calls them.
DRIVERS = ("Calls", "org.postgresql.", "org.mariadb.jdbc.", "org.h2.jdbc.",
           "org.h2.engine.SessionRemote", "org.hsqldb.jdbc.", "org.apache.derby.impl.jdbc.",
           "org.sqlite.", "net.sourceforge.jtds.jdbc.")
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
    LOCK = "select get_lock('held', 60);\n"
    HELD = "select 1 from dual where is_used_lock('held')"
    WAIT = "if({} = 0, 0, get_lock('held', 600) + release_lock('held'))"
    CALLS = ("select substring_index(host, ':', -1), replace(info, '?', '1') "
             "from information_schema.processlist where user = 'test' and info is not null")

    def prepare(self):
        self.run("mariadb-install-db", "--no-defaults", f"--datadir={self.data}", "--skip-test-db",
                 "--auth-root-authentication-method=normal", "--innodb-log-file-size=4M")

    def command(self):
        return ["mariadbd", "--no-defaults", f"--datadir={self.data}", f"--socket={self.place}/socket",
                f"--port={self.port}", "--bind-address=127.0.0.1", f"--pid-file={self.place}/pid",
                "--skip-log-bin", "--skip-name-resolve",
                "--innodb-log-file-size=4M", "--innodb-buffer-pool-size=8M"]

    def client(self):
        return ["mariadb", "--no-defaults", f"--socket={self.place}/socket", "-u", "root", "-N", "-B",
                "--unbuffered"]


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
        if "held".encode("utf-16le") in text:
            self.released.wait()
        return self.DONE if "update".encode("utf-16le") in text else self.ROW + self.DONE

    @contextlib.contextmanager
    def lock_held(self):
        self.released.clear()
        yield
        self.released.set()


@dataclass
class Product:
    """A driver, the calls of its threads by form, and what is shown of them, with 1 as the key."""
    package: str
    jar: str
    url: str
    shown: str  # of the URL
    user: str
    anchors: list  # methods of rules, as the compiler's list has them
    calls: dict
    setup: list = field(default_factory=list)
    native: str = None
    server: object = None
    port: int = None
    texts: dict = field(default_factory=dict)  # SQL that isn't the call's own
    urls: dict = field(default_factory=dict)  # what a form has after the URL

    def expected(self, form):
        sql = self.texts.get(form, self.calls[form].replace("#", "1"))
        return "DB Wait", self.shown + self.urls.get(form, ""), self.user, sql, self.port

    def arguments(self, name):
        for sql in self.setup:
            yield from (f"{name} setup", self.url, sql)
        for form, sql in self.calls.items():
            yield from (f"{name} {form}", self.url + self.urls.get(form, ""), sql)

    def lack(self):
        """Why it can't be tested; None when it can."""
        if not jars(self.jar):
            return f"install {self.package}"
        with zipfile.ZipFile(jars(self.jar)[0]) as jar:
            drivers = [name for name in jar.namelist()
                       if re.search(r"^(?!META-INF).*/\w*(Driver|JDBC)\.class$", name)]
            version = max(struct.unpack(">H", jar.read(name)[6:8])[0] - 44 for name in drivers)
        if self.native and not glob.glob(f"{SETTINGS.root}/usr/lib/*/jni/{self.native}"):
            return f"no {self.native} in {SETTINGS.root or '/'}"
        return f"{self.package} needs Java {version}" if version > SETTINGS.version else None


class Sqlite:
    """A database's file, locked as another process would."""

    def __init__(self, path):
        self.path = path

    @contextlib.contextmanager
    def lock_held(self):
        with contextlib.closing(sqlite3.connect(self.path, isolation_level=None)) as holder:
            holder.execute("begin exclusive")
            yield


def embedded(cast):
    """A table for each call, as they would wait for each other otherwise."""
    calls = {f"{way} {form}": f"select hold({key}) from {way}_{form}" if form == "query" else
             f"update {way}_{form} set a = 1 where hold({key}) = 0"
             for way, key in (("prepared", cast), ("plain", "#")) for form in ("query", "update", "batch")}
    tables = [name.replace(" ", "_") for name in calls]
    rows = [f"insert into {t} values (1)" for t in tables]
    return [f"create table {t} (a int)" for t in tables] + rows, calls


def products(postgres, mariadb, tds, h2_port, place):
    held = MariaDb.WAIT.format
    of_postgres = f"jdbc:postgresql://127.0.0.1:{postgres.port}/postgres?user=test" if postgres else ""
    lock = "pg_advisory_xact_lock_shared({})".format
    fetched = f"select case when i > 60 then {lock('#')}::text end from generate_series(1, 100) i"
    of_maria = f"jdbc:mariadb://127.0.0.1:{mariadb.port}/shop?user=test&password=" if mariadb else ""
    of_jtds = f"jdbc:jtds:sqlserver://127.0.0.1:{tds.port}/shop;user=test;prepareSQL=2;password="
    of_h2 = f"jdbc:h2:tcp://127.0.0.1:{h2_port}/mem:shop"
    of_sqlite = f"jdbc:sqlite:{place[len(SETTINGS.root):]}/shop?busy_timeout=600000"
    tables, calls = embedded("?")
    _, cast = embedded("cast(? as int)")
    return {
        "postgresql": Product(
            "libpostgresql-jdbc-java", "postgresql", of_postgres, of_postgres, "test",
            ["PgStatement.executeInternal", "PgStatement.internalExecuteBatch", "PgResultSet.next",
             "PgConnection.executeTransactionCommand", "QueryExecutorImpl.processResults"],
            {"prepared": "select " + lock("?"), "callable": "select " + lock("?"),
             "plain query": "select " + lock("#"),
             "plain batch": f"do $$ begin perform {lock('#')}; end $$",
             "plain update transaction": "insert into late values (#)",
             "plain query transaction": fetched},
            [LATE], server=postgres, port=postgres and postgres.port, urls={"prepared": "&sslmode=require"},
            texts={"plain update transaction": "COMMIT", "prepared": "select " + lock("$1"),
                   "callable": "select " + lock("$1")}),
        "mariadb": Product(
            "libmariadb-java", "mariadb-java-client", of_maria + "secret", of_maria + "***", "test",
            ["MariaDbStatement.executeInternal", "ClientSidePreparedStatement.executeInternal",
             "ServerSidePreparedStatement.executeInternal", "SelectResultSet.readNextValue",
             "AbstractQueryProtocol.readPacket"],
            {"prepared": "do " + held("?"), "prepared query": "select " + held("?"),
             "server prepared": "do " + held("?"),
             "plain": "do " + held("#"),
             "plain query": f"select if(seq < 100, repeat('x', 1000), {held('#')}) from seq_1_to_100"},
            server=mariadb, port=mariadb and mariadb.port,
            urls={"server prepared": "&useServerPrepStmts=true"}),
        "h2": Product(
            "libh2-java", "h2", "jdbc:h2:mem:shop;user=sa;password=secret", "jdbc:h2:mem:shop", "SA",
            ["JdbcStatement.executeQuery", "JdbcStatement.executeUpdateInternal",
             "JdbcPreparedStatement.executeQuery",
             "JdbcPreparedStatement.executeUpdateInternal"],
            {**calls, "callable": "call hold(?)"}, ['create alias hold for "Calls.hold"', *tables]),
        "h2tcp": Product(
            "libh2-java", "h2", of_h2 + ";user=sa;password=secret", of_h2, "SA", ["SessionRemote.done"],
            {"prepared query": "select hold(?)", "plain query": "select hold(#)"}, port=h2_port),
        "hsqldb": Product(
            "libhsqldb-java", "hsqldb", "jdbc:hsqldb:mem:shop;user=sa;password=secret", "shop", "SA",
            ["JDBCStatement.fetchResult", "JDBCPreparedStatement.fetchResult"],
            {**cast, "callable": "call hold(cast(? as int))"},
            ["create function hold(k int) returns int language java deterministic no sql "
             "external name 'CLASSPATH:Calls.hold'", *tables], texts={"plain batch": None}),
        "derby": Product(
            "libderby-java", "derby", "jdbc:derby:memory:shop;create=true;user=app;password=secret",
            "jdbc:derby:memory:shop;create=true;user=app;password=***", "app",
            ["EmbedStatement.executeStatement", "EmbedResultSet.movePosition"], cast,
            ["create function hold(k int) returns int language java parameter style java no sql "
             "external name 'Calls.hold'", *tables]),
        "sqlite": Product(
            "libxerial-sqlite-jdbc-java", "xerial-sqlite-jdbc", of_sqlite, of_sqlite, None,
            ["JDBC3Statement.withConnectionTimeout"],
            {"prepared query": "select a from t where a = ?", "plain query": "select a from t where a = #",
             "prepared update": "update t set a = ?", "plain update": "update t set a = #",
             "prepared batch": "update t set a = ?"},
            ["create table t (a int)"], native="libsqlitejdbc.so", server=Sqlite(f"{place}/shop")),
        "jtds": Product(
            "libjtds-java", "jtds", of_jtds + "secret", of_jtds + "***", "test",
            ["TdsCore.executeSQL", "JtdsStatement.executeSQLQuery"],
            {"prepared query": "select held(?)", "plain query": "select held(#)",
             "prepared update": "update held set a = ?", "plain update": "update held set a = #"},
            server=tds, port=tds.port, texts={"plain query": None, "plain update": None}),
    }


class Databases(Case):
    """All products in one JVM; those whose packages are missing are skipped."""

    def test_calls_cold_and_compiled(self):
        servers = {"postgresql": Postgres() if Postgres.programs() else None,
                   "mariadb": MariaDb() if shutil.which("mariadbd") else None}
        for server in filter(None, servers.values()):
            self.addCleanup(server.close)
        if servers["mariadb"]:
            servers["mariadb"].asks("create database shop; "
                                    "grant all on shop.* to test@'127.0.0.1' identified by 'secret'")
        with socket.create_server(("127.0.0.1", 0)) as free:
            rows = products(*servers.values(), Tds(), free.getsockname()[1], folder(self)[0])
        for name, row in list(rows.items()):
            lack = row.lack() or servers.get(name, True) is None and f"install {name}"
            if lack:
                del rows[name]
                with self.subTest(name):
                    self.skipTest(lack)
        if not rows:
            return
        with open(f"{FOLDER}/products/Calls.java", encoding="utf-8") as source:
            text = source.read()
        flags = ["-Dhsqldb.method_class_names=Calls.*", "-Djdbc.drivers=net.sourceforge.jtds.jdbc.Driver",
                 "-Dh2.bindAddress=127.0.0.1"]
        with Compiled(sum((jars(row.jar) for row in rows.values()), []), {"Calls.java": text}, "Calls",
                      *(word for name, row in rows.items() for word in row.arguments(name)),
                      anchors=[anchor for row in rows.values() for anchor in row.anchors],
                      flags=flags + [f"-XX:CompileCommand=compileonly,{name}*::*"
                                     for name in DRIVERS]) as calls:
            self.answer("attach", calls.pid, "--options", "dbquery=1,handquota=100,localquota=100")
            for name, product in rows.items():
                self.check(calls, name, product, "cold")
                if SETTINGS.version >= 9:  # JDK 8 has no list of what is compiled
                    calls.warm_up(product.anchors, f"warm {name}")
                    self.check(calls, name, product, "hot")
            self.assertNotIn("failed: ", calls.output())

    def check(self, calls, name, product, when):
        expected = {f"{name} {form}": product.expected(form) for form in product.calls}
        calls.tell(f"{when} {name}")
        calls.wait_for(f"(?m)^done {when} {name}\n")
        with product.server.lock_held() if product.server else contextlib.nullcontext():
            calls.tell(f"hold {name}")
            self.await_calls(calls, set(expected))
            wrong = collections.Counter()
            for document in self.watch("threads", calls.pid, count=SAMPLES):
                threads = {t["name"]: t for t in document["threads"]}
                wrong.update(f"{call}: {shown}" for call in expected
                             if (shown := self.shown(threads[call])) != expected[call])
            self.assertEqual(sorted(wrong), [], when)
            if product.port:
                self.check_ports(product, [threads[call]["db"] for call in expected])
        calls.tell("rest")

    def await_calls(self, calls, names):
        def late():
            """Those of another innermost frame: "call" is the application's."""
            threads = self.threads(calls, "--all", "--details")
            return {name: frame for name in names
                    if (frame := threads[name]["stack"][0] if name in threads else {}).get("class")
                    not in WAITING}
        wait_until(lambda: f"all calls wait: {late()}\n{calls.output()}", lambda: not late(), 2 * LIMIT)

    @staticmethod
    def shown(thread):
        return thread["state"], *(thread["db"][key] for key in ("url", "user", "sql", "remote_port"))

    def check_ports(self, product, calls):
        """Each call has its own connection to the server, the one that the server lists if it can."""
        shown = {call["local_port"]: re.sub(r"\?|\$1", "1", call["sql"] or "") for call in calls}
        self.assertEqual(len(shown), len(calls))
        if isinstance(product.server, Server):
            rows = product.server.asks(product.server.CALLS)
            self.assertEqual(shown, {int(port): sql for port, sql in rows})
