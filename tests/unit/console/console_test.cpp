// What the console sends, what it reads of a process and a JVM's attach listener, and what it shows.
#include "Folder.h"
#include "Loopback.h"
#include "base/inside.h"
#include "base/process.h"
#include "jvm/attach.h"
#include "jvm/endpoint.h"
#include "jvm/proof.h"
#include "jvm/session.h"
#include "show/json.h"
#include "show/render.h"
#include "wire.h"
#include "wire/records.h"
#include "wire/request.h"

#include <csignal>
#include <cstring>
#include <fmt/format.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>

using namespace qorctl;

namespace {

const std::string TOKEN = "0123456789abcdef0123456789abcdef";

std::string EndpointText(int pid) {
    return fmt::format("port=1\ntoken={}\npid={}\nversion=1\n", TOKEN, pid);
}

TEST(Requests, RulesTravelWithCarriageReturns) {
    const std::string head = "521|NoProcessing|activethreads|";
    EXPECT_EQ(RulesRequest("# c\r\nabcd|monitor|x\r\n\r\nabcd|currcall|b"),
              head + "# c\rabcd|monitor|x\rabcd|currcall|b\r");
    EXPECT_EQ(RulesRequest("\n\n"), head + "#"); // no rules is an answer too
    EXPECT_THROW(RulesRequest("abcd|threadname||\t|\t\t||"), Failure);
    EXPECT_THROW(CheckRequest("a\nb"), Failure);
    std::string wide = "#";
    for (int i = 0; i < 10000; ++i)
        wide += "\U0001f697";
    for (const std::string &request : TierRequests(wide))
        EXPECT_NE(request[request.rfind('|') + 1] & 0xc0, 0x80) << "a character is cut";
}

TEST(Requests, AnotherVersionIsReported) {
    EXPECT_EQ(VersionWarning("version=1.2.3", "1.2.3"), "");
    for (const auto &[answer, said] :
         {std::pair("version=1.2", "of version 1.2, "), {"NoProcessing: ...", "older"}})
        EXPECT_NE(VersionWarning(answer, "1.2.3").find(said), std::string::npos) << answer;
}

TEST(Endpoint, File) {
    const std::string good = EndpointText(77);
    auto endpoint = ParseEndpoint(good + "something=new\n");
    ASSERT_TRUE(endpoint);
    EXPECT_TRUE(endpoint->port == 1 && endpoint->token == TOKEN && endpoint->inner_pid == 77);
    EXPECT_EQ(ParseEndpoint(good + "bind=127.0.0.2\n")->address, htonl(0x7f000002));
    for (const char *bind : {"", "bind=0.0.0.0\n", "bind=::1\n"}) // any address is reached by the loopback
        EXPECT_EQ(ParseEndpoint(good + bind)->address, htonl(INADDR_LOOPBACK)) << bind;
    for (const auto &[right, wrong] : {std::pair("port=1\n", "port=65536\n"),
                                       {"f\np", "f0\np"},
                                       {"=77", "=-7"},
                                       {"version=1", "version=2"}}) {
        std::string text = good;
        text.replace(text.find(right), strlen(right), wrong);
        EXPECT_FALSE(ParseEndpoint(text)) << text;
    }
}

TEST(Endpoint, TheTimeIsThatOfAllStepsTogether) {
    const Loopback relay(AF_INET, "127.0.0.1");
    ASSERT_TRUE(relay.Listen());
    std::thread silent([&] {
        const FileDescriptor caller(accept(relay.fd, nullptr, nullptr));
        send(caller.get(), "OK\n", 3, 0);
        for (char byte; read(caller.get(), &byte, 1) > 0;) {
        }
    });
    Endpoint endpoint = ParseEndpoint(EndpointText(77)).value();
    endpoint.port = relay.port;
    Settings settings;
    {
        std::optional<Connection> connection = Connection::Open(endpoint, settings.Due().at);
        settings.start -= Seconds(settings.timeout); // which others took
        EXPECT_EQ(
            FailureOf([&] { connection->Ask("1|x", settings.Due()); }).find("no answer within 75 seconds"),
            0);
    }
    silent.join();
}

TEST(Endpoint, WhoListensIsProven) {
    for (const char *address : {"127.0.0.1", "127.0.0.2", "::ffff:127.0.0.1", "::"}) {
        const Loopback server(strchr(address, ':') ? AF_INET6 : AF_INET, address);
        if (!server.bound)
            continue; // a host without IPv6
        Endpoint endpoint = ParseEndpoint(EndpointText(77)).value();
        endpoint.port = server.port;
        EXPECT_EQ(ProveListener("/proc/self", endpoint), Proof::OTHER) << "it doesn't listen yet";
        ASSERT_TRUE(server.Listen());
        EXPECT_EQ(ProveListener("/proc/self", endpoint),
                  strcmp(address, "127.0.0.2") == 0 ? Proof::OTHER : Proof::PROVEN)
            << address;
        EXPECT_EQ(ProveListener(fmt::format("/proc/{}", getppid()), endpoint), Proof::OTHER) << address;
        EXPECT_EQ(ProveListener("/proc/self/net", endpoint), Proof::UNKNOWN);
    }
}

TEST(Attach, LoadReplies) {
    const std::pair<std::string, const char *> rows[] = {
        {"0\nreturn code: 0\n", "no failure"},
        {"", "hung up"},
        {"0\nreturn code: 102\n", "start failed"},
        {"-1\nDynamic agent loading is not enabled. Use -XX:+EnableDynamicAgentLoading to launch target VM.",
         "-XX:-EnableDynamicAgentLoading"},
        {"0\nDynamic agent loading is not enabled. Use -XX:+EnableDynamicAgentLoading to launch target VM.\n",
         "-XX:-EnableDynamicAgentLoading"},
        {"0\nNo agent library\nat all\n", "refused the agent: No agent library"},
    };
    for (auto &[reply, reported] : rows)
        ExpectParts(FailureOf([&, r = reply] { CheckLoadReply(r, "/x.jar"); }), {reported});
    EXPECT_EQ(PropertyValue("0\n#Fri\na=1\nqoragent.status=failed\\: no \\\\ way\n", "qoragent.status"),
              "failed: no \\ way");
}

TEST(Process, Status) {
    Process process;
    ASSERT_TRUE(
        ParseStatus("Name:\tjava (x)\nState:\tS (sleeping)\nUid:\t1000\t1001\t1002\t1003\n"
                    "Gid:\t50\t51\t52\t53\nThreads:\t33\nNSpid:\t4711\t12\nSigCgt:\t2000000101005ccf\n",
                    &process));
    EXPECT_TRUE(process.euid == 1001 && process.egid == 51 && process.threads == 33 &&
                process.inner_pid == 12);
    EXPECT_TRUE(process.catches_sigquit && !process.stopped);
    ASSERT_TRUE(ParseStatus("State:\tT (stopped)\nUid:\t1\t1\t1\t1\nSigCgt:\t2000000101005ccb\n", &process));
    EXPECT_TRUE(!process.catches_sigquit && process.stopped);
    EXPECT_FALSE(ParseStatus("State:\tZ (zombie)\nUid:\t1\t1\t1\t1\n", &process));
    for (const auto &[outer, inner] : {std::pair(100000u, 0u), {165535u, 65535u}, {165536u, 165536u}})
        EXPECT_EQ(MapUid("         0     100000      65536\n", outer), inner);
}

// A process of another user in a root directory of its own, in which that user has laid traps.
class Captive : public Folder {
public:
    static constexpr uid_t USER = 65534;

    Captive() {
        Run(R"(chmod 755 .; mkdir -p bin jail/bin jail/own jail/dir
               printf secret >secret; printf ours >bin/tool; cd jail
               printf theirs >bin/tool; printf good >own/good; head -c 10000000 /dev/zero >own/large
               mkfifo own/fifo; mknod own/device c 1 5; ln -s "$PWD/../secret" own/link
               ln -s "$PWD/../bin" outside; ln -s ../../../.. up
               ln -s own/release release; chown -R 65534 .; chmod 666 own/device
               printf secret >own/roots; printf 'JAVA_VERSION="9"' >own/release; chmod 600 own/r*)");
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        process.pid = fork();
        if (process.pid == 0) {
            bool in = chroot(In("jail").c_str()) == 0 && chdir("/") == 0 && setgroups(0, nullptr) == 0 &&
                      setresgid(USER, USER, USER) == 0 && setresuid(USER, USER, USER) == 0;
            prctl(PR_SET_DUMPABLE, 1);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(ready[in ? 1 : 0]);
            close(ready[in ? 0 : 1]);
            pause();
            _exit(0);
        }
        close(ready[1]);
        char end;
        EXPECT_EQ(read(ready[0], &end, 1), 0);
        close(ready[0]);
        process.euid = process.egid = USER;
    }
    ~Captive() {
        kill(process.pid, SIGKILL);
        waitpid(process.pid, nullptr, 0);
    }
    // Runs a shell in the folder.
    void Run(const std::string &script) const {
        EXPECT_EQ(system(("set -e; cd " + path.string() + "; " + script).c_str()), 0);
    }

    Process process;
};

TEST(Inside, TrapsAreNotOpened) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can be led astray";
    Captive captive;
    const std::pair<const char *, const char *> rows[] = {
        {"/own/good", "good"}, {"/own/link", ""},  {"/own/roots", ""},    {"/own/fifo", ""},
        {"/own/device", ""},   {"/own/large", ""}, {"/outside/tool", ""}, {"/up/bin/tool", "theirs"},
    };
    for (auto &[name, seen] : rows)
        EXPECT_EQ(
            LookInside(captive.process, [n = name](int root) { return ReadRegular(root, BelowRoot(n)); }),
            seen)
            << name;
    auto as_whom = [](int) { return fmt::format("{} {} {}", getuid(), getgid(), getgroups(0, nullptr)); };
    EXPECT_EQ(LookInside(captive.process, as_whom), "65534 65534 0");
    EXPECT_FALSE(LookInside(captive.process, [](int) { return std::string(pause(), ' '); })) << "it hangs";
    EXPECT_EQ(VersionBesideLibrary(captive.process, "/own/bin/libjvm.so"), "");
}

// An endpoint as the agent makes it, and what somebody else may do to it.
TEST(Inside, EndpointsOfStrangersAreNotBelieved) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can make files of others";
    enum { FOUND, NOTHING, TAKEN, REFUSED };
    const std::pair<const char *, int> rows[] = {
        {"", FOUND},
        {"rm dir/77.endpoint", NOTHING},
        {"chown 0 dir", TAKEN},
        {"chmod 710 dir", TAKEN},
        {"mv dir elsewhere; ln -s elsewhere dir", TAKEN},
        {"chown 0 dir/77.endpoint", REFUSED},
        {"chmod 640 dir/77.endpoint", REFUSED},
        {"mv dir/77.endpoint good; ln -s /good dir/77.endpoint", REFUSED},
        {"printf '%s\n' port=1 token=$TOKEN pid=78 version=1 >dir/77.endpoint", NOTHING}, // another process's
    };
    setenv("TOKEN", TOKEN.c_str(), 1);
    for (const auto &[change, expected] : rows) {
        Captive captive;
        captive.process.inner_pid = 77;
        captive.Run(R"(cd jail; printf '%s\n' port=1 token=$TOKEN pid=77 version=1 >dir/77.endpoint
                       chown 65534 dir/77.endpoint; chmod 600 dir/77.endpoint; chmod 700 dir; )" +
                    std::string(change));
        bool taken = false, found = false;
        const std::string failure =
            FailureOf([&] { found = FindEndpoint(captive.process, "/dir", &taken).has_value(); });
        EXPECT_EQ(strstr(failure.c_str(), "user's own") ? REFUSED
                  : found                               ? FOUND
                  : taken                               ? TAKEN
                                                        : NOTHING,
                  expected)
            << change << failure;
    }
}

TEST(Process, MapsAndMainClass) {
    const std::string head = "7f00-7f01 r-xp 00000000 08:01 1 ";
    const std::tuple<std::string, JvmKind, const char *> rows[] = {
        {head + "/usr/lib/jvm/x y/lib/server/libjvm.so (deleted)\n", JvmKind::HOTSPOT,
         "/usr/lib/jvm/x y/lib/server/libjvm.so"},
        {head + "/j/libj9vm29.so\n" + head + "/j/libjvm.so\n", JvmKind::OTHER, "/j/libjvm.so"},
        {head + "/j/notlibjvm.so\n7f00-7f01 rw-p 0 0 0 \n", JvmKind::NONE, ""},
    };
    for (auto &[maps, kind, path] : rows) {
        std::string library;
        EXPECT_EQ(ParseMaps(maps, &library), kind) << maps;
        EXPECT_TRUE(kind == JvmKind::OTHER || library == path) << library;
    }
    const std::pair<std::vector<std::string>, const char *> commands[] = {
        {{"/usr/bin/java", "-Xmx1g", "-cp", "a:b", "com.acme.Main", "-jar", "x"}, "com.acme.Main"},
        {{"java", "-jar", "/opt/app/shop.jar", "start"}, "shop.jar"},
        {{"java", "-p", "m", "-m", "a/b.C", "x"}, "b.C"},
    };
    for (auto &[arguments, name] : commands)
        EXPECT_EQ(MainClass(arguments), name);
}

// A performance file of one string entry, laid out as the JVM does.
std::string PerfFile(const std::string &name, const std::string &value) {
    const auto word = [](size_t number) {
        const auto narrow = static_cast<uint32_t>(number);
        return std::string(reinterpret_cast<const char *>(&narrow), 4);
    };
    const std::string body = name + '\0' + value + '\0', type("B\0\0\0", 4);
    return std::string("\xca\xfe\xc0\xc0\x01\x02\x00\x01", 8) + std::string(16, '\0') + word(32) + word(1) +
           word(20 + body.size()) + word(20) + word(value.size() + 1) + type + word(21 + name.size()) + body;
}

TEST(Process, PerformanceFile) {
    EXPECT_EQ(ParsePerfData(PerfFile("java.property.java.version", "17.0.15")).java_version, "17.0.15");
    const std::string file = PerfFile("sun.rt.jvmCapabilities", "0100");
    for (size_t length = 0; length < file.size(); ++length) // a cut file is read as nothing more
        ParsePerfData(std::string_view(file).substr(0, length));
    for (size_t at = 24; at < 52; ++at) // nor are wild offsets
        ParsePerfData(std::string(file).replace(at, 1, "\xff"));
    EXPECT_EQ(ParsePerfData(file).capabilities, "0100");
}

TEST(Render, ThreadDump) {
    const ThreadSample sample =
        Threads(DETAILS + "!" + FRAMES +
                "!Lock On;6699~77-31~java.lang.Object@6699~View Thread Holding this Lock"
                "!JVM Locks;12~0~com.acme.Cart@12~1;13~0~a.X@13~900;14~0~a.Y@14~849;"
                "!Thread Info Details;ow\x1bner~^~/cart~id=7~77-31~^~^~^~Sleeping!Call Stack"
                ";java.lang.Thread->sleep~Native Method~^~31~0~9~^~^"
                ";a.B$$Lambda$7.0x00007fc8->run~Native Method~^~31~1~9~^~^!" +
                TIMING);
    EXPECT_EQ(ThreadDump(sample, Style()),
              "\"http-1\" #23 Lock\n"
              "   call: com.acme.Cart.total(Cart.java:12)\n"
              "\tat com.acme.Cart.add(Cart.java:40)\n"
              "\t- waiting to lock <6699> (a java.lang.Object), held by thread #31 \"ow\\x1bner\"\n"
              "\tat com.acme.Cart.total(Cart.java:12)\n"
              "\t- locked <12> (a com.acme.Cart)\n"
              "\t... 697 frames skipped\n"
              "\t- locked <14> (a a.Y) at frame 849\n"
              "\tat java.lang.Thread.run(Native Method)\n"
              "\t- locked <13> (a a.X), by a frame that isn't known\n"
              "\n"
              "\"ow\\x1bner\" #31 Sleeping\n"
              "   request: /cart id=7\n"
              "\tat java.lang.Thread.sleep(Native Method)\n"
              "\tat a.B$$Lambda$7.0x00007fc8.run(Unknown Source)\n"
              "\n");
}

TEST(Render, TableIsAlignedAndCut) {
    ThreadSample sample = Threads("JVM Active Threads;" + ACTIVE_ROW +
                                  ";a~\xe6\x97\xa5\xe6\x9c\xac\x07~^~^~^~77-9~^~^~^~Object Wait;!" + TIMING);
    EXPECT_EQ(ThreadTable(sample, Style()), "ID  STATE        THREAD    CALL\n"
                                            "23  Runnable     http-1    com.acme.Cart.total(Cart.java:12)\n"
                                            " 9  Object Wait  \xe6\x97\xa5\xe6\x9c\xac\\x07  -\n");
    Style narrow, colour;
    narrow.width = 45;
    const std::string table = ThreadTable(sample, narrow);
    ExpectParts(table, {"com.acme.Cart.tot\xe2\x80\xa6\n"});
    for (std::string_view line : Split(table, '\n'))
        EXPECT_LE(DisplayWidth(line), 45u);
    colour.colour = true;
    ExpectParts(ThreadTable(sample, colour), {"\x1b[32mRunnable\x1b[0m     http-1"});
    ExpectParts(SampleNotes(sample, 1100), {"2 threads, 321 us in the JVM", "has 1100 threads"});
}

TEST(Render, ControlCharactersBecomeVisible) {
    EXPECT_EQ(Printable("a\x1b[31m\xc2\x9b\xe2\x80\xae\xff\xed\xa0\x80"),
              "a\\x1b[31m\\xc2\\x9b\\xe2\\x80\\xae\\xff\\xed\\xa0\\x80");
    EXPECT_EQ(FailureOf([] { CheckLoadReply("0\n\x1b]0;t\x07\n", "/x.jar"); }).find_first_of("\x1b\x07"),
              std::string::npos);
    EXPECT_EQ(FailureText(Failure("a\x1b[2J", "b\xc2\x9b")), "a\\x1b[2J; b\\xc2\\x9b");
    EXPECT_EQ(JsonText("\x1b\x7f\xc2\x9b\xe2\x80\xae", true), "\"\\u001b\\u007f\\u009b\\u202e\"");
    EXPECT_EQ(VisibleReply(Wire("a~b;c!d\xc2\x9b")), "a<29>b<30>\nc<31>\nd\\xc2\\x9b\n");
}

} // namespace
