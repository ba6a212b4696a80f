#include "platforms/own_memory.h"

#include "Descriptors.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Two pages: one to read, one that forbids it.
struct Pages {
    Pages() {
        first = static_cast<char *>(
            mmap(nullptr, 2 * size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        for (size_t i = 0; i < size; i++)
            first[i] = static_cast<char>(i);
        mprotect(first + size, size, PROT_NONE);
    }
    ~Pages() { munmap(first, 2 * size); }

    uint64_t at(size_t offset) const { return reinterpret_cast<uint64_t>(first + offset); }

    const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char *first;
};

} // namespace

TEST(OwnMemory, GivesWhatIsThereAndNeverFaults) {
    Pages pages;
    uint64_t gone;
    {
        Pages unmapped;
        gone = unmapped.at(0);
    }
    struct {
        const char *what;
        uint64_t address;
        bool readable;
    } cases[] = {
        {"start", pages.at(0), true},
        {"odd", pages.at(1237), true},
        {"last bytes", pages.at(pages.size - 8), true},
        {"across the end", pages.at(pages.size - 7), false},
        {"forbidden", pages.at(pages.size), false},
        {"unmapped", gone, false},
        {"null", 0, false},
        {"low", 0x530, false},
        {"top", UINT64_MAX - 3, false},
        {"not canonical", 0xdead000000000000, false},
    };
    for (const auto &c : cases) {
        uint64_t value = 0;
        EXPECT_EQ(QorReadOwnMemory(c.address, &value, sizeof value), c.readable) << c.what;
        if (c.readable) {
            EXPECT_EQ(memcmp(&value, reinterpret_cast<const void *>(c.address), sizeof value), 0) << c.what;
        }
    }
}

namespace {

// From here on the process gets EPERM for the reading system call, as in some sandboxes.
bool ForbidSystemCall() {
    sock_filter code[] = {
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, SYS_process_vm_readv},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | EPERM},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
    };
    const sock_fprog filter = {4, code};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

volatile int seen;

bool SeesItsOwn(int value) {
    int read = 0;
    seen = value;
    return QorReadOwnMemory(reinterpret_cast<uint64_t>(&seen), const_cast<int *>(&read), sizeof read) &&
           read == value && !QorReadOwnMemory(0x530, &read, sizeof read);
}

int ExitOf(pid_t child) {
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The number of what is wrong, 0 for nothing.
int ReadInSandbox() {
    const int before = OpenDescriptors();
    if (!ForbidSystemCall())
        return 1;
    const int next = dup(0);
    close(next); // the number that the file will get
    for (int i = 1; i < 4; i++)
        if (!SeesItsOwn(i))
            return 2;
    if (OpenDescriptors() != before + 1 || !IsCloseOnExec(next))
        return 3;
    dup2(0, next); // the host closes it and uses the number anew
    if (!SeesItsOwn(4) || fcntl(next, F_GETFD) < 0)
        return 4;
    const pid_t copy = fork();
    if (copy == 0)
        _exit(SeesItsOwn(5) ? 0 : 1);
    return ExitOf(copy) == 0 ? 0 : 5;
}

} // namespace

TEST(OwnMemory, IsReadByOneKeptDescriptorWhereTheCallIsForbidden) {
    const pid_t child = fork();
    if (child == 0)
        _exit(ReadInSandbox());
    EXPECT_EQ(ExitOf(child), 0);
}
