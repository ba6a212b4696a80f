#include "LocalWalkTimes.h"

#include "LocalWalk.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <algorithm>
#include <ctime>
#include <iterator>

namespace {

constexpr int64_t REPORT_INTERVAL_USEC = 600'000'000;
constexpr int32_t ALL_TIME = 100; // percent

int64_t MonotonicMicroseconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1000000} + now.tv_nsec / 1000;
}

// Since the last statistics: walks, their time in microseconds, their callbacks.
int32_t iFollowRefCount;
int64_t lFollowRefTotalTime;
int64_t lIterationTotalCount;

// Time that walks by hand took, by seconds: the one that runs and the ten before it.
constexpr int64_t SECOND_USEC = 1'000'000;
constexpr int64_t HAND_SECONDS = 10;
int64_t handUsec[HAND_SECONDS + 1];
int64_t handSecond;  // the newest of them
int64_t handWalkEnd; // of the last walk by hand
int64_t handBudget = QOR_LOCAL_WALK_BUDGET_USEC;

int64_t *HandUsecOf(int64_t second) {
    return &handUsec[second % (HAND_SECONDS + 1)];
}

void AdvanceTo(int64_t second) {
    handSecond = std::max(handSecond, second - HAND_SECONDS - 1);
    while (handSecond < second)
        *HandUsecOf(++handSecond) = 0;
}

// Sets the time that the walk may take; false when none is left.
bool HandWalkIsDue(int64_t now) {
    handBudget = std::min(QOR_LOCAL_WALK_BUDGET_USEC, QorHandTimeLeft(now));
    if (handBudget > 0)
        return true;
    QORLOG_RATIONED(LOG_NOTE,
                    "No local variables for this request: those before it had their %d %% of the last ten "
                    "seconds.",
                    qorHandWalkQuotaPct);
    return false;
}

enum class Report { FIRST, SUPPRESSED, DUE };

// How to report a walk skipped or ended at `now`; a report made counts the next ten minutes from here.
Report TakeReportTurn(int64_t now) {
    if (prevFollowRefAbortReportTime == 0) {
        prevFollowRefAbortReportTime = now;
        return Report::FIRST;
    }
    if (now - prevFollowRefAbortReportTime < REPORT_INTERVAL_USEC) {
        iSkipFollowRefCount++;
        return Report::SUPPRESSED;
    }
    prevFollowRefAbortReportTime = now;
    return Report::DUE;
}

void ReportSkip(int64_t now, int64_t delay) {
    const Report turn = TakeReportTurn(now);
    if (turn == Report::DUE) {
        QORLOG(LOG_NOTE,
               "Skipping GetLocalObj due to insufficient time from last operation. Will wait for %ld usec. "
               "%d skips/aborts since last report.",
               static_cast<long>(delay), iSkipFollowRefCount);
        iSkipFollowRefCount = 0;
        return;
    }
    QORLOG(turn == Report::FIRST ? LOG_NOTE : LOG_DETAIL,
           "Skipping GetLocalObj due to insufficient time from last operation. Will wait for %ld usec.",
           static_cast<long>(delay));
}

} // namespace

int64_t (*qorLocalWalkClock)() = MonotonicMicroseconds;

int64_t nextFollowRefTime;
int64_t prevFollowRefExecTime;
int64_t prevFollowRefAbortReportTime;
int64_t prevFollowRefStatsReportTime;
int32_t iSkipFollowRefCount;
int64_t lAllowedFollowRefTimeUSec = QOR_LOCAL_WALK_BUDGET_USEC;
int64_t gbQorLastWalkUsec = -1;
bool gbQorWalkLeftOut;
bool gbQorWalkCut;

int64_t QorHandTimeLeft(int64_t now) {
    AdvanceTo(now / SECOND_USEC);
    const bool isFirst = handWalkEnd == 0 || now - handWalkEnd >= HAND_SECONDS * SECOND_USEC;
    if (isFirst || qorHandWalkQuotaPct >= ALL_TIME)
        return HAND_SECONDS * SECOND_USEC;
    int64_t left = HAND_SECONDS * SECOND_USEC * qorHandWalkQuotaPct / ALL_TIME;
    for (int64_t used : handUsec)
        left -= used;
    return std::max<int64_t>(left, 0);
}

void QorCountHandTime(int64_t start, int64_t end) {
    AdvanceTo(end / SECOND_USEC);
    *HandUsecOf(handSecond) += end - start;
    handWalkEnd = end;
}

int32_t QorLocalWalkQuota() {
    return std::clamp(qorGetLocalObjectsQuotaPct, 0, ALL_TIME);
}

bool QorLocalWalkIsDue(int64_t now) {
    if (!qorIsPollOrTrace) {
        gbQorWalkLeftOut = !HandWalkIsDue(now);
    } else {
        gbQorWalkLeftOut =
            nextFollowRefTime != 0 && QorLocalWalkQuota() != ALL_TIME && now < nextFollowRefTime;
        if (gbQorWalkLeftOut)
            ReportSkip(now, nextFollowRefTime - now);
    }
    return !gbQorWalkLeftOut;
}

void QorSetLocalWalkBudget(int64_t now) {
    const int32_t quota = QorLocalWalkQuota();
    if (quota == ALL_TIME)
        return;
    if (!qorIsPollOrTrace)
        lAllowedFollowRefTimeUSec = handBudget;
    else if (prevFollowRefExecTime != 0)
        lAllowedFollowRefTimeUSec =
            std::min((now - prevFollowRefExecTime) * quota / ALL_TIME, QOR_LOCAL_WALK_BUDGET_USEC);
    QORLOG(LOG_DETAIL, "Time allowed to spend in GetLocalObj: %ld usec",
           static_cast<long>(lAllowedFollowRefTimeUSec));
    prevFollowRefExecTime = now;
}

void getNextLocalObjTime(int64_t start, int64_t end) {
    const int32_t quota = QorLocalWalkQuota();
    if (quota == 0 || quota == ALL_TIME)
        return;
    nextFollowRefTime = start + static_cast<int64_t>(static_cast<double>(end - start) * ALL_TIME / quota);
}

void QorReportLocalWalkAbort(int64_t now, int32_t iterations, int64_t usec, int32_t kind) {
    const Report turn = TakeReportTurn(now);
    if (turn == Report::DUE) {
        QORLOG(LOG_NOTE,
               "Aborting GetLocalObj after %d iterations (%d us). %d skips/aborts since last report.",
               iterations, static_cast<int32_t>(usec), iSkipFollowRefCount);
        iSkipFollowRefCount = 0;
    } else if (turn == Report::FIRST) {
        QORLOG(LOG_NOTE, "Aborting GetLocalObj after %d iterations (%d us)", iterations,
               static_cast<int32_t>(usec));
    }
    QORLOG(
        qorIsPollOrTrace ? LOG_DETAIL : LOG_NOTE,
        "Aborting GetLocalObj due to allowed time is up after %d iterations (%d us). Current refKind = %d ",
        iterations, static_cast<int32_t>(usec), kind);
}

void QorCountLocalWalk(int64_t start, int64_t end, int32_t iterations) {
    iFollowRefCount++;
    lFollowRefTotalTime += end - start;
    lIterationTotalCount += iterations;
    gbQorLastWalkUsec = end - start;
    if (!qorIsPollOrTrace)
        QorCountHandTime(start, end);
}

void QorForgetLocalWalks() {
    std::fill(std::begin(handUsec), std::end(handUsec), 0);
    handSecond = handWalkEnd = 0;
    gbQorLastWalkUsec = -1;
    gbQorWalkLeftOut = gbQorWalkCut = false;
}

void QorReportLocalWalks(int64_t now, int32_t walkError, int32_t tagError) {
    if (prevFollowRefStatsReportTime != 0 && now - prevFollowRefStatsReportTime < REPORT_INTERVAL_USEC)
        return;
    if (walkError != 0 || tagError != 0)
        QORLOG(LOG_NOTE, "GetLocals returns error code %d and tagging returns error code %d", walkError,
               tagError);
    QORLOG(LOG_NOTE, "GetLocals was invoked %d times since last report. Average %d iterations %d us",
           iFollowRefCount, static_cast<int32_t>(lIterationTotalCount / std::max(iFollowRefCount, 1)),
           static_cast<int32_t>(lFollowRefTotalTime / std::max(iFollowRefCount, 1)));
    iFollowRefCount = 0;
    lFollowRefTotalTime = lIterationTotalCount = 0;
    prevFollowRefStatsReportTime = now;
}
