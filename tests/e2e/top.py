"""`qorctl top`: its cells beside what the other commands say, and the terminal as it was afterwards."""
import contextlib
import os
import re
import signal
import termios

import pexpect
import pyte

from harness import COMPUTES, LIMIT, SETTINGS, OfTheDemo, environment, wait_until


class Terminal(contextlib.AbstractContextManager):
    """qorctl top on a terminal of so many columns and rows."""

    def __init__(self, pid, columns, rows, kind="linux", options=""):  # pyte knows all codes of that kind
        self.screen = pyte.Screen(columns, rows)
        self.stream = pyte.ByteStream(self.screen)
        self.child = pexpect.spawn("sh", timeout=LIMIT, dimensions=(rows, columns), echo=False,
                                   env={**environment(), "TERM": kind, "LC_ALL": "C.UTF-8"})
        self.modes = termios.tcgetattr(self.child.child_fd)
        self.child.send(f"exec {SETTINGS.qorctl} top {pid} --every 0.5 {options}\n")

    def __exit__(self, *_):
        self.child.close(force=True)

    def shows(self, pattern):
        """Waits until the screen shows it."""
        def there():
            with contextlib.suppress(pexpect.TIMEOUT):  # then a screen is whole
                while True:
                    self.stream.feed(self.child.read_nonblocking(65536, 0.05))
            return re.search(pattern, self.text())
        return wait_until(pattern, there)

    def text(self):
        return "\n".join(self.screen.display)

    def type(self, keys, pattern):
        self.child.send(keys)
        return self.shows(pattern)


class Top(OfTheDemo):
    OPTIONS = OfTheDemo.OPTIONS + ",dbquery=1"
    FLAGS = (COMPUTES,)

    def test_its_cells_are_what_the_commands_say(self):
        for columns, rows in ((80, 24), (200, 50)):
            with Terminal(self.app.pid, columns, rows) as top:
                top.shows(r"\d\.\d +\S+ B +Runnable +demo-compute")
                top.type("ai", "by id  idle ones too")
                top.shows("demo-sleep")
                known = self.threads("--all")
                table = top.screen.display[5:-1]
                for line in filter(str.strip, table):
                    self.assertIn(line.split()[0], [str(t["id"]) for t in known.values()])
                for name in ("demo-lock-wanter", "demo-sleep"):
                    self.assertTrue([line for line in table if name in line and known[name]["state"] in line])
                top.type("\x1b[B" * rows, "qoragent-relay")
                top.type("/LOCK-W\r", 'with "LOCK-W"')
                wait_until("the one row", lambda: top.shows("lock-wanter") and "demo-sleep" not in top.text())
                top.type("2\x1b", r"WAITING +LOCK.*\n +1 .*demo-lock-h")
                top.type("\r", r'"demo-lock-holder" #\d+(?:.*\n)+ *- locked <\d+>')
                top.type("q3", r"THREADS +DATABASE.*\n +1 +jdbc:tessar\S+ +- +select id")
                top.type("4", "THREADS .*\n +1 .* /shop/cart")
                self.assertEqual(sum(top.screen.buffer[y][0].reverse for y in range(rows)), 1)

    def test_the_terminal_is_as_it_was(self):
        for end in ("q", "\x03", signal.SIGTERM):
            with self.subTest(end), Terminal(self.app.pid, 80, 24, "xterm-256color") as top:
                top.shows("demo-compute")
                self.assertNotEqual(termios.tcgetattr(top.child.child_fd), top.modes)
                top.child.send(end) if isinstance(end, str) else top.child.kill(end)
                top.child.expect(pexpect.EOF)
                top.child.wait()
                self.assertEqual(top.child.signalstatus, None if isinstance(end, str) else end)
                self.assertIn(b"\x1b[?1049l", top.child.before)  # back to the screen that was there
                self.assertEqual(termios.tcgetattr(top.child.child_fd), top.modes)

    def test_a_jvm_that_is_silent_leaves_the_screen_whole(self):
        with Terminal(self.app.pid, 80, 24, options="--timeout 4") as top:
            top.shows("demo-compute")
            self.addCleanup(os.kill, self.app.pid, signal.SIGCONT)
            os.kill(self.app.pid, signal.SIGSTOP)
            top.shows(rf"qorctl top {self.app.pid}.* no answer for \d+ s  ")
            top.shows("is stopped; let it run")

    def test_without_a_terminal(self):
        self.refused("top needs a terminal", "top", code=2)
