"""`qorctl metrics`: figures beside those of other commands, who may read them, and what Prometheus sees."""
import contextlib
import http.client
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import unittest
import urllib.parse
import urllib.request

from harness import LIMIT, SETTINGS, OfTheDemo, environment, folder, wait_until

DOCS = os.path.join(os.path.dirname(__file__), "../../docs/metrics")


class OfSocket(http.client.HTTPConnection):
    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.connect(self.host)


def status(connection, token=None):
    with contextlib.closing(connection):
        connection.request("GET", "/metrics", headers={"Authorization": f"Bearer {token}"} if token else {})
        return connection.getresponse().status


def text_of(name):
    with open(f"{DOCS}/{name}", encoding="ascii") as file:
        return file.read()


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


@contextlib.contextmanager
def running(*command):
    with subprocess.Popen([*map(str, command)], env=environment(), stdout=subprocess.PIPE, text=True,
                          stderr=subprocess.DEVNULL) as process:
        try:
            yield process
        finally:
            process.terminate()


class Metrics(OfTheDemo):
    def serve(self, *words):
        """Where it says that it serves."""
        process = self.enterContext(running(SETTINGS.qorctl, "metrics", self.app.pid, *words))
        return process, process.stdout.readline().split()[1]

    def value(self, text, name, label=""):
        line = rf'(?m)^{name}{{jvm="{self.app.pid}-\d+",[^}}]*{label}}} (\S+)$'
        return float(re.search(line, text).group(1))

    def test_figures_are_those_of_the_commands(self):
        text = self.answer("metrics", self.app.pid, "--once").out
        self.assertTrue(text.endswith("# EOF\n"))
        summary, heap = self.json("summary", self.app.pid), self.json("heap", self.app.pid)
        self.assertEqual(self.value(text, "qor_threads", 'state="Lock"'), summary["threads_lock"])
        self.assertEqual(self.value(text, "qor_threads_blocked"), 1)
        for name, label in (("lock_waiters", r'class="qoragent\.demo\.Payments\$Account"'),
                            ("web_requests", 'url="/shop/cart"'),
                            ("database_calls", 'database="jdbc:tessar[^"]+"')):
            self.assertEqual(self.value(text, "qor_" + name, label), 1)
        self.assertEqual(self.value(text, "qor_heap_max_bytes"), heap["max_kib"] * 1024)

    def test_who_may_read(self):
        path = folder(self)[0] + "/socket"
        process, where = self.serve("--socket", path)
        self.assertEqual((where, os.stat(path).st_mode & 0o777), (path, 0o600))
        self.assertEqual(status(OfSocket(path)), 200)
        self.refused("can't listen", "metrics", self.app.pid, "--socket", path, code=2)
        process.send_signal(signal.SIGINT)
        self.assertEqual((process.wait(LIMIT), os.path.exists(path)), (0, False))
        with open(path, "w", encoding="ascii") as token:
            token.write("0123456789abcdef\n")
        host = urllib.parse.urlparse(self.serve("--listen", "127.0.0.1:0", "--token-file", path)[1]).netloc
        self.assertTrue(self.serve("--listen", "[::1]:0")[1].startswith("http://[::1]:"))
        for sent, answer in ((None, 401), ("0123456789abcdeF", 401), ("0123456789abcdef", 200)):
            self.assertEqual(status(http.client.HTTPConnection(host), sent), answer)

    @unittest.skipUnless(shutil.which("prometheus"), "prometheus isn't installed")
    def test_alerts_and_panels_have_series(self):
        target = urllib.parse.urlparse(self.serve("--listen", "127.0.0.1:0")[1]).netloc
        place, port = folder(self)[0], free_port()
        shutil.copy(f"{DOCS}/alerts.yml", place)
        with open(f"{place}/prometheus.yml", "w", encoding="ascii") as config:
            config.write(text_of("prometheus.yml").replace("127.0.0.1:9464", target).replace("15s", "1s")
                         .replace("10s", "1s"))
        self.enterContext(running(
            "prometheus", f"--config.file={place}/prometheus.yml", f"--storage.tsdb.path={place}/db",
            f"--web.listen-address=127.0.0.1:{port}"))
        panels = json.loads(text_of("dashboard.json"))["panels"]
        queries = [row["expr"].replace("$jvm", ".*") for p in panels for row in p["targets"]]
        queries += [re.sub(r" (>|==) ([\d.]+)$", r" \1 bool \2", alert)
                    for alert in re.findall("expr: (.*)", text_of("alerts.yml"))]
        self.assertEqual(len(queries), 16)

        def series(query):
            url = f"http://127.0.0.1:{port}/api/v1/query?query={urllib.parse.quote(query)}"
            with contextlib.suppress(OSError), urllib.request.urlopen(url) as answer:
                return json.load(answer)["data"]["result"]
        for query in queries:
            wait_until(query, lambda query=query: series(query))
