"""Programs with real drivers and containers in their JVMs, and the database servers that they ask."""
import contextlib
import glob
import os
import re
import shutil
import socket
import subprocess
import tempfile

from harness import LIMIT, SETTINGS, Program, run_tool, wait_until

FOLDER = os.path.dirname(os.path.realpath(__file__))
SAMPLES = 20


def jars(*names):
    """Of each name the jar without a version in its name; none when one is missing."""
    found = [path for name in names for path in glob.glob(f"/usr/share/java/{name}.jar")
             if not re.search(r"-\d", path)]
    return found if len(found) >= len(names) else []


def colons(method):
    return "::".join(method.rsplit(".", 1))


class Compiled(Program):
    """A program in whose JVM real products are at work.

    The methods `anchors`, whose frames the rules name, are compiled at the last tier after few calls.
    """

    def __init__(self, class_path, sources, main, *arguments, anchors=(), flags=(), scaling=0.02,
                 prepare=lambda _: None):
        """`sources`: the texts by file name. The program's first argument is its folder."""
        self.place = tempfile.mkdtemp(prefix="qor-e2e-", dir=SETTINGS.root + "/tmp")
        inside, self.anchors = self.place[len(SETTINGS.root):], anchors
        for jar in class_path:
            shutil.copy(jar, self.place)
        for name, text in sources.items():
            with open(f"{self.place}/{name}", "w", encoding="utf-8") as source:
                source.write(text)
        prepare(inside)
        path = f"{inside}/*:{inside}"
        run_tool("javac", "-nowarn", "-cp", path, "-d", inside, *(f"{inside}/{name}" for name in sources))
        if SETTINGS.version >= 9:  # JDK 8 has no list of what is compiled
            flags = ["-XX:CompileCommand=quiet", "-XX:+PrintCompilation", *flags,
                     *(f"-XX:CompileCommand=option,*{colons(method)},double,CompileThresholdScaling,{scaling}"
                       for method in anchors)]
        super().__init__(*flags, "-cp", path, main, inside, *arguments, before=("env", "-C", inside))

    def compiled(self):
        """Those of the methods that are compiled at the last tier, by the JVM's own list."""
        codes = run_tool("jcmd", self.pid, "Compiler.codelist")
        return {m for m in self.anchors if re.search(rf"(?m)^\d+ 4 0 \S*\b{re.escape(m)}\(", codes)}

    def warm_up(self, anchors, order="warm"):
        self.tell(order)
        for method in anchors:  # begun, by the compiler's log: asking for its list costs it time
            self.wait_for(rf"(?m)^.* 4 .*\b({re.escape(colons(method))}) ")
        wait_until(f"{anchors} are compiled", lambda: self.compiled() >= set(anchors))

    def __exit__(self, *_):
        super().__exit__()
        shutil.rmtree(self.place)


class Server:
    """A database server with its own data on a free port of the loopback. It never runs as root."""

    def __init__(self):
        self.place = tempfile.mkdtemp(prefix="qor-e2e-")
        user = self.USER
        self.identity = {"user": user, "group": user, "extra_groups": []} if os.geteuid() == 0 else {}
        if self.identity:
            shutil.chown(self.place, user, user)
        self.data = f"{self.place}/data"
        self.prepare()
        with socket.create_server(("127.0.0.1", 0)) as free:
            self.port = free.getsockname()[1]
        self.log = open(f"{self.place}.log", "wb")
        self.process = subprocess.Popen(self.command(), cwd="/", stdout=self.log, stderr=subprocess.STDOUT,
                                        **self.identity)
        wait_until("the server answers", lambda: self.process.poll() is not None or self.asks("select 1"))
        assert self.process.poll() is None, f"the server ended: {self.log.name}"

    def run(self, *command):
        subprocess.run(command, cwd="/", check=True, capture_output=True, timeout=LIMIT, **self.identity)

    def asks(self, query):
        """Rows of the answer; none when there is no answer."""
        done = subprocess.run(self.client(), input=query, capture_output=True, text=True, timeout=LIMIT,
                              check=False)
        return [line.split("\t") for line in done.stdout.splitlines()]

    @contextlib.contextmanager
    def lock_held(self):
        with subprocess.Popen(self.client(), stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                              text=True) as holder:
            holder.stdin.write(self.LOCK)
            holder.stdin.flush()
            wait_until("the lock is held", lambda: self.asks(self.HELD))
            yield

    def close(self):
        self.process.terminate()
        self.process.wait(LIMIT)
        self.log.close()
        os.unlink(self.log.name)
        shutil.rmtree(self.place)


class Postgres(Server):
    USER = "postgres"
    LOCK = "select pg_advisory_lock(1);\n"
    HELD = "select 1 from pg_locks where locktype = 'advisory' and objid = 1 and granted"
    CALLS = ("select client_port, replace(query, '$1', '1') from pg_stat_activity "
             "where wait_event_type = 'Lock'")

    @staticmethod
    def programs():
        """The newest server's; None where it isn't installed."""
        servers = sorted(glob.glob("/usr/lib/postgresql/*/bin/postgres"),
                         key=lambda path: float(path.split("/")[4]))
        return os.path.dirname(servers[-1]) if servers and shutil.which("psql") else None

    def prepare(self):
        self.run(f"{self.programs()}/initdb", "-D", self.data, "-U", "test", "-A", "trust", "-N",
                 "--locale=C", "-E", "UTF8")
        self.run("openssl", "req", "-new", "-x509", "-nodes", "-subj", "/CN=localhost", "-out",
                 f"{self.data}/server.crt",
                 "-keyout", f"{self.data}/server.key")

    def command(self):
        return [f"{self.programs()}/postgres", "-D", self.data, "-p", str(self.port), "-c",
                "listen_addresses=127.0.0.1",
                "-c", "unix_socket_directories=", "-c", "fsync=off", "-c", "ssl=on"]

    def client(self):
        return ["psql", "-XAtq", "-F", "\t", "-h", "127.0.0.1", "-p", str(self.port), "-U", "test", "-d",
                "postgres"]
