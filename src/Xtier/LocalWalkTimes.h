// How often and for how long the walks for locals may stop the JVM.
//
// A poll's walk waits until the quota's share covers the last one. Walks by hand share a part of the last ten
// seconds; the first after as long without any is always made.
//
// Times are microseconds of a clock that no one sets; 0 means never. Worker only, but for the clock, which
// the walk's callback reads too.
#pragma once

#include <cstdint>

// The clock. A test may put its own here.
extern int64_t (*qorLocalWalkClock)();

extern int64_t nextFollowRefTime;            // earliest start of the next walk during polling
extern int64_t prevFollowRefExecTime;        // start of the last walk
extern int64_t prevFollowRefAbortReportTime; // last line on a walk skipped or ended for its time
extern int64_t prevFollowRefStatsReportTime; // last line of statistics
extern int32_t iSkipFollowRefCount;          // walks skipped or ended since that line

// The share of time that walks may take, 0 to 100 percent.
int32_t QorLocalWalkQuota();

// What NoProcessing|walkstate reports: the time of the last walk, -1 before the first, and of the last sample
// whether it was left without one that it wanted, or had one that its budget ended.
extern int64_t gbQorLastWalkUsec;
extern bool gbQorWalkLeftOut;
extern bool gbQorWalkCut;

// What is left at `now` of the share that requests by hand have of the last ten seconds, in microseconds; and
// the counting of what they take. Reading the stacks of virtual threads has the same share.
int64_t QorHandTimeLeft(int64_t now);
void QorCountHandTime(int64_t start, int64_t end);

// Whether a walk may start now; logs and notes one that is left out.
bool QorLocalWalkIsDue(int64_t now);

// Sets lAllowedFollowRefTimeUSec for a walk that starts now, and notes the start. Nothing at a quota of 100.
void QorSetLocalWalkBudget(int64_t now);

// Bars the next walk until this one's time is no more than the quota's share.
void getNextLocalObjTime(int64_t start, int64_t end);

// Reports a walk that its budget has ended.
void QorReportLocalWalkAbort(int64_t now, int32_t iterations, int64_t usec, int32_t kind);

// Forgets the walks by hand and the last walk. Shutdown.
void QorForgetLocalWalks();

// Counts a walk, and every ten minutes reports their number and average. Errors are JVMTI's, 0 for none.
void QorCountLocalWalk(int64_t start, int64_t end, int32_t iterations);
void QorReportLocalWalks(int64_t now, int32_t walkError, int32_t tagError);
