#include "AgentNatives.h"
#include "Descriptors.h"
#include "Folder.h"
#include "jvmti/JavaClasses.h"
#include "qoragent/agent_state.h"
#include "qoragent/requests/channel.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorutil.h"

#include <atomic>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Start : AgentTest {};

} // namespace

// Each level and JVM: what Java gets, the build, and what a sample gets then.
TEST_F(Start, LevelAndJvmDecideTheRoad) {
    constexpr char SUN[] = "Sun Microsystems Inc.", SAMPLE[] = "JVM Active Threads\x1e";
    const struct {
        int level;
        const char *vendor, *version;
        int status, build, localsByWalk;
        std::string sample;
    } rows[] = {
        {3, "Debian", "17.0.1", 0, 99, 0, SAMPLE},
        {1, "Debian", "17.0.1", 0, 98, 0, SAMPLE},
        {2, "DOV Systems, Inc.", "1.6.0_11", 0, 65, 1, SAMPLE},
        // The direct road has its row but finds no symbol: a status of failure, and nothing is read.
        {2, SUN, "1.5.0_22", 1, 10, 0, "QOR Uninitialized for this JVM"},
        {7, "Debian", "17.0.1", 2, 0, 0, "QOR Uninitialized for this JVM"},
        // Not listed: no worker, no answer.
        {2, SUN, "1.5.0_09", 7, -100, 0, NO_ANSWER},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.version + (" at " + std::to_string(row.level)));
        StartArguments arguments;
        arguments.level = row.level;
        arguments.vendor = row.vendor;
        arguments.version = row.version;
        EXPECT_EQ(StartAgent(arguments), row.status);
        EXPECT_EQ(offsetind, row.build);
        EXPECT_EQ(gbQorRELocal, row.localsByWalk);
        EXPECT_EQ(gbQorSkipLocal, row.level == 3);
        EXPECT_EQ(Ask("516|showqor|8192").substr(0, row.sample.size()), row.sample);
        EXPECT_EQ(Setting(4), row.status == 7 ? NO_ANSWER : SettingReply(4));
        EXPECT_EQ(Workers(), QorOnJvmtiRoad() ? 1 : 0);
    }
}

// Null and over-long texts: the settings before, or the first bytes, and the agent starts all the same.
TEST_F(Start, TextsOfAnySizeAreTaken) {
    const std::string huge(5000, 'v');
    StartArguments arguments;
    arguments.vendor = arguments.version = arguments.osName = arguments.webserver = arguments.jvmId =
        huge.c_str();
    arguments.sqlLength = QOR_MAX_SQL_QUERY_SIZE + 1;
    EXPECT_EQ(StartAgent(arguments), START_OK);
    arguments.vendor = arguments.version = arguments.osName = arguments.logFile = arguments.jvmId = nullptr;
    EXPECT_EQ(StartAgent(arguments), START_OK);
    EXPECT_EQ(std::string(vend) + vers + webserver + ext_jvm_id_str, huge.substr(0, 127 + 254 + 79 + 255));
    EXPECT_EQ(gbSqlQueryLength, QOR_MAX_SQL_QUERY_SIZE);
    EXPECT_EQ(fpLogFile, stdout);
}

TEST_F(Start, TheLogGoesToAPlainFileOfItsOwnOrToTheOutput) {
    const Folder in;
    const std::string fresh = in.In("log"), users = in.Fill("users", "");
    ASSERT_EQ(mkfifo(in.In("fifo").c_str(), 0600) + symlink(users.c_str(), in.In("link").c_str()), 0);
    StartArguments arguments;
    arguments.logFile = fresh.c_str();
    arguments.logLevel = 4;
    umask(0);
    EXPECT_EQ(StartAgent(arguments), START_OK);
    EXPECT_EQ(std::filesystem::status(fresh).permissions(), std::filesystem::perms(0600));
    EXPECT_TRUE(IsCloseOnExec(fileno(fpLogFile)));
    EXPECT_NE(in.Content("log"), "");
    arguments.logLevel = 0;
    for (const std::string &name : {in.In("fifo"), in.In("link"), in.In("")}) {
        arguments.logFile = name.c_str();
        EXPECT_EQ(StartAgent(arguments), START_OK);
        EXPECT_EQ(fpLogFile, stdout) << name;
    }
    EXPECT_EQ(in.Content("users"), "");
}

// Out and in, and in without out: one worker, nothing left, every request answered.
TEST_F(Start, RestartsLeaveNothingBehind) {
    StartArguments arguments;
    int round = 0;
    KeepsNothing(30, [&] {
        if (++round % 5 > 0)
            Ask("SHUTDOWN"); // the start waits for the end, however short the time-out is
        arguments.timeout = round % 2 ? 30 : 0;
        ASSERT_EQ(StartAgent(arguments), START_OK) << round;
        ASSERT_EQ(Setting(round), SettingReply(round));
        ASSERT_EQ(Ask("516|showqor|8192").substr(0, 18), "JVM Active Threads");
        ASSERT_EQ(Workers(), 1);
    });
}

// After the end: the time-out. A start while the earlier worker can't leave is refused and changes nothing:
// that worker goes on serving.
TEST_F(Start, NoTwoWorkersAtATime) {
    StartArguments arguments;
    arguments.timeout = 1;
    EXPECT_EQ(Setting(4), NO_ANSWER) << "before the first start";
    ASSERT_EQ(StartAgent(arguments), START_OK);
    ShutDownAgent();
    EXPECT_EQ(Setting(4), TIMED_OUT);
    EXPECT_EQ(Workers(), 0);

    ASSERT_EQ(StartAgent(arguments), START_OK);
    const HeldWorker held;
    EXPECT_EQ(Ask("516|showqor|8192"), TIMED_OUT);
    EXPECT_EQ(StartAgent(arguments), START_FAILED);
    EXPECT_NE(e2eclass, nullptr) << "the earlier agent was taken apart while it worked";
    EXPECT_EQ(Workers(), 1);
    HeldWorker::let();
    EXPECT_EQ(Setting(6), SettingReply(6)) << "it goes on serving";
}

// Without pipes there is no agent: the start fails and says why, leaves nothing, and bars no later one.
TEST_F(Start, WithoutAChannelTheStartFails) {
    StartArguments arguments;
    rlimit limit, none;
    getrlimit(RLIMIT_NOFILE, &limit);
    none = {3, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(StartAgent(arguments), START_FAILED);
    setrlimit(RLIMIT_NOFILE, &limit);
    ASSERT_NE(startFailure, nullptr);
    EXPECT_NE(std::string(startFailure).find("descriptors"), std::string::npos);
    EXPECT_EQ(e2eclass, nullptr);
    EXPECT_EQ(Setting(4), NO_ANSWER);
    EXPECT_EQ(StartAgent(arguments), START_OK);
    EXPECT_EQ(startFailure, nullptr);
    EXPECT_EQ(Setting(4), SettingReply(4));
}

// What one life was told and has collected is gone in the next.
TEST_F(Start, NothingOfAnEarlierLifeAnswers) {
    StartArguments arguments;
    ASSERT_EQ(StartAgent(arguments), START_OK);
    const int32_t rules = gacondcnt + gasystemcondcnt + gbcondcnt;
    EXPECT_EQ(Ask("516|NoProcessing|activethreads|mine|threadname|idle*\r"), "Added Idle Thread Rules");
    EXPECT_NE(gacondcnt + gasystemcondcnt + gbcondcnt, rules);
    EXPECT_EQ(Ask("516|NoProcessing|qorheapdir|/var/tmp"), "Changed qorheapdir to /var/tmp/");
    const char *const object = "516|showstack|1024|ARG=x,0=7777,1=0";
    jvmti->SetTag(Java<jobject>("Truth", "currentThread"), 7777);
    EXPECT_NE(Ask(object).find("Object Description"), std::string::npos);
    ShutDownAgent();
    for (jclass kept : {e2eclass, jobjclass, jstringclass, gbDbUtilClass, threadClass})
        EXPECT_EQ(kept, nullptr);
    ASSERT_EQ(StartAgent(arguments), START_OK);
    EXPECT_EQ(Ask(nullptr).find("Object"), std::string::npos);
    EXPECT_EQ(Ask(object).find("Object Description"), std::string::npos);
    EXPECT_STREQ(qorheapdir, "/tmp/");
    EXPECT_EQ(gacondcnt + gasystemcondcnt + gbcondcnt, rules);
}

// Callers on other threads while the agent restarts: each gets its own reply, a time-out or none, and isn't
// left on a closed pipe for its hour; the JVM lives. The first restart finds one waiting for an agent that
// has left.
TEST_F(Start, CallersMayBeInsideDuringARestart) {
    StartArguments arguments;
    arguments.timeout = 3600;
    ASSERT_EQ(StartAgent(arguments), START_OK);
    ShutDownAgent();
    std::atomic<bool> stop{false};
    std::atomic<int> answered{0}, wrong{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 3; i++)
        callers.emplace_back([&, i] {
            while (!stop) {
                std::string reply;
                AskAside(SettingRequest(i), &reply).join();
                const bool right = reply == SettingReply(i);
                answered += right;
                wrong += !right && reply != TIMED_OUT && reply != NO_ANSWER;
            }
        });
    while (qorlocks[1] == 0) // set by the caller just before it waits
        std::this_thread::yield();
    for (int i = 0; i < 8; i++) {
        if (i % 2)
            ShutDownAgent();
        for (int tries = 0; StartAgent(arguments) == START_FAILED; tries++)
            ASSERT_LT(tries, 10);
        for (const int before = answered; answered == before;)
            std::this_thread::yield();
    }
    stop = true;
    for (std::thread &caller : callers)
        caller.join();
    EXPECT_EQ(wrong, 0);
    ASSERT_EQ(StartAgent(arguments), START_OK);
    EXPECT_EQ(Setting(7), SettingReply(7));
    EXPECT_EQ(Workers(), 1);
}
