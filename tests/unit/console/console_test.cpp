// What the console sends, what it reads of a process and a JVM's attach listener, and what it shows.
#include "base/failure.h"
#include "base/inside.h"
#include "base/process.h"
#include "base/terminal.h"
#include "jvm/attach.h"
#include "jvm/endpoint.h"
#include "jvm/proof.h"
#include "show/json.h"
#include "show/render.h"
#include "wire.h"
#include "wire/decode.h"
#include "wire/request.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace qorctl;

namespace {

TEST(Requests, Texts) {
    auto threads = [](bool details, bool all, bool repeated, const char *key) {
        ThreadQuestion question;
        question.details = details;
        question.all = all;
        question.repeated = repeated;
        question.thread_key = key;
        return ThreadsRequest(question);
    };
    EXPECT_EQ(threads(false, false, false, ""), "521|showstack|8192");
    EXPECT_EQ(threads(false, false, true, ""), "9|showstack|8192");
    EXPECT_EQ(threads(true, false, false, ""), "537|showstack|32768");
    EXPECT_EQ(threads(false, true, false, ""), "777|showstack|32768");
    EXPECT_EQ(threads(true, true, true, ""), "281|showstack|32768");
    EXPECT_EQ(threads(false, false, false, "77-23"), "553|showstack|32768|ARG=x,1=77-23");
    EXPECT_EQ(SummaryRequest(false), "521|showqor|320");
    EXPECT_EQ(SettingRequest("qorloglevel", "3"), "521|NoProcessing|qorloglevel|3");
}

TEST(Requests, RulesTravelWithCarriageReturns) {
    const std::string head = "521|NoProcessing|activethreads|";
    EXPECT_EQ(RulesRequest("abcd|threadname|A*\nabcd|currcall|b"),
              head + "abcd|threadname|A*\rabcd|currcall|b\r");
    EXPECT_EQ(RulesRequest("# c\r\nabcd|monitor|x\r\n\r\n"), head + "# c\rabcd|monitor|x\r");
    EXPECT_EQ(RulesRequest(""), head + "#"); // no rules is an answer too
    EXPECT_EQ(RulesRequest("\n\n"), head + "#");
    EXPECT_THROW(RulesRequest(std::string(20480, 'x')), Failure);
    EXPECT_THROW(RulesRequest("abcd|threadname||\t|\t\t||"), Failure);
    EXPECT_THROW(CheckRequest("a\nb"), Failure);
    EXPECT_NO_THROW(CheckRequest(std::string(20480, 'x')));
    EXPECT_THROW(CheckRequest(std::string(20481, 'x')), Failure);
}

TEST(Requests, RulesWithoutEffectAreTold) {
    std::string rules =
        "# comment\nabcd|threadname|ok\nabc|threadname|x\nabcd|threadname\nabcd||x\nabcd|currcall|\n";
    std::vector<std::string> faults = CheckRules(rules);
    ASSERT_EQ(faults.size(), 4u);
    const char *lines[] = {"line 3 ", "line 4 ", "line 5 ", "line 6 "};
    for (size_t i = 0; i < faults.size(); ++i)
        EXPECT_EQ(faults[i].compare(0, strlen(lines[i]), lines[i]), 0) << faults[i];
    ASSERT_EQ(CheckRules("# dos\r\n\r\nbad\r\n").size(), 1u);
    EXPECT_EQ(CheckRules("# dos\r\n\r\nbad\r\n")[0].compare(0, 7, "line 3 "), 0);
    std::string many;
    for (int i = 0; i < 151; ++i)
        many += i % 2 ? "abcd|threadname|x\n" : "abcd|monitor|x\n";
    EXPECT_EQ(CheckRules(many).size(), 1u); // one table holds both kinds
    EXPECT_TRUE(CheckRules(many.substr(many.find('\n') + 1) + "abcd|systemcall|java.*\nabcd|s|3").empty());
}

TEST(Requests, ThreadKeys) {
    EXPECT_EQ(ThreadKeyText("23", 77), "77-23");
    EXPECT_EQ(ThreadKeyText("5-23", 77), "5-23");
    for (const char *wrong : {"", "-", "x", "1-", "-1", "1-2-3", "1,2=3", "1|2", "12345678901234567890"})
        EXPECT_THROW(ThreadKeyText(wrong, 77), Failure) << wrong;
}

TEST(Endpoint, File) {
    const std::string token = "0123456789abcdef0123456789abcdef";
    const std::string good = "port=40001\ntoken=" + token + "\npid=77\nversion=1\n";
    auto endpoint = ParseEndpoint(good);
    ASSERT_TRUE(endpoint);
    EXPECT_EQ(endpoint->port, 40001);
    EXPECT_EQ(endpoint->token, token);
    EXPECT_EQ(endpoint->inner_pid, 77);
    EXPECT_TRUE(ParseEndpoint(good + "something=new\n"));
    EXPECT_EQ(ParseEndpoint(good + "bind=127.0.0.2\n")->address, htonl(0x7f000002));
    for (const char *bind : {"", "bind=0.0.0.0\n", "bind=::1\n"}) // any address is reached by the loopback
        EXPECT_EQ(ParseEndpoint(good + bind)->address, htonl(INADDR_LOOPBACK)) << bind;
    const std::string wrong[] = {
        "",
        "port=40001\ntoken=" + token + "\npid=77\n",
        "port=0\ntoken=" + token + "\npid=77\nversion=1\n",
        "port=65536\ntoken=" + token + "\npid=77\nversion=1\n",
        "port=4x\ntoken=" + token + "\npid=77\nversion=1\n",
        "port=4\ntoken=" + token + "0\npid=77\nversion=1\n",
        "port=4\ntoken=" + token.substr(1) + "g\npid=77\nversion=1\n",
        "port=4\ntoken=" + token + "\npid=-7\nversion=1\n",
        "port=4\ntoken=" + token + "\npid=77\nversion=2\n",
    };
    for (const std::string &text : wrong)
        EXPECT_FALSE(ParseEndpoint(text)) << text;
}

TEST(Endpoint, WhoListensIsProven) {
    const struct {
        const char *address;
        bool v6;
        in_addr_t asked;
        Proof expected;
    } rows[] = {
        {"127.0.0.1", false, INADDR_LOOPBACK, Proof::PROVEN},
        {"0.0.0.0", false, INADDR_LOOPBACK, Proof::PROVEN},
        {"127.0.0.2", false, INADDR_LOOPBACK, Proof::OTHER},
        {"::ffff:127.0.0.1", true, INADDR_LOOPBACK, Proof::PROVEN},
        {"::", true, INADDR_LOOPBACK, Proof::PROVEN},
    };
    for (auto &row : rows) {
        FileDescriptor server(socket(row.v6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in6 where = {};
        auto *v4 = reinterpret_cast<sockaddr_in *>(&where);
        where.sin6_family = row.v6 ? AF_INET6 : AF_INET;
        void *place = row.v6 ? static_cast<void *>(&where.sin6_addr) : &v4->sin_addr;
        inet_pton(where.sin6_family, row.address, place);
        socklen_t size = sizeof where;
        auto *any = reinterpret_cast<sockaddr *>(&where);
        if (bind(server.get(), any, size) != 0 && row.v6)
            continue; // a host without IPv6
        getsockname(server.get(), any, &size);
        Endpoint endpoint;
        endpoint.address = htonl(row.asked);
        endpoint.port = ntohs(where.sin6_port);
        EXPECT_EQ(ProveListener("/proc/self", endpoint), Proof::OTHER) << "it doesn't listen yet";
        listen(server.get(), 1);
        EXPECT_EQ(ProveListener("/proc/self", endpoint), row.expected) << row.address;
        EXPECT_EQ(ProveListener(fmt::format("/proc/{}", getppid()), endpoint), Proof::OTHER) << row.address;
        EXPECT_EQ(ProveListener("/proc/self/net", endpoint), Proof::UNKNOWN);
    }
    Endpoint elsewhere;
    for (const char *address : {"203.0.113.1", "224.0.0.1", "255.255.255.255", "0.0.0.1"}) {
        inet_pton(AF_INET, address, &elsewhere.address);
        EXPECT_THROW(CheckListener(Process(), elsewhere), Failure) << address;
    }
}

TEST(Attach, LoadReplies) {
    for (const char *good : {"0\n0\n", "0\nreturn code: 0\n", "0\n", "0"})
        EXPECT_NO_THROW(CheckLoadReply(good, "/x.jar")) << good;
    struct {
        const char *reply, *told;
    } rows[] = {
        {"", "hung up"},
        {"0\n100\n", "can't use /x.jar"},
        {"0\nreturn code: 100\n", "can't use /x.jar"},
        {"0\nreturn code: 102\n", "start failed"},
        {"0\n102\n", "start failed"},
        {"0\nreturn code: -1\n", "code -1"},
        {"-1\nDynamic agent loading is not enabled. Use -XX:+EnableDynamicAgentLoading to launch target VM.",
         "-XX:-EnableDynamicAgentLoading"},
        {"0\nDynamic agent loading is not enabled. Use -XX:+EnableDynamicAgentLoading to launch target VM.\n",
         "-XX:-EnableDynamicAgentLoading"},
        {"0\nNo agent library\nat all\n", "refused the agent: No agent library"},
        {"101\n", "code 101"},
    };
    for (auto &row : rows)
        try {
            CheckLoadReply(row.reply, "/x.jar");
            ADD_FAILURE() << row.reply;
        } catch (const Failure &failure) {
            EXPECT_NE(std::string(failure.what()).find(row.told), std::string::npos) << failure.what();
        }
}

TEST(Attach, Properties) {
    std::string text = "0\n#Fri\na=1\nqoragent.status=failed\\: no \\\\ way\nqoragent.status.x=2\n";
    EXPECT_EQ(PropertyValue(text, "qoragent.status"), "failed: no \\ way");
    EXPECT_EQ(PropertyValue(text, "status"), "");
}

TEST(Process, Status) {
    Process process;
    ASSERT_TRUE(
        ParseStatus("Name:\tjava (x)\nState:\tS (sleeping)\nUid:\t1000\t1001\t1002\t1003\n"
                    "Gid:\t50\t51\t52\t53\nThreads:\t33\nNSpid:\t4711\t12\nSigCgt:\t2000000101005ccf\n",
                    &process));
    EXPECT_EQ(process.euid, 1001u);
    EXPECT_EQ(process.egid, 51u);
    EXPECT_EQ(process.threads, 33);
    EXPECT_EQ(process.inner_pid, 12);
    EXPECT_TRUE(process.catches_sigquit);
    EXPECT_FALSE(process.stopped);
    ASSERT_TRUE(ParseStatus("State:\tT (stopped)\nUid:\t1\t1\t1\t1\nSigCgt:\t2000000101005ccb\n", &process));
    EXPECT_FALSE(process.catches_sigquit);
    EXPECT_TRUE(process.stopped);
    EXPECT_FALSE(ParseStatus("State:\tZ (zombie)\nUid:\t1\t1\t1\t1\n", &process));
    EXPECT_FALSE(ParseStatus("", &process));
    EXPECT_EQ(MapUid("         0     100000      65536\n", 101000u), 1000u);
    EXPECT_EQ(MapUid("         0     100000      65536\n", 5u), 5u);
}

// A process of another user in a root directory of its own, in which that user has laid traps.
class Captive {
public:
    static constexpr uid_t USER = 65534;

    Captive() {
        for (const char *dir : {"/bin", "/jail", "/jail/bin", "/jail/own"})
            mkdir(At(dir).c_str(), 0755);
        Write("/secret", "secret", 0, 0600);
        Write("/jail/own/good", "good", USER, 0600);
        Write("/jail/own/roots", "secret", 0, 0600);
        Write("/jail/own/large", std::string(LONGEST_INSIDE + 1, 'x'), USER, 0600);
        Write("/bin/tool", "ours", USER, 0644);
        Write("/jail/bin/tool", "theirs", USER, 0644);
        symlink(At("/secret").c_str(), At("/jail/own/link").c_str());
        symlink("good", At("/jail/own/near").c_str());
        symlink(At("/bin").c_str(), At("/jail/outside").c_str());
        symlink("/bin", At("/jail/absolute").c_str());
        symlink("../../../..", At("/jail/up").c_str());
        mkfifo(At("/jail/own/fifo").c_str(), 0666);
        mknod(At("/jail/own/device").c_str(), S_IFCHR | 0666, makedev(1, 5)); // endless zeroes
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        process.pid = fork();
        if (process.pid == 0) {
            bool in = chroot(At("/jail").c_str()) == 0 && chdir("/") == 0 && setgroups(0, nullptr) == 0 &&
                      setresgid(USER, USER, USER) == 0 && setresuid(USER, USER, USER) == 0;
            prctl(PR_SET_DUMPABLE, 1);
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
        std::filesystem::remove_all(place_);
    }

    std::string At(const std::string &path) const { return place_ + path; }
    void Write(const std::string &path, const std::string &text, uid_t owner, mode_t mode) const {
        std::ofstream(At(path)) << text;
        EXPECT_EQ(chown(At(path).c_str(), owner, owner) | chmod(At(path).c_str(), mode), 0);
    }

    Process process;

private:
    static std::string MakePlace() {
        char place[] = "/tmp/qor-captive-XXXXXX";
        EXPECT_NE(mkdtemp(place), nullptr);
        chmod(place, 0755);
        return place;
    }
    std::string place_ = MakePlace();
};

TEST(Inside, TrapsAreNotOpened) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can be led astray";
    Captive captive;
    const std::pair<const char *, const char *> rows[] = {
        {"/own/good", "good"},
        {"/own/near", ""},
        {"/own/link", ""},
        {"/own/roots", ""},
        {"/own/fifo", ""},
        {"/own/device", ""},
        {"/own/large", ""},
        {"/own", ""},
        {"/absolute/tool", "theirs"},
        {"/outside/tool", ""},
        {"/up/bin/tool", "theirs"},
    };
    for (auto &row : rows) {
        auto look = [&](int root) { return ReadRegular(root, BelowRoot(row.first)); };
        EXPECT_EQ(LookInside(captive.process, look), row.second) << row.first;
    }
    auto as_whom = [](int) { return fmt::format("{} {} {}", getuid(), getgid(), getgroups(0, nullptr)); };
    EXPECT_EQ(LookInside(captive.process, as_whom), "65534 65534 0");
    EXPECT_FALSE(LookInside(captive.process, [](int) { return std::string(pause(), ' '); })) << "it hangs";
    captive.Write("/jail/own/release", "JAVA_VERSION=\"9\"", 0, 0600);
    symlink("own/release", captive.At("/jail/release").c_str());
    EXPECT_EQ(VersionBesideLibrary(captive.process, "/own/bin/libjvm.so"), "");
}

// Owner, mode and kind of the directory and of the file, as the agent makes them and as somebody else may.
TEST(Inside, EndpointsOfStrangersAreNotBelieved) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can make files of others";
    Captive captive;
    captive.process.inner_pid = 77;
    const std::string text = "port=1\ntoken=0123456789abcdef0123456789abcdef\npid=77\nversion=1\n";
    enum { FOUND, NOTHING, TAKEN, REFUSED, MISREAD };
    const struct {
        uid_t dir_owner;
        mode_t dir_mode;
        uid_t owner;
        mode_t mode;
        int expected;
    } rows[] = {
        {Captive::USER, 0700, Captive::USER, 0600, FOUND},
        {Captive::USER, 02700, Captive::USER, 0400, FOUND},
        {0, 0700, Captive::USER, 0600, TAKEN},
        {Captive::USER, 0710, Captive::USER, 0600, TAKEN},
        {Captive::USER, 0707, Captive::USER, 0600, TAKEN},
        {Captive::USER, 0700, 0, 0600, REFUSED},
        {Captive::USER, 0700, Captive::USER, 0640, REFUSED},
        {Captive::USER, 0700, Captive::USER, 0602, REFUSED},
        {0, 0755, 1, 0644, TAKEN},
    };
    auto find = [&] {
        bool taken = false;
        try {
            return FindEndpoint(captive.process, "/dir", &taken) ? FOUND : taken ? TAKEN : NOTHING;
        } catch (const Failure &failure) {
            return strstr(failure.what(), "user's own") ? REFUSED : MISREAD;
        }
    };
    EXPECT_EQ(find(), NOTHING);
    mkdir(captive.At("/jail/dir").c_str(), 0700);
    for (auto &row : rows) {
        captive.Write("/jail/dir/77.endpoint", text, row.owner, row.mode);
        ASSERT_EQ(chown(captive.At("/jail/dir").c_str(), row.dir_owner, 0), 0);
        ASSERT_EQ(chmod(captive.At("/jail/dir").c_str(), row.dir_mode), 0);
        EXPECT_EQ(find(), row.expected) << &row - rows;
    }
    captive.Write("/jail/good", text, Captive::USER, 0600);
    ASSERT_EQ(chown(captive.At("/jail/dir").c_str(), Captive::USER, 0), 0);
    ASSERT_EQ(chmod(captive.At("/jail/dir").c_str(), 0700), 0);
    remove(captive.At("/jail/dir/77.endpoint").c_str());
    EXPECT_EQ(find(), NOTHING);
    symlink("/good", captive.At("/jail/dir/77.endpoint").c_str());
    EXPECT_EQ(find(), REFUSED) << "a link";
    rename(captive.At("/jail/dir").c_str(), captive.At("/jail/elsewhere").c_str());
    symlink("elsewhere", captive.At("/jail/dir").c_str());
    EXPECT_EQ(find(), TAKEN) << "a link";
}

TEST(Process, Maps) {
    const std::string head = "7f00-7f01 r-xp 00000000 08:01 1 ";
    struct {
        std::string maps;
        JvmKind kind;
        const char *library;
    } rows[] = {
        {head + "/usr/lib/jvm/x y/lib/server/libjvm.so\n", JvmKind::HOTSPOT,
         "/usr/lib/jvm/x y/lib/server/libjvm.so"},
        {head + "/j/libjvm.so (deleted)\n", JvmKind::HOTSPOT, "/j/libjvm.so"},
        {head + "/j/libjvm.so\n" + head + "/j/libj9vm29.so\n", JvmKind::OTHER, ""},
        {head + "/j/notlibjvm.so\n" + head + "[heap]\n7f00-7f01 rw-p 0 0 0 \n", JvmKind::NONE, ""},
    };
    for (auto &row : rows) {
        std::string library;
        EXPECT_EQ(ParseMaps(row.maps, &library), row.kind) << row.maps;
        if (row.kind != JvmKind::OTHER) {
            EXPECT_EQ(library, row.library);
        }
    }
}

TEST(Process, MainClass) {
    const std::pair<std::vector<std::string>, const char *> rows[] = {
        {{"/usr/bin/java", "-Xmx1g", "-cp", "a:b", "com.acme.Main", "-jar", "x"}, "com.acme.Main"},
        {{"java", "-jar", "/opt/app/shop.jar", "start"}, "shop.jar"},
        {{"java", "@args", "--module-path", "m", "--module=a/b.C"}, "a/b.C"},
        {{"java", "-p", "m", "-m", "a/b.C", "x"}, "b.C"},
        {{"/opt/tomcat/bin/jsvc", "-home", "x"}, "jsvc"},
        {{"java"}, ""},
        {{"java", "-cp"}, ""},
    };
    for (auto &row : rows)
        EXPECT_EQ(MainClass(row.first), row.second);
}

// A performance file of one string entry, laid out as the JVM does.
std::string PerfFile(const std::string &name, const std::string &value) {
    std::string entry(20, '\0');
    std::string body = name + '\0';
    uint32_t name_at = 20, data_at = name_at + static_cast<uint32_t>(body.size());
    body += value + '\0';
    uint32_t vector = static_cast<uint32_t>(value.size()) + 1,
             length = 20 + static_cast<uint32_t>(body.size());
    memcpy(&entry[0], &length, 4);
    memcpy(&entry[4], &name_at, 4);
    memcpy(&entry[8], &vector, 4);
    entry[12] = 'B';
    memcpy(&entry[16], &data_at, 4);
    std::string file("\xca\xfe\xc0\xc0\x01\x02\x00\x01", 8);
    file.resize(32);
    uint32_t first = 32, count = 1;
    memcpy(&file[24], &first, 4);
    memcpy(&file[28], &count, 4);
    return file + entry + body;
}

TEST(Process, PerformanceFile) {
    std::string file = PerfFile("sun.rt.jvmCapabilities", "0100");
    EXPECT_EQ(ParsePerfData(file).capabilities, "0100");
    EXPECT_EQ(ParsePerfData(PerfFile("java.property.java.version", "17.0.15")).java_version, "17.0.15");
    EXPECT_EQ(ParsePerfData(PerfFile("java.cls.loaded", "1")).capabilities, "");
    for (size_t length = 0; length < file.size();
         ++length) // cut files and wild offsets are read as nothing more
        ParsePerfData(std::string_view(file).substr(0, length));
    for (size_t at = 24; at < 52; ++at) {
        std::string wild = file;
        wild[at] = '\xff';
        ParsePerfData(wild);
    }
    Process process;
    PerfData perf = ParsePerfData(file);
    EXPECT_TRUE(AttachDisabled(process, perf));
    perf.capabilities = "1100";
    EXPECT_FALSE(AttachDisabled(process, perf));
    process.arguments = {"java", "-XX:+DisableAttachMechanism", "A"};
    EXPECT_TRUE(AttachDisabled(process, PerfData()));
}

ThreadSample DetailsSample() {
    static const std::string text =
        Wire("Thread Info Details;" + DETAILS_ROW + "!" + STACK +
             "!Lock On;6699~77-31~java.lang.Object@6699~View Thread Holding this Lock"
             "!JVM Locks;12~0~com.acme.Cart@12~1;13~0~a.X@13~900;14~0~a.Y@14~200;"
             "!Thread Info Details;ow\x1bner~^~/cart~id=7~77-31~^~^~^~Sleeping!Call Stack"
             ";java.lang.Thread->sleep~Native Method~^~31~0~9~^~^!" +
             TIMING);
    return DecodeThreads(OpenReply(text));
}

TEST(Render, ThreadDump) {
    EXPECT_EQ(ThreadDump(DetailsSample(), Style()),
              "\"http-1\" #23 Lock\n"
              "   call: com.acme.Cart.total(Cart.java:12)\n"
              "\tat com.acme.Cart.add(Cart.java:40)\n"
              "\t- waiting to lock <6699> (a java.lang.Object), held by thread #31 \"ow\\x1bner\"\n"
              "\tat com.acme.Cart.total(Cart.java:12)\n"
              "\t- locked <12> (a com.acme.Cart)\n"
              "\t... 697 frames skipped\n"
              "\t- locked <14> (a a.Y) at frame 200\n"
              "\tat java.lang.Thread.run(Native Method)\n"
              "\t- locked <13> (a a.X), by a frame that isn't known\n"
              "\n"
              "\"ow\\x1bner\" #31 Sleeping\n"
              "   request: /cart id=7\n"
              "\tat java.lang.Thread.sleep(Native Method)\n"
              "\n");
}

TEST(Render, TableIsAlignedAndCut) {
    std::string text = Wire("JVM Active Threads;" + ACTIVE_ROW +
                            ";a~\xe6\x97\xa5\xe6\x9c\xac\x07~^~^~^~77-9~^~^~^~Object Wait;!" + TIMING);
    ThreadSample sample = DecodeThreads(OpenReply(text));
    EXPECT_EQ(ThreadTable(sample, Style()), "ID  STATE        THREAD    CALL\n"
                                            "23  Runnable     http-1    com.acme.Cart.total(Cart.java:12)\n"
                                            " 9  Object Wait  \xe6\x97\xa5\xe6\x9c\xac\\x07  -\n");
    Style narrow;
    narrow.width = 45;
    std::string table = ThreadTable(sample, narrow);
    EXPECT_NE(table.find("com.acme.Cart.tot\xe2\x80\xa6\n"), std::string::npos) << table;
    for (size_t at = 0; at < table.size(); at = table.find('\n', at) + 1)
        EXPECT_LE(DisplayWidth(table.substr(at, table.find('\n', at) - at)), 45u);
    Style colour;
    colour.colour = true;
    EXPECT_NE(ThreadTable(sample, colour).find("\x1b[32mRunnable\x1b[0m     http-1"), std::string::npos);
    EXPECT_EQ(SampleNotes(sample, 40), "2 threads, 321 us in the JVM");
    EXPECT_NE(SampleNotes(sample, 1100).find("has 1100 threads"), std::string::npos);
}

TEST(Render, ControlCharactersBecomeVisible) {
    EXPECT_EQ(Printable("a\x1b[31m\xc2\x9b\xe2\x80\xae\xff\xed\xa0\x80"),
              "a\\x1b[31m\\xc2\\x9b\\xe2\\x80\\xae\\xff\\xed\\xa0\\x80");
    try {
        CheckLoadReply("0\n\x1b]0;t\x07\n", "/x.jar");
        ADD_FAILURE() << "taken for an answer";
    } catch (const Failure &failure) {
        EXPECT_EQ(FailureText(failure).find_first_of("\x1b\x07"), std::string::npos) << failure.what();
    }
    EXPECT_EQ(FailureText(Failure("a\x1b[2J", "b\xc2\x9b")), "a\\x1b[2J; b\\xc2\\x9b");
    EXPECT_EQ(JsonText("\x1b\x7f\xc2\x9b\xe2\x80\xae", true), "\"\\u001b\\u007f\\u009b\\u202e\"");
    EXPECT_EQ(VisibleReply(Wire("a~b;c!d\xc2\x9b")), "a<29>b<30>\nc<31>\nd\\xc2\\x9b\n");
}

} // namespace
