"""Programs with real drivers and containers in their JVMs, and the database servers that they ask."""
import contextlib
import glob
import os
import re
import shutil
import subprocess
import tempfile

import jstack
from harness import FOLDER, LIMIT, SETTINGS, Program, folder, free_port, run_tool, text_of, wait_until

SAMPLES = 20
# Methods whose frames the shipped rules name.
RULED = set(map("::".join, re.findall(r"(?m)^frame +\S+ (\S+) (\S+)", text_of("../../java/tiers.rules"))))


def jars(*names):
    """Of each name the jars without a version in theirs; none when one has no jar."""
    found = [[path for path in glob.glob(f"/usr/share/java/{name}.jar") if not re.search(r"-\d", path)]
             for name in names]
    return sum(found, []) if all(found) else []


class Compiled(Program):
    """A program in whose JVM real products are at work.

    The methods `RULED` are compiled at the last tier after few calls.
    """

    def __init__(self, case, class_path, source, *arguments, flags):
        """The program runs in a folder with all of them."""
        place, inside = folder(case)
        for file in [*class_path, f"{FOLDER}/products/{source}.java"]:
            shutil.copy(file, place)
        path = f"{inside}/*:{inside}"
        run_tool("javac", "-nowarn", "-cp", path, "-d", inside, f"{inside}/{source}.java")
        if SETTINGS.version >= 9:  # JDK 8 has no list of what is compiled
            flags = [*flags, "-XX:CompileCommand=quiet", *(
                f"-XX:CompileCommand=option,{m},double,CompileThresholdScaling,0.002" for m in RULED)]
        super().__init__(*flags, "-cp", path, source, *arguments, before=("env", "-C", inside))

    def ruled(self):
        """The methods of rules in its threads' stacks."""
        threads = jstack.parse(run_tool("jstack", self.pid))
        return RULED & {"::".join(frame.call.rsplit(".", 1)) for thread in threads for frame in thread.frames}

    def warm_up(self, methods):
        """Until they are compiled at the last tier, by the JVM's own list."""
        self.tell("warm")

        def interpreted():
            codes = run_tool("jcmd", self.pid, "Compiler.codelist")
            compiled = re.findall(r"(?m)^\d+ 4 0 (\S+)\.([^.(]+)\(", codes)
            return methods - set(map("::".join, compiled))
        wait_until(interpreted, lambda: not interpreted())


class Server:
    """A database server with its own data on a free port of the loopback. It never runs as root."""

    def __init__(self):
        self.place = tempfile.mkdtemp(prefix="qor-e2e-")
        self.identity = {}
        if os.geteuid() == 0:
            self.identity = {"user": self.USER, "group": self.USER, "extra_groups": []}
            shutil.chown(self.place, self.USER, self.USER)
        self.data = f"{self.place}/data"
        self.prepare()
        self.port = free_port()
        self.process = subprocess.Popen(self.command(), cwd="/", stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL, **self.identity)
        wait_until(self.command(), lambda: self.asks("select 1"))

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
        shutil.rmtree(self.place)


class Postgres(Server):
    USER = "postgres"
    PROGRAM = max(glob.glob("/usr/lib/postgresql/*/bin/postgres"), default="postgres")
    LOCK = "select pg_advisory_lock(1);\n"
    HELD = "select 1 from pg_locks where locktype = 'advisory' and objid = 1 and granted"
    CALLS = ("select client_port, replace(query, '$1', '1') from pg_stat_activity "
             "where wait_event_type = 'Lock'")

    def prepare(self):
        self.run(f"{os.path.dirname(self.PROGRAM)}/initdb", "-D", self.data, "-Utest", "-Atrust", "-N",
                 "--locale=C", "-E", "UTF8")
        self.run("openssl", "req", "-new", "-x509", "-nodes", "-subj", "/CN=localhost", "-out",
                 f"{self.data}/server.crt", "-keyout", f"{self.data}/server.key")

    def command(self):
        return [self.PROGRAM, "-FlD", self.data, "-p", str(self.port), "-h", "127.0.0.1", "-k", ""]

    def client(self):
        return ["psql", "-XAtq", "-F\t", f"postgresql://test@127.0.0.1:{self.port}/postgres"]
