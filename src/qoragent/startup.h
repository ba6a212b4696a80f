// Start-up: from the 22 arguments of `initvar` to a running worker.
//
// All of it runs on the Java thread that calls `initvar`, but for the road's choice, which has a thread of
// its own that is joined at once. A start while an earlier worker lives first makes that worker leave.
#pragma once

#include <atomic>
#include <cstdint>
#include <jni.h>

enum StartStatus : int32_t {
    START_RUNNING = -1,
    START_OK = 0,
    START_FAILED = 1,
    START_BAD_LEVEL = 2,   // no such optimisation level
    START_UNSUPPORTED = 7, // no row for this JVM at level 2; no worker
};

struct QorStartArguments {
    jint logLevel, optimizationLevel, maxBackoff, maxTimeout, signalChain;
    jstring vendor, version, osName;
    jobject instance, instanceRef, objectArray, intArray; // samples for the direct road's heap reader
    jstring webserver, logFile, jvmId;
    jint lockInfoLevel, dbQuery, sqlLength, localsQuota, depthQueried, depthRecorded;
};

extern int32_t init_status; // StartStatus
extern const char
    *startFailure;         // why the last start failed; null when it didn't, or for no reason of its own
extern int32_t doing_init; // 1 while the initialisation thread runs

// The environment of the thread inside `initvar`, null outside it.
extern JNIEnv *jni_env;

extern char LOG_FILE[4096]; // log destination as Java gave it

// Of the thread inside `initvar`: the JNI version that it was told, and its system thread id. By them the
// direct road makes sure that the JVM is what its version says.
extern int32_t callerJniVersion, callerThreadId;

// Marker classes of the application server and the sample objects: references of `initvar`'s own frame, null
// outside it.
extern jclass serverKlass1, serverKlass2;
extern jobject qor_ins, qor_ins_ref, qor_objArr, qor_intArr;

extern int32_t ext_jvm_id;       // port found for the JVM's identifier, 0 when none
extern int32_t maxstates;        // thread state rows of the direct road
extern int32_t maxthreads;       // slots of suspended_threads
extern void **suspended_threads; // threads that the direct road holds still

// The whole start. A StartStatus for Java.
int32_t QorStart(JNIEnv *env, const QorStartArguments *arguments);

// Chooses the road and resolves the JVM for it; sets `init_status`. Body of the initialisation thread.
void *do_initialization(void *unused);

// Resolves the JVM by the text of vendor and version. 0, or word 0 of the missing symbols, or 1.
int32_t initvar(const char *vendor, const char *version);

// 1 when the operating system's name says NIMB.
int32_t IsNimbJvm(const char *osName);

// True when the vendor text names a DOV or Tessar VM; and when the version text isn't of a 1.7 besides.
bool QorVendorIsDov();
bool QorIsEarlyDov();
