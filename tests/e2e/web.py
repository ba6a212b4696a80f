"""Real containers, and clients that ask them: what is shown, compared with what the containers say."""
import re
import urllib.parse

from harness import SETTINGS, Case, run_tool, wait_until
from products import FOLDER, SAMPLES, Compiled, colons, jars

JARS = [f"{product}-{name}" for product, names in {
    "jetty9": "server http io util servlet security", "grpc": "api core context netty stub", "tomcat9": "*",
    "netty": "common buffer transport codec codec-http codec-http2 codec-socks handler handler-proxy resolver"
}.items() for name in names.split()] + [
    "perfmark-api", "guava", "failureaccess", "httpclient", "httpcore", "commons-logging", "commons-codec",
    "httpclient5",
    "httpcore5", "httpcore5-h2", "slf4j-api", "okhttp", "okio"]
# Methods whose frames the rules name, as the compiler's list has them.
ANCHORS = ("server.Server.handle", "server.Server.handleAsync", "CoyoteAdapter.service",
           "CoyoteAdapter.asyncDispatch",
           "ByteToMessageDecoder.fireChannelRead", "MessageToMessageDecoder.channelRead",
           "SimpleChannelInboundHandler.channelRead", "execchain.MainClientExec.execute",
           "classic.MainClientExec.execute",
           "CallServerInterceptor.intercept", "RealInterceptorChain.proceed", "ClientCalls.blockingUnaryCall",
           "HttpURLConnection.getInputStream0", "http.HttpClient.parseHTTP", "conn.EofSensorInputStream.read",
           "HttpURLConnection$HttpInputStream.read")


class Calls(Compiled):
    def __init__(self):
        texts = {}
        for name in ["Web.java"] + ["WebOf11.java"] * (SETTINGS.version >= 11):
            with open(f"{FOLDER}/products/{name}", encoding="utf-8") as source:
                texts[name] = source.read()
        anchors = ANCHORS + ("HttpClientImpl.send",) * (SETTINGS.version >= 17)
        # Nothing else is compiled, which would take the compiler's time; code stays that meets another way.
        flags = [f"-XX:CompileCommand=compileonly,*{colons(method)}" for method in anchors]
        super().__init__(jars(*JARS), texts, "Web", anchors=anchors, scaling=0.005, prepare=self.make_keys,
                         flags=[*flags, "-XX:PerMethodTrapLimit=0", "-XX:PerBytecodeTrapLimit=0"])
        self.urls = dict(line.split() for line in self.told("call"))

    @staticmethod
    def make_keys(inside):
        run_tool("keytool", "-genkeypair", "-alias", "a", "-keyalg", "EC", "-storetype", "PKCS12", "-dname",
                 "CN=127.0.0.1",
                 "-storepass", "secret", "-keystore", f"{inside}/keys")

    def told(self, word):
        """What the containers have said so far of this kind."""
        return re.findall(f"(?m)^{word} (.*)\n", self.output())


class Web(Case):
    def test_requests_and_remote_calls(self):
        if not jars(*JARS):
            self.skipTest("install libjetty9-java, libtomcat9-java, libnetty-java, libhttpclient-java, "
                          "libhttpclient5-java, libokhttp-java, libgrpc-java and libperfmark-java")
        if SETTINGS.version < 9:
            self.skipTest("Netty, HttpClient 5 and gRPC as Debian builds them need Java 9")
        with Calls() as calls:
            self.answer("attach", calls.pid, "--options", "handquota=100,localquota=100")
            self.check(calls, "cold")
            calls.warm_up(calls.anchors)
            calls.tell("rest")
            self.check(calls, "hot")
            self.assertEqual(calls.compiled(), set(calls.anchors))

    def check(self, calls, when):
        before = len(calls.told("held"))
        calls.tell("call")
        wait_until("the containers hold the requests",
                   lambda: len(calls.told("held")) - before == len(calls.urls))
        ports = dict(held.split() for held in calls.told("held")[before:])
        served = {path for path in ports if path.startswith("/")}
        truth = {name: self.truth(urllib.parse.urlsplit(url), ports) for name, url in calls.urls.items()}
        for _ in range(SAMPLES):
            self.check_sample(self.threads(calls, "--all"), served, truth, when)
        calls.tell("rest")

    @staticmethod
    def truth(url, ports):
        """What a call's thread is to show: host, port and the names that it may have."""
        if url.path == "/shop/plain/13" and SETTINGS.version < 17:
            return None  # java.net.http of JDK 11 drops its request
        path = url.path if url.scheme != "grpc" else "shop.Bank/Charge"
        # Of a body that is being read HttpClient 4 knows the peer alone.
        return "127.0.0.1", int(ports[path]), (None,) if path == "/shop/body/11" else (path, url.geturl())

    def check_sample(self, threads, served, truth, when):
        calling = {name: t["rmi"] for name, t in threads.items() if t["state"] == "RMI Wait"}
        self.assertEqual(set(calling), set(truth), when)  # and no idle thread
        self.assertEqual({t["request"]["url"] for t in threads.values() if "request" in t}, served, when)
        for name, known in truth.items():
            if known:
                call = calling[name]
                self.assertEqual((call["remote_host"], call["remote_port"]), known[:2], (when, name))
                self.assertIn(call["jndi_name"], known[2], (when, name))
