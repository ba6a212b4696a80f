"""Real containers, and clients that ask them: what is shown, compared with what the containers say."""
import re
import urllib.parse

from harness import SETTINGS, Case, folder, run_tool, wait_until
from products import SAMPLES, Compiled, jars

JARS = ("jetty9-* grpc-* tomcat9-* netty-* perfmark-api guava httpclient httpcore "
        "commons-logging commons-codec httpclient5 httpcore5 httpcore5-h2 slf4j-api okhttp okio").split()


class Web(Case):
    def test_requests_and_remote_calls(self):
        if not jars(*JARS):
            self.skipTest("a container or a client isn't installed")
        if SETTINGS.version < 11:  # which java.net.http needs as well
            self.skipTest("Netty, HttpClient 5 and gRPC as Debian builds them need Java 9")
        keys = folder(self)[1] + "/keys"
        run_tool("keytool", "-genkeypair", "-keyalg", "EC", "-dname", "CN=127.0.0.1", "-ext",
                 "san=ip:127.0.0.1", "-storepass", "secret", "-keystore", keys)
        flags = ["-XX:PerMethodTrapLimit=0", "-XX:PerBytecodeTrapLimit=0",  # code stays that meets other ways
                 f"-Djavax.net.ssl.trustStore={keys}", "-Djavax.net.ssl.trustStorePassword=secret"]
        with Compiled(self, jars(*JARS), "Web", flags=flags) as self.app:
            self.answer("attach", "--options", "handquota=100,localquota=100")
            self.app.warm_up(self.check("cold"))
            self.app.tell("rest")
            self.check("hot")

    def told(self, word):
        """What the containers have said so far of this kind."""
        return re.findall(f"(?m)^{word} (.*)\n", self.app.output())

    def check(self, when):
        """Returns the methods of rules that the calls are in."""
        before = len(self.told("held"))
        urls = dict(line.split() for line in self.told("call"))
        self.app.tell("call")
        wait_until("the containers hold the requests",
                   lambda: len(self.told("held")) - before == len(urls))
        ports = dict(held.split() for held in self.told("held")[before:])
        served = {path for path in ports if path.startswith("/")}
        truth = {name: self.truth(urllib.parse.urlsplit(url), ports) for name, url in urls.items()}
        for _ in range(SAMPLES):
            self.check_sample(self.threads("--all"), served, truth, when)
        methods = self.app.ruled()
        self.app.tell("rest")
        return methods

    @staticmethod
    def truth(url, ports):
        """What a call's thread is to show: host, port and the names that it may have."""
        if url.path == "/shop/own/10" and SETTINGS.version < 17:
            return None  # java.net.http of JDK 11 drops its request
        path = url.path if url.scheme != "grpc" else "shop.Bank/Charge"
        # Of a body that is being read HttpClient 4 knows the peer alone.
        return "127.0.0.1", int(ports[path]), (None,) if path == "/shop/body/8" else (path, url.geturl())

    def check_sample(self, threads, served, truth, when):
        calling = {name: t["rmi"] for name, t in threads.items() if t["state"] == "RMI Wait"}
        self.assertEqual(set(calling), set(truth), when)  # and no idle thread
        self.assertEqual({t["request"]["url"] for t in threads.values() if "request" in t}, served, when)
        for name, known in truth.items():
            if known:
                call = calling[name]
                self.assertEqual((call["remote_host"], call["remote_port"]), known[:2], (when, name))
                self.assertIn(call["jndi_name"], known[2], (when, name))
