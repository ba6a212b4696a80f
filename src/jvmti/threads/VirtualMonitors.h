// Monitors of virtual threads, and of threads that wait for what these hold.
//
// Neither JVMTI's questions about a thread nor management answer for them. Before Java 25 the JVM names a
// monitor's virtual owner and waiters to who has the object, which is a local of the waiter's top frames: a
// reference walk over the stacks finds it, and each answer is checked against the list of waiters. From 25 on
// the JDK's own jdk.internal.vm.ThreadSnapshot has them: its native method is called, which runs no Java code
// but the initialisers of two small classes. That is for one thread on request, never for a sample. Where
// class or field is missing, monitors are left out.
//
// Worker only, inside a walk of ThreadSystem.h and a local frame of the caller.
#pragma once

#include "MonitorBasics.h"

#include <cstdint>
#include <jni.h>

// The monitor that a thread waits for.
struct QorWantedMonitor {
    jobject object, owner; // local references; owner: null when it isn't known
    bool ownerIsVirtual;
};

// A monitor that a thread holds.
struct QorHeldMonitor {
    jobject object; // a local reference
    int32_t depth;  // of the frame that took it, -1 unknown
};

// Finds the monitor that the thread at the cursor is blocked by. False when it isn't blocked, or nothing is
// known of it.
bool QorFindWantedMonitor(const QorThreadHandle *handle, QorMonitorScope scope, QorWantedMonitor *out);

// The monitors of the thread at the cursor from Java 25 on: their number, at most `most`.
int32_t QorFindHeldMonitors(QorThreadHandle *handle, QorHeldMonitor *out, int32_t most);

// Ends what a sample keeps. At the close of a walk.
void QorCloseVirtualMonitors();

// Drops the class reference. End of the session, on its environment.
void QorDropVirtualMonitors();
