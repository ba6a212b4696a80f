// Linux 2.4, acted out: processes named "java", and lists that the tests write instead of ps.
#include "Child.h"
#include "Descriptors.h"
#include "platforms/linux.h"
#include "platforms/qorpidlist.h"
#include "platforms/qorsysinfo.h"
#include "qorsettings.h"

#include <csignal>
#include <sys/prctl.h>
#include <vector>

namespace {

void Restart(const char *system) {
    snprintf(os_name, sizeof os_name, "%s", system);
    qorsysinfo(0);
}

// What is tracked after the pipeline has listed this.
std::vector<int32_t> TrackedAfter(const std::string &list) {
    snprintf(cpu_cmd_str, sizeof cpu_cmd_str, "printf '%s no number\\n'", list.c_str());
    qorsysinfo(3);
    std::vector<int32_t> pids;
    for (const QorCpuNode *node = cpu_list_start; node; node = node->next)
        pids.push_back(node->pid);
    return pids;
}

} // namespace

TEST(PidList, FollowsWhatThePipelineLists) {
    Restart("Linux-6.1");
    EXPECT_EQ(Linux_Kernel_2_4, 0);
    const int before = OpenDescriptors();
    const int32_t other = fork();
    if (other == 0)
        for (;;)
            pause();
    Linux_Kernel_2_4 = 1;
    const std::vector<int32_t> tree = {getppid(), getpid()}, all = {getppid(), getpid(), other};
    ASSERT_EQ(add_pid(tree[0]) + add_pid(tree[1]), 2);
    const std::string listed = std::to_string(other) + "\\n";
    EXPECT_EQ(TrackedAfter(listed + listed), all) << "nothing is tracked twice";
    EXPECT_EQ(TrackedAfter(""), tree) << "not listed any more";
    EXPECT_EQ(TrackedAfter(listed), all);
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
    EXPECT_EQ(TrackedAfter(listed), tree) << "listed, but gone";
    Restart("Linux-6.1");
    EXPECT_EQ(OpenDescriptors(), before);
}

// The last of three processes that are named "java", as the threads of a JVM were then.
TEST(PidList, TheShellGetsPlainUserNamesOnly) {
    const auto of_last = [] {
        for (const char *name : {"app.user-1_x", "a;echo 1", "$(id)", "-e", ""}) {
            setenv("LOGNAME", name, 1);
            Restart("Linux-2.4.20 (64 bit)");
            EXPECT_EQ(Linux_Kernel_2_4, 1);
            EXPECT_EQ(std::string(cpu_cmd_str).find(name[1] == 'p' ? "ps -fu app.user-1_x |" : "ps -fe |"),
                      0u)
                << name;
        }
    };
    EXPECT_EQ(InChild([&] {
                  prctl(PR_SET_NAME, "java");
                  EXPECT_EQ(InChild([&] { EXPECT_EQ(InChild(of_last), 0); }), 0);
              }),
              0);
}
