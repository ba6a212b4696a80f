#include "Xtier/tiers/RemoteUrl.h"

#include <gtest/gtest.h>
#include <string>

TEST(RemoteUrl, GivesHostAndPortOrNothing) {
    const std::string longest = std::string(59, 'h') + ".net";
    const struct {
        std::string url, host;
        int port;
    } rows[] = {
        {"http://shop.example.com/a?b=c", "shop.example.com", 80},
        {"https://user:s@cret@10.0.0.7:8443/x@y:1", "10.0.0.7", 8443},
        {"https://[2001:db8::1]:444?x", "2001:db8::1", 444},
        {"dns:///db_host:50051", "db_host", 50051},
        {"backend:9000/x", "backend", 9000},
        {"http://" + longest, longest, 80},
        {"http://" + longest + "x", "", 0},
        {"GET /x://y:1", "", 0},
        {"http://a:65536", "", 0},
        {"http://a:8o", "", 0},
        {"http://[::1:80", "", 0},
        {"http://[a.b-c]:80", "", 0},
    };
    for (const auto &row : rows) {
        char host[64] = "old";
        int32_t port = -1;
        EXPECT_EQ(!row.host.empty(), QorReadRemoteUrl(row.url.c_str(), host, sizeof host, &port)) << row.url;
        EXPECT_EQ(row.host, host) << row.url;
        EXPECT_EQ(row.port, port) << row.url;
    }
}
