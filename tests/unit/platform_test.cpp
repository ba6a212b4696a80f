#include "Child.h"
#include "Descriptors.h"
#include "QorOS.h"
#include "platforms/linux.h"
#include "platforms/own_memory.h"

namespace {

// Whether a byte can be read, asked of the kernel instead of by a fault.
bool IsReadable(const char *address) {
    char byte;
    return QorReadOwnMemory(reinterpret_cast<uint64_t>(address), &byte, 1);
}

} // namespace

TEST(GuardedMemory, StopsARunawayWriteWithinAPage) {
    const int32_t page = getpagesize();
    for (int32_t size : {1, page - 1, page, page + 1, 1024000}) {
        auto *block = static_cast<char *>(QorMalloc(size));
        memset(block, 1, static_cast<size_t>(size));
        int32_t guard = size; // first byte that can't be read
        while (guard < size + page && IsReadable(block + guard))
            guard++;
        EXPECT_LT(guard, size + page) << "no guard after " << size;
        EXPECT_FALSE(IsReadable(block + guard + page - 1)) << size;
        QorFree(block, size);
        std::string(static_cast<size_t>(size + 2 * page), 2); // may be used again as a whole
    }
}

// Descriptors of the agent's never take a standard stream's place, and without any left both ends are unset.
TEST(Pipe, LeavesTheHostsDescriptorsAlone) {
    EXPECT_EQ(InChild([] {
                  int32_t fds[2];
                  EXPECT_TRUE(qor_create_pipe(fds) && IsCloseOnExec(fds[0]) && IsCloseOnExec(fds[1]));
                  close(0);
                  close(1);
                  EXPECT_TRUE(qor_create_pipe(fds));
                  const int32_t file = qor_open_read("/proc/self/stat");
                  EXPECT_TRUE(fds[0] > 2 && fds[1] > 2 && file > 2);
                  EXPECT_TRUE(fcntl(0, F_GETFD) == -1 && fcntl(1, F_GETFD) == -1);
                  EXPECT_TRUE(IsCloseOnExec(fds[0]) && IsCloseOnExec(file));
                  EXPECT_EQ(qor_can_read_internal(fds[0], 0), 0);
                  EXPECT_EQ(qor_close_handle(&fds[1]), 0);
                  EXPECT_EQ(qor_can_read_internal(fds[0], 0), 1) << "hang-up counts as readable";
                  for (int i = 0; i < 2; i++)
                      EXPECT_EQ(qor_close_pipe(fds), 0) << "closing again does nothing";
                  fds[0] = fds[1] = 2; // somebody's
                  while (dup(2) >= 0) {
                  }
                  EXPECT_FALSE(qor_create_pipe(fds));
                  EXPECT_TRUE(fds[0] == -1 && fds[1] == -1 && fcntl(2, F_GETFD) != -1);
              }),
              0);
}
