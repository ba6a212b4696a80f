#include "Descriptors.h"
#include "LogCapture.h"
#include "platforms/qorsysinfo.h"
#include "qorsettings.h"

#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/times.h>
#include <unistd.h>

namespace {

// Puts a text in the place of /proc/stat.
class StatText {
public:
    explicit StatText(const std::string &text) : earlier_(cpu_stat_fd), earlierCount_(ncpu) {
        cpu_stat_fd = memfd_create("stat", MFD_CLOEXEC);
        EXPECT_EQ(write(cpu_stat_fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        memset(get_cpu_util, 0, sizeof get_cpu_util);
    }
    ~StatText() {
        close(cpu_stat_fd);
        cpu_stat_fd = earlier_;
        ncpu = earlierCount_;
    }

private:
    int32_t earlier_, earlierCount_;
};

int64_t NowSeconds() {
    timeval now;
    gettimeofday(&now, nullptr);
    return now.tv_sec;
}

// A last reading 1,000 seconds ago, so that some seconds more or less don't change a percentage.
void MachineWasRead(int64_t user, int64_t system) {
    last_cpu_usr = user;
    last_cpu_sys = system;
    last_snap_time_hi = NowSeconds() - 1000;
    last_snap_time_lo = 0;
}

} // namespace

TEST(CpuCount, IsTheLinesLessTheTotal) {
    struct {
        std::string text;
        int32_t count;
    } cases[] = {
        {"cpu  1 2 3\n", 1},
        {"cpu  1 2 3\ncpu0 1 2 3\n", 1},
        {"cpu  1 2 3\ncpu0 1 2 3\ncpu1 1 2 3\nintr 5 cpu\n", 2},
        {"cpu  1\ncpu0 1\nintr " + std::string(250, '1') + "cpu7 in a long line\n", 1},
        {"nothing\n", 1},
    };
    for (auto &c : cases) {
        FILE *stat = fmemopen(c.text.data(), c.text.size(), "r");
        EXPECT_EQ(QorCountCpuLines(stat), c.count) << c.text;
        fclose(stat);
    }
    EXPECT_EQ(getCpuCount(), sysconf(_SC_NPROCESSORS_ONLN));
}

TEST(Words, AreTakenOneByOne) {
    const char *cursor = "cpu  4625 0 311111111111 last";
    char word[8];
    const char *expected[] = {"4625", "0", "3111111", "last", "", ""};
    for (const char *text : expected)
        EXPECT_STREQ(next_word(&cursor, word, sizeof word), text);
}

TEST(MachineCpu, GivesLoadAndCounter) {
    StatText stat("cpu  14000 900000 7200 5 5\ncpu0 1 2 3\n");
    ncpu = 2;
    MachineWasRead(100, 100);
    EXPECT_EQ(qorsysinfo(1), 10) << "21,000 ticks of 2 x 100,000";
    EXPECT_EQ(qorsysinfo(1), 0) << "nothing since";
    EXPECT_EQ(qorsysinfo(2), 10600);

    MachineWasRead(100, 100);
    qorsysinfo(2);
    EXPECT_EQ(last_cpu_usr, 14000);
    EXPECT_EQ(last_cpu_sys, 7200);
    EXPECT_LE(NowSeconds() - last_snap_time_hi, 500);
    EXPECT_TRUE(last_snap_time_lo >= 0 && last_snap_time_lo < 100) << last_snap_time_lo;
    EXPECT_EQ(qorsysinfo(1), 0) << "a counter reading begins a new interval";

    MachineWasRead(100, 100);
    last_snap_time_hi = NowSeconds() + 1000;
    EXPECT_EQ(qorsysinfo(1), 0) << "the clock was set back";
    MachineWasRead(20000, 20000);
    EXPECT_EQ(qorsysinfo(1), 0) << "the counter went back";
}

TEST(MachineCpu, CountsBeyond31Bits) {
    StatText stat("cpu  3000000000 1 5000000000 9 9\n");
    ncpu = 2;
    EXPECT_EQ(qorsysinfo(2), 4000000000);
}

TEST(MachineCpu, TellsWhatCannotBeRead) {
    struct {
        const char *text, *line;
    } cases[] = {{"intr 1 2 3\n", "<QOR Agent Error 4001:>"}, {"", "<QOR Agent Error 4001-2:>"}};
    for (const auto &c : cases) {
        StatText stat(c.text);
        LogCapture log(1);
        EXPECT_EQ(qorsysinfo(2), 0);
        EXPECT_EQ(log.count(c.line), 1) << log.text();
    }
    StatText stat("cpu  10 0 20\n");
    LogCapture log(1);
    ncpu = 1;
    EXPECT_EQ(qorsysinfo(2), 30);
    const int32_t readable = cpu_stat_fd;
    cpu_stat_fd = -1;
    EXPECT_EQ(qorsysinfo(2), 30) << "the old figure stays";
    cpu_stat_fd = 0;
    EXPECT_EQ(qorsysinfo(2), 0) << "standard input is not read";
    EXPECT_EQ(log.count("<QOR Agent Error 4001-3:>"), 1);
    cpu_stat_fd = readable;
}

TEST(MachineCpu, StartsAgainWithoutALeak) {
    snprintf(os_name, sizeof os_name, "Linux-6.1 (64 bit)");
    qorsysinfo(0);
    ASSERT_GT(cpu_stat_fd, 2);
    EXPECT_TRUE(IsCloseOnExec(cpu_stat_fd));
    const int before = OpenDescriptors();
    for (int i = 0; i < 100; i++)
        qorsysinfo(0);
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_GT(qorsysinfo(2), 0);
}

TEST(ProcessCpu, GivesCounterAndLoad) {
    const int32_t earlier = ncpu;
    ncpu = 1;
    auto ticks = [] {
        tms now;
        times(&now);
        return now.tms_utime + now.tms_stime + now.tms_cutime + now.tms_cstime;
    };
    const int64_t start = ticks();
    while (ticks() < start + 2) {
    }
    const int64_t before = ticks();
    const int64_t counter = qorsysinfo(3);
    EXPECT_LE(before, counter);
    EXPECT_LE(counter, ticks());

    last_process_user_time = counter - 10500;
    last_process_sys_time = 0;
    last_process_snap_time_hi = NowSeconds() - 1000;
    last_process_snap_time_lo = 0;
    EXPECT_EQ(qorsysinfo(4), 10);
    EXPECT_GE(last_process_user_time + last_process_sys_time, counter);
    EXPECT_LE(NowSeconds() - last_process_snap_time_hi, 500);
    ncpu = 4;
    EXPECT_LE(qorsysinfo(3), ticks() / 4);
    ncpu = earlier;
}

TEST(CpuLoad, ComesFromTheExtensionOnANimbJvm) {
    static int32_t asked;
    static double share;
    static bool known;
    gbNimbJvm = 1;
    {
        LogCapture log(5);
        EXPECT_EQ(QorGetCpuLoad(1), 0);
        EXPECT_EQ(QorGetCpuLoad(2), 0);
        EXPECT_EQ(QorGetCpuLoad(4), 0);
        EXPECT_EQ(log.count("QorGetSystemCpuLoad - jmm_ext NULL"), 2);
        EXPECT_EQ(log.count("QorGetProcessCpuLoad - jmm_ext NULL"), 1);
    }
    qorReadExtendedAttribute = [](int32_t key, double *value) {
        asked = key;
        *value = share;
        return known;
    };
    const struct {
        double share;
        bool known;
        int64_t percent;
    } cases[] = {{0.429, true, 42}, {1, true, 100},   {-1, true, 0},
                 {NAN, true, 0},    {1e300, true, 0}, {0.5, false, 0}};
    for (const auto &c : cases) {
        share = c.share;
        known = c.known;
        EXPECT_EQ(QorGetCpuLoad(1), c.percent) << c.share;
        EXPECT_EQ(QorGetCpuLoad(3), c.percent) << c.share;
        EXPECT_EQ(asked, 401);
    }
    qorReadExtendedAttribute = nullptr;
    gbNimbJvm = 0;
}

TEST(ProcessStatistics, AreThoseOfTheSystem) {
    auto switches = [] {
        rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        return static_cast<uint32_t>(usage.ru_nvcsw + usage.ru_nivcsw);
    };
    usleep(1); // one voluntary switch at least
    const uint32_t before = switches();
    uint32_t count = 0;
    EXPECT_EQ(QorGetProcessContextSwitch(&count), 0);
    EXPECT_GT(count, 0u);
    EXPECT_LE(before, count);
    EXPECT_LE(count, switches());
    int64_t none = 5;
    EXPECT_EQ(QorGetTotalReadCharPerThread(1, &none), 0);
    EXPECT_EQ(none, 0);
}
