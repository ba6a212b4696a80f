// The request xtier01: on made-up socket tables, and on the kernel's.
#include "Descriptors.h"
#include "Loopback.h"
#include "RequestHandler/XtierDbSession.h"
#include "Restore.h"
#include "qorrequest.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

constexpr char LOCAL[] = "0A01020A:05F1"; // port 1521
constexpr char MAPPED[] = "0000000000000000FFFF0000";
const std::string SELF = std::to_string(getpid());
const std::string CLIENT = "1521|10.1.2.3|"; // 0302010A in the tables

std::string Ask(std::string parameters) {
    a_xtierfn01(parameters.data());
    return pagebuf;
}

// A row as the kernel writes it.
std::string Row(const std::string &local, const std::string &remote, uint64_t inode) {
    return "  17: " + local + " " + remote + " 01 00000000:00000000 02:000AB3F2 00000000   107        0 " +
           std::to_string(inode) + " 2 ffff8880 20 4 30 10 -1\n";
}

struct DbSession : testing::Test {
    ~DbSession() override {
        for (int file = 0; file < PROC_NET_FILES; file++)
            if (proc_net_fd[file] != saved[static_cast<size_t>(file)])
                close(proc_net_fd[file]);
        std::copy(saved.begin(), saved.end(), proc_net_fd);
    }
    // Puts a made-up table in the place of one of the kernel's; the others can't be opened.
    static void SetTable(int file, const std::string &text) {
        for (int32_t &fd : proc_net_fd)
            fd = -1;
        FILE *table = tmpfile();
        fwrite(text.data(), 1, text.size(), table);
        proc_net_fd[file] = dup(fileno(table));
        fclose(table);
    }
    // The inode of a socket that this process has open.
    uint64_t Inode() const {
        struct stat status = {};
        fstat(held.fd, &status);
        return status.st_ino;
    }

    std::vector<char> page = std::vector<char>(PAGEBUF_SIZE);
    Restore<char *> pageKept{pagebuf, page.data()};
    const std::vector<int32_t> saved{proc_net_fd, proc_net_fd + PROC_NET_FILES};
    Loopback held{AF_INET, "127.0.0.1"};
};

} // namespace

TEST_F(DbSession, TakesTheClientsRowsAlone) {
    const std::string wrong =
        Row(LOCAL, "0302010B:C001", Inode()) + Row("0A01020A:05F2", "0302010A:C002", Inode()) +
        Row("0302010A:05F1", "0A01020A:C003", Inode()) + Row("00000000:05F1", "00000000:0000", Inode()) +
        Row(LOCAL, "0302010A:C004", 0) + " 5: 0A01020A:05F1 0302010A:C005 01\n" + "garbage :05F1 0302010A\n";
    const std::string right = Row(LOCAL, "0302010A:C350", Inode());
    const std::string right6 =
        Row(std::string(MAPPED) + LOCAL, std::string(MAPPED) + "0302010A:C351", Inode());
    const int before = OpenDescriptors();
    for (int file = 0; file < PROC_NET_FILES; file++) {
        SetTable(file, wrong + (file < 3 ? right : right6));
        const std::string pair = SELF + (file < 3 ? ",50000,|" : ",50001,|");
        EXPECT_EQ(Ask(CLIENT + SELF), pair) << file;
        EXPECT_EQ(OpenDescriptors(), before + 1) << "the one table";
        close(proc_net_fd[file]);
    }
    SetTable(3, wrong + right);
    EXPECT_EQ(Ask(CLIENT + SELF), "|") << "an IPv4 row among those of IPv6";
}

TEST_F(DbSession, OnlyNumbersAreProcesses) {
    SetTable(0, Row("0100007F:05F1", "0302010A:0BB9", Inode()));
    // each of these would lead to this process's descriptors if it became part of a path
    EXPECT_EQ(Ask(CLIENT + "self,thread-self,../proc/self," + SELF + "/task/" + SELF + ",./" + SELF + "," +
                  SELF + "/.,+" + SELF + ",-1,12x,0,99999999999,,*"),
              "|");
    EXPECT_EQ(Ask(CLIENT + "1x," + SELF + ",,"), SELF + ",3001,|");
    // What is left of an id that is cut is another process.
    EXPECT_EQ(Ask(CLIENT + std::string(10239 - SELF.size(), ',') + SELF + "0000"), "|");
}
