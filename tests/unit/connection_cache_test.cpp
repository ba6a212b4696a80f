#include "LogCapture.h"
#include "Xtier/ConnectionCache.h"
#include "qorStrUtils.h"

#include <gtest/gtest.h>
#include <memory>
#include <vector>

namespace {

struct ConnectionCache : testing::Test {
    ConnectionCache() { *record = {}; }
    ~ConnectionCache() override { QorDropDbConnections(); }

    // Adds a connection that is known by its local port.
    void add(uint32_t port, const char *host = "10.0.0.1", const char *threadName = "worker") {
        record->connectionHash = static_cast<int32_t>(port);
        record->localPort = port;
        QorStrncpy(record->url, "jdbc:tessar", sizeof record->url, DB_URL_SIZE);
        QorStrncpy(record->threadName, threadName, sizeof record->threadName, DB_THREAD_NAME_SIZE);
        record->remoteHost[0] = 0;
        QorStrncpy(record->remoteHost, host, sizeof record->remoteHost, REMOTE_HOST_SIZE);
        EXPECT_EQ(QorUpdateDbConnectionInfo(record.get()), 0);
    }

    static const QorDBRequestData *find(uint32_t port) {
        for (int32_t i = 0; i < iDBInfoIndex; i++)
            if (gbDB_Info[i].localPort == port)
                return &gbDB_Info[i];
        return nullptr;
    }

    // The ports in order of adding, as the list's links tell it in both directions.
    static std::vector<uint32_t> order() {
        const QorDBRequestData *entry = &gbDB_Info[0];
        while (entry->prev)
            entry = entry->prev;
        std::vector<uint32_t> ports;
        for (const QorDBRequestData *before = nullptr; entry; before = entry, entry = entry->next) {
            EXPECT_EQ(entry->prev, before);
            ports.push_back(entry->localPort);
        }
        return ports;
    }

    std::unique_ptr<QorDBRequestData> record = std::make_unique<QorDBRequestData>();
};

} // namespace

TEST_F(ConnectionCache, TheOldestGoesWhenItIsFull) {
    LogCapture log(LOG_TRACE + 1);
    for (uint32_t port = 1; port <= DB_CONNECTIONS; port++)
        add(port);
    add(1); // met again: not moved
    EXPECT_EQ(log.text(), "");
    add(101, "");
    EXPECT_EQ(log.count("Aging out JDBC Conn ID 1 for JDBC Conn ID 101"), 1);
    EXPECT_EQ(iDBInfoIndex, DB_CONNECTIONS);
    EXPECT_EQ(find(1), nullptr);
    ASSERT_NE(find(101), nullptr);
    EXPECT_STREQ(find(101)->remoteHost, "") << "the host of the connection before";
    EXPECT_STREQ(find(101)->url, "jdbc:tessar");

    for (uint32_t port = 102; port <= 250; port++)
        add(port);
    std::vector<uint32_t> expected;
    for (uint32_t port = 151; port <= 250; port++)
        expected.push_back(port);
    EXPECT_EQ(order(), expected);
}

TEST_F(ConnectionCache, AConnectionIsOneThreadsAndIsNotRefreshed) {
    LogCapture log(LOG_ERROR + 1);
    EXPECT_EQ(QorUpdateDbConnectionInfo(nullptr), -1);
    EXPECT_EQ(log.count("QorUpdateDbConnectionInfo : Pointer to DB INFO NULL"), 1);
    add(7);
    record->connectionHash = 7;
    record->localPort = 8;
    EXPECT_EQ(QorUpdateDbConnectionInfo(record.get()), 0);
    EXPECT_EQ(iDBInfoIndex, 1);
    EXPECT_EQ(gbDB_Info[0].localPort, 7u);
    add(7, "10.0.0.1", "another");
    QorStrncpy(record->threadKey, "1-2", sizeof record->threadKey, DB_THREAD_KEY_SIZE);
    EXPECT_EQ(QorUpdateDbConnectionInfo(record.get()), 0);
    EXPECT_EQ(iDBInfoIndex, 3);
    EXPECT_STREQ(gbDB_Info[1].threadName, "another");
    EXPECT_STREQ(gbDB_Info[2].threadKey, "1-2");
    record->connectionHash = 0; // of a rule that doesn't know the socket
    for (const char *url : {"jdbc:one", "jdbc:two", "jdbc:one"}) {
        record->url[0] = 0;
        QorStrncpy(record->url, url, sizeof record->url, DB_URL_SIZE);
        QorUpdateDbConnectionInfo(record.get());
    }
    EXPECT_EQ(iDBInfoIndex, 5);
}
