// The JDK's own fields of virtual threads and of the containers that list them, found once.
//
// JVMTI lists no virtual threads and java.lang.management neither, so they are found where the JDK keeps
// them. JNI's look-up of a field runs the class's initialiser, so a class is looked at only once the JVM has
// initialised it: until then there is nothing of its kind. One class or field that isn't there puts all of
// this out of use, with a line in the log.
//
// Worker only, but for the reading of what was found.
#pragma once

#include <cstdint>
#include <jni.h>

enum QorVirtualState {
    VIRTUAL_NONE_YET, // the JVM has made no virtual thread so far
    VIRTUAL_READY,
    VIRTUAL_OFF,
};

// Classes are global references; null, as fields are, while the class isn't initialised. The first block is
// there in VIRTUAL_READY.
struct QorVirtualFields {
    jclass thread; // java.lang.VirtualThread
    jfieldID tid, name, container, scopes, blocker;
    jfieldID state, carrier;
    jfieldID previousScope;
    jfieldID rootContainer, registry; // static
    jclass containers;
    jclass reference, keySet;
    jfieldID referent;
    jfieldID map, table, baseCount, counterCells;
    jfieldID hash, key, next;

    jclass forwardingNode, treeBin;
    jfieldID forwardTable, binFirst, cellValue;
    jclass shared, perTask, flockContainer, trackingRoot, countingRoot;
    jfieldID sharedName, sharedThreads, perTaskThreads, flock, flockThreads, flockName;
    jfieldID rootThreads, rootCount; // static
    jfieldID adderBase, adderCells, adderCellValue;
    jfieldID owner; // of java.util.concurrent's locks, `ownableClass`
};
extern QorVirtualFields qorVirtual;

// The JVM's release, such as 21; 0 without a session.
int32_t QorJvmRelease();

// A class of the boot loader, which isn't initialised by it; a local reference, or null.
jclass QorFindBootClass(const char *name);

// Looks up what hasn't been found yet.
QorVirtualState QorLookUpVirtual();

// Why VIRTUAL_OFF; else "".
const char *QorVirtualOffReason();

// Drops the class references. End of the session, on its environment.
void QorDropVirtualFields();

// Whether the thread is a virtual one; false before VIRTUAL_READY.
bool QorIsVirtualThread(jobject thread);

// The owner of a lock of java.util.concurrent as a local reference; null without one, and for other objects.
jobject QorOwnerOfBlocker(jobject blocker);
