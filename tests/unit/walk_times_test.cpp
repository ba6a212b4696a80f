// How long walks for locals may take, and when the next one is due.
#include "Xtier/LocalWalk.h"
#include "Xtier/LocalWalkTimes.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <gtest/gtest.h>
#include <utility>

constexpr int64_t SECOND = 1000000, START = 5000 * SECOND;

TEST(WalkTimes, PollsKeepToTheirShare) {
    qorIsPollOrTrace = 1;
    qorGetLocalObjectsQuotaPct = 10;
    ASSERT_TRUE(QorLocalWalkIsDue(START));
    QorSetLocalWalkBudget(START);
    EXPECT_EQ(lAllowedFollowRefTimeUSec, 200000) << "the first one has it all";
    getNextLocalObjTime(START, START + 3 * SECOND / 10);
    EXPECT_FALSE(QorLocalWalkIsDue(START + 3 * SECOND - 1));
    EXPECT_TRUE(QorLocalWalkIsDue(START + 3 * SECOND));
    QorSetLocalWalkBudget(START + SECOND / 2); // the quota's share of the time since the last one
    EXPECT_EQ(lAllowedFollowRefTimeUSec, 50000);
}

// They share their part of the last ten seconds; the first after ten without any is made.
TEST(WalkTimes, RequestsByHandKeepToTheirShareOfTheLastSeconds) {
    qorIsPollOrTrace = 0;
    qorGetLocalObjectsQuotaPct = 10;
    qorHandWalkQuotaPct = 5;
    int64_t now = START;
    // Pauses and budgets, 0 for a walk that is left out.
    const std::pair<int64_t, int64_t> ROWS[] = {{0, 200000}, {0, 200000},     {0, 200000},         {0, 50000},
                                                {0, 0},      {8 * SECOND, 0}, {2 * SECOND, 200000}};
    for (const auto &[pause, budget] : ROWS) {
        now += pause;
        ASSERT_EQ(QorLocalWalkIsDue(now), budget > 0) << now;
        QorSetLocalWalkBudget(now);
        EXPECT_TRUE(budget == 0 || lAllowedFollowRefTimeUSec == budget) << now;
        if (budget)
            QorCountLocalWalk(now, now + 150000, 0);
        now += 150000;
    }
}
