#include "AgentNatives.h"
#include "RequestHandler/XtierDbSession.h"
#include "jvmti/JavaClasses.h"
#include "platforms/linux.h"
#include "platforms/qorsysinfo.h"
#include "qoragent/requests/channel.h"
#include "qoragent/worker.h"
#include "qorrequest.h"

#include <chrono>
#include <random>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct Request : AgentTest {
    void SetUp() override { Start(10); }

    void Start(int timeout) {
        StartArguments arguments;
        arguments.timeout = timeout;
        ASSERT_EQ(StartAgent(arguments), 0);
    }
};

} // namespace

TEST_F(Request, EachCommandAndKeyHasItsReply) {
    const std::string longDir(255, 'd');
    struct {
        std::string request, reply;
    } rows[] = {
        {"516|NoProcessing", "NoProcessing: Invalid Format"},
        {"516|NoProcessing|colour|3", "NoProcessing: Unkownn argument"},
        {"516|NoProcessingX|qorretryX|18", "Changed qorretry to 18"},
        {"516|NoProcessing|qorheapdir|/a/|b", "Changed qorheapdir to /a/"},
        {"516|NoProcessing|qorheapdir|" + longDir, "Changed qorheapdir to " + longDir.substr(0, 253) + "/"},
        {"516|NoProcessing|CZPRequest", ""},
        {"516|hello|1", "Invalid Request hello"},
        {"516|xtier01", "ERROR Null parameters for request xtier01"},
        {"516|NoProcessing|qorretry|5|\t|\t\t||and the rest", "Changed qorretry to 5"},
        {"516|showqor|0", ""},
    };
    for (const auto &row : rows) {
        Ask("516|showqor|64"); // a request that gets no timing line, nor does one that keeps its id
        EXPECT_EQ(Ask(row.request), row.reply) << row.request;
    }
    EXPECT_EQ(Ask("516|showstacXYZ|64").find("Invalid"), std::string::npos) << "eight bytes are compared";
    EXPECT_EQ(qorretry, 5);
}

// Whatever arrives is answered or runs out of time, and the next request is answered as ever. A request is
// cut at 20,487 bytes; a null one asks the last text again, whose fields are cut by then.
TEST_F(Request, MalformedRequestsHarmNothing) {
    for (const std::string request :
         {"", "nobar", "516||||||", "99999999999999999999|showqor|-8192|ARG=x,0"}) {
        const bool isLost = request.find('|') == std::string::npos;
        qor_max_timeout = isLost ? 1 : 10;
        EXPECT_EQ(Ask(request) == TIMED_OUT, isLost) << request;
        qor_max_timeout = 10;
        EXPECT_EQ(Setting(7), SettingReply(7)) << "after " << request;
    }
    Ask("516|showqor|64");
    for (const size_t length : {20486, 20487, 20488, 30000}) {
        const std::string word(length - 4, 'y');
        EXPECT_EQ(Ask("516|" + word), "Invalid Request " + word.substr(0, REQUEST_LIMIT - 4));
    }
    EXPECT_EQ(Setting(8), SettingReply(8));
    EXPECT_EQ(Ask(static_cast<const char *>(nullptr)), "NoProcessing: Invalid Format");

    Start(30);
    const char *const commands[] = {"showqor|", "showstack|", "xtier01|", "NoProcessing|"},
                      *const values[] = {"", "0", "-1", "1-1", "7777", "4294967296", "x\x1e"};
    std::mt19937 random(20240229);
    KeepsNothing(20, [&] {
        for (int i = 0; i < 100; i++) {
            std::string request = "516|" + (commands[random() % 4] + std::to_string(random() & random()));
            request += random() % 4 ? "|ARG=x" : "";
            for (unsigned left = random() % 4; left > 0; left--)
                request += "," + std::to_string(random() % 10) + "=" + values[random() % 7];
            ASSERT_NE(Ask(request), TIMED_OUT) << request;
        }
    });
}

// The constant reply, and no other for whoever asks next, not even while the late worker writes its own; what
// ran out of time before the worker took it isn't done.
TEST_F(Request, ALateReplyIsNobodys) {
    Start(1);
    qorretry = 0;
    {
        HeldWorker held;
        EXPECT_EQ(Ask("516|showqor|8192"), TIMED_OUT);
        EXPECT_EQ(Setting(1), TIMED_OUT) << "the worker is still held";
        EXPECT_FALSE(QorTakeRequest());
        qor_max_timeout = 60;
        qorlocks[1] = 0; // until the next request is posted
        std::string reply;
        std::thread next = AskAside(SettingRequest(3), &reply);
        while (qorlocks[1] == 0)
            std::this_thread::yield();
        EXPECT_EQ(qorretry, 0);
        held.let();
        next.join();
        EXPECT_EQ(reply, SettingReply(3));
    }
    for (int i = 10; i < 200; i++)
        ASSERT_EQ(Setting(i), SettingReply(i));
}

// A host that closes descriptors at large, and opens its own under their numbers, keeps these to itself: when
// the agent is idle, or has ended before the next start finds the numbers.
TEST_F(Request, DescriptorsThatTheHostTookAreItsOwn) {
    const std::string bytes(42, 'x');
    for (const bool isIdle : {true, false}) {
        int sockets[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, sockets), 0);
        EXPECT_EQ(write(sockets[1], bytes.data(), bytes.size()), 42);
        if (!isIdle)
            ShutDownAgent();
        const int taken[] = {pipe_fd_PP[0], pipe_fd_PP[1],  pipe_fd_CH[0],
                             pipe_fd_CH[1], proc_net_fd[0], cpu_stat_fd};
        for (int fd : taken)
            dup2(sockets[0], fd);
        if (isIdle) {
            EXPECT_EQ(Setting(1), NO_ANSWER);
        }
        QorSignalParent();
        while (Workers() > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        Start(10);
        EXPECT_EQ(Setting(2), SettingReply(2));
        EXPECT_NE(proc_net_fd[0], taken[4]);
        EXPECT_NE(cpu_stat_fd, taken[5]);
        char seen[64];
        EXPECT_EQ(read(sockets[1], seen, sizeof seen), -1) << "the agent wrote into it";
        EXPECT_EQ(read(taken[3], seen, sizeof seen), 42) << "the agent read or closed it";
        for (int fd : taken)
            close(fd);
        close(sockets[0]);
        close(sockets[1]);
    }
}
