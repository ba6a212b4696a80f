// The end-to-end list: a block for each thread that a sample shows, in the order of the reply.
//
// The blocks carry a thread to the Java side and back: its reference, and what the sample learned of its work
// in other tiers. They are built during the sample and released when the reply is complete, all on the
// worker, and then kept for the next sample until QorDropE2EPool. A block is 7 KiB, nearly all of it texts
// that are seldom written: those of a free block are empty, so that a sample touches no more than a block's
// head.
#pragma once

#include <cstdint>
#include <jni.h>

struct QorThreadHandle;
struct QorThreadRecord;

struct QorE2EBlock {
    jobject directRef;   // the thread, as the walk knows it: of no use once the walk is closed
    jobject threadRef;   // the thread, as a global reference; null on the direct road, as the one before
    char *patchPoint;    // end of this thread's part of the reply
    int32_t valid;       // 1 when this thread went to Java
    int32_t threadId;    // Java thread id, cut to 32 bits: the key by which cross-tier data finds its block;
                         // on the direct road the kernel's id
    int64_t osThreadId;  // on IBM JVMs, else -1
    uint64_t javaThread; // on the direct road, its address
    char name[256];      // and the thread's name, or the beginning of it
    int32_t frameCount;
    int32_t textsWritten; // 1 once a text or number below was written; whoever writes one sets it
    QorE2EBlock *next;
    int32_t stuckAndHogger[2];
    char ioFile[3072];
    char applicationName[1024];
    char moduleName[1024];
    char wmName[1024];
    char sessionId[1024];
    int32_t networkPort;
    char networkHost[132];
    bool isVirtual;    // the thread is a virtual one
    int64_t partnerId; // its carrier, or of a carrier the virtual thread on it: Java thread id, 0 for none
    char *lockOwner;   // name of the virtual thread that owns the lock waited for, or null; allocated
    bool byReadRule;   // some of what is shown of the thread comes by a rule that is known from sources alone
};

// Head of the list; null between samples.
extern QorE2EBlock *thread_e2e_info;

// Appends a block for the thread at the cursor. 0, or -1 when there is no memory: the whole list is released.
int32_t QorAddE2EBlock(JNIEnv *env, const QorThreadHandle *handle, const QorThreadRecord *thread,
                       int32_t frameCount);

// The same for a thread that was read by address. No reference is made: whoever has an environment finds the
// thread by these three.
int32_t QorAddE2EBlock(uint64_t javaThread, int32_t kernelId, const char *name, int32_t frameCount);

// Notes the name of the virtual thread that owns the lock which the last block's thread waits for.
void QorNoteLockOwner(const char *name);

// Bytes that Java's answer wants in the reply, 0 for an empty list.
int32_t QorRoomForAnswer();

// Empties the list, dropping its references with the caller's `env`, which may be null where there are none.
void release_thread_e2e_info(JNIEnv *env);

// Gives the kept blocks back to the allocator; the list must be empty.
void QorDropE2EPool();
