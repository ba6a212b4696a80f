"""What the end-to-end tests stand on: the demo application in a JVM of its own, and qorctl."""
import argparse
import contextlib
import glob
import json
import os
import subprocess
import tempfile
import time
import unittest

SETTINGS = argparse.Namespace()
LIMIT = 60  # seconds for anything to happen; reached only when something is broken


def wait_until(what, test):
    end = time.monotonic() + LIMIT
    while not test():
        if time.monotonic() > end:
            raise AssertionError(f"not within {LIMIT} s: {what}")
        time.sleep(0.02)


def in_root(command):
    return [*SETTINGS.enter.split(), *command]


def leftovers(pid):
    tmp = f"{SETTINGS.root}/tmp"
    return glob.glob(f"{tmp}/qoragent-*/{pid}.*") + glob.glob(f"{tmp}/.attach_pid{pid}")


def process_state(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii", errors="replace") as stat:
        return stat.read().rsplit(") ", 1)[1][0]


class Application:
    """The demo application, ready and in a JVM of its own."""

    def __init__(self, *flags, user=None):
        self.log = tempfile.NamedTemporaryFile(prefix="qor-e2e-", suffix=".log")
        command = [f"{SETTINGS.jdk}/bin/java", *flags, "-cp", SETTINGS.classes, "qoragent.demo.Demo", "170"]
        if user is not None:
            command = ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups", *command]
        self.process = subprocess.Popen(in_root(command), stdin=subprocess.PIPE, stdout=self.log,
                                        stderr=subprocess.STDOUT)
        self.pid = self.process.pid
        wait_until("the application is ready", lambda: "ready\n" in self.output() or self.process.poll() is not None)
        if self.process.poll() is not None:
            raise AssertionError("the application ended: " + self.output())

    def output(self):
        with open(self.log.name, encoding="utf-8", errors="replace") as log:
            return log.read()

    def end(self):
        """Lets it end by itself, so that its exit hooks run; its exit status."""
        self.process.stdin.close()
        return self.process.wait(LIMIT)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.close()
        self.log.close()
        for name in [f"{SETTINGS.root}/tmp/.java_pid{self.pid}", *leftovers(self.pid)]:
            with contextlib.suppress(FileNotFoundError):
                os.unlink(name)  # a killed JVM can't tidy up


class Answer:
    def __init__(self, done):
        self.code, self.out, self.err = done.returncode, done.stdout, done.stderr

    def json(self):
        return json.loads(self.out)

    def __repr__(self):
        return f"exit code {self.code}\nstdout: {self.out[:2000]}\nstderr: {self.err[:2000]}"


def qorctl(*words, user=None, text=None):
    environment = {**os.environ, "QORAGENT_JAR": SETTINGS.jar}
    identity = {} if user is None else {"user": user, "group": user, "extra_groups": []}
    return Answer(subprocess.run([SETTINGS.qorctl, *map(str, words)], input=text, capture_output=True, text=True,
                                 timeout=LIMIT, env=environment, check=False, **identity))


class Case(unittest.TestCase):
    def answer(self, *words, **options):
        answer = qorctl(*words, **options)
        self.assertEqual(answer.code, 0, answer)
        self.assertEqual(answer.err, "", answer)
        return answer

    def refused(self, told, *words, code=1, **options):
        """Exit code `code` and one line on standard error that says what to do next."""
        answer = qorctl(*words, **options)
        self.assertEqual(answer.code, code, answer)
        self.assertEqual(answer.out, "", answer)
        self.assertEqual(len(answer.err.splitlines()), 1, answer)
        self.assertIn(told, answer.err)
        self.assertIn("; ", answer.err)
        return answer

    def threads(self, app, *options):
        return self.answer("threads", app.pid, "--json", *options).json()["threads"]
