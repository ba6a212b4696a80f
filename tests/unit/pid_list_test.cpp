// Linux 2.4, acted out: processes named "java", and lists that the tests write instead of ps.
#include "Child.h"
#include "Descriptors.h"
#include "platforms/linux.h"
#include "platforms/qorpidlist.h"
#include "platforms/qorsysinfo.h"
#include "qorsettings.h"

#include <csignal>
#include <cstring>
#include <sys/prctl.h>
#include <sys/times.h>
#include <vector>

namespace {

std::vector<int32_t> Tracked() {
    std::vector<int32_t> pids;
    for (const QorCpuNode *node = cpu_list_start; node; node = node->next)
        pids.push_back(node->pid);
    return pids;
}

// What is tracked after the pipeline has listed this.
std::vector<int32_t> TrackedAfter(const std::string &list) {
    snprintf(cpu_cmd_str, sizeof cpu_cmd_str, "printf '%s no number\\n'", list.c_str());
    qorsysinfo(3);
    return Tracked();
}

void Restart(const char *system) {
    snprintf(os_name, sizeof os_name, "%s", system);
    qorsysinfo(0);
}

struct PidList : testing::Test {
    ~PidList() override { Restart("Linux-6.1"); }
};

} // namespace

TEST_F(PidList, FollowsWhatThePipelineLists) {
    Restart("Linux-6.1");
    EXPECT_EQ(Linux_Kernel_2_4, 0);
    const int before = OpenDescriptors();
    const int32_t other = fork();
    if (other == 0)
        for (;;)
            pause();
    Linux_Kernel_2_4 = 1;
    std::vector<int32_t> tree = {getppid(), getpid()}, all = tree;
    ASSERT_EQ(add_pid(tree[0]) + add_pid(tree[1]), 2);
    EXPECT_TRUE(IsCloseOnExec(cpu_list_start->fd));
    all.push_back(other);
    const std::string listed = std::to_string(other) + "\\n";
    EXPECT_EQ(TrackedAfter(listed), all);
    EXPECT_EQ(TrackedAfter(listed + listed), all) << "nothing is tracked twice";
    EXPECT_EQ(TrackedAfter(""), tree) << "not listed any more";
    EXPECT_EQ(TrackedAfter(listed), all);
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
    EXPECT_EQ(TrackedAfter(listed), tree) << "listed, but gone";
    Restart("Linux-6.1");
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(PidList, TicksAreFoundAfterAnyName) {
    EXPECT_EQ(InChild([] {
                  prctl(PR_SET_NAME, "a) b (c 1 2 3");
                  ASSERT_EQ(add_pid(getpid()), 1);
                  tms before = {}, after;
                  while (before.tms_utime < 3)
                      times(&before);
                  snprintf(cpu_cmd_str, sizeof cpu_cmd_str, "true");
                  int64_t user = -1, system = -1;
                  QorReadPidListTicks(&user, &system);
                  times(&after);
                  EXPECT_TRUE(before.tms_utime <= user && user <= after.tms_utime) << user;
                  EXPECT_TRUE(before.tms_stime <= system && system <= after.tms_stime) << system;
              }),
              0);
}

// The last of three processes that are named "java", as the threads of a JVM were then.
TEST_F(PidList, TheShellGetsPlainUserNamesOnly) {
    const auto of_last = [] {
        const std::string longName(300, 'a');
        for (const char *name : {"app.user-1_x", "a;echo 1", "$(id)", "a b", "-e", "", longName.c_str()}) {
            setenv("LOGNAME", name, 1);
            Restart("Linux-2.4.20 (64 bit)");
            EXPECT_EQ(Linux_Kernel_2_4, 1);
            const std::string command = cpu_cmd_str,
                              wanted = name[1] == 'p' ? "ps -fu app.user-1_x " : "ps -fe ";
            EXPECT_EQ(command.substr(0, command.find('|')), wanted) << name;
        }
        EXPECT_EQ(Tracked().front(), getppid());
    };
    EXPECT_EQ(InChild([&] {
                  prctl(PR_SET_NAME, "java");
                  EXPECT_EQ(InChild([&] { EXPECT_EQ(InChild(of_last), 0); }), 0);
              }),
              0);
}
