// What records say of a frame and of a lock, whichever road read it.
#pragma once

#include <cstdint>

enum : int32_t { NAME_SIZE = 1024 };

struct QorMethodFacts;

// One frame as text. The texts belong to the walk (or, when facts is null, to a buffer that the next
// QorReadFrame overwrites).
struct QorFrameRecord {
    int32_t frameIndex; // 0 at the top
    int64_t methodId;
    const char *method, *className, *fileName; // never null; "" when not read
    int32_t line;                              // below 1: no line is known
    int32_t callType;                          // 1 user, 0 system
    const QorMethodFacts *facts;               // null when they could not all be had
};

// One lock of a thread.
struct QorMonitorRecord {
    int64_t hash;                // JVMTI: hash code of the object; management: 1 contended, 0 owned
    char description[NAME_SIZE]; // "class@number", dotted
    int32_t waiting;             // 1 for the lock that the thread waits for
    int64_t lockId;              // the lock's number as the console knows it
    int64_t owner;               // Java thread id of the owner, 0 when not known
    bool ownerIsVirtual;         // the owner, known or not, is known to be a virtual thread
    int32_t stackDepth;          // depth of the frame that took the lock
};

// Set when the current thread's stack shows the thick database driver; the views clear it for each thread.
extern int32_t tessar_thick_driver;
