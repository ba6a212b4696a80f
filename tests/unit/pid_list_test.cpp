// Linux 2.4, acted out: processes named "java", and lists that the tests write instead of ps.
#include "Child.h"
#include "platforms/qorpidlist.h"
#include "platforms/qorsysinfo.h"
#include "qorsettings.h"

#include <sys/prctl.h>

namespace {

void Restart(const char *system) {
    snprintf(os_name, sizeof os_name, "%s", system);
    qorsysinfo(0);
}

} // namespace

// The last of three processes that are named "java", as the threads of a JVM were then.
TEST(PidList, TheShellGetsPlainUserNamesOnly) {
    const auto of_last = [] {
        for (const std::string name : {"app.user-1_x", "a;echo 1", "$(id)", "-e", ""}) {
            setenv("LOGNAME", name.c_str(), 1);
            Restart("Linux-2.4.20 (64 bit)");
            EXPECT_EQ(Linux_Kernel_2_4, 1);
            EXPECT_EQ(
                std::string(cpu_cmd_str).find(name == "app.user-1_x" ? "ps -fu app.user-1_x |" : "ps -fe |"),
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
