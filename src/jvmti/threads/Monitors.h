// Locks: which ones a thread holds, and which one it waits for and who owns that.
//
// Two roads lead there. JVMTI returns object references and exact depths but needs capabilities that most
// JVMs refuse to an agent that came late; java.lang.management needs none and answers in text.
// `qorLockInfoLevel` and the JVM's capabilities choose.
//
// The management road is asked in batches, as each call stops the JVM: contended locks and counts of waits
// for all threads of the walk at once (it reads no stacks), owned locks for OWNED_BATCH threads at a time (it
// walks their stacks, and many short stops are kinder to the application than a long one). What was fetched
// lives until QorCloseMonitorSample. Threads that haven't run since the last walk aren't asked about at all
// where MonitorMemo.h knows.
//
// Everything here runs on the worker, inside a walk of ThreadSystem.h.
#pragma once

#include "MonitorBasics.h"

// Locks that the thread at the cursor holds: their number, with *out a calloc'ed array for the caller to
// free, or 0 with *out null.
int32_t QorGetOwnedMonitorInfo(QorThreadHandle *handle, const QorThreadRecord *thread, QorMonitorScope scope,
                               QorMonitorRecord **out);

// The lock that the thread at the cursor waits for: 1 with the caller's cleared record filled, else 0.
// wantOwner non-zero asks JVMTI for the owner as well, which stops the JVM. Otherwise management reports it,
// which knows locks of java.util.concurrent too; where it isn't there the owner is 0. Of a virtual thread
// locks of java.util.concurrent alone are known. A monitor's owner that the JVM takes for the carrier is the
// virtual thread.
int32_t QorGetContendedMonitorInfo(QorThreadHandle *handle, const QorThreadRecord *thread,
                                   QorMonitorScope scope, QorMonitorRecord *record, int32_t wantOwner);

// The name of the virtual thread that owns a lock which the thread at the cursor waits for, into NAME_SIZE
// bytes: "^" for one without a name. False when the owner isn't a virtual thread, or isn't found.
bool QorNameVirtualOwner(const QorThreadHandle *handle, const QorMonitorRecord &lock, char *name);

// What the thread at the cursor is parked by, such as a latch or a condition: 1 with description and lock id
// of the caller's cleared record filled, else 0.
int32_t QorGetParkedOn(const QorThreadHandle *handle, QorMonitorRecord *record);
