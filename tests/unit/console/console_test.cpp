// What the console sends, what it reads of a process, and what it shows.
#include "Folder.h"
#include "Loopback.h"
#include "base/inside.h"
#include "base/process.h"
#include "jvm/endpoint.h"
#include "jvm/proof.h"
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

const std::string ENDPOINT =
    "port=1\ntoken=0123456789abcdef0123456789abcdef\npid=77\nversion=1\nsomething=new\n";

TEST(Requests, FitTheWire) {
    EXPECT_EQ(RulesRequest("# c\r\nabcd|monitor|x\r\n\r\nabcd|currcall|b"),
              "521|NoProcessing|activethreads|# c\rabcd|monitor|x\rabcd|currcall|b\r");
    EXPECT_THROW(CheckRequest("a\nb"), Failure);
    std::string wide = "#";
    for (int i = 0; i < 10000; ++i)
        wide += "\U0001f697";
    for (const std::string &request : TierRequests(wide))
        EXPECT_NE(request[request.rfind('|') + 1] & 0xc0, 0x80) << "a character is cut";
}

TEST(Endpoint, WhoListensIsProven) {
    for (const char *address : {"127.0.0.1", "127.0.0.2", "::ffff:127.0.0.1", "::"}) {
        const Loopback server(address);
        if (!server.listens)
            continue; // a host without IPv6
        Endpoint endpoint = ParseEndpoint(ENDPOINT).value();
        endpoint.port = server.port;
        EXPECT_EQ(ProveListener("/proc/self", endpoint),
                  strcmp(address, "127.0.0.2") == 0 ? Proof::OTHER : Proof::PROVEN)
            << address;
        EXPECT_EQ(ProveListener(fmt::format("/proc/{}", getppid()), endpoint), Proof::OTHER) << address;
        EXPECT_EQ(ProveListener("/proc/self/net", endpoint), Proof::UNKNOWN);
    }
}

TEST(Endpoint, AMarkInTwoPiecesEndsAReply) {
    const Loopback relay("127.0.0.1");
    FileDescriptor caller;
    std::thread accepting([&] {
        caller = FileDescriptor(accept(relay.fd, nullptr, nullptr));
        send(caller.get(), "OK\nreply|\t|", 11, 0);
    });
    Endpoint endpoint = ParseEndpoint(ENDPOINT).value();
    endpoint.port = relay.port;
    std::optional<Connection> connection = Connection::Open(endpoint, Clock::time_point::max());
    accepting.join();
    int waited = 0;
    const auto send_rest = [&] { return waited++ == 0 && send(caller.get(), "\t\t||", 4, 0) == 4; };
    EXPECT_EQ(connection.value().AskWhile("1|x", std::chrono::milliseconds(100), send_rest), "reply");
}

TEST(Process, Status) {
    Process process;
    ASSERT_TRUE(ParseStatus("State:\tS (sleeping)\nUid:\t1000\t1001\t1002\t1003\nGid:\t50\t51\t52\t53\n"
                            "NSpid:\t4711\t12\nSigCgt:\t2000000101005ccf\n",
                            &process));
    EXPECT_TRUE(process.euid == 1001 && process.egid == 51 && process.inner_pid == 12 &&
                process.catches_sigquit);
    ASSERT_TRUE(ParseStatus("State:\tT (stopped)\nUid:\t1\t1\t1\t1\nSigCgt:\t2000000101005ccb\n", &process));
    EXPECT_TRUE(!process.catches_sigquit && process.stopped);
    for (const auto &[outer, inner] : {std::pair(165535u, 65535u), {165536u, 165536u}})
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
               ln -s "$PWD/../bin" outside; ln -s ../../../.. up; chown -R 65534 .; chmod 666 own/device
               printf secret >own/roots; chmod 600 own/roots)");
        process.pid = fork();
        if (process.pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (chroot(In("jail").c_str()) == 0 && chdir("/") == 0 && setgroups(0, nullptr) == 0 &&
                setresgid(USER, USER, USER) == 0 && setresuid(USER, USER, USER) == 0 &&
                prctl(PR_SET_DUMPABLE, 1) == 0)
                raise(SIGSTOP);
            _exit(1);
        }
        int status;
        waitpid(process.pid, &status, WUNTRACED);
        EXPECT_TRUE(WIFSTOPPED(status));
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
}

// An endpoint as the agent makes it, and what somebody else may do to it.
TEST(Inside, EndpointsOfStrangersAreNotBelieved) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can make files of others";
    const std::pair<const char *, const char *> rows[] = {
        {"true", "found"},
        {"chown 0 dir", "taken"},
        {"chmod 710 dir", "taken"},
        {"mv dir elsewhere; ln -s elsewhere dir", "taken"},
        {"chown 0 dir/77.endpoint", "user's own"},
        {"chmod 640 dir/77.endpoint", "user's own"},
        {"mv dir/77.endpoint good; ln -s /good dir/77.endpoint", "user's own"},
        {"sed -i s/=77/=78/ dir/77.endpoint; chown 65534 dir/77.endpoint", "not understood"},
    };
    for (const auto &[change, expected] : rows) {
        Captive captive;
        captive.process.inner_pid = 77;
        captive.Fill("jail/dir/77.endpoint", ENDPOINT);
        captive.Run("cd jail; chown 65534 dir/77.endpoint; chmod 600 dir/77.endpoint; chmod 700 dir; " +
                    std::string(change));
        bool taken = false;
        std::string seen;
        const std::string failure = FailureOf([&] {
            seen = FindEndpoint(captive.process, "/dir", &taken) ? "found" : taken ? "taken" : "nothing";
        });
        ExpectParts(seen + failure, {expected});
    }
}

TEST(Process, MapsAndMainClass) {
    const std::string head = "7f00-7f01 r-xp 00000000 08:01 1 ", jvm = "/usr/x y/libjvm.so";
    std::string library;
    EXPECT_EQ(ParseMaps(head + jvm + " (deleted)\n", &library), JvmKind::HOTSPOT);
    EXPECT_EQ(library, jvm);
    EXPECT_EQ(ParseMaps(head + "/j/libj9vm29.so\n" + head + jvm + "\n", &library), JvmKind::OTHER);
    EXPECT_EQ(ParseMaps(head + "/j/notlibjvm.so\n7f00-7f01 rw-p 0 0 0 \n", &library), JvmKind::NONE);
    EXPECT_EQ(MainClass({"java", "-jar", "/opt/app/shop.jar", "start"}), "shop.jar");
    EXPECT_EQ(MainClass({"java", "-p", "m", "-m", "a/b.C", "x"}), "b.C");
}

// One entry, as the JVM lays it out.
TEST(Process, PerformanceFile) {
    const std::string file("\xca\xfe\xc0\xc0\1\2\0\1................ \0\0\0\1\0\0\0"
                           "0\0\0\0\x14\0\0\0\5\0\0\0B\0\0\0+\0\0\0sun.rt.jvmCapabilities\x00"
                           "0100",
                           80);
    EXPECT_EQ(ParsePerfData(file).capabilities, "0100");
    for (size_t length = 0; length < file.size(); ++length) // a cut file is read as nothing more
        ParsePerfData(std::string_view(file).substr(0, length));
    for (size_t at = 24; at < 52; ++at) // nor are wild offsets
        ParsePerfData(std::string(file).replace(at, 1, "\xff"));
}

TEST(Render, ThreadDump) {
    const ThreadSample sample =
        Threads(DETAILS + "!" + FRAMES +
                "!Lock On;6699~77-31~java.lang.Object@6699~View Thread Holding this Lock"
                "!JVM Locks;12~0~a.Cart@12~1;13~0~a.X@13~900;14~0~a.Y@14~849;"
                "!Thread Info Details;ow\x1bner~^~/cart~id=7~77-31~^~^~^~Sleeping!" +
                TIMING);
    EXPECT_EQ(ThreadDump(sample, Style()),
              "\"http-1\" #23 Lock\n"
              "   call: com.acme.Cart.total(Cart.java:12)\n"
              "\tat com.acme.Cart.add(Cart.java:40)\n"
              "\t- waiting to lock <6699> (a java.lang.Object), held by thread #31 \"ow\\x1bner\"\n"
              "\tat com.acme.Cart.total(Cart.java:12)\n"
              "\t- locked <12> (a a.Cart)\n"
              "\t... 697 frames skipped\n"
              "\t- locked <14> (a a.Y) at frame 849\n"
              "\tat java.lang.Thread.run(Native Method)\n"
              "\t- locked <13> (a a.X), by a frame that isn't known\n"
              "\n"
              "\"ow\\x1bner\" #31 Sleeping\n"
              "   request: /cart id=7\n"
              "\n");
}

TEST(Render, TableIsAlignedAndCut) {
    ThreadSample sample = Threads("JVM Active Threads;" + ACTIVE_ROW +
                                  ";a~\xe6\x97\xa5\xe6\x9c\xac\x07~^~^~^~77-9~^~^~^~Object Wait;!" + TIMING);
    EXPECT_EQ(ThreadTable(sample, Style()), "ID  STATE        THREAD    CALL\n"
                                            "23  Runnable     http-1    com.acme.Cart.total(Cart.java:12)\n"
                                            " 9  Object Wait  \xe6\x97\xa5\xe6\x9c\xac\\x07  -\n");
    Style narrow;
    narrow.width = 45;
    ExpectParts(ThreadTable(sample, narrow),
                {"\n23  Runnable     http-1    com.acme.Cart.tot\xe2\x80\xa6\n"});
    ExpectParts(SampleNotes(sample, 1100), {"has 1100 threads"});
}

TEST(Render, ControlCharactersBecomeVisible) {
    EXPECT_EQ(Printable("a\x1b[31m\xc2\x9b\xe2\x80\xae\xff\xed\xa0\x80"),
              "a\\x1b[31m\\xc2\\x9b\\xe2\\x80\\xae\\xff\\xed\\xa0\\x80");
    EXPECT_EQ(FailureText(Failure("a\x1b[2J", "b\xc2\x9b")), "a\\x1b[2J; b\\xc2\\x9b");
    EXPECT_EQ(JsonText("\x1b\x7f\xc2\x9b\xe2\x80\xae", true), "\"\\u001b\\u007f\\u009b\\u202e\"");
    EXPECT_EQ(VisibleReply(Wire("a~b;c!d\xc2\x9b")), "a<29>b<30>\nc<31>\nd\\xc2\\x9b\n");
}

} // namespace
