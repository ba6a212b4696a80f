// Linux 2.4, acted out: processes named "java", and lists that the tests write instead of ps.
#include "Child.h"
#include "platforms/qorpidlist.h"
#include "platforms/qorsysinfo.h"
#include "qorsettings.h"

#include <sys/prctl.h>

TEST(PidList, TheShellGetsPlainUserNamesOnly) {
    const auto of_last = [] {
        for (const auto &[name, command] :
             {std::pair("app.user-1_x", "ps -fu app.user-1_x |"), {"$(id)", "ps -fe |"}}) {
            setenv("LOGNAME", name, 1);
            snprintf(os_name, sizeof os_name, "Linux-2.4.20 (64 bit)");
            qorsysinfo(0);
            EXPECT_EQ(std::string(cpu_cmd_str).find(command), 0u) << name;
        }
    };
    EXPECT_EQ(InChild([&] {
                  prctl(PR_SET_NAME, "java");
                  EXPECT_EQ(InChild([&] { EXPECT_EQ(InChild(of_last), 0); }), 0);
              }),
              0);
}
