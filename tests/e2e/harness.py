"""What the end-to-end tests rest on: Java programs in JVMs that they start, the demo first, and qorctl."""
import argparse
import contextlib
import glob
import json
import os
import re
import shutil
import socket
import subprocess
import tempfile
import time
import unittest

import pexpect

FOLDER = os.path.dirname(os.path.realpath(__file__))
SETTINGS = argparse.Namespace()
LIMIT = 60  # seconds for anything to happen; reached only when something is broken
NOBODY = 65534


def text_of(path):
    """Of a file beside this one."""
    with open(f"{FOLDER}/{path}", encoding="utf-8") as file:
        return file.read()


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as free:
        return free.getsockname()[1]


def wait_until(what, test, limit=LIMIT):
    """What `test` returns once that is true. `what` is a text or makes one."""
    end = time.monotonic() + limit
    while not (found := test()):
        if time.monotonic() > end:
            raise AssertionError(f"not within {limit} s: {what() if callable(what) else what}")
        time.sleep(0.02)
    return found


def in_root(command):
    return [*SETTINGS.enter.split(), *command]


def folder(case):
    """A new folder for a test, as it is here and as a JVM sees it."""
    path = tempfile.mkdtemp(prefix="qor-e2e-", dir=SETTINGS.root + "/tmp")
    case.addCleanup(shutil.rmtree, path)
    return path, path[len(SETTINGS.root):]


class Program(contextlib.AbstractContextManager):
    """A Java program in a JVM that prints a line "ready ..." and obeys the lines of its input."""

    def __init__(self, *words, before=(), jdk=None):
        self.log = tempfile.NamedTemporaryFile(prefix="qor-e2e-", suffix=".log")
        self.process = subprocess.Popen(in_root([*before, f"{jdk or SETTINGS.jdk}/bin/java",
                                                 *map(str, words)]),
                                        stdin=subprocess.PIPE, stdout=self.log, stderr=subprocess.STDOUT)
        self.pid = self.process.pid
        try:
            self.wait_for("(?m)^ready.*\n")
        except BaseException:
            self.__exit__()
            raise

    def wait_for(self, pattern):
        wait_until(pattern, lambda: re.search(pattern, self.output()) or self.process.poll() is not None)
        assert self.process.poll() is None, self.output()

    def output(self):
        with open(self.log.name, encoding="utf-8", errors="replace") as log:
            return log.read()

    def tell(self, line):
        self.process.stdin.write(line.encode() + b"\n")
        self.process.stdin.flush()

    def end(self):
        """Lets it end by itself, so that its exit hooks run; its exit status."""
        self.process.stdin.close()
        return self.process.wait(LIMIT)

    def leftovers(self):
        tmp = f"{SETTINGS.root}/tmp"
        return glob.glob(f"{tmp}/qoragent-*/{self.pid}.*") + glob.glob(f"{tmp}/.attach_pid{self.pid}")

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.close()
        self.log.close()
        for name in [f"{SETTINGS.root}/tmp/.java_pid{self.pid}", *self.leftovers()]:
            with contextlib.suppress(FileNotFoundError):
                os.unlink(name)  # a killed JVM can't tidy up


def taking_on(user):
    """The command by which root becomes a user; 0 is root without what it may beyond others."""
    if user == 0:
        return ["setpriv", "--bounding-set=-all", "--inh-caps=-all"]
    return [] if user is None else ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"]


RESTS, COMPUTES = "-Ddemo.rests=true", "-Ddemo.rests=false"  # the last one holds


class Application(Program):
    """The demo application, without its thread that computes but for tests that ask for it."""

    def __init__(self, *flags, user=None, before=()):
        super().__init__(RESTS, *flags, "-cp", SETTINGS.classes, "qoragent.demo.Demo", 170,
                         before=[*taking_on(user), *before])

    def truths(self):
        """What it says of its threads' work in other tiers: by thread, pairs."""
        return {name: dict(pair.split("=", 1) for pair in pairs.split())
                for name, pairs in re.findall("(?m)^(demo-\\S+) (.*)\n", self.output())}

    def __exit__(self, *_):
        pipe = self.truths().get("demo-file-read", {}).get("file")
        super().__exit__()
        if pipe:
            shutil.rmtree(SETTINGS.root + os.path.dirname(pipe), ignore_errors=True)


class Answer:
    def __init__(self, done):
        self.code, self.out, self.err = done.returncode, done.stdout, done.stderr

    def json(self):
        return json.loads(self.out)

    def __repr__(self):
        return f"exit code {self.code}\n{self.out[:2000]}\n{self.err[:2000]}"


def environment():
    return {**os.environ, "QORAGENT_JAR": SETTINGS.jar, "TERM": "dumb"}


def qorctl(*words, user=None, text=None):
    command = [*taking_on(user), SETTINGS.qorctl, *map(str, words)]
    return Answer(subprocess.run(command, input=text, capture_output=True, text=True, timeout=LIMIT,
                                 env=environment(), check=False))


def run_tool(name, *words, jdk=None):
    return subprocess.run(in_root([f"{jdk or SETTINGS.jdk}/bin/{name}", *map(str, words)]),
                          capture_output=True, text=True, timeout=LIMIT, check=True).stdout


def on_terminal(*words):
    """qorctl on a terminal."""
    return pexpect.spawn(SETTINGS.qorctl, [*map(str, words)], env=environment(), encoding="utf-8",
                         timeout=LIMIT, echo=False)


class Case(unittest.TestCase):
    """A group whose tests ask of one process at a time, `app`."""
    maxDiff = None  # what differs is the one clue that a run elsewhere leaves

    def answer(self, command, *words, **options):
        answer = qorctl(command, self.app.pid, *words, **options)
        self.assertEqual((answer.code, answer.err), (0, ""), answer)
        return answer

    def json(self, *words, **options):
        return self.answer(*words, "--json", **options).json()

    def refused(self, why, command, *words, code=1, **options):
        return self.check_refusal(why, qorctl(command, self.app.pid, *words, **options), code)

    def check_refusal(self, why, answer, code=1):
        """Exit code `code` and one line on standard error that says what to do next."""
        self.assertEqual((answer.code, answer.out, len(answer.err.splitlines())), (code, "", 1), answer)
        self.assertIn(why, answer.err)
        self.assertIn("; ", answer.err)
        return answer.err

    def listed(self):
        return next(jvm for jvm in qorctl("list", "--json").json() if jvm["pid"] == self.app.pid)

    def threads(self, *options):
        """Threads by name."""
        return {t["name"]: t for t in self.json("threads", *options)["threads"]}

    def stack(self, thread):
        (found,) = self.json("stack", thread)["threads"]
        return found

    def watch(self, count):
        """The first samples of a series."""
        words = [SETTINGS.qorctl, "threads", str(self.app.pid), "--json", "--watch", "0.1"]
        with subprocess.Popen(words, stdout=subprocess.PIPE, text=True) as watch:
            documents = [json.loads(watch.stdout.readline()) for _ in range(count)]
            watch.kill()
        return documents


class OfTheDemo(Case):
    """Of one demo application, with an agent in it."""
    FLAGS = ()
    OPTIONS = "handquota=100,localquota=100"  # of attach: tests ask more often than people

    @classmethod
    def setUpClass(cls):
        cls.app = Application(*cls.FLAGS)
        cls.addClassCleanup(cls.app.__exit__)
        done = qorctl("attach", cls.app.pid, "--options", cls.OPTIONS)
        assert done.code == 0, done
