"""JVMs in file systems and namespaces of their own, asked from outside with one command."""
import contextlib
import os
import subprocess
import unittest

from harness import LIMIT, RESTS, SETTINGS, Application, Case, taking_on, wait_until

USER, OUTER, GROUP = 1000, 300000, 4242
NARROW = """for m in $(awk '!/ - (proc|sysfs) / && $5 != "/tmp" {print $5}' /proc/self/mountinfo); do
            mount -o remount,bind,ro $m || :; done; """
# Nobody answers for it.
HANG = ("exec 9<>/dev/fuse; mount -i -t fuse -o fd=9,rootmode=40000,user_id=0,group_id=0,allow_other "
        "none /mnt/home; ")
NOEXEC = "mount -o remount,bind,noexec /tmp; "
DEEP = "/mnt" + "/deep" * 210  # longer than the path of a jar may be
TWICE = ["unshare", "--pid", "--fork", "--kill-child"] * 2


def read(path):
    with contextlib.suppress(FileNotFoundError):
        with open(path, encoding="utf-8") as file:
            return file.read()
    return ""


class Contained(Application):
    """The demo with mounts of its own and without the agent's jar. `mounts` are commands that root runs there
    first, `cwd` is where the JVM begins. `bare` makes it root, without what root may beyond others."""

    def __init__(self, mounts, cwd, wrap, bare=False):
        identity = " ".join(taking_on(0 if bare else USER))
        script = f"""set -e; mount -t tmpfs -o mode=1777 none /mnt; cd /mnt
            mkdir -p classes closed home open users {DEEP}
            chown 0:{GROUP} /mnt/closed; chmod 775 /mnt/closed; chmod 777 /mnt/open
            chmod 1777 /mnt/home {DEEP}; chown {USER} /mnt/users
            mount --bind {SETTINGS.classes} /mnt/classes; mount -t tmpfs -o mode=1777 none /tmp
            mount -t proc proc /proc 2>&1 || : # of the process ids in there, when they are its own
            {mounts} cd {cwd}; exec {identity} "$@" """
        propagation = "unchanged" if SETTINGS.root else "private"  # which tools/in_root has seen to
        super(Application, self).__init__(
            RESTS, "-Duser.home=/mnt/home", "-cp", "/mnt/classes", "qoragent.demo.Demo", 170,
            before=[*wrap, "unshare", "--mount", "--propagation", propagation, "sh", "-c", script, "sh"])
        while inner := read(f"/proc/{self.pid}/task/{self.pid}/children").split():
            self.pid = int(inner[0])

    def held(self):
        """What the JVM has mapped and open."""
        files = subprocess.run(["ls", "-l", f"/proc/{self.pid}/fd"], stdout=subprocess.PIPE, check=False)
        return read(f"/proc/{self.pid}/maps") + files.stdout.decode()


@unittest.skipUnless(os.geteuid() == 0, "only root makes namespaces")
class Containers(Case):
    """qorctl needs nothing in there: neither the jar nor mounts, groups or a way to the network."""

    @classmethod
    def setUpClass(cls):
        cls.addClassCleanup(os.setgroups, os.getgroups())
        os.setgroups([GROUP])  # which open doors that the JVM's user finds closed
        cls.holder = subprocess.Popen(["unshare", "--user", "--net", "sleep", "infinity"])
        cls.addClassCleanup(lambda: (cls.holder.kill(), cls.holder.wait(LIMIT)))
        wait_until("its namespaces", lambda: os.readlink(f"/proc/{cls.holder.pid}/ns/net") !=
                   os.readlink("/proc/self/ns/net"))

    def wrap(self, *kinds):
        """The command that enters the namespaces of the holder."""
        return ["nsenter", "-t", str(self.holder.pid), *kinds]

    def ask(self, mounts, cwd, wrap, place, bare=False):
        """`place` is where the jar was: None when there is none for it."""
        with Contained(mounts, cwd, wrap, bare) as self.app:
            before, jar = read(f"/proc/{self.app.pid}/mountinfo"), ("--jar", SETTINGS.root + SETTINGS.jar)
            if place is None:
                said = self.refused("has no directory for the agent: ", "threads", *jar)
                for reason in ("/tmp (noexec)", "/ (read-only)", "/mnt/home (read-only)",
                               "--tmpfs /qoragent:rw,exec,mode=1777"):
                    self.assertIn(reason, said)
            else:
                self.assertIn("demo-lock-holder", self.threads(*jar))
                self.assertTrue(self.listed()["agent"])
                for path in (r"qoragent-\w+\.jar", r"[^/]*/libqoragent\.so"):
                    self.assertRegex(self.app.held(),
                                     rf"(?m) {SETTINGS.root}{place}/{path} \(deleted\)$")
                self.answer("shutdown")
            self.assertEqual(before, read(f"/proc/{self.app.pid}/mountinfo"))
            root = f"/proc/{self.app.pid}/root"
            self.assertEqual(subprocess.check_output(["find", f"{root}/tmp", f"{root}/mnt", "-name",
                                                      "qoragent*.jar", "-o", "-name", "libqoragent*"]), b"")

    def test_file_systems(self):
        if SETTINGS.root:
            self.skipTest("a changed root directory can't be mounted read-only")
        for what, mounts, cwd, place, *bare in (
                ("read-only root, /tmp to execute", NARROW, "/", "/tmp"),
                ("noexec /tmp, a directory of another group", NOEXEC, "/mnt/closed", "/mnt/home"),
                ("one where others may replace the file", NOEXEC, "/mnt/open", "/mnt/home"),
                ("one with too long a path", NOEXEC, DEEP, "/mnt/home"),
                ("another user's, for a root without privileges", NOEXEC, "/mnt/users", "/mnt/home", True),
                ("a mount alone", NOEXEC + "mkdir '/mnt/a b'; " + NARROW +
                 "mount -t tmpfs -o mode=1777 none '/mnt/a b'; ", "/", "/mnt/a b"),
                ("both refused", NARROW + NOEXEC, "/mnt/home", None)):
            with self.subTest(what):
                self.ask(mounts, cwd, (), place, *bare)

    @unittest.skipUnless(os.path.exists("/dev/fuse") and not SETTINGS.root, "there is nothing that hangs")
    def test_a_file_system_that_hangs(self):
        with Contained(NARROW + NOEXEC + HANG, "/", ()) as self.app:
            self.refused("the file systems of process ", "threads", "--jar", SETTINGS.jar)

    def test_namespaces(self):
        for name in ("uid_map", "gid_map"):
            with open(f"/proc/{self.holder.pid}/{name}", "w", encoding="ascii") as file:
                file.write(f"0 {OUTER} 65536")
        subprocess.run(self.wrap("-n", "ip", "link", "set", "lo", "up"), check=True)
        users = ("-U", "-S0", "-G0")
        for what, wrap in (("ids", self.wrap(*users)), ("process ids", TWICE), ("network", self.wrap("-n")),
                           ("all", self.wrap("-n", *users) + TWICE)):
            with self.subTest(what):
                self.ask(NOEXEC, "/", wrap, "/mnt/home")
