#include "LocalWalkTimes.h"

#include "LocalWalk.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <algorithm>
#include <ctime>

namespace {

constexpr int64_t REPORT_INTERVAL_USEC = 600'000'000;
constexpr int32_t ALL_TIME = 100; // percent

int64_t MonotonicMicroseconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1000000} + now.tv_nsec / 1000;
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
int32_t iFollowRefCount;
int64_t lFollowRefTotalTime;
int64_t lIterationTotalCount;
int64_t lAllowedFollowRefTimeUSec = QOR_LOCAL_WALK_BUDGET_USEC;

int32_t QorLocalWalkQuota() {
    return std::clamp(qorGetLocalObjectsQuotaPct, 0, ALL_TIME);
}

bool QorLocalWalkIsDue(int64_t now) {
    if (nextFollowRefTime == 0 || QorLocalWalkQuota() == ALL_TIME || !qorIsPollOrTrace ||
        now >= nextFollowRefTime)
        return true;
    ReportSkip(now, nextFollowRefTime - now);
    return false;
}

void QorSetLocalWalkBudget(int64_t now) {
    const int32_t quota = QorLocalWalkQuota();
    if (quota == ALL_TIME)
        return;
    if (!qorIsPollOrTrace)
        lAllowedFollowRefTimeUSec = QOR_LOCAL_WALK_BUDGET_USEC;
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
