// What the Java side knows of a sample's threads, spliced into the reply.
//
// qoragent.cJavaCall.cjavacalls is handed the threads of the end-to-end list and what the sample gathered for
// each; its answer's pieces go into `pagebuf` behind each thread's part.
#pragma once

#include <atomic>
#include <cstdint>
#include <jni.h>

// 1 while the Java side is asked, so that nobody gives the worker up in the middle of its code.
extern std::atomic<int32_t> flagcompiled_java_code;

// Asks and merges. The reply stands as the views wrote it unless the whole merge worked. The end-to-end list
// is empty on return, whatever happened. Worker, at the end of a sample.
void checkAndAppendInfo(JNIEnv *env);
