// The request xtier01: on made-up socket tables, and on servers that fork like a database's.
#include "Descriptors.h"
#include "RequestHandler/XtierDbSession.h"
#include "qorrequest.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// The name service, which a test may have fail.
static bool nameServiceDown;
static int lookUps;

int getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **found) {
    lookUps++;
    using Resolver = int (*)(const char *, const char *, const addrinfo *, addrinfo **);
    static const auto real = reinterpret_cast<Resolver>(dlsym(RTLD_NEXT, "getaddrinfo"));
    return nameServiceDown ? EAI_AGAIN : real(node, service, hints, found);
}

namespace {

constexpr char CLIENT[] = "10.1.2.3"; // 0302010A as the tables write it
constexpr char MAPPED[] = "0000000000000000FFFF0000";

std::string Ask(std::string parameters) {
    a_xtierfn01(parameters.data());
    return pagebuf;
}

std::string Pid() {
    return std::to_string(getpid());
}

// A row as the kernel writes it.
std::string Row(const std::string &local, const std::string &remote, uint64_t inode) {
    char row[256];
    snprintf(
        row, sizeof row,
        "%4d: %s %s 01 00000000:00000000 02:000AB3F2 00000000   107        0 %llu 2 ffff8880 20 4 30 10 -1\n",
        17, local.c_str(), remote.c_str(), static_cast<unsigned long long>(inode));
    return row;
}

struct DbSession : testing::Test {
    void SetUp() override {
        savedPage = pagebuf;
        pagebuf = page.data();
        std::copy(proc_net_fd, proc_net_fd + PROC_NET_FILES, savedFds);
    }
    void TearDown() override {
        for (int file = 0; file < PROC_NET_FILES; file++)
            if (proc_net_fd[file] != savedFds[file])
                close(proc_net_fd[file]);
        std::copy(savedFds, savedFds + PROC_NET_FILES, proc_net_fd);
        for (int fd : sockets)
            close(fd);
        pagebuf = savedPage;
    }

    // Puts made-up tables in place of the kernel's; those that aren't told can't be opened.
    void SetTables(const std::vector<std::pair<int, std::string>> &texts) {
        for (int32_t &fd : proc_net_fd)
            fd = -1;
        for (const auto &[file, text] : texts) {
            FILE *table = tmpfile();
            proc_net_fd[file] = dup(fileno(table));
            fclose(table);
            ASSERT_EQ(write(proc_net_fd[file], text.data(), text.size()), static_cast<ssize_t>(text.size()));
        }
    }

    // The inode of a socket that this process holds.
    uint64_t NewSocket() {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockets.push_back(fd);
        struct stat status = {};
        fstat(fd, &status);
        return status.st_ino;
    }

    std::vector<char> page = std::vector<char>(PAGEBUF_SIZE);
    std::vector<int> sockets;
    char *savedPage;
    int32_t savedFds[PROC_NET_FILES];
};

// Processes that hold one accepted connection each, and this process as their clients.
struct Backends {
    Backends(int family, int count) {
        const int listener = socket(family, SOCK_STREAM, 0);
        const int no = 0;
        sockaddr_in6 at6 = {};
        at6.sin6_family = AF_INET6;
        sockaddr_in at4 = {};
        at4.sin_family = AF_INET;
        if (family == AF_INET6)
            setsockopt(listener, IPPROTO_IPV6, IPV6_V6ONLY, &no, sizeof no);
        const void *at = family == AF_INET6 ? static_cast<void *>(&at6) : static_cast<void *>(&at4);
        const socklen_t size = family == AF_INET6 ? sizeof at6 : sizeof at4;
        if (bind(listener, static_cast<const sockaddr *>(at), size) != 0 || listen(listener, 16) != 0)
            return;
        port = PortOf(listener);
        EXPECT_EQ(pipe(leash), 0);
        for (int i = 0; i < count; i++)
            Start(listener);
        close(listener);
    }
    ~Backends() {
        close(leash[1]);
        for (pid_t pid : pids)
            waitpid(pid, nullptr, 0);
        close(leash[0]);
        for (int fd : clients)
            close(fd);
    }

    static uint16_t PortOf(int fd) {
        sockaddr_storage name = {};
        socklen_t size = sizeof name;
        getsockname(fd, reinterpret_cast<sockaddr *>(&name), &size);
        return ntohs(name.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 &>(name).sin6_port
                                                : reinterpret_cast<sockaddr_in &>(name).sin_port);
    }

    void Start(int listener) {
        const int client = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in server = {};
        server.sin_family = AF_INET;
        server.sin_port = htons(port);
        server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(connect(client, reinterpret_cast<sockaddr *>(&server), sizeof server), 0);
        clients.push_back(client);
        const int accepted = accept(listener, nullptr, nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            char end;
            close(leash[1]);
            _exit(static_cast<int>(read(leash[0], &end, 1)));
        }
        close(accepted);
        pids.push_back(pid);
        list += std::to_string(pid) + ",";
        truth += std::to_string(pid) + "," + std::to_string(PortOf(client)) + ",";
    }

    uint16_t port = 0;
    int leash[2] = {-1, -1};
    std::vector<int> clients;
    std::vector<pid_t> pids;
    std::string list, truth;
};

} // namespace

TEST_F(DbSession, MalformedParametersGetAClearReply) {
    SetTables({});
    for (const auto &[parameters, shown] : std::vector<std::pair<std::string, std::string>>{
             {"", ""},
             {"port|10.0.0.1|1", "port|10.0.0.1|1"},
             {"1521", "1521"},
             {"1521|", "1521|"},
             {"1521|10.0.0.1", "10.0.0.1"},
             {"1521|10.0.0.1 |1", "10.0.0.1"},
         })
        EXPECT_EQ(Ask(parameters), "ERROR Invalid parameters " + shown + " for xtier01") << parameters;
    for (const std::string &parameters :
         {std::string("1521|10.0.0.1|"), std::string("1521|10.0.0.1| 12"), std::string("1521|nobody|1"),
          std::string("99999|10.0.0.1|1"), "1521|" + std::string(5000, '1') + "|1", std::string("1521|||||")})
        EXPECT_EQ(Ask(parameters), "|") << parameters;
}

TEST_F(DbSession, TakesTheClientsRowsAlone) {
    const uint64_t mine = NewSocket();
    const std::string local = "0A01020A:05F1";
    const std::string wrong =
        Row(local, "0302010B:C001", mine) + Row("0A01020A:05F2", "0302010A:C002", mine) +
        Row("0302010A:05F1", "0A01020A:C003", mine) + Row("00000000:05F1", "00000000:0000", mine) +
        Row(local, "0302010A:C004", 0) + " 5: 0A01020A:05F1 0302010A:C005 01\n" + "garbage :05F1 0302010A\n";
    const std::string right = Row(local, "0302010A:C350", mine);
    const std::string right6 = Row(MAPPED + local, std::string(MAPPED) + "0302010A:C351", mine);
    const std::string request = std::string("1521|") + CLIENT + "|" + Pid();
    const int before = OpenDescriptors();
    SetTables({{0, wrong}, {3, wrong + right}});
    EXPECT_EQ(Ask(request), "|");
    for (int file = 0; file < PROC_NET_FILES; file++) {
        for (int32_t &fd : proc_net_fd)
            close(fd);
        SetTables({{file, wrong + (file < 3 ? right : right6)}});
        const std::string port = file < 3 ? "50000" : "50001";
        EXPECT_EQ(Ask(request), Pid() + "," + port + ",|") << file;
        EXPECT_EQ(Ask(request + "|more"), Pid() + "," + port + ",|") << "again, " << file;
    }
    EXPECT_EQ(OpenDescriptors(), before + 1) << "the one table";
}

TEST_F(DbSession, ReadsLongTables) {
    const uint64_t mine = NewSocket();
    std::string rows = "  sl  local_address rem_address   st\n";
    for (uint32_t i = 0; i < 2000; i++)
        rows += Row("0100007F:05F1", "0302010A:0BB8", 1 + i);
    const std::string overlong = std::string(9000, ' ') + Row("0100007F:05F1", "0302010A:0BBA", mine);
    std::string last = Row("0100007F:05F1", "0302010A:0BB9", mine);
    last.pop_back();
    SetTables({{0, rows + overlong + last}});
    EXPECT_EQ(Ask(std::string("1521|") + CLIENT + "|" + Pid()), Pid() + ",3001,|");
    EXPECT_EQ(totalnet, 2001);

    char *first = MY_GREP(proc_net_fd[0], ":05F1 0302010A", true);
    EXPECT_EQ(std::string(first), Row("0100007F:05F1", "0302010A:0BB8", 1));
    free(first);
    EXPECT_EQ(MY_GREP(proc_net_fd[0], "nowhere", false), nullptr);
    EXPECT_EQ(MY_GREP(-1, "", false), nullptr);
}

TEST_F(DbSession, OnlyNumbersAreProcesses) {
    SetTables({{0, Row("0100007F:05F1", "0302010A:0BB9", NewSocket())}});
    const std::string head = std::string("1521|") + CLIENT + "|", self = Pid();
    const pid_t gone = fork();
    if (gone == 0)
        _exit(0);
    waitpid(gone, nullptr, 0);
    // each of these would lead to this process's descriptors if it became part of a path
    EXPECT_EQ(Ask(head + "self,thread-self,../proc/self," + self + "/task/" + self + ",./" + self + "," +
                  self + "/.,+" + self + ",-1,12x,0,99999999999,,*," + std::to_string(gone)),
              "|");
    EXPECT_EQ(Ask(head + "1x," + self + ",,"), self + ",3001,|");

    // what is left of an id that is cut is another process
    std::string list;
    while (list.size() + self.size() < 10239)
        list += list.size() + self.size() + 2 > 10239 ? "," : "4194399,";
    list.resize(10239 - self.size() - 1);
    EXPECT_EQ(Ask(head + list + "," + self + "," + self), self + ",3001,|");
    EXPECT_EQ(Ask(head + list + "," + self + "0000"), "|");
}

TEST_F(DbSession, AClientOfThisHostIsAlsoSoughtAtLoopback) {
    char name[256] = "";
    gethostname(name, sizeof name - 1);
    addrinfo hints = {}, *found = nullptr;
    hints.ai_family = AF_INET;
    if (getaddrinfo(name, nullptr, &hints, &found) != 0)
        GTEST_SKIP() << "this host's name has no address";
    char own[64];
    getnameinfo(found->ai_addr, found->ai_addrlen, own, sizeof own, nullptr, 0, NI_NUMERICHOST);
    freeaddrinfo(found);
    SetTables({{0, Row("0100007F:05F1", "0100007F:0BB9", NewSocket())}});
    EXPECT_EQ(Ask(std::string("1521|") + own + "|" + Pid()), Pid() + ",3001,|");
    EXPECT_EQ(Ask(std::string("1521|") + CLIENT + "|" + Pid()), "|");
}

TEST_F(DbSession, PairsForkedServersWithTheirClients) {
    ASSERT_TRUE(QorOpenProcNet());
    for (const auto &[family, count] : {std::pair(AF_INET, 20), std::pair(AF_INET6, 300)}) {
        const Backends servers(family, count);
        if (!servers.port && family == AF_INET6)
            GTEST_SKIP() << "no IPv6 here";
        ASSERT_EQ(servers.pids.size(), static_cast<size_t>(count));
        const std::string head = std::to_string(servers.port) + "|127.0.0.1|";
        EXPECT_EQ(Ask(head + Pid() + "," + servers.list), servers.truth + "|") << family;
        EXPECT_EQ(totalnet, count) << family;
    }
}

// A name server that doesn't answer costs its time-out once a minute, not at each request.
TEST_F(DbSession, AFailedLookUpIsKept) {
    nameServiceDown = true;
    lookUps = 0;
    for (int i = 0; i < 3; i++)
        Ask("1521|10.1.2.3|" + Pid());
    nameServiceDown = false;
    EXPECT_LE(lookUps, 1);
}
