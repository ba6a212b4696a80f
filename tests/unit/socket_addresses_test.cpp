#include "Loopback.h"
#include "Xtier/tiers/SocketAddresses.h"

#include <gtest/gtest.h>
#include <string>

// Local port, remote port and remote host, as one text.
static std::string Ends(int64_t fd) {
    uint32_t local = 77, remote = 77;
    char host[128] = "as it was";
    QorGetSocketAddresses(fd, &local, &remote, host, sizeof host);
    return std::to_string(local) + " " + std::to_string(remote) + " " + host;
}

TEST(SocketAddresses, AreBothEndsOfEveryFamily) {
    const std::tuple<int, const char *, const char *> rows[] = {
        {AF_INET, "127.0.0.1", "127.0.0.1"},
        {AF_INET6, "::ffff:127.0.0.1", "127.0.0.1"}, // as Java connects to an IPv4 address
        {AF_INET6, "::1", "::1"},
    };
    for (const auto &[family, address, shown] : rows) {
        Loopback server(family, address);
        if (!server.bound && family == AF_INET6)
            continue; // a host without IPv6
        ASSERT_TRUE(server.Listen()) << address;
        const int near = server.Connect(), far = accept(server.fd, nullptr, nullptr);
        const std::string nearPort = std::to_string(Loopback::PortOf(near)),
                          port = std::to_string(server.port);
        EXPECT_EQ(Ends(near), nearPort + " " + port + " " + shown);
        EXPECT_EQ(Ends(far), port + " " + nearPort + " " + shown);
        EXPECT_EQ(Ends(server.fd), port + " 0 ") << "a server has no peer";
        close(near);
        close(far);
    }
    for (int64_t fd : {int64_t{-1}, int64_t{1} << 32}) // no socket
        EXPECT_EQ(Ends(fd), "0 0 ") << fd;
}
