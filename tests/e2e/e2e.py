#!/usr/bin/env python3
"""The console and the agent, end to end: the demo application as a process of its own, driven through qorctl.

usage: e2e.py --build DIR --jdk DIR [GROUP...]     e.g.  e2e.py --build build/release --jdk $JAVA_HOME Sample
A JDK of another root directory is given by --root DIR, the command that enters it, and the JDK's path in there:
       e2e.py --build DIR --root /srv/sid --enter "tool run /srv/sid" --jdk /usr/lib/jvm/java-8-openjdk-amd64
"""
import argparse
import glob
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

import jstack
from dumps import Dumps, LateDumps
from harness import (LIMIT, SETTINGS, Application, Case, OfTheDemo, in_root, leftovers, process_state, qorctl,
                     wait_until)
from databases import Databases
from direct import DirectFrameworks, DirectHeap, DirectLocals, DirectRoad, DirectTiers
from hung import Hung
from products import Products
from sessions import Sessions
from tiers import OwnDriver, Tiers
from views import Memory, Views
from web import Web

# Groups of other files.
__all__ = ["DirectFrameworks", "DirectHeap", "DirectLocals", "DirectRoad", "DirectTiers", "Dumps", "Hung", "LateDumps", "Memory", "Products", "Sessions", "Tiers", "Views", "Web"]


class Sample(OfTheDemo):
    """What qorctl shows of the demo is what jstack shows of it."""

    # Frames of these change between two looks; only the frames that stay are compared.
    MOVING = {"demo-compute": 2}
    OURS = re.compile(r"qoragent-relay|QORD Agent|Attach Listener|process reaper")

    def dump(self):
        run = subprocess.run(in_root([f"{SETTINGS.jdk}/bin/jstack", "-l", str(self.app.pid)]), capture_output=True,
                             text=True, timeout=LIMIT, check=True)
        threads = jstack.parse(run.stdout)
        return {t.id: t for t in threads if t.frames and not self.OURS.search(t.name)}

    def sample(self):
        sample = self.answer("threads", self.app.pid, "--details", "--all", "--json").json()
        self.assertFalse(sample["cut"])
        return {t["id"]: t for t in sample["threads"] if not self.OURS.search(t["name"])}

    def test_threads_frames_and_locks_are_those_of_jstack(self):
        sample, dump = self.sample(), self.dump()
        self.assertEqual({i: t["name"] for i, t in sample.items()}, {i: t.name for i, t in dump.items()})
        self.assertGreaterEqual(sum(t.name.startswith("demo-") for t in dump.values()), 10)
        for number, thread in sample.items():
            with self.subTest(thread=thread["name"]):
                self.compare_frames(thread, dump[number])
                self.compare_locks(thread, dump[number], dump)
                self.compare_state(thread, dump[number])

    def compare_frames(self, thread, truth):
        rows = thread["stack"]
        if thread["name"] in self.MOVING:
            stay = self.MOVING[thread["name"]]
            methods = [f'{row["class"]}.{row["method"]}' for row in rows[-stay:]]
            self.assertEqual(methods, [frame.call for frame in truth.frames[-stay:]])
            return
        depth = 0
        for row in rows:
            self.assertEqual(row["index"], depth)
            depth += row.get("skipped", 1)
            if "skipped" in row:
                continue
            frame = truth.frames[row["index"]]
            self.assertEqual(f'{row["class"]}.{row["method"]}', frame.call)
            self.assertEqual(row["line"], frame.line)
            if frame.line is not None:
                self.assertEqual(row["file"], frame.file)
        self.assertEqual(depth, len(truth.frames))

    def compare_locks(self, thread, truth, dump):
        owned = sorted((lock["depth"], lock["class"]) for lock in thread["owns"])
        self.assertEqual(owned, sorted((lock.depth, lock.class_name) for lock in truth.held()))
        wait = thread["waits_for"]
        if truth.wanted is None:
            self.assertIsNone(wait)
            return
        owners = [t.id for t in dump.values() if t.holds(truth.wanted)]
        if owners:
            self.assertIsNotNone(wait)
            self.assertEqual((wait["class"], wait["owner"]), (truth.wanted.class_name, owners[0]))
        elif thread["name"] not in self.MOVING:
            self.assertEqual(thread["parked_on"]["class"], truth.wanted.class_name)

    def compare_state(self, thread, truth):
        fitting = {
            "BLOCKED": {"Lock"},
            "TIMED_WAITING (sleeping)": {"Sleeping"},
            "WAITING (on object monitor)": {"Object Wait"},
            "TIMED_WAITING (on object monitor)": {"Object Wait"},
            "WAITING (parking)": {"Object Wait"},
            "TIMED_WAITING (parking)": {"Object Wait"},
            "RUNNABLE": {"Runnable", "Network Wait", "IO Wait", "Object Wait", "DB Wait"},
        }
        state = truth.state if truth.state in fitting else truth.state.split(" ")[0]
        self.assertIn(thread["state"], fitting[state])

    def test_the_same_lock_has_one_number(self):
        sample = {t["name"]: t for t in self.sample().values()}
        wait = sample["demo-lock-wanter"]["waits_for"]
        holder = sample["demo-lock-holder"]
        self.assertEqual(wait["owner"], holder["id"])
        self.assertIn((wait["lock"], wait["class"]), [(l["lock"], l["class"]) for l in holder["owns"]])

    def test_dump_for_people(self):
        holder = next(t for t in self.threads(self.app, "--all") if t["name"] == "demo-lock-holder")["id"]
        text = self.answer("threads", self.app.pid, "--details", "--match", "demo-lock").out
        wanter = text[text.index('"demo-lock-wanter"'):].split("\n\n")[0]
        self.assertRegex(wanter, rf'^"demo-lock-wanter" #\d+ Lock\n(   \w.*\n)*\tat \S+\(\S+\.java:\d+\)\n'
                                 rf'\t- waiting to lock <\d+> \(a \S+\), held by thread #{holder} "demo-lock-holder"\n')
        self.assertRegex(text, r"\t- locked <\d+> \(a \S+\)\n")
        self.assertNotIn("\x1b", text)

    def test_active_and_all(self):
        active = {t["name"]: t for t in self.threads(self.app)}
        every = {t["name"]: t for t in self.threads(self.app, "--all")}
        for name, state in {"demo-compute": "Runnable", "demo-lock-wanter": "Lock", "demo-socket-read": "Network Wait",
                            "demo-file-read": "IO Wait"}.items():
            self.assertEqual(active[name]["state"], state, name)
            self.assertNotIn("stack", active[name])
        for name, state in {"demo-wait": "Object Wait", "demo-sleep": "Sleeping"}.items():
            self.assertNotIn(name, active)
            self.assertEqual(every[name]["state"], state, name)
        self.assertLess(set(active), set(every))

    def test_one_thread(self):
        every = {t["name"]: t for t in self.threads(self.app, "--all")}
        wanted = every["demo-deep-stack"]
        by_id = self.threads(self.app, "--thread", wanted["id"])
        by_key = self.threads(self.app, "--thread", wanted["key"])
        self.assertEqual([t["name"] for t in by_id], ["demo-deep-stack"])
        self.assertEqual(by_id[0]["stack"], by_key[0]["stack"])
        self.assertTrue(any("skipped" in row for row in by_id[0]["stack"]))
        self.refused("no thread 999999", "threads", self.app.pid, "--thread", "999999")

    def test_summary_counts_the_same_threads(self):
        summary = self.answer("summary", self.app.pid, "--json").json()
        self.assertEqual(len([k for k in summary if k != "jvm_microseconds"]), 13)
        self.assertGreaterEqual(summary["threads_lock"], 1)
        self.assertGreaterEqual(summary["threads_sleeping"], 1)
        self.assertGreaterEqual(summary["threads_network_wait"], 2)
        for percent in ("system_cpu_percent", "heap_percent"):
            self.assertTrue(0 <= summary[percent] <= 100, summary)
        table = self.answer("summary", self.app.pid).out
        self.assertEqual(len(table.splitlines()), 14)
        self.assertRegex(table, rf"(?m)^Threads in Lock +{summary['threads_lock']}$")

    def test_watch_goes_on(self):
        for command in ("threads", "summary"):
            watch = subprocess.Popen([SETTINGS.qorctl, command, str(self.app.pid), "--json", "--watch", "0.1"],
                                     stdout=subprocess.PIPE, text=True)
            try:
                for _ in range(3):
                    self.assertIsInstance(json.loads(watch.stdout.readline()), dict)
                self.assertIsNone(watch.poll())
            finally:
                watch.kill()
                watch.communicate()

    def test_settings_and_raw(self):
        self.assertIn("qorloglevel to 2", self.answer("log", self.app.pid, 2).out)
        self.answer("log", self.app.pid, 1)
        reply = self.answer("raw", self.app.pid, "516|showstack|256").out
        self.assertRegex(reply, r"^\d+(<29>-?\d+){12}Time spent in JVM for processing request<30>\n\d+ usec<31>\n$")
        reply = self.answer("raw", self.app.pid, "516|showstack|256", "--bytes").out
        self.assertEqual(reply.count("\x1d"), 12)
        self.assertIn("Invalid Request nonsense", self.answer("raw", self.app.pid, "4|nonsense").out)
        self.refused("at most 20480", "raw", self.app.pid, "4|" + "x" * 30000)
        self.refused("no reply", "raw", self.app.pid, "SHUTDOWN", code=2)

    def test_rules_hide_threads_until_they_are_reset(self):
        rules = "# idle\nabcd|threadname|demo-compute*\nabcd|currcall|qoragent.demo.*\n"
        self.assertIn("Added Idle Thread Rules", self.answer("rules", self.app.pid, "-", text=rules).out)
        self.assertNotIn("demo-compute", [t["name"] for t in self.threads(self.app)])
        with tempfile.NamedTemporaryFile("w", suffix=".rules") as empty:
            self.answer("rules", self.app.pid, empty.name)
        self.assertIn("demo-compute", [t["name"] for t in self.threads(self.app)])
        odd = qorctl("rules", self.app.pid, "-", text="abc|threadname|x\n")
        self.assertEqual(odd.code, 0, odd)
        self.assertIn("line 1 has no effect", odd.err)
        self.answer("rules", self.app.pid, "-", text="")


class Life(Case):
    """Attaching, shutting down, attaching again, and what stays behind."""

    def state(self, app):
        return next(jvm for jvm in self.answer("list", "--json").json() if jvm["pid"] == app.pid)

    def test_attach_shutdown_attach(self):
        with Application() as app:
            truths = app.truths()
            ports = sorted(map(int, (truths["demo-accept"]["port"], truths["demo-database"]["remote_port"])))
            self.assertEqual(self.state(app)["agent"], False)
            self.assertEqual(self.state(app)["ports"], ports)
            self.assertRegex(self.answer("list").out, rf"(?m)^ *{app.pid} .* {ports[0]},{ports[1]} ")
            self.assertEqual(self.state(app)["main_class"], "qoragent.demo.Demo")
            self.assertRegex(self.state(app)["java_version"], r"^\d+\.")
            self.refused("no agent runs", "shutdown", app.pid)
            for _ in range(3):
                self.assertTrue(self.threads(app))  # attaches by itself
                self.assertEqual(self.state(app)["agent"], True)
                self.assertEqual(self.state(app)["ports"], ports)
                self.assertIn("already", self.answer("attach", app.pid).out)
                self.refused("already", "attach", app.pid, "--options", "loglevel=3")
                self.answer("shutdown", app.pid)
                self.assertEqual(leftovers(app.pid), [])
                self.assertEqual(self.state(app)["agent"], False)
            self.assertEqual(app.end(), 0)

    def test_the_endpoint_goes_with_the_jvm(self):
        with Application() as app:
            self.answer("attach", app.pid)
            endpoint = leftovers(app.pid)
            self.assertEqual(len(endpoint), 1)
            self.assertEqual(os.stat(endpoint[0]).st_mode & 0o777, 0o600)
            self.assertEqual(os.stat(os.path.dirname(endpoint[0])).st_mode & 0o777, 0o700)
            self.assertEqual(app.end(), 0)
            self.assertEqual(leftovers(app.pid), [])
            self.refused("no process", "threads", app.pid)

    def test_a_stale_endpoint_is_no_agent(self):
        """Even if somebody else answers at its port by now."""
        with Application() as app, socket.create_server(("127.0.0.1", 0)) as impostor:
            self.answer("attach", app.pid)
            endpoint = leftovers(app.pid)[0]
            with open(endpoint, encoding="ascii") as file:
                text = file.read()
            self.answer("shutdown", app.pid)
            with open(os.open(endpoint, os.O_WRONLY | os.O_CREAT, 0o600), "w", encoding="ascii") as file:
                file.write(re.sub(r"port=\d+", f"port={impostor.getsockname()[1]}", text))
            self.assertEqual(self.state(app)["agent"], False)
            self.refused("no agent runs", "shutdown", app.pid)
            self.assertTrue(self.threads(app, "--strict"))
            impostor.setblocking(False)
            self.assertRaises(BlockingIOError, impostor.accept)
            with open(endpoint, "a", encoding="ascii") as file:
                file.write("bind=203.0.113.1\n")
            self.refused("another machine", "threads", app.pid)
            os.chmod(endpoint, 0o644)
            self.refused("not the JVM user's own", "threads", app.pid)

    def test_a_relay_on_another_address_is_found(self):
        with Application() as app:
            self.answer("attach", app.pid, "--options", "bind=127.0.0.2")
            self.assertTrue(self.threads(app))
            self.answer("shutdown", app.pid)
            self.assertEqual(leftovers(app.pid), [])

    def test_javaagent_and_jvms_that_leave_signals_alone(self):
        with Application(f"-javaagent:{SETTINGS.jar}=optlevel=3") as app:
            self.assertEqual(self.state(app)["agent"], True)
            states = {t["state"] for t in self.threads(app, "--all")}
            self.assertIn("Object Wait", states)
            self.assertTrue(all(state.isprintable() for state in states))
        with Application("-Xrs") as app:
            self.assertTrue(self.threads(app))


class Refusals(Case):
    """What can't be attached to is told so, and isn't disturbed."""

    def test_jvms_that_refuse(self):
        refusing = [("-XX:+DisableAttachMechanism", []), ("-XX:+DisableAttachMechanism", ["-XX:-UsePerfData"])]
        if SETTINGS.version >= 9:
            refusing.append(("-XX:-EnableDynamicAgentLoading", []))
        for flag, more in refusing:
            with self.subTest(flag=flag, more=more), Application(flag, *more) as app:
                self.refused(flag, "attach", app.pid)
                self.refused(flag, "threads", app.pid)
                self.assertNotIn("Full thread dump", app.output())
                self.assertEqual(leftovers(app.pid), [])
                self.assertEqual(app.end(), 0)

    def test_processes_that_are_no_jvm(self):
        with subprocess.Popen(["sleep", "100"]) as sleep:
            self.refused("no JVM", "attach", sleep.pid)
            self.assertIsNone(sleep.poll())
            sleep.kill()
        self.refused("no process", "threads", sleep.pid)

    def test_a_stopped_jvm(self):
        with Application() as app:
            os.kill(app.pid, signal.SIGSTOP)
            wait_until("it is stopped", lambda: process_state(app.pid) == "T")
            self.refused("stopped", "attach", app.pid)
            os.kill(app.pid, signal.SIGCONT)
            self.answer("attach", app.pid)

    def test_a_jvm_that_takes_nobody_in(self):
        """Its attach socket's queue is full; a process that is no JVM but looks like one."""
        code = ("import mmap, os, signal, socket, sys\n"
                "signal.signal(signal.SIGQUIT, lambda *_: None)\n"
                "library = mmap.mmap(os.open(sys.argv[1], os.O_RDWR), 0)\n"
                "path = f'/tmp/.java_pid{os.getpid()}'\n"
                "door, caller = socket.socket(socket.AF_UNIX), socket.socket(socket.AF_UNIX)\n"
                "door.bind(path)\n"
                "door.listen(0)\n"
                "caller.connect(path)\n"
                "print('ready', flush=True)\n"
                "sys.stdin.read()\n"
                "os.unlink(path)\n")
        with tempfile.TemporaryDirectory() as place:
            with open(f"{place}/libjvm.so", "wb") as library:
                library.write(bytes(4096))
            with subprocess.Popen([sys.executable, "-c", code, library.name], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE) as process:
                self.assertEqual(process.stdout.readline(), b"ready\n")
                self.refused("doesn't answer to attaching", "attach", process.pid, "--timeout", 1, "--jar",
                             SETTINGS.root + SETTINGS.jar)
                process.stdin.close()
                process.wait(LIMIT)

    def test_jars_and_options(self):
        with Application() as app, tempfile.NamedTemporaryFile(suffix=".jar", dir=SETTINGS.root + "/tmp") as broken:
            os.chmod(broken.name, 0o644)
            inside = broken.name[len(SETTINGS.root):]
            self.refused("has no file /nowhere.jar", "attach", app.pid, "--jar", "/nowhere.jar")
            self.refused(f"can't use {inside} as an agent", "attach", app.pid, "--jar", inside)
            self.refused("didn't start", "attach", app.pid, "--options", "nonsense=1")
            self.refused("is not supported", "attach", app.pid, "--options", "optlevel=2")
            self.refused("bytes", "attach", app.pid, "--options", "jvmid=" + "x" * 1100, code=2)
            self.answer("attach", app.pid, "--options", "relay=off,loglevel=0")

    def test_usage(self):
        for words in ([], ["nonsense"], ["threads"], ["threads", "x"], ["threads", "0"], ["log", "1"],
                      ["log", "1", "x"], ["threads", "1", "--watch", "0"], ["raw", "1"]):
            with self.subTest(words=words):
                answer = qorctl(*words)
                self.assertEqual(answer.code, 2, answer)
                self.assertEqual(len(answer.err.splitlines()), 1, answer)
        self.assertEqual(qorctl("--help").code, 0)
        self.refused("can't read", "rules", os.getpid(), "/nowhere", code=2)
        self.refused("is no thread", "threads", os.getpid(), "--thread", "x", code=2)


@unittest.skipUnless(os.geteuid() == 0, "only root can be somebody else")
class Users(Case):
    """Root looks into anybody's JVM; anybody else into their own alone."""

    NOBODY = 65534

    def test_root_attaches_to_a_jvm_of_another_user(self):
        with Application(user=self.NOBODY) as app:
            self.assertTrue(self.threads(app))
            endpoint = leftovers(app.pid)
            self.assertEqual([os.stat(file).st_uid for file in endpoint], [self.NOBODY])
            self.assertTrue(self.answer("threads", app.pid, "--json", user=self.NOBODY).json()["threads"])
            self.answer("shutdown", app.pid)
            self.assertEqual(leftovers(app.pid), [])

    STRANGER, USER = 65533, 64321

    def setUp(self):
        self.addCleanup(shutil.rmtree, f"{SETTINGS.root}/tmp/qoragent-{self.USER}", True)

    @staticmethod
    def empty(path):
        with open(path, "x", encoding="ascii"):
            pass

    def lay(self, name, make):
        """Puts something of a stranger's into /tmp."""
        path = f"{SETTINGS.root}/tmp/{name}"
        self.addCleanup(lambda: subprocess.run(["rm", "-rf", path, *glob.glob(path + ".*")], check=True))
        make(path)
        os.chown(path, self.STRANGER, self.STRANGER, follow_symlinks=False)
        return path

    def test_strangers_keep_nobody_from_attaching(self):
        """With what they put where the JVM and the agent look for their own."""
        def full(path):
            os.makedirs(path + "/full")

        for make in (self.empty, os.mkdir, full):
            with self.subTest(make=make.__name__), Application(user=self.USER) as app:
                trigger, door = self.lay(f".attach_pid{app.pid}", make), self.lay(f".java_pid{app.pid}", make)
                self.refused("belongs to another user", "threads", app.pid, user=self.USER)
                trap = self.lay(f"qoragent-{self.USER}", make)
                self.assertTrue(self.threads(app))
                self.assertFalse(os.path.lexists(trigger))
                self.assertEqual(os.stat(door).st_uid, self.USER)
                self.assertEqual([jvm["agent"] for jvm in self.answer("list", "--json").json() if jvm["pid"] == app.pid],
                                 [True])
                self.assertTrue(self.answer("threads", app.pid, "--json", user=self.USER).json()["threads"])
                self.answer("shutdown", app.pid)
                self.assertEqual(os.stat(trap).st_uid, self.STRANGER)
                self.assertEqual(leftovers(app.pid) + glob.glob(f"{trap}-*"), [])
                self.assertEqual(app.end(), 0)
            self.doCleanups()

    def test_a_directory_of_ones_own_needs_no_root(self):
        with tempfile.TemporaryDirectory(dir=SETTINGS.root + "/tmp") as own:
            os.chown(own, self.USER, self.USER)
            with Application(user=self.USER, cwd=own[len(SETTINGS.root):]) as app:
                self.lay(f".attach_pid{app.pid}", self.empty)
                self.answer("attach", app.pid, user=self.USER)
                self.assertEqual(os.listdir(own), [])

    def test_nobody_is_sent_away(self):
        with Application() as app:
            self.refused("belongs to", "threads", app.pid, user=self.NOBODY)
            self.assertTrue(app.output().endswith("ready\n"), app.output())


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--jdk", required=True)
    parser.add_argument("--root", default="")
    parser.add_argument("--enter", default="")
    parser.add_argument("groups", nargs="*")
    parser.parse_args(namespace=SETTINGS)
    # Where every user can read it, and where the JVM's root directory has it.
    with tempfile.TemporaryDirectory(prefix="qor-e2e-", dir=SETTINGS.root + "/tmp") as place:
        os.chmod(place, 0o755)
        inside = place[len(SETTINGS.root):]
        shutil.copy(f"{SETTINGS.build}/qoragent.jar", place)
        shutil.copy(f"{SETTINGS.build}/qorctl", place)
        shutil.copytree(f"{SETTINGS.build}/demo-classes", f"{place}/classes")
        SETTINGS.jar, SETTINGS.classes, SETTINGS.qorctl = inside + "/qoragent.jar", inside + "/classes", place + "/qorctl"
        version = subprocess.run(in_root([f"{SETTINGS.jdk}/bin/java", "-version"]), capture_output=True, text=True,
                                 check=True).stderr
        SETTINGS.version = int(re.search(r'version "(?:1\.)?(\d+)', version).group(1))
        done = unittest.main(argv=[sys.argv[0], *SETTINGS.groups], verbosity=2, exit=False)
    sys.exit(not done.result.wasSuccessful())


if __name__ == "__main__":
    main()
