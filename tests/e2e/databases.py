"""Real JDBC drivers: what the agent shows of their calls, compared with what the databases say."""
import collections
import contextlib
import glob
import os
import re
import shutil
import socket
import struct
import subprocess
import tempfile
import threading
import zipfile
from dataclasses import dataclass, field

from harness import LIMIT, SETTINGS, Case, in_root, run_tool, wait_until
from products import SAMPLES, jars

# What is compiled: the drivers, of embedded databases without their engines, and who calls them.
DRIVERS = ("Calls", "org.mariadb.jdbc.", "org.h2.jdbc.", "org.h2.engine.SessionRemote", "org.hsqldb.jdbc.",
           "org.apache.derby.impl.jdbc.", "org.sqlite.", "net.sourceforge.jtds.jdbc.")
WAITING = ("sun.nio.ch.Net", "sun.nio.ch.SocketDispatcher", "java.net.SocketInputStream", "org.sqlite.core.NativeDB")
FOLDER = os.path.dirname(__file__)


class MariaDb:
    """A MariaDB server with its own data on a free loopback port."""
    HELD = "if({} = 0, 0, get_lock('held', 60) + release_lock('held'))"

    def __init__(self):
        self.place = tempfile.mkdtemp(prefix="qor-e2e-maria-")
        with socket.create_server(("127.0.0.1", 0)) as free:
            self.port = free.getsockname()[1]
        user = ["--user=mysql"] if os.geteuid() == 0 else []
        if user:
            shutil.chown(self.place, "mysql", "mysql")
        data, self.socket = f"{self.place}/data", f"{self.place}/socket"
        subprocess.run(["mariadb-install-db", "--no-defaults", *user, f"--datadir={data}", "--skip-test-db",
                        "--auth-root-authentication-method=normal", "--innodb-log-file-size=4M"],
                       check=True, capture_output=True, timeout=LIMIT)
        self.log = open(f"{self.place}/log", "wb")
        self.process = subprocess.Popen(
            ["mariadbd", "--no-defaults", *user, f"--datadir={data}", f"--socket={self.socket}", f"--port={self.port}",
             "--bind-address=127.0.0.1", f"--pid-file={self.place}/pid",
             "--skip-log-bin", "--skip-name-resolve", "--innodb-log-file-size=4M", "--innodb-buffer-pool-size=8M"],
            stdout=self.log, stderr=subprocess.STDOUT)
        wait_until("MariaDB answers", lambda: self.process.poll() is not None or self.asks("select 1"))
        assert self.process.poll() is None, "MariaDB ended"
        self.asks("create database shop; grant all on shop.* to test@'127.0.0.1' identified by 'secret'")

    def client(self, *options):
        return ["mariadb", "--no-defaults", f"--socket={self.socket}", "-u", "root", "-N", "-B", *options]

    def asks(self, query):
        done = subprocess.run(self.client("-e", query), capture_output=True, text=True, timeout=LIMIT, check=False)
        return [line.split("\t") for line in done.stdout.splitlines()]

    def __enter__(self):
        self.holder = subprocess.Popen(self.client(), stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
        self.holder.stdin.write(b"select get_lock('held', 60);\n")
        self.holder.stdin.flush()
        wait_until("the lock is held", lambda: self.asks("select is_used_lock('held')")[0][0] != "NULL")

    def __exit__(self, *_):
        self.holder.stdin.close()
        self.holder.wait()

    def close(self):
        self.process.terminate()
        self.process.wait(LIMIT)
        self.log.close()
        shutil.rmtree(self.place)


class Tds(threading.Thread):
    """A server of SQL Server's protocol 7.1 that answers every call with one row, those that hold when they are released."""
    LOGIN = 0x10
    COLLATION = bytes.fromhex("e3 0800 07 05 0904d00034 00")
    ROW = bytes.fromhex("81 0100 0000 0000 38 00") + b"\xd1" + struct.pack("<i", 38)
    DONE = b"\xfd" + struct.pack("<HHi", 0x10, 0xC1, 1)

    def __init__(self):
        super().__init__(daemon=True)
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.released = threading.Event()
        self.released.set()
        self.start()

    def run(self):
        while True:
            client, _ = self.listener.accept()
            threading.Thread(target=self.serve, args=(client,), daemon=True).start()

    @staticmethod
    def read(stream):
        """The type and the contents of a message, whose packets have heads of eight bytes."""
        text, last = b"", False
        while not last:
            kind, status, length = struct.unpack(">BBH4x", stream.read(8))
            text, last = text + stream.read(length - 8), status & 1
        return kind, text

    def serve(self, client):
        with client, client.makefile("rwb") as stream, contextlib.suppress(struct.error, OSError):  # the client has gone
            while True:
                kind, text = self.read(stream)
                answer = self.DONE if "update".encode("utf-16le") in text else self.ROW + self.DONE
                if kind == self.LOGIN:
                    name = "Tds".encode("utf-16le")
                    told = b"\x01\x07\x01\x00\x00" + bytes([len(name) // 2]) + name + b"\x08\0\0\0"
                    answer = self.COLLATION + b"\xad" + struct.pack("<H", len(told)) + told + self.DONE
                elif "held".encode("utf-16le") in text:
                    self.released.wait()
                stream.write(struct.pack(">BBHHBB", 4, 1, len(answer) + 8, 0, 1, 0) + answer)
                stream.flush()

    def __enter__(self):
        self.released.clear()

    def __exit__(self, *_):
        self.released.set()


def connected(port):
    """The client ports of the connections to a loopback port, by the kernel's list."""
    with open("/proc/net/tcp", encoding="ascii") as tcp, open("/proc/net/tcp6", encoding="ascii") as tcp6:
        ends = [[int(end.rpartition(":")[2], 16) for end in line.split()[1:3]] for line in [*tcp, *tcp6] if "rem" not in line]
    return {local for local, remote in ends if remote == port}


@dataclass
class Product:
    """A driver, the calls of its threads by form, and what is shown of them: of a plain call's text what it has for 1."""
    package: str
    url: str
    shown: str  # of the URL
    user: str
    calls: dict
    anchors: list  # methods of rules, as the compiler's list has them
    jar: str
    setup: list = field(default_factory=list)
    native: str = None
    port: int = None
    texts: dict = field(default_factory=dict)  # SQL that isn't the call's own
    urls: dict = field(default_factory=dict)  # what a form has behind the URL

    def expected(self, form):
        sql = self.texts.get(form, self.calls[form].replace("#", "1"))
        return "DB Wait", self.shown + self.urls.get(form, ""), self.user, sql, self.port

    def arguments(self, name):
        for sql in self.setup:
            yield from (f"{name} setup", self.url, sql)
        for form, sql in self.calls.items():
            yield from (f"{name} {form}", self.url + self.urls.get(form, ""), sql)


def embedded(call="hold({})", cast="?"):
    """A table for each call, as they would wait for each other otherwise."""
    tables = {"prepared query": cast, "prepared update": cast, "prepared batch": cast, "plain query": "#", "plain update": "#",
              "plain batch": "#"}
    names = {form: form.replace(" ", "_") for form in tables}
    setup = [f"create table {name} (a int)" for name in names.values()]
    setup += [f"insert into {name} values (1)" for name in names.values()]
    return setup, {form: (f"select {call} from {names[form]}" if "query" in form else
                          f"update {names[form]} set a = 1 where {call} = 0").format(key) for form, key in tables.items()}


def products(mariadb, tds, folder, h2_port):
    held = MariaDb.HELD.format
    of_maria = f"jdbc:mariadb://127.0.0.1:{mariadb.port}/shop?user=test&password=" if mariadb else ""
    of_jtds = f"jdbc:jtds:sqlserver://127.0.0.1:{tds.port}/shop;user=test;prepareSQL=2;password="
    tables, h2 = embedded()
    typed, cast = embedded(cast="cast(? as int)")
    return {
        "mariadb": Product(
            "libmariadb-java", of_maria + "secret", of_maria + "***", "test",
            {"prepared": "do " + held("?"), "prepared query": "select " + held("?"), "server prepared": "do " + held("?"),
             "plain": "do " + held("#"), "plain query": f"select if(seq < 100, repeat('x', 1000), {held('#')}) from seq_1_to_100"},
            ["MariaDbStatement.executeInternal", "ClientSidePreparedStatement.executeInternal",
             "ServerSidePreparedStatement.executeInternal", "SelectResultSet.readNextValue", "AbstractQueryProtocol.readPacket"],
            "mariadb-java-client", port=mariadb and mariadb.port, urls={"server prepared": "&useServerPrepStmts=true"}),
        "h2": Product(
            "libh2-java", "jdbc:h2:mem:shop;user=sa;password=secret", "jdbc:h2:mem:shop", "SA",
            {**h2, "callable": "call hold(?)"},
            ["JdbcStatement.executeQuery", "JdbcStatement.executeUpdateInternal", "JdbcPreparedStatement.executeQuery",
             "JdbcPreparedStatement.executeUpdateInternal"], "h2", ['create alias hold for "Calls.hold"', *tables]),
        "h2tcp": Product(
            "libh2-java", f"jdbc:h2:tcp://127.0.0.1:{h2_port}/mem:shop;user=sa;password=secret",
            f"jdbc:h2:tcp://127.0.0.1:{h2_port}/mem:shop", "SA",
            {"prepared query": "select hold(?)", "plain query": "select hold(#)"},
            ["SessionRemote.done"], "h2", port=h2_port),
        "hsqldb": Product(
            "libhsqldb-java", "jdbc:hsqldb:mem:shop;user=sa;password=secret", "shop", "SA",
            {**cast, "callable": "call hold(cast(? as int))"}, ["JDBCStatement.fetchResult", "JDBCPreparedStatement.fetchResult"],
            "hsqldb", ["create function hold(k int) returns int language java deterministic no sql "
                       "external name 'CLASSPATH:Calls.hold'", *typed], texts={"plain batch": None}),
        "derby": Product(
            "libderby-java", "jdbc:derby:memory:shop;create=true;user=app;password=secret",
            "jdbc:derby:memory:shop;create=true;user=app;password=***", "app", cast,
            ["EmbedStatement.executeStatement", "EmbedResultSet.movePosition"], "derby",
            ["create function hold(k int) returns int language java parameter style java no sql "
             "external name 'Calls.hold'", *typed]),
        "sqlite": Product(
            "libxerial-sqlite-jdbc-java", *[f"jdbc:sqlite:{folder}/shop?busy_timeout=60000"] * 2, None,
            {"holder": "begin exclusive", "prepared query": "select a from t where a = ?",
             "plain query": "select a from t where a = #", "prepared update": "update t set a = ?",
             "plain update": "update t set a = #", "prepared batch": "update t set a = ?"},
            ["JDBC3Statement.withConnectionTimeout"], "xerial-sqlite-jdbc", ["create table t (a int)"],
            native="libsqlitejdbc.so"),
        "jtds": Product(
            "libjtds-java", of_jtds + "secret", of_jtds + "***", "test",
            {"prepared query": "select held(?)", "plain query": "select held(#)", "prepared update": "update held set a = ?",
             "plain update": "update held set a = #"},
            ["TdsCore.executeSQL", "JtdsStatement.executeSQLQuery"], "jtds", port=tds.port,
            texts={"plain query": None, "plain update": None}),
    }


def lack_of(product, server):
    """Why a product can't be tested; None when it can."""
    if not jars(product.jar) or not server:
        return f"install {product.package}" + ("" if server else " and mariadb-server")
    with zipfile.ZipFile(jars(product.jar)[0]) as jar:
        names = [name for name in jar.namelist() if re.search(r"/\w*(Driver|JDBC)\.class$", name) and "META-INF" not in name]
        version = max(struct.unpack(">H", jar.read(name)[6:8])[0] - 44 for name in names)
    if product.native and not glob.glob(f"{SETTINGS.root}/usr/lib/*/jni/{product.native}"):
        return f"no {product.native} in {SETTINGS.root or '/'}"
    return f"{product.package} needs Java {version}" if version > SETTINGS.version else None


class Calls:
    """products/Calls.java with the drivers of some products."""

    def __init__(self, place, rows, *flags):
        self.rows = rows
        self.anchors = {anchor for product in rows.values() for anchor in product.anchors}
        for product in rows.values():
            shutil.copy(jars(product.jar)[0], place)
        inside = place[len(SETTINGS.root):]
        shutil.copy(f"{FOLDER}/products/Calls.java", place)
        run_tool("javac", "-nowarn", "-d", inside, f"{inside}/Calls.java")
        soon = ["-XX:CompileCommand=quiet", "-XX:+PrintCompilation"] + [
            f"-XX:CompileCommand=option,*{method},double,CompileThresholdScaling,0.02" for method in self.anchors] + [
            f"-XX:CompileCommand=compileonly,{name}*::*" for name in DRIVERS]  # the rest would only keep the compiler busy
        arguments = [word for name, product in rows.items() for word in product.arguments(name)]
        self.log = open(f"{place}/log", "wb")
        self.process = subprocess.Popen(
            in_root(["env", "-C", inside, f"{SETTINGS.jdk}/bin/java", *(soon if SETTINGS.version >= 9 else []), *flags,
                     "-Dhsqldb.method_class_names=Calls.*", "-Djdbc.drivers=net.sourceforge.jtds.jdbc.Driver", "-Dh2.bindAddress=127.0.0.1",
                     "-cp", f"{inside}/*:{inside}", "Calls", *arguments]),
            stdin=subprocess.PIPE, stdout=self.log, stderr=subprocess.STDOUT)
        wait_until("the calls are ready", lambda: "ready\n" in self.output() or self.process.poll() is not None)
        assert self.process.poll() is None, self.output()

    def output(self):
        with open(self.log.name, encoding="utf-8", errors="replace") as log:
            return log.read()

    def tell(self, line):
        assert "failed: " not in self.output(), self.output()[-3000:]
        self.process.stdin.write(line.encode() + b"\n")
        self.process.stdin.flush()

    def warm_up(self, name, product):
        """Until the methods of the rules are compiled at the last tier, by the compiler's log and then the JVM's own list."""
        self.tell(f"warm {name}")
        for method in product.anchors:
            wait_until(f"{method} is compiled",
                       lambda: re.search(rf"(?m)^.* 4 .*\b({method.replace('.', '::')}) ", self.output()))
        wait_until(f"{name} is compiled", lambda: self.compiled() >= set(product.anchors))

    def compiled(self):
        told = run_tool("jcmd", self.process.pid, "Compiler.codelist")
        return {m for m in self.anchors if re.search(rf"(?m)^\d+ 4 0 \S*\b{re.escape(m)}\(", told)}

    def close(self):
        self.process.kill()
        self.process.wait()
        self.process.stdin.close()
        self.log.close()


class Databases(Case):
    """All products in one JVM; those whose packages are missing are skipped."""

    @classmethod
    def setUpClass(cls):
        cls.place = tempfile.mkdtemp(prefix="qor-e2e-", dir=SETTINGS.root + "/tmp")
        cls.addClassCleanup(shutil.rmtree, cls.place)
        cls.mariadb = MariaDb() if shutil.which("mariadbd") else None
        if cls.mariadb:
            cls.addClassCleanup(cls.mariadb.close)
        cls.tds = Tds()
        with socket.create_server(("127.0.0.1", 0)) as free:
            rows = products(cls.mariadb, cls.tds, cls.place[len(SETTINGS.root):], free.getsockname()[1])
        cls.lacks = {name: lack for name, row in rows.items() if (lack := lack_of(row, name != "mariadb" or cls.mariadb))}
        cls.rows = {name: row for name, row in rows.items() if name not in cls.lacks}

    def test_calls_cold_and_compiled(self):
        for name, lack in self.lacks.items():
            with self.subTest(name):
                self.skipTest(lack)
        if not self.rows:
            return
        calls = Calls(self.place, self.rows)
        self.addCleanup(calls.close)
        self.answer("attach", calls.process.pid, "--options", "dbquery=1,handquota=100,localquota=100")
        for name, product in self.rows.items():
            self.check(calls, name, product, "cold")
            if SETTINGS.version >= 9:  # JDK 8 has no list of what is compiled
                calls.warm_up(name, product)
                self.check(calls, name, product, "hot")

    def check(self, calls, name, product, when):
        expected = {f"{name} {form}": product.expected(form) for form in product.calls if form != "holder"}
        server = {"mariadb": self.mariadb, "jtds": self.tds}.get(name, contextlib.nullcontext())
        with server:
            calls.tell(f"hold {name}")
            wait_until("all calls wait",
                       lambda: {t["name"] for t in self.threads(calls.process) if t["call"]["class"] in WAITING} >= set(expected))
            wrong = collections.Counter()
            for document in self.watch("threads", calls.process.pid, count=SAMPLES):
                threads = {t["name"]: t for t in document["threads"]}
                wrong.update(f"{call}: {told}" for call in expected if (told := self.told(threads[call])) != expected[call])
            self.assertEqual(sorted(wrong), [], when)
            if product.port:
                self.check_ports(name, product.port, [threads[call]["db"] for call in expected])
        calls.tell("rest")

    @staticmethod
    def told(thread):
        call = thread["db"]
        return thread["state"], *(call[key] for key in ("url", "user", "sql", "remote_port"))

    def check_ports(self, name, port, calls):
        """Each call has a connection of its own to the server, of MariaDB the one on which the server says that it runs."""
        told = {call["local_port"]: (call["sql"] or "").replace("?", "1") for call in calls}
        self.assertEqual(len(told), len(calls))
        self.assertLessEqual(set(told), connected(port))
        if name == "mariadb":
            rows = self.mariadb.asks("select substring_index(host, ':', -1), replace(info, '?', '1') from "
                                     "information_schema.processlist where user = 'test' and info is not null")
            self.assertEqual(told, {int(port): info for port, info in rows})
