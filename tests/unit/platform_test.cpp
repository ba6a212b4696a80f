#include "Descriptors.h"
#include "LogCapture.h"
#include "QorOS.h"
#include "platforms/linux.h"
#include "platforms/qorsysinfo.h"
#include "qorsettings.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

namespace {

// Whether a byte can be read, asked of the kernel instead of by a fault.
bool IsReadable(const char *address) {
    int32_t fds[2];
    EXPECT_TRUE(qor_create_pipe(fds));
    const bool readable = write(fds[1], address, 1) == 1;
    qor_close_pipe(fds);
    return readable;
}

} // namespace

TEST(GuardedMemory, StopsARunawayWriteWithinAPage) {
    const int32_t page = getpagesize();
    for (int32_t size : {1, page - 1, page, page + 1, 1024000}) {
        auto *block = static_cast<char *>(QorMalloc(size));
        ASSERT_NE(block, nullptr);
        memset(block, 1, static_cast<size_t>(size));
        int32_t guard = size; // first byte that can't be read
        while (guard < size + page && IsReadable(block + guard))
            guard++;
        EXPECT_LT(guard, size + page) << "no guard behind " << size;
        EXPECT_FALSE(IsReadable(block + guard + page - 1)) << size;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block + guard) % static_cast<uintptr_t>(page), 0u);
        QorFree(block, size);
        // what the allocator got back is usable as a whole
        const size_t whole = static_cast<size_t>(size + 2 * page - 1);
        void *again = malloc(whole);
        memset(again, 2, whole);
        free(again);
    }
    EXPECT_EQ(QorMalloc(0), nullptr);
    EXPECT_EQ(QorMalloc(-5), nullptr);
    QorFree(nullptr, 1);
}

TEST(GuardedMemory, KeepsABlockWhoseGuardCannotBeLifted) {
    LogCapture log(1);
    const auto page = static_cast<uintptr_t>(getpagesize());
    QorFree(reinterpret_cast<void *>(-8 * page), static_cast<int32_t>(page)); // the kernel's own
    EXPECT_EQ(log.count("mprotect PROT_READ|PROT_WRITE failed at"), 1) << log.text();
}

TEST(SharedLibrary, IsFoundOrToldMissing) {
    LogCapture log(3);
    void *handle = &log;
    EXPECT_EQ(QorLoadLibrary(&handle, "libqor-no-such.so"), -1);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(log.count("LoadLibrary jvm failed libqor-no-such.so"), 1) << log.text();
    EXPECT_EQ(QorLoadLibrary(&handle, nullptr), -1);
    EXPECT_EQ(QorFindSymbol(nullptr, "malloc"), nullptr);
    ASSERT_EQ(QorLoadLibrary(&handle, "libm.so.6"), 0);
    auto *cosine = reinterpret_cast<double (*)(double)>(QorFindSymbol(handle, "cos"));
    ASSERT_NE(cosine, nullptr);
    EXPECT_EQ(cosine(0), 1);
    EXPECT_EQ(QorFindSymbol(handle, "qor_no_such"), nullptr);
    EXPECT_EQ(QorCloseLibrary(handle), 0);
}

TEST(Backtrace, LogsTheCallersFrames) {
    LogCapture log(3);
    QorBacktrace();
    EXPECT_EQ(log.count("backtrace() returned"), 1);
    EXPECT_GT(log.count("<Symbol "), 2);
}

TEST(Pipe, CarriesBytesAndClosesOnce) {
    const int before = OpenDescriptors();
    int32_t fds[2];
    ASSERT_TRUE(qor_create_pipe(fds));
    EXPECT_TRUE(IsCloseOnExec(fds[0]) && IsCloseOnExec(fds[1]));
    EXPECT_EQ(qor_can_read_internal(fds[0], 0), 0);
    EXPECT_EQ(qor_write_file(fds[1], "12345", 5), 5);
    EXPECT_EQ(qor_can_read_internal(fds[0], 0), 1);
    char text[20];
    EXPECT_EQ(qor_read_file(fds[0], text, sizeof text), 5);
    EXPECT_EQ(qor_close_handle(&fds[1]), 0);
    EXPECT_EQ(fds[1], -1);
    EXPECT_EQ(qor_can_read_internal(fds[0], 0), 1) << "hang-up counts as readable";
    EXPECT_EQ(qor_close_pipe(fds), 0);
    EXPECT_EQ(qor_close_pipe(fds), 0) << "closing again does nothing";
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(qor_can_read_internal(-1, 1000), 0);
}

TEST(Pipe, NeverTakesAStandardStreamsPlace) {
    testing::FLAGS_gtest_death_test_style = "fast";
    EXPECT_EXIT(
        {
            close(0);
            close(1);
            int32_t fds[2];
            const bool made = qor_create_pipe(fds);
            const int32_t file = qor_open_read("/proc/self/stat");
            _exit(made && fds[0] > 2 && fds[1] > 2 && file > 2 && fcntl(0, F_GETFD) == -1 &&
                          fcntl(1, F_GETFD) == -1 && IsCloseOnExec(fds[0]) && IsCloseOnExec(file)
                      ? 0
                      : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(Pipe, IsRefusedWithBothEndsUnset) {
    testing::FLAGS_gtest_death_test_style = "fast";
    EXPECT_EXIT(
        {
            int32_t fds[2];
            fds[0] = fds[1] = 2; // somebody's
            while (dup(2) >= 0) {
            }
            const bool made = qor_create_pipe(fds);
            _exit(!made && fds[0] == -1 && fds[1] == -1 && fcntl(2, F_GETFD) != -1 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "Unable to create internal communication pipe");
}

TEST(Pipe, WaitIsNotCutShortBySignals) {
    int32_t fds[2];
    ASSERT_TRUE(qor_create_pipe(fds));
    struct sigaction quiet = {}, earlier;
    quiet.sa_handler = [](int) {};
    sigaction(SIGALRM, &quiet, &earlier);
    itimerval storm = {{0, 1000}, {0, 1000}}, still = {};
    setitimer(ITIMER_REAL, &storm, nullptr);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(qor_can_read_internal(fds[0], 1), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(995));
    setitimer(ITIMER_REAL, &still, nullptr);
    sigaction(SIGALRM, &earlier, nullptr);
    qor_close_pipe(fds);
}

TEST(ThreadId, IsTheKernelsOrTheProcesses) {
    init_cpu();
    EXPECT_EQ(Pthread_NPTL, 1);
    EXPECT_EQ(p_pid, syscall(SYS_gettid));
    int32_t other = 0, old = 0;
    std::thread([&] {
        other = qor_current_thread_id();
        Pthread_NPTL = 0;
        old = qor_current_thread_id();
        Pthread_NPTL = 1;
    }).join();
    EXPECT_NE(other, getpid());
    EXPECT_EQ(old, getpid());
}

TEST(Socket, IsLimitedToFiveSeconds) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    auto limit = [fd](int option) {
        timeval value = {-1, 0};
        socklen_t size = sizeof value;
        getsockopt(fd, SOL_SOCKET, option, &value, &size);
        return value.tv_sec;
    };
    gbNimbJvm = 1;
    qor_set_socket_TO(fd);
    EXPECT_EQ(limit(SO_RCVTIMEO), 0);
    gbNimbJvm = 0;
    qor_set_socket_TO(fd);
    EXPECT_EQ(limit(SO_RCVTIMEO), 5);
    EXPECT_EQ(limit(SO_SNDTIMEO), 5);
    close(fd);
}

TEST(FileName, IsFoundBehindADescriptor) {
    char name[FILE_NAME_SIZE] = "as it was";
    LogCapture log(5);
    EXPECT_EQ(QorGetFileNameFromFD(-1, name), -1);
    EXPECT_STREQ(name, "as it was");
    EXPECT_EQ(log.count("error number : 2"), 1) << log.text();
    int32_t fd = qor_open_read("/proc/stat");
    EXPECT_EQ(QorGetFileNameFromFD(fd, name), 0);
    EXPECT_STREQ(name, "/proc/stat");
    qor_close_handle(&fd);
}
