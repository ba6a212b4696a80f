#include "Restore.h"
#include "platforms/qorsysinfo.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sys/mman.h>
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
