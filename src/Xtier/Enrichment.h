// What the Java side knows of a sample's threads, spliced into the reply.
//
// qoragent.cJavaCall.cjavacalls is handed the threads of the end-to-end list and what the sample gathered for
// each; its answer's pieces go into `pagebuf` after each thread's part.
#pragma once

#include <atomic>
#include <cstdint>
#include <jni.h>

struct QorE2EBlock;

// 1 while the Java side is asked, so that nobody gives the worker up in the middle of its code.
extern std::atomic<int32_t> flagcompiled_java_code;

// Finds the threads of the end-to-end list where its blocks have no references: an array with one element for
// each block, null for a thread that has ended; or null.
using QorThreadFinder = jobjectArray (*)(JNIEnv *env, const QorE2EBlock *list);

// Asks and merges. The reply stays as the views wrote it unless the whole merge worked. The end-to-end list
// is empty on return, whatever happened. JVMTI road: worker, at the end of a sample, `find` null. Direct
// road: the caller, who has the worker's lists and the reply to itself, once the reply is complete.
void checkAndAppendInfo(JNIEnv *env, QorThreadFinder find);
