#include "Xtier/tiers/RemoteUrl.h"
#include "qorStrUtils.h"

#include <gtest/gtest.h>
#include <string>

TEST(ValueText, ReplacesBytesThatAreNoModifiedUtf8) {
    const std::pair<std::string, const char *> rows[] = {
        {"\xc3\xa9\xe2\x82\xac\xc0\x80", "\xc3\xa9\xe2\x82\xac\xc0\x80"},
        {"a\xf0\x9f\x98\x80z", "a?z"}, // four bytes
        {"\xe2\x82z\xc3", "?z?"},
        {"\xc1\x81\xe0\x80\x80", "??"}, // longer than they have to be
        {"\xc3\xe2\x82\xac", "?\xe2\x82\xac"},
    };
    for (auto [text, shown] : rows) {
        QorReplaceForeignBytes(text.data());
        EXPECT_STREQ(text.c_str(), shown);
    }
}

TEST(ValueText, HidesPasswordsOfUrls) {
    const std::pair<std::string, const char *> rows[] = {
        {"jdbc:postgresql://h:5432/shop?user=a@b&password=secret&sslPassword=x&ssl=true",
         "jdbc:postgresql://h:5432/shop?user=a@b&password=***&sslPassword=*&ssl=true"},
        {"jdbc:mysql://scott:ti:ger/x@h/shop", "jdbc:mysql://scott:***@h/shop"},
        {"jdbc:tessar:thin:scott/tiger@h:1521:SHOP", "jdbc:tessar:thin:scott/***@h:1521:SHOP"},
        {"jdbc:h2:mem:x;PASSWORD=a, b)&c;USER=a", "jdbc:h2:mem:x;PASSWORD=***;USER=a"},
        {"jdbc:mysql://(host=h,password2=pqrs,user=a)/x", "jdbc:mysql://(host=h,password2=***,user=a)/x"},
        {"jdbc:sqlserver://h;pwd={a;b};accessToken=abcd", "jdbc:sqlserver://h;pwd=***;accessToken=***"},
        {"http://u:abcd@h:80/a:b@c", "http://u:***@h:80/a:b@c"},
        {"jdbc:tessar:thin:@//h:1521/SHOP", "jdbc:tessar:thin:@//h:1521/SHOP"},
    };
    for (auto [url, shown] : rows) {
        QorHidePasswords(url.data());
        EXPECT_STREQ(url.c_str(), shown);
    }
}

TEST(RemoteUrl, GivesHostAndPortOrNothing) {
    const std::string longest = std::string(59, 'h') + ".net";
    const std::tuple<std::string, std::string, int> rows[] = {
        {"http://shop.example.com/a?b=c", "shop.example.com", 80},
        {"https://user:s@cret@10.0.0.7:8443/x@y:1", "10.0.0.7", 8443},
        {"https://[2001:db8::1]?x", "2001:db8::1", 443},
        {"dns:///db_host:50051", "db_host", 50051},
        {"http://" + longest, longest, 80},
        {"http://" + longest + "x", "", 0},
        {"http://a:65536", "", 0},
        {"http://[::1:80", "", 0},
    };
    for (const auto &[url, shown, number] : rows) {
        char host[64] = "old";
        int32_t port = -1;
        EXPECT_EQ(!shown.empty(), QorReadRemoteUrl(url.c_str(), host, sizeof host, &port)) << url;
        EXPECT_EQ(shown, host) << url;
        EXPECT_EQ(number, port) << url;
    }
}
