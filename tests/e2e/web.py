"""Real containers, and HTTP and RPC clients that ask them: what the agent tells of both, compared with what the containers say."""
import os
import re
import urllib.parse

from harness import SETTINGS, Case, run_tool, wait_until
from products import SAMPLES, Program, colons, compiled_soon, jars

SOURCES = f"{os.path.dirname(os.path.realpath(__file__))}/products"
JARS = [f"jetty9-{name}" for name in ("server", "http", "io", "util", "servlet", "security")] + [
    f"netty-{name}" for name in ("common", "buffer", "transport", "codec", "codec-http", "codec-http2", "codec-socks",
                                 "handler", "handler-proxy", "resolver")] + [
    f"grpc-{name}" for name in ("api", "core", "context", "netty", "stub")] + [
    "perfmark-api", "guava", "failureaccess", "tomcat9-*", "httpclient", "httpcore", "commons-logging", "commons-codec",
    "httpclient5", "httpcore5", "httpcore5-h2", "slf4j-api", "okhttp", "okio"]
# Methods whose frames the rules name, as the compiler's list has them.
ANCHORS = ("server.Server.handle", "server.Server.handleAsync", "CoyoteAdapter.service", "CoyoteAdapter.asyncDispatch",
           "ByteToMessageDecoder.fireChannelRead", "MessageToMessageDecoder.channelRead",
           "SimpleChannelInboundHandler.channelRead", "execchain.MainClientExec.execute", "classic.MainClientExec.execute",
           "CallServerInterceptor.intercept", "RealInterceptorChain.proceed", "ClientCalls.blockingUnaryCall",
           "HttpURLConnection.getInputStream0", "http.HttpClient.parseHTTP", "conn.EofSensorInputStream.read",
           "HttpURLConnection$HttpInputStream.read")


class Calls(Program):
    def __init__(self):
        names = ["Web.java"] + ["WebOf11.java"] * (SETTINGS.version >= 11)
        texts = {}
        for name in names:
            with open(f"{SOURCES}/{name}", encoding="utf-8") as source:
                texts[name] = source.read()
        self.anchors = ANCHORS + ("HttpClientImpl.send",) * (SETTINGS.version >= 17)
        flags = compiled_soon(self.anchors, 0.005)
        # Nothing else is compiled, which would take the compiler's time; code stays that sees another way taken.
        flags += [f"-XX:CompileCommand=compileonly,*{colons(method)}" for method in self.anchors]
        flags += ["-XX:PerMethodTrapLimit=0", "-XX:PerBytecodeTrapLimit=0"]
        super().__init__(jars(*JARS), texts, flags, "Web")
        with open(self.log.name, encoding="utf-8") as log:
            self.urls = dict(re.findall("(?m)^call (.*) (.*)", log.read()))

    def prepare(self):
        run_tool("keytool", "-genkeypair", "-alias", "a", "-keyalg", "EC", "-storetype", "PKCS12", "-dname", "CN=127.0.0.1",
                 "-storepass", "secret", "-keystore", f"{self.inside}/keys")

    def told(self, word):
        """What the containers have said so far of this kind."""
        with open(self.log.name, encoding="utf-8") as log:
            return re.findall(f"(?m)^{word} (.*)\n", log.read())


class Web(Case):
    def test_requests_and_remote_calls(self):
        if not jars(*JARS):
            self.skipTest("no jars: install libjetty9-java, libtomcat9-java, libnetty-java, libhttpclient-java, "
                          "libhttpclient5-java, libokhttp-java, libgrpc-java and libperfmark-java")
        if SETTINGS.version < 9:
            self.skipTest("Netty, HttpClient 5 and gRPC as Debian builds them need Java 9")
        with Calls() as calls:
            self.answer("attach", calls.process.pid, "--options", "handquota=100,localquota=100")
            self.check(calls, "cold")
            calls.warm_up(calls.anchors)
            self.check(calls, "hot")
            self.assertEqual(calls.compiled(calls.anchors), set(calls.anchors))

    def check(self, calls, when):
        before, logged = len(calls.told("held")), len(calls.told("logged"))
        calls.tell("call")
        wait_until("the containers hold the requests", lambda: len(calls.told("held")) - before == len(calls.urls))
        ports = dict(held.split() for held in calls.told("held")[before:])
        served = {path for path in ports if path.startswith("/")}
        truth = {name: self.truth(urllib.parse.urlsplit(url), ports) for name, url in calls.urls.items()}
        for _ in range(SAMPLES):
            self.check_sample(self.threads(calls.process, "--all"), served, truth, when)
        calls.tell("rest")
        wait_until("the containers have logged the requests", lambda: len(calls.told("logged")) - logged == len(served))
        self.assertEqual(set(calls.told("logged")[logged:]), served)

    def truth(self, url, ports):
        """What a call's thread is to show: host, port and the names that it may have."""
        if url.path == "/shop/plain/13" and SETTINGS.version < 17:
            return None  # java.net.http of JDK 11 drops its request
        path = url.path if url.scheme != "grpc" else "shop.Bank/Charge"
        # Of a body that is being read HttpClient 4 knows the peer alone.
        return "127.0.0.1", int(ports[path]), (None,) if path == "/shop/body/11" else (path, url.geturl())

    def check_sample(self, threads, served, truth, when):
        calling = {t["name"]: t["rmi"] for t in threads if t["state"] == "RMI Wait"}
        self.assertEqual(set(calling), set(truth), when)  # and no idle thread
        self.assertEqual({t["request"]["url"] for t in threads if "request" in t}, served, when)
        for name, known in truth.items():
            if known:
                call = calling[name]
                self.assertEqual((call["remote_host"], call["remote_port"]), known[:2], (when, name))
                self.assertIn(call["jndi_name"], known[2], (when, name))
