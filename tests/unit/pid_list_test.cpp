// Linux 2.4, acted out: a chain of processes named "java", and lists that the tests give instead of ps.
#include "Descriptors.h"
#include "LogCapture.h"
#include "platforms/linux.h"
#include "platforms/qorpidlist.h"
#include "platforms/qorsysinfo.h"
#include "qorsettings.h"

#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/times.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::vector<int32_t> Tracked() {
    std::vector<int32_t> pids;
    for (const QorCpuNode *node = cpu_list_start; node; node = node->next)
        pids.push_back(node->pid);
    return pids;
}

void SayPipelineLists(const std::vector<int32_t> &pids) {
    std::string command = "printf '";
    for (int32_t pid : pids)
        command += std::to_string(pid) + "\\n";
    snprintf(cpu_cmd_str, sizeof cpu_cmd_str, "%s no number\\n'", command.c_str());
}

int32_t StartIdleProcess() {
    const int32_t pid = fork();
    if (pid == 0)
        for (;;)
            pause();
    return pid;
}

void End(int32_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

// Runs `report` in the last of a chain of processes, and gives what it wrote. The processes from the
// `named`th on are named "java".
std::string InChain(int depth, int named, void (*report)(FILE *out)) {
    int32_t fds[2];
    EXPECT_TRUE(qor_create_pipe(fds));
    for (int level = 0;; level++) {
        const int32_t child = fork();
        if (child > 0) {
            if (level == 0)
                break;
            waitpid(child, nullptr, 0);
            _exit(0);
        }
        prctl(PR_SET_NAME, level >= named ? "java" : "launcher");
        if (level + 1 == depth) {
            FILE *out = fdopen(fds[1], "w");
            report(out);
            fflush(out);
            _exit(0);
        }
    }
    qor_close_handle(&fds[1]);
    std::string text;
    char piece[4096];
    for (ssize_t got; (got = qor_read_file(fds[0], piece, sizeof piece)) > 0;)
        text.append(piece, static_cast<size_t>(got));
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    qor_close_pipe(fds);
    return text;
}

struct PidList : testing::Test {
    PidList() { Restart("Linux-6.1"); }
    ~PidList() override { Restart("Linux-6.1"); }
    static void Restart(const char *system) {
        snprintf(os_name, sizeof os_name, "%s", system);
        qorsysinfo(0);
    }
};

} // namespace

TEST_F(PidList, FollowsWhatThePipelineLists) {
    EXPECT_EQ(Linux_Kernel_2_4, 0);
    const int before = OpenDescriptors();
    const int32_t one = StartIdleProcess(), two = StartIdleProcess();
    Linux_Kernel_2_4 = 1;
    ASSERT_EQ(add_pid(getppid()) + add_pid(getpid()), 2);
    EXPECT_TRUE(IsCloseOnExec(cpu_list_start->fd));
    const std::vector<int32_t> tree = {getppid(), getpid()};

    SayPipelineLists({one, two});
    rusage used;
    getrusage(RUSAGE_SELF, &used);
    ncpu = 1;
    EXPECT_GE(qorsysinfo(3), (used.ru_utime.tv_sec + used.ru_stime.tv_sec) * sysconf(_SC_CLK_TCK));
    EXPECT_EQ(Tracked(), (std::vector<int32_t>{tree[0], tree[1], one, two}));
    qorsysinfo(3);
    EXPECT_EQ(Tracked().size(), 4u) << "nothing is tracked twice";

    SayPipelineLists({two});
    qorsysinfo(4);
    EXPECT_EQ(Tracked(), (std::vector<int32_t>{tree[0], tree[1], two})) << "not listed any more";

    End(two);
    qorsysinfo(3);
    EXPECT_EQ(Tracked(), tree) << "listed, but gone";
    EXPECT_EQ(add_pid(two), 0);
    SayPipelineLists({one});
    qorsysinfo(3);
    EXPECT_EQ(Tracked(), (std::vector<int32_t>{tree[0], tree[1], one})) << "listed again, behind the last";
    End(one);
    SayPipelineLists({});
    qorsysinfo(3);
    EXPECT_EQ(Tracked(), tree) << "the first two stay";
    Restart("Linux-6.1");
    EXPECT_EQ(OpenDescriptors(), before);
    ncpu = getCpuCount();
}

TEST_F(PidList, TicksAreFoundBehindAnyName) {
    char name[16];
    prctl(PR_GET_NAME, name);
    prctl(PR_SET_NAME, "a) b (c 1 2 3");
    ASSERT_EQ(add_pid(getpid()), 1);
    snprintf(cpu_cmd_str, sizeof cpu_cmd_str, "true");
    tms before, after;
    do
        times(&before);
    while (before.tms_utime < 3);
    int64_t user = -1, system = -1;
    QorReadPidListTicks(&user, &system);
    times(&after);
    prctl(PR_SET_NAME, name);
    EXPECT_TRUE(before.tms_utime <= user && user <= after.tms_utime) << user;
    EXPECT_TRUE(before.tms_stime <= system && system <= after.tms_stime) << system;
}

TEST_F(PidList, HoldsOneLessThanItsNodes) {
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit earlier = limit;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < MAX_CPU_PIDS + 100)
        GTEST_SKIP() << "not enough descriptors allowed";
    const int before = OpenDescriptors();
    int32_t added = 0;
    while (added <= MAX_CPU_PIDS && add_pid(getpid()))
        added++;
    EXPECT_EQ(added, MAX_CPU_PIDS - 1);
    EXPECT_EQ(OpenDescriptors(), before + added) << "a refused process leaves no descriptor";
    delete_cpu_node(cpu_list_start->next);
    EXPECT_EQ(add_pid(getpid()), 1) << "a freed node is used again";
    EXPECT_EQ(add_pid(getpid()), 0);
    Restart("Linux-6.1");
    EXPECT_EQ(OpenDescriptors(), before);
    setrlimit(RLIMIT_NOFILE, &earlier);
}

TEST_F(PidList, BeginsWithTheTwoProcessesAbove) {
    auto report = [](FILE *out) {
        setenv("LOGNAME", "nobody", 1);
        Restart("Linux-2.4.20 (64 bit)");
        const std::vector<int32_t> pids = Tracked();
        const bool parents = pids.size() >= 2 && pids[0] == getppid();
        char expected[256];
        if (parents)
            snprintf(expected, sizeof expected,
                     "ps -fu nobody | while read i j k l; do echo $j $k; done | grep %d | grep -v %d | "
                     "cut -d' ' -f1",
                     pids[0], pids[1]);
        fprintf(out, "%d %d %d", Linux_Kernel_2_4, parents, parents && strcmp(cpu_cmd_str, expected) == 0);
    };
    EXPECT_EQ(InChain(3, 0, report), "1 1 1");
    EXPECT_EQ(InChain(3, 2, report), "0 0 0") << "the parent is no JVM";
    EXPECT_EQ(InChain(3, 1, report), "0 0 0") << "the grandparent is no JVM";
    EXPECT_EQ(InChain(3, 3, report), "0 0 0") << "this is no JVM";
}

TEST_F(PidList, GivesTheShellPlainUserNamesOnly) {
    auto report = [](FILE *out) {
        const std::string longName(300, 'a');
        for (const char *name : {"app.user-1_x", "a;echo 1", "$(id)", "a b", "-e", "", longName.c_str()}) {
            setenv("LOGNAME", name, 1);
            Restart("Linux-2.4.20");
            fprintf(out, "%.*s\n", static_cast<int>(strcspn(cpu_cmd_str, "|")), cpu_cmd_str);
        }
        unsetenv("LOGNAME");
        Restart("Linux-2.4.20");
        fprintf(out, "%.*s\n", static_cast<int>(strcspn(cpu_cmd_str, "|")), cpu_cmd_str);
    };
    std::string expected = "ps -fu app.user-1_x \n";
    for (int i = 0; i < 7; i++)
        expected += "ps -fe \n";
    EXPECT_EQ(InChain(3, 0, report), expected);
}
