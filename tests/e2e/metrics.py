"""`qorctl metrics`: figures beside those of other commands, who may read them, and what Prometheus sees."""
import contextlib
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

from harness import FOLDER, LIMIT, SETTINGS, OfTheDemo, environment, folder, free_port, text_of, wait_until


def status(family, address, token=""):
    with socket.socket(family) as client:
        client.connect(address)
        client.sendall(f"GET /metrics HTTP/1.0\r\nAuthorization: Bearer {token}\r\n\r\n".encode())
        return int(client.recv(99).split()[1])


def docs(name):
    return text_of(f"../../docs/metrics/{name}")


class Metrics(OfTheDemo):
    def start(self, *command):
        process = self.enterContext(subprocess.Popen(command, env=environment(), stdout=subprocess.PIPE,
                                                     text=True, stderr=subprocess.DEVNULL))
        self.addCleanup(process.terminate)
        return process

    def serve(self, *words):
        """And where it says that it serves."""
        process = self.start(SETTINGS.qorctl, "metrics", str(self.app.pid), *words)
        return process, process.stdout.readline().split()[1]

    def value(self, text, name, label=""):
        line = rf'(?m)^{name}{{jvm="{self.app.pid}-\d+",[^}}]*{label}}} (\S+)$'
        return float(re.search(line, text).group(1))

    def test_figures_are_those_of_the_commands(self):
        text = self.answer("metrics", "--once").out
        self.assertTrue(text.endswith("# EOF\n"))
        summary, heap = self.json("summary"), self.json("heap")
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
        self.assertEqual(status(socket.AF_UNIX, path), 200)
        self.refused("can't listen", "metrics", "--socket", path, code=2)
        process.send_signal(signal.SIGINT)
        self.assertEqual((process.wait(LIMIT), os.path.exists(path)), (0, False))
        with open(path, "w", encoding="ascii") as token:
            token.write("0123456789abcdef\n")
        place = urllib.parse.urlparse(self.serve("--listen", "127.0.0.1:0", "--token-file", path)[1])
        self.assertTrue(self.serve("--listen", "[::1]:0")[1].startswith("http://[::1]:"))
        for sent, answer in (("", 401), ("0123456789abcdeF", 401), ("0123456789abcdef", 200)):
            self.assertEqual(status(socket.AF_INET, ("127.0.0.1", place.port), sent), answer)

    @unittest.skipUnless(shutil.which("prometheus"), "prometheus isn't installed")
    def test_alerts_and_panels_have_series(self):
        target = urllib.parse.urlparse(self.serve("--listen", "127.0.0.1:0")[1]).netloc
        place, port = folder(self)[0], free_port()
        with open(f"{place}/prometheus.yml", "w", encoding="ascii") as config:
            config.write(re.sub("1[05]s", "200ms", docs("prometheus.yml")).replace("127.0.0.1:9464", target)
                         .replace("alerts.yml", f"{FOLDER}/../../docs/metrics/alerts.yml"))
        self.start("prometheus", f"--config.file={place}/prometheus.yml", f"--storage.tsdb.path={place}/db",
                   f"--web.listen-address=127.0.0.1:{port}")
        panels = json.loads(docs("dashboard.json"))["panels"]
        queries = [row["expr"].replace("$jvm", ".*") for p in panels for row in p["targets"]]
        queries += [re.sub(r" (>|==) ([\d.]+)$", r" \1 bool \2", alert)
                    for alert in re.findall("expr: (.*)", docs("alerts.yml"))]
        self.assertEqual(len(queries), 16)

        def series(query):
            url = f"http://127.0.0.1:{port}/api/v1/query?query={urllib.parse.quote(query)}"
            with contextlib.suppress(OSError), urllib.request.urlopen(url) as answer:
                return json.load(answer)["data"]["result"]
        for query in queries:
            wait_until(query, lambda query=query: series(query))
