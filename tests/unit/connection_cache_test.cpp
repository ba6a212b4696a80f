#include "Xtier/ConnectionCache.h"

#include <cstring>
#include <gtest/gtest.h>
#include <set>

TEST(ConnectionCache, TheOldestGoesWhenItIsFull) {
    static QorDBRequestData record;
    for (int32_t hash = 1; hash <= 250; hash++) {
        record.connectionHash = hash;
        QorUpdateDbConnectionInfo(&record);
        QorUpdateDbConnectionInfo(&record); // known
        std::set<int32_t> kept, wanted;
        for (int32_t i = 0; i < iDBInfoIndex; i++)
            kept.insert(gbDB_Info[i].connectionHash);
        for (int32_t newest = std::max(hash - DB_CONNECTIONS + 1, 1); newest <= hash; newest++)
            wanted.insert(newest);
        ASSERT_EQ(kept, wanted);
    }
    strcpy(record.threadName, "another");
    QorUpdateDbConnectionInfo(&record);
    EXPECT_EQ(gbDB_Info[(251 - 1) % DB_CONNECTIONS].connectionHash, 250) << "a connection is one thread's";
    QorDropDbConnections();
}
