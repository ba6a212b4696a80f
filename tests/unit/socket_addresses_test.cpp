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

// IPv4 in either family is in every test of a JVM.
TEST(SocketAddresses, AreBothEndsOfIpv6) {
    const Loopback server("::1");
    if (!server.listens)
        GTEST_SKIP() << "a host without IPv6";
    const int client = server.Connect();
    EXPECT_EQ(Ends(client),
              std::to_string(Loopback::PortOf(client)) + " " + std::to_string(server.port) + " ::1");
    EXPECT_EQ(Ends(server.fd), std::to_string(server.port) + " 0 ") << "a server has no peer";
    close(client);
}
