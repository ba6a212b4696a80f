// The arguments of `initvar` into the agent's settings, and the log's destination. Start-up only, but for the
// level.
#pragma once

#include "qorlog.h"

#include <cstdint>
#include <jni.h>

struct QorStartArguments {
    jint logLevel, optimizationLevel, maxBackoff, maxTimeout, signalChain;
    jstring vendor, version, osName;
    jobject instance, instanceRef, objectArray, intArray; // samples for the direct road's heap reader
    jstring webserver, logFile, jvmId;
    jint lockInfoLevel, dbQuery, sqlLength, localsQuota, depthQueried, depthRecorded;
};

// Numbers: levels, limits, quotas.
void QorStoreNumbers(const QorStartArguments *arguments);

// Sets the level and with it the rule for locals. The levels without locals are 3 and 9; `bciLevel` is the
// one of them that is logged as the one where BCI fetches them. That locals are fetched is logged at `usual`.
void QorStoreLevel(int32_t level, int32_t bciLevel, QorLogThreshold usual);

// JVM version, vendor and operating system, and what follows from them.
void QorStoreJvmTexts(JNIEnv *env, const QorStartArguments *arguments);

// Opens the log: "stdout", "stderr" or a path that is appended to; null means stdout.
void QorOpenLog(JNIEnv *env, jstring destination);

// The JVM's identifier and the application server's word.
void QorStoreServerTexts(JNIEnv *env, const QorStartArguments *arguments);

// Copies a Java string into `size` bytes, cut on a character boundary. A null string, or one whose characters
// are unavailable, leaves the destination as it was: false.
bool QorCopyJavaString(JNIEnv *env, jstring source, char *dest, int32_t size);
