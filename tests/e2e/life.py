"""Attaching, shutting down, attaching again, what stays behind, and who may."""
import glob
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import unittest

from harness import LIMIT, NOBODY, SETTINGS, Application, Case, folder, in_root, leftovers, qorctl


class Life(Case):
    def state(self, app):
        return next(jvm for jvm in self.json("list") if jvm["pid"] == app.pid)

    def test_attach_shutdown_attach(self):
        with Application() as app:
            truths = app.truths()
            ports = sorted(map(int, (truths["demo-accept"]["port"], truths["demo-database"]["remote_port"])))
            facts = {"agent": False, "ports": ports, "main_class": "qoragent.demo.Demo"}
            self.assertLessEqual(facts.items(), self.state(app).items())
            self.assertRegex(self.state(app)["java_version"], r"^\d+\.")
            self.assertRegex(self.answer("list").out, rf"(?m)^ *{app.pid} .* {ports[0]},{ports[1]} ")
            self.refused("no agent runs", "shutdown", app.pid)
            for _ in range(3):
                self.assertTrue(self.threads(app))  # attaches by itself
                self.assertLessEqual({**facts, "agent": True}.items(), self.state(app).items())
                self.assertIn("already", self.answer("attach", app.pid).out)
                self.refused("already", "attach", app.pid, "--options", "loglevel=3")
                self.answer("shutdown", app.pid)
                self.assertEqual((leftovers(app.pid), self.state(app)["agent"]), ([], False))
            self.assertEqual(app.end(), 0)

    def test_the_endpoint_is_the_users_own_and_goes_with_the_jvm(self):
        for end in (Application.end, lambda app: app.process.terminate(), lambda app: app.process.kill()):
            with Application() as app:
                self.answer("attach", app.pid, "--options", "bind=127.0.0.2")  # where it is found as well
                self.assertTrue(self.threads(app))
                [endpoint] = leftovers(app.pid)
                self.assertEqual([os.stat(path).st_mode & 0o777
                                  for path in (endpoint, os.path.dirname(endpoint))],
                                 [0o600, 0o700])
                end(app)
                if app.process.wait(LIMIT) == -signal.SIGKILL:
                    self.answer("list")  # tidies up
                self.assertEqual(leftovers(app.pid), [])
                self.refused("no process", "threads", app.pid)

    def test_a_stale_endpoint_is_no_agent(self):
        """Even if somebody else answers at its port by now."""
        with Application() as app, socket.create_server(("127.0.0.1", 0)) as impostor:
            self.answer("attach", app.pid)
            [endpoint] = leftovers(app.pid)
            with open(endpoint, encoding="ascii") as file:
                text = file.read()

            def write(text):
                fd = os.open(endpoint, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
                with open(fd, "w", encoding="ascii") as file:
                    file.write(text)
            write(re.sub(r"pid=\d+", "pid=1", text))
            self.assertFalse(self.state(app)["agent"])  # it is another process's
            write(text)
            self.answer("shutdown", app.pid)
            write(re.sub(r"port=\d+", f"port={impostor.getsockname()[1]}", text))
            self.assertFalse(self.state(app)["agent"])
            self.refused("no agent runs", "shutdown", app.pid)
            self.assertTrue(self.threads(app, "--strict"))
            impostor.setblocking(False)
            self.assertRaises(BlockingIOError, impostor.accept)
            with open(endpoint, "a", encoding="ascii") as file:
                file.write("bind=203.0.113.1\n")
            self.refused("another machine", "threads", app.pid)
            os.chmod(endpoint, 0o644)
            self.refused("not the JVM user's own", "threads", app.pid)

    def test_javaagent_and_jvms_that_leave_signals_alone(self):
        place, inside = folder(self)
        with Application(f"-Djava.io.tmpdir={inside}",
                         f"-javaagent:{SETTINGS.jar}=optlevel=3,loglevel=1") as app:
            self.assertEqual(self.state(app)["agent"], True)
            states = {t["state"] for t in self.threads(app, "--all").values()}
            self.assertTrue("Object Wait" in states and all(state.isprintable() for state in states), states)
            left = [name for name in os.listdir(place) if not name.startswith("qoragent-demo")]  # its own
            self.assertEqual(left, [])  # loading the library leaves nothing
            self.assertNotIn("qoragent: ", app.output())
        with Application("-Xrs") as app:
            self.assertTrue(self.threads(app))

    def test_the_jar_alone_asks(self):
        """And says what qorctl says."""
        def jar(*words):
            command = in_root([f"{SETTINGS.jdk}/bin/java", "-jar", SETTINGS.jar, *map(str, words)])
            return subprocess.run(command, capture_output=True, text=True, timeout=LIMIT, check=False)
        with Application() as app:
            for view, *words in (("threads",), ("stack", "demo-lock-wanter"), ("locks",), ("heap",)):
                own = json.loads(jar(app.pid, view, *words, "--json").stdout)
                other = self.json(view, app.pid, *words)
                self.assertEqual(own.keys(), other.keys())
                if view == "stack":  # figures move, it doesn't
                    self.assertEqual(own["threads"][0]["stack"], other["threads"][0]["stack"])
            self.assertIn("demo-lock-holder", jar(app.pid, "threads").stdout)
            version = self.answer("raw", app.pid, "521|NoProcessing|version").out
            self.assertEqual(version, qorctl("--version").out.replace("qorctl ", "version="))
        for code, *words in ((1, 999999999, "locks"), (2, "locks"), (2, app.pid, "nonsense")):
            self.assertEqual(jar(*words).returncode, code)

    def test_a_refused_start_costs_the_application_a_line(self):
        for why, options, *flags in (
                ('unknown option "colour"', "colour=1"), ("not supported at optlevel 2",
                                                          "optlevel=2,loglevel=0"),
                ("the relay cannot start: port 0 of 203.0.113.1", "bind=203.0.113.1"),
                ("cannot load /none/lib.so", "", "-Dqoragent.library=/none/lib.so")):
            with self.subTest(options), Application(f"-javaagent:{SETTINGS.jar}={options}", *flags) as app:
                self.assertEqual(app.end(), 0)
                [said] = re.findall("(?m)^qoragent: .*", app.output())
                self.assertIn(why, said)
                self.assertNotIn("Exception", app.output())


# A process that looks like a JVM whose attach socket's queue is full.
FULL = """
import mmap, os, signal, socket, sys
signal.signal(signal.SIGQUIT, lambda *_: None)
library = mmap.mmap(os.open(sys.argv[1], os.O_RDWR), 0)
path = f'/tmp/.java_pid{os.getpid()}'
door, caller = socket.socket(socket.AF_UNIX), socket.socket(socket.AF_UNIX)
door.bind(path)
door.listen(0)
caller.connect(path)
print('ready', flush=True)
sys.stdin.read()
os.unlink(path)
"""


class Refusals(Case):
    """What can't be attached to is told so, and isn't disturbed."""

    def test_jvms_that_refuse(self):
        refusing = [["-XX:+DisableAttachMechanism"], ["-XX:+DisableAttachMechanism", "-XX:-UsePerfData"]]
        if SETTINGS.version >= 9:
            refusing.append(["-XX:-EnableDynamicAgentLoading"])
        for flags in refusing:
            with self.subTest(flags=flags), Application(*flags) as app:
                self.refused(flags[0], "attach", app.pid)
                self.refused(flags[0], "threads", app.pid)
                self.assertNotIn("Full thread dump", app.output())
                self.assertEqual((leftovers(app.pid), app.end()), ([], 0))

    def test_processes_that_are_no_jvm(self):
        with subprocess.Popen(["sleep", "100"]) as sleep:
            self.refused("isn't a JVM", "attach", sleep.pid)
            self.assertIsNone(sleep.poll())
            sleep.kill()
        self.refused("no process", "threads", sleep.pid)

    def test_a_stopped_jvm(self):
        with Application() as app:
            for command in ("attach", "threads"):  # at once, without the agent and with it
                os.kill(app.pid, signal.SIGSTOP)
                self.assertEqual(os.waitpid(app.pid, os.WUNTRACED)[0], app.pid)
                self.refused("is stopped", command, app.pid, "--timeout", 600)
                os.kill(app.pid, signal.SIGCONT)
                self.answer("attach", app.pid)

    def test_a_jvm_that_takes_nobody_in(self):
        library = folder(self)[0] + "/libjvm.so"
        with open(library, "wb") as file:
            file.write(bytes(4096))
        with subprocess.Popen([sys.executable, "-c", FULL, library], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE) as process:
            self.assertEqual(process.stdout.readline(), b"ready\n")
            self.refused("doesn't answer to attaching", "attach", process.pid, "--timeout", 1, "--jar",
                         SETTINGS.root + SETTINGS.jar)
            process.stdin.close()
            process.wait(LIMIT)

    def test_jars_and_options(self):
        place, inside = folder(self)
        with open(f"{place}/broken.jar", "wb"), Application() as app:
            for why, option, value in (("has no file /nowhere.jar", "--jar", "/nowhere.jar"),
                                       (f"can't use {inside}/broken.jar", "--jar", f"{inside}/broken.jar"),
                                       ('unknown option "nonsense"', "--options", "nonsense=1"),
                                       ("is not supported", "--options", "optlevel=2")):
                self.refused(why, "attach", app.pid, option, value)
            self.refused("bytes", "attach", app.pid, "--options", "jvmid=" + "x" * 1100, code=2)
            self.answer("attach", app.pid, "--options", "relay=off,loglevel=0")

    def test_usage(self):
        for words, said in (("", "a command is missing; "), ("--foo", "no option '--foo' "),
                            ("threads 1 --virtual --match a,0=1", "can't hold ','"),
                            ("nonsense", "no command 'nonsense'; "),
                            ("thraeds 1", "'threads'?"), ("hist 1", "'histogram'?"), ("threads 0", ""),
                            ("log 1", "level is required; see qorctl log --help"),
                            ("threads 1 --watch 0", ""), ("raw 1", "raw --help")):
            answer = qorctl(*words.split())
            self.assertEqual((answer.code, len(answer.err.splitlines())), (2, 1), answer)
            self.assertIn(said, answer.err)
        gone = subprocess.Popen(["true"], stdin=subprocess.PIPE)
        gone.wait()
        with open("/dev/full", "w", encoding="ascii") as full, gone.stdin as pipe:
            for place, why in ((full, "No space left"), (pipe, "Broken pipe")):
                done = subprocess.run([SETTINGS.qorctl, "list"], stdout=place, stderr=subprocess.PIPE,
                                      text=True, timeout=LIMIT, check=False)
                self.assertEqual((done.returncode, why in done.stderr), (1, True), done)
        self.refused("can't read", "rules", os.getpid(), "/nowhere", code=2)
        self.refused("isn't a thread", "threads", os.getpid(), "--thread", "x", code=2)


@unittest.skipUnless(os.geteuid() == 0, "only root can be somebody else")
class Users(Case):
    """Root looks into anybody's JVM; anybody else into their own alone."""
    STRANGER, USER = 65533, 64321

    def setUp(self):
        """With nothing left of a run that failed, nor for the next one."""
        self.tidy_up()
        self.addCleanup(self.tidy_up)

    def tidy_up(self):
        for place in glob.glob(f"{SETTINGS.root}/tmp/qoragent-{self.USER}*"):
            shutil.rmtree(place, True)

    def test_root_attaches_to_a_jvm_of_another_user(self):
        with Application(user=NOBODY) as app:
            self.assertTrue(self.threads(app))
            self.assertEqual([os.stat(file).st_uid for file in leftovers(app.pid)], [NOBODY])
            self.assertTrue(self.json("threads", app.pid, user=NOBODY)["threads"])
            self.answer("shutdown", app.pid)
            self.assertEqual(leftovers(app.pid), [])
        with Application(user=0) as app:
            self.assertTrue(self.json("threads", app.pid, user=0)["threads"])

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
        for make in (self.empty, os.mkdir, lambda path: os.makedirs(path + "/full")):
            with self.subTest(make=make.__name__), Application(user=self.USER) as app:
                trigger, door = self.lay(f".attach_pid{app.pid}", make), self.lay(f".java_pid{app.pid}", make)
                self.refused("belongs to another user", "threads", app.pid, user=self.USER)
                trap = self.lay(f"qoragent-{self.USER}", make)
                self.assertTrue(self.threads(app))
                self.assertFalse(os.path.lexists(trigger))
                self.assertEqual(os.stat(door).st_uid, self.USER)
                self.assertIn((app.pid, True), [(jvm["pid"], jvm["agent"]) for jvm in self.json("list")])
                self.assertTrue(self.json("threads", app.pid, user=self.USER)["threads"])
                self.answer("shutdown", app.pid)
                self.assertEqual(os.stat(trap).st_uid, self.STRANGER)
                self.assertEqual(leftovers(app.pid) + glob.glob(f"{trap}-*"), [])
                self.assertEqual(app.end(), 0)
            self.doCleanups()

    def test_a_directory_of_ones_own_needs_no_root(self):
        own, inside = folder(self)
        os.chown(own, self.USER, self.USER)
        with Application(user=self.USER, cwd=inside) as app:
            self.lay(f".attach_pid{app.pid}", self.empty)
            self.answer("attach", app.pid, user=self.USER)
            self.assertEqual(os.listdir(own), [])

    def test_nobody_is_sent_away(self):
        with Application() as app:
            self.refused("belongs to", "threads", app.pid, user=NOBODY)
            self.assertTrue(app.output().endswith("ready\n"), app.output())
