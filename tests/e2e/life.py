"""Attaching, shutting down, attaching again, what stays behind, and who may."""
import glob
import json
import os
import re
import signal
import socket
import subprocess
import unittest

from harness import LIMIT, NOBODY, SETTINGS, Application, Case, folder, in_root, qorctl


class Life(Case):
    def test_attach_shutdown_attach(self):
        with Application() as self.app:
            truths = self.app.truths()
            ports = sorted(map(int, (truths["demo-accept"]["port"], truths["demo-database"]["remote_port"])))
            facts = {"agent": False, "ports": ports, "main_class": "qoragent.demo.Demo"}
            self.assertLessEqual(facts.items(), self.listed().items())
            self.assertRegex(self.listed()["java_version"], r"^\d+\.")
            self.refused("no agent runs", "shutdown")
            for _ in range(2):
                self.assertTrue(self.threads())  # attaches by itself
                self.assertTrue(self.listed()["agent"])
                self.assertIn("already", self.answer("attach").out)
                self.refused("already", "attach", "--options", "loglevel=3")
                self.answer("shutdown")
                self.assertEqual((self.app.leftovers(), self.listed()["agent"]), ([], False))
            self.assertEqual(self.app.end(), 0)

    def test_the_endpoint_goes_with_the_jvm(self):
        for end in (Application.end, lambda app: app.process.terminate(), lambda app: app.process.kill()):
            with Application() as self.app:
                self.answer("attach", "--options", "bind=127.0.0.2")  # where it is found as well
                self.assertTrue(self.threads() and self.app.leftovers())
                end(self.app)
                if self.app.process.wait(LIMIT) == -signal.SIGKILL:
                    qorctl("list")  # tidies up, in its own /tmp
                    self.assertTrue(SETTINGS.root or not self.app.leftovers())
                else:
                    self.assertEqual(self.app.leftovers(), [])
                self.refused("no process", "threads")

    def test_a_stale_endpoint_is_no_agent(self):
        """Even if somebody else answers at its port by now."""
        with Application() as self.app, socket.create_server(("127.0.0.1", 0)) as impostor:
            self.answer("attach")
            [endpoint] = self.app.leftovers()
            with open(endpoint, encoding="ascii") as file:
                text = file.read()

            def write(text):
                fd = os.open(endpoint, os.O_WRONLY | os.O_CREAT, 0o600)
                with open(fd, "w", encoding="ascii") as file:
                    file.write(text)
            self.answer("shutdown")
            write(re.sub(r"port=\d+", f"port={impostor.getsockname()[1]}", text))
            self.assertFalse(self.listed()["agent"])
            self.refused("no agent runs", "shutdown")
            self.assertTrue(self.threads("--strict"))
            impostor.setblocking(False)
            self.assertRaises(BlockingIOError, impostor.accept)
            write(text + "bind=203.0.113.1\n")
            self.refused("another machine", "threads")

    def test_javaagent_and_jvms_that_leave_signals_alone(self):
        place, inside = folder(self)
        with Application(f"-Djava.io.tmpdir={inside}",
                         f"-javaagent:{SETTINGS.jar}=optlevel=3,loglevel=1") as self.app:
            self.assertTrue(self.listed()["agent"])
            self.assertEqual(self.threads("--all")["demo-wait"]["state"], "Object Wait")
            left = [name for name in os.listdir(place) if not name.startswith("qoragent-demo")]  # its own
            self.assertEqual(left, [])  # loading the library leaves nothing
            self.assertNotIn("qoragent: ", self.app.output())
        with Application("-Xrs") as self.app:
            self.assertTrue(self.threads())

    def test_the_jar_alone_asks(self):
        """And says what qorctl says."""
        def jar(*words):
            command = in_root([f"{SETTINGS.jdk}/bin/java", "-jar", SETTINGS.jar, *map(str, words)])
            return subprocess.run(command, capture_output=True, text=True, timeout=LIMIT, check=False)
        with Application() as self.app:
            own = json.loads(jar(self.app.pid, "stack", "demo-lock-wanter", "--json").stdout)
            # Figures move, the stack doesn't.
            self.assertEqual(own["threads"][0]["stack"], self.stack("demo-lock-wanter")["stack"])
            self.assertIn("demo-lock-holder", jar(self.app.pid, "threads").stdout)
            version = self.answer("raw", "521|NoProcessing|version").out
            self.assertEqual(version, qorctl("--version").out.replace("qorctl ", "version="))
        for code, *words in (1, self.app.pid, "locks"), (2, "locks"):
            self.assertEqual(jar(*words).returncode, code)

    def test_a_refused_start_costs_the_application_a_line(self):
        for why, options, *flags in (
                ("the relay cannot start: port 0 of 203.0.113.1", "bind=203.0.113.1"),
                ("cannot load /none/lib.so", "", "-Dqoragent.library=/none/lib.so")):
            agent = f"-javaagent:{SETTINGS.jar}={options}"
            with self.subTest(options), Application(agent, *flags) as self.app:
                self.assertEqual(self.app.end(), 0)
                [said] = re.findall("(?m)^qoragent: .*", self.app.output())
                self.assertIn(why, said)
                self.assertNotIn("Exception", self.app.output())


class Refusals(Case):
    """What can't be attached to is told so, and isn't disturbed."""

    def test_jvms_that_refuse(self):
        refusing = [["-XX:+DisableAttachMechanism"], ["-XX:+DisableAttachMechanism", "-XX:-UsePerfData"]]
        if SETTINGS.version >= 9:
            refusing.append(["-XX:-EnableDynamicAgentLoading"])
        for flags in refusing:
            with self.subTest(flags=flags), Application(*flags) as self.app:
                self.refused(flags[0], "threads")
                self.assertNotIn("Full thread dump", self.app.output())
                self.assertEqual((self.app.leftovers(), self.app.end()), ([], 0))

    def test_processes_that_are_no_jvm(self):
        with subprocess.Popen(["sleep", "100"]) as self.app:
            self.refused("isn't a JVM", "attach")
            self.refused("libjvm.so", "hung")
            self.assertIsNone(self.app.poll())
            self.app.kill()
        self.refused("no process", "threads")
        self.refused("no process", "hung")

    def test_a_stopped_jvm(self):
        with Application() as self.app:
            for command in ("attach", "threads"):  # at once, without the agent and with it
                os.kill(self.app.pid, signal.SIGSTOP)
                self.assertEqual(os.waitpid(self.app.pid, os.WUNTRACED)[0], self.app.pid)
                self.refused("is stopped", command, "--timeout", 600)
                os.kill(self.app.pid, signal.SIGCONT)
                self.answer("attach")

    def test_jars_and_options(self):
        with Application() as self.app:
            for why, option, value in (("has no file /nowhere.jar", "--jar", "/nowhere.jar"),
                                       ("can't use /etc/passwd", "--jar", "/etc/passwd"),
                                       ('unknown option "nonsense"', "--options", "nonsense=1"),
                                       ("is not supported", "--options", "optlevel=2")):
                self.refused(why, "attach", option, value)
            self.refused("bytes", "attach", "--options", "jvmid=" + "x" * 1100, code=2)
            self.answer("attach", "--options", "relay=off,loglevel=0")

    def test_usage(self):
        for words, said in (("", "a command is missing"), ("--foo", "no option '--foo'"),
                            ("threads 1 --virtual --match a,0=1", "can't hold ','"),
                            ("thraeds 1", "'threads'?"), ("hist 1", "'histogram'?"),
                            ("log 1", "level is required; see qorctl log --help"),
                            ("rules 1 /nowhere", "can't read")):
            answer = qorctl(*words.split())
            self.assertEqual((answer.code, len(answer.err.splitlines())), (2, 1), answer)
            self.assertIn(said, answer.err)
        reader, writer = os.pipe()
        os.close(reader)
        with open("/dev/full", "w", encoding="ascii") as full, open(writer, "w", encoding="ascii") as unread:
            for place, why in ((full, b"No space left"), (unread, b"Broken pipe")):
                done = subprocess.run([SETTINGS.qorctl, "list"], stdout=place, stderr=subprocess.PIPE,
                                      check=False)
                self.assertEqual((done.returncode, why in done.stderr), (1, True), done)


@unittest.skipUnless(os.geteuid() == 0, "only root can be somebody else")
class Users(Case):
    """Root looks into anybody's JVM; anybody else into their own alone."""
    STRANGER, USER = 65533, 64321

    def test_root_attaches_to_a_jvm_of_another_user(self):
        with Application(user=NOBODY) as self.app:
            self.assertTrue(self.threads())
            self.assertEqual([os.stat(file).st_uid for file in self.app.leftovers()], [NOBODY])
            self.assertTrue(self.json("threads", user=NOBODY)["threads"])
            self.answer("shutdown")
            self.assertEqual(self.app.leftovers(), [])
        if not SETTINGS.root:  # without what root may it changes into no other root directory
            with Application(user=0) as self.app:
                self.assertTrue(self.json("threads", user=0)["threads"])

    def lay(self, name, make):
        """Puts something of a stranger's into /tmp."""
        path = f"{SETTINGS.root}/tmp/{name}"
        make(path)
        self.addCleanup(lambda: subprocess.run(["rm", "-rf", path, *glob.glob(path + "[.-]*")], check=True))
        os.chown(path, self.STRANGER, self.STRANGER)
        return path

    def test_strangers_keep_nobody_from_attaching(self):
        """With what they put where the JVM and the agent look for their own."""
        for make in (os.mknod, lambda path: os.makedirs(path + "/full")):
            with Application(user=self.USER) as self.app:
                trigger, door = (self.lay(f".{name}_pid{self.app.pid}", make) for name in ("attach", "java"))
                self.refused("belongs to another user", "threads", user=self.USER)
                trap = self.lay(f"qoragent-{self.USER}", make)
                self.assertTrue(self.threads())
                self.assertFalse(os.path.lexists(trigger))
                self.assertEqual(os.stat(door).st_uid, self.USER)
                self.assertTrue(self.json("threads", user=self.USER)["threads"])
                self.answer("shutdown")
                self.assertEqual(os.stat(trap).st_uid, self.STRANGER)
                self.assertEqual(self.app.leftovers() + glob.glob(f"{trap}-*"), [])
                self.assertEqual(self.app.end(), 0)
            self.doCleanups()

    def test_nobody_is_sent_away(self):
        with Application() as self.app:
            self.refused("belongs to", "threads", user=NOBODY)
            self.assertTrue(self.app.output().endswith("ready\n"), self.app.output())
