#include "Child.h"
#include "Restore.h"
#include "platforms/qorpidlist.h"
#include "platforms/qorsysinfo.h"
#include "qorsettings.h"

#include <cstring>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/times.h>
#include <unistd.h>

namespace {

// Puts a text in the place of /proc/stat.
struct StatText {
    explicit StatText(const std::string &text) {
        cpu_stat_fd = memfd_create("stat", MFD_CLOEXEC);
        EXPECT_EQ(write(cpu_stat_fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        memset(get_cpu_util, 0, sizeof get_cpu_util);
    }
    ~StatText() { close(cpu_stat_fd); }

    Restore<int32_t> file{cpu_stat_fd}, processors{ncpu, 2};
};

// A last reading 1,000 seconds ago, so that some seconds more or less don't change a percentage.
void MachineWasRead(int64_t user, int64_t system, int64_t ago = 1000) {
    last_cpu_usr = user;
    last_cpu_sys = system;
    last_snap_time_hi = time(nullptr) - ago;
    last_snap_time_lo = 0;
}

} // namespace

TEST(MachineCpu, GivesLoadAndCounter) {
    StatText stat("cpu  14000 900000 7200 5 5\ncpu0 1 2 3\n");
    MachineWasRead(100, 100);
    EXPECT_EQ(qorsysinfo(1), 10) << "21,000 ticks of 2 x 100,000";
    EXPECT_EQ(qorsysinfo(1), 0) << "nothing since";
    MachineWasRead(100, 100);
    EXPECT_EQ(qorsysinfo(2), 10600);
    EXPECT_EQ(qorsysinfo(1), 0) << "a counter reading begins a new interval";
    MachineWasRead(100, 100, -1000);
    EXPECT_EQ(qorsysinfo(1), 0) << "the clock was set back";
    MachineWasRead(20000, 20000);
    EXPECT_EQ(qorsysinfo(1), 0) << "the counter went back";
}

TEST(MachineCpu, KeepsTheOldFigureWhereNothingCanBeRead) {
    StatText stat("cpu  3000000000 1 5000000000 9 9\n"); // beyond 31 bits
    EXPECT_EQ(qorsysinfo(2), 4000000000);
    cpu_stat_fd = -1;
    EXPECT_EQ(qorsysinfo(2), 4000000000);
}

TEST(ProcessCpu, GivesCounterAndLoad) {
    const Restore processors(ncpu, 1);
    const auto ticks = [] {
        tms now;
        times(&now);
        return now.tms_utime + now.tms_stime + now.tms_cutime + now.tms_cstime;
    };
    for (const int64_t start = ticks(); ticks() < start + 2;) {
    }
    const int64_t before = ticks(), counter = qorsysinfo(3);
    EXPECT_TRUE(before <= counter && counter <= ticks());
    last_process_user_time = counter - 10500;
    last_process_sys_time = 0;
    last_process_snap_time_hi = time(nullptr) - 1000;
    last_process_snap_time_lo = 0;
    EXPECT_EQ(qorsysinfo(4), 10);
    ncpu = 4;
    EXPECT_LE(qorsysinfo(3), ticks() / 4);
}

// Linux 2.4, acted out: the last of three processes that are named "java", as the threads of a JVM were then.
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
