#include "Restore.h"
#include "platforms/qorsysinfo.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace {

// A last reading 1,000 seconds ago, so that some seconds more or less don't change a percentage.
void MachineWasRead(int64_t user, int64_t system, int64_t ago = 1000) {
    last_cpu_usr = user;
    last_cpu_sys = system;
    last_snap_time_hi = time(nullptr) - ago;
    last_snap_time_lo = 0;
}

} // namespace

TEST(MachineCpu, IsLoadAndCounter) {
    const Restore<int32_t> file(cpu_stat_fd, memfd_create("stat", MFD_CLOEXEC)), processors(ncpu, 2);
    ASSERT_GT(dprintf(cpu_stat_fd, "cpu  3000014000 900000 5000007200 5 5\ncpu0 1 2 3\n"),
              0); // beyond 31 bits
    memset(get_cpu_util, 0, sizeof get_cpu_util);
    MachineWasRead(3000000100, 5000000100);
    EXPECT_EQ(qorsysinfo(1), 10) << "21,000 ticks of 2 x 100,000";
    EXPECT_EQ(qorsysinfo(1), 0) << "nothing since";
    EXPECT_EQ(qorsysinfo(2), 4000010600);
    MachineWasRead(3000000100, 5000000100, -1000);
    EXPECT_EQ(qorsysinfo(1), 0) << "the clock was set back";
    MachineWasRead(4000000000, 6000000000);
    EXPECT_EQ(qorsysinfo(1), 0) << "the counter went back";
    close(std::exchange(cpu_stat_fd, -1));
    EXPECT_EQ(qorsysinfo(2), 4000010600) << "nothing can be read";
}
