// Locks by java.lang.management: what Monitors.h falls back to.
//
// Calls run Java code on the worker. Bean, classes and method ids are looked up once a sample, and the
// answers for a batch of threads are kept until QorCloseMonitorSample.
#pragma once

#include "MonitorBasics.h"

// As their namesakes in Monitors.h, for the thread at the cursor and inside the caller's local frame.
int32_t QorGetOwnedMonitorInfoUsingManagement(QorThreadHandle *handle, const QorThreadRecord *thread,
                                              QorMonitorScope scope, QorMonitorRecord **out);
int32_t QorGetContendedMonitorInfoUsingManagement(QorThreadHandle *handle, const QorThreadRecord *thread,
                                                  QorMonitorScope scope, QorMonitorRecord *record);

// How often the walk's `index`th thread has begun to wait, park, sleep or be blocked: never less than at the
// snapshot. -1 when the JVM doesn't say. All threads that QorMemoHolds are asked about at once.
int64_t QorGetWaitCount(const QorThreadHandle *handle, int32_t index);

// Drops what the batches fetched. The close of the walk calls it.
void QorCloseMonitorSample();
