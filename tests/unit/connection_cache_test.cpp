#include "Xtier/ConnectionCache.h"
#include "qorStrUtils.h"

#include <gtest/gtest.h>
#include <memory>
#include <vector>

namespace {

struct ConnectionCache : testing::Test {
    ConnectionCache() { *record = {}; }
    ~ConnectionCache() override { QorDropDbConnections(); }

    // Adds a connection that is known by `hash`.
    void Add(int32_t hash, const char *host = "10.0.0.1", const char *thread = "worker") {
        record->connectionHash = hash;
        QorStrncpy(record->threadName, thread, sizeof record->threadName, DB_THREAD_NAME_SIZE);
        snprintf(record->remoteHost, sizeof record->remoteHost, "%s", host);
        EXPECT_EQ(QorUpdateDbConnectionInfo(record.get()), 0);
    }

    // The connections in order of adding, as both directions of the list have it.
    static std::vector<int32_t> Order() {
        const QorDBRequestData *entry = &gbDB_Info[0];
        while (entry->prev)
            entry = entry->prev;
        std::vector<int32_t> hashes;
        for (const QorDBRequestData *before = nullptr; entry; before = entry, entry = entry->next) {
            EXPECT_EQ(entry->prev, before);
            hashes.push_back(entry->connectionHash);
        }
        return hashes;
    }

    std::unique_ptr<QorDBRequestData> record = std::make_unique<QorDBRequestData>();
};

} // namespace

TEST_F(ConnectionCache, TheOldestGoesWhenItIsFull) {
    for (int32_t hash = 1; hash <= 250; hash++) {
        Add(hash);
        Add(1 + (hash - 1) / DB_CONNECTIONS * DB_CONNECTIONS); // met again: not moved
    }
    EXPECT_EQ(iDBInfoIndex, DB_CONNECTIONS);
    std::vector<int32_t> newest;
    for (int32_t hash = 151; hash <= 250; hash++)
        newest.push_back(hash);
    EXPECT_EQ(Order(), newest);
}

TEST_F(ConnectionCache, AConnectionIsOneThreadsAndIsNotRefreshed) {
    Add(7);
    Add(7, "10.0.0.2");
    EXPECT_EQ(iDBInfoIndex, 1);
    EXPECT_STREQ(gbDB_Info[0].remoteHost, "10.0.0.1");
    Add(7, "10.0.0.1", "another");
    EXPECT_EQ(iDBInfoIndex, 2);
}
