"""Database sessions: which process of a real PostgreSQL server serves which client's port."""
import contextlib
import glob
import os
import shutil
import socket
import subprocess
import tempfile
import unittest

from harness import LIMIT, OfTheDemo, wait_until

HELD = "held"  # the name by which the server knows the clients of the test


def programs():
    """The newest server's programs and psql; None where PostgreSQL isn't installed."""
    servers = sorted(glob.glob("/usr/lib/postgresql/*/bin/postgres"), key=lambda path: float(path.split("/")[4]))
    return os.path.dirname(servers[-1]) if servers and shutil.which("psql") else None


class Server:
    """A server of its own on a free loopback port, with TLS for clients that ask for it. It never runs as root, which it refuses."""

    def __init__(self):
        self.place = tempfile.mkdtemp(prefix="qor-e2e-pg-")
        self.identity = {"user": "postgres", "group": "postgres", "extra_groups": []} if os.geteuid() == 0 else {}
        if self.identity:
            shutil.chown(self.place, "postgres", "postgres")
        data, self.clients = f"{self.place}/data", []
        self.run([f"{programs()}/initdb", "-D", data, "-U", "test", "-A", "trust", "-N", "--locale=C", "-E", "UTF8"])
        self.run(["openssl", "req", "-new", "-x509", "-nodes", "-subj", "/CN=localhost", "-out", f"{data}/server.crt", "-keyout",
                  f"{data}/server.key"])
        with socket.create_server(("127.0.0.1", 0)) as free:
            self.port = free.getsockname()[1]
        self.log = open(f"{self.place}.log", "wb")
        self.process = subprocess.Popen(
            [f"{programs()}/postgres", "-D", data, "-p", str(self.port), "-c", "listen_addresses=127.0.0.1",
             "-c", "unix_socket_directories=", "-c", "fsync=off", "-c", "ssl=on"],
            cwd="/", stdout=self.log, stderr=subprocess.STDOUT, **self.identity)
        try:
            wait_until("the server answers", lambda: self.process.poll() is not None or self.asks("select 1")[0])
            if self.process.poll() is not None:
                with open(self.log.name, encoding="utf-8", errors="replace") as log:
                    raise AssertionError("the server ended: " + log.read())
        except AssertionError:
            self.close()
            raise

    def run(self, command):
        subprocess.run(command, cwd="/", check=True, capture_output=True, timeout=LIMIT, **self.identity)

    def psql(self, *options):
        return ["psql", "-X", "-A", "-t", "-h", "127.0.0.1", "-p", str(self.port), "-U", "test", "-d", "postgres", *options]

    def asks(self, query):
        done = subprocess.run(self.psql("-c", query), capture_output=True, text=True, timeout=LIMIT, check=False)
        return done.returncode == 0, [line.split("|") for line in done.stdout.splitlines()]

    def hold(self, count):
        """Opens connections that stay; the server's own list of them, as pairs of process and client port."""
        for _ in range(count):
            self.clients.append(subprocess.Popen(self.psql(), stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                                 env={**os.environ, "PGAPPNAME": HELD}))
        query = f"select pid, client_port from pg_stat_activity where application_name = '{HELD}'"
        wait_until("the clients are connected", lambda: len(self.asks(query)[1]) == count)
        return sorted((int(process), int(port)) for process, port in self.asks(query)[1])

    def background(self):
        """Processes of the server without a client."""
        return [int(row[0]) for row in self.asks("select pid from pg_stat_activity where client_port is null")[1]]

    def close(self):
        for client in self.clients:
            client.stdin.close()
            client.wait(LIMIT)
        with contextlib.suppress(ProcessLookupError):
            self.process.terminate()
        self.process.wait(LIMIT)
        self.log.close()
        os.unlink(self.log.name)
        shutil.rmtree(self.place)


@unittest.skipUnless(programs(), "PostgreSQL isn't installed: install postgresql")
class Sessions(OfTheDemo):
    """The agent on the database's host."""

    @classmethod
    def setUpClass(cls):
        cls.server = Server()
        cls.addClassCleanup(cls.server.close)
        super().setUpClass()

    def sessions(self, host, processes):
        return self.answer("sessions", self.app.pid, "--port", self.server.port, "--host", host, "--json",
                           *processes).json()

    def test_each_server_process_is_paired_with_its_client(self):
        truth = self.server.hold(3)
        serving = [process for process, _ in truth]
        others = [self.server.process.pid, *self.server.background()]
        told = self.sessions("127.0.0.1", [*others, *serving])
        self.assertEqual(sorted((s["process"], s["client_port"]) for s in told["sessions"]), truth)
        self.assertEqual(sorted(told["without"]), sorted(others))
        self.assertGreater(len(others), 2)
        self.assertEqual(self.sessions("127.0.0.2", serving), {"sessions": [], "without": serving})
