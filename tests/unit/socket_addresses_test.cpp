#include "Xtier/tiers/SocketAddresses.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct Ends {
    uint32_t local = 77, remote = 77;
    std::string host;
};

Ends Ask(int64_t fd) {
    Ends ends;
    char host[128] = "as it was";
    QorGetSocketAddresses(fd, &ends.local, &ends.remote, host, sizeof host);
    ends.host = host;
    return ends;
}

// A connection over the loopback of one family, and its ports.
struct Connection {
    Connection(int family, const char *address) {
        sockaddr_storage where = {};
        where.ss_family = static_cast<sa_family_t>(family);
        auto *v4 = reinterpret_cast<sockaddr_in *>(&where);
        auto *v6 = reinterpret_cast<sockaddr_in6 *>(&where);
        inet_pton(family, address,
                  family == AF_INET ? static_cast<void *>(&v4->sin_addr)
                                    : static_cast<void *>(&v6->sin6_addr));
        server = socket(family, SOCK_STREAM, 0);
        near = socket(family, SOCK_STREAM, 0);
        socklen_t size = sizeof where;
        connected = bind(server, reinterpret_cast<sockaddr *>(&where), size) == 0 && listen(server, 1) == 0 &&
                    getsockname(server, reinterpret_cast<sockaddr *>(&where), &size) == 0 &&
                    connect(near, reinterpret_cast<sockaddr *>(&where), size) == 0;
        serverPort = ntohs(v4->sin_port); // at the same place in both
    }
    ~Connection() {
        close(near);
        close(server);
    }

    int server, near;
    uint32_t serverPort;
    bool connected;
};

} // namespace

TEST(SocketAddresses, TellBothEndsOfEveryFamily) {
    const struct {
        int family;
        const char *address, *shown;
    } cases[] = {
        {AF_INET, "127.0.0.1", "127.0.0.1"},
        {AF_INET6, "::ffff:127.0.0.1", "127.0.0.1"}, // as Java connects to an IPv4 address
        {AF_INET6, "::1", "::1"},
    };
    for (const auto &c : cases) {
        Connection connection(c.family, c.address);
        if (!connection.connected && c.family == AF_INET6)
            continue; // a host without IPv6
        ASSERT_TRUE(connection.connected) << c.address;
        const Ends near = Ask(connection.near);
        const int far = accept(connection.server, nullptr, nullptr);
        const Ends other = Ask(far);
        close(far);
        EXPECT_EQ(near.remote, connection.serverPort) << c.address;
        EXPECT_EQ(near.host, c.shown);
        EXPECT_NE(near.local, 0u);
        EXPECT_EQ(other.remote, near.local) << c.address;
        EXPECT_EQ(other.local, connection.serverPort) << c.address;
        EXPECT_EQ(Ask(connection.server).host, "") << "a server has no peer";
    }
}

TEST(SocketAddresses, KnowNothingOfOtherDescriptors) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);
    Ask(pair[0]);
    for (int64_t fd : {int64_t{pair[0]}, int64_t{file}, int64_t{-1}, INT64_MIN, int64_t{1} << 32}) {
        const Ends ends = Ask(fd);
        EXPECT_EQ(ends.local + ends.remote, 0u) << fd;
        EXPECT_EQ(ends.host, "") << fd;
    }
    close(file);
    close(pair[0]);
    close(pair[1]);
}
