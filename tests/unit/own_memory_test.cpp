#include "platforms/own_memory.h"

#include "Child.h"
#include "Descriptors.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

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

// A page, and a hole after it.
void ReadAround() {
    const size_t size = static_cast<size_t>(getpagesize());
    auto *page = static_cast<char *>(
        mmap(nullptr, 2 * size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    munmap(page + size, size);
    page[size - 3] = 7;
    const auto start = reinterpret_cast<uint64_t>(page);
    uint64_t value = 0;
    EXPECT_TRUE(QorReadOwnMemory(start + size - 8, &value, sizeof value));
    EXPECT_EQ(memcmp(&value, page + size - 8, sizeof value), 0);
    for (uint64_t address :
         {start + size - 7, start + size, uint64_t{0}, UINT64_MAX - 3, uint64_t{0xdead} << 48})
        EXPECT_FALSE(QorReadOwnMemory(address, &value, sizeof value)) << address;
    munmap(page, size);
}

} // namespace

TEST(OwnMemory, IsReadByOneKeptDescriptorWhereTheCallIsForbidden) {
    EXPECT_EQ(InChild([] {
                  ReadAround();
                  const int before = OpenDescriptors();
                  ASSERT_TRUE(ForbidSystemCall());
                  const int next = dup(0);
                  close(next); // the number that the file will get
                  ReadAround();
                  ReadAround();
                  EXPECT_EQ(OpenDescriptors(), before + 1);
                  EXPECT_TRUE(IsCloseOnExec(next));
                  dup2(0, next); // the host closes it and uses the number anew
                  ReadAround();
                  EXPECT_GE(fcntl(next, F_GETFD), 0) << "the host's own";
                  EXPECT_EQ(InChild(ReadAround), 0) << "a copy must not read its parent";
              }),
              0);
}
