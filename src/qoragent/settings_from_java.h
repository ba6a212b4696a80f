// The arguments of `initvar` into the agent's settings, and the log's destination. Start-up only.
#pragma once

#include "startup.h"

// Numbers: levels, limits, quotas.
void QorStoreNumbers(const QorStartArguments *arguments);

// JVM version, vendor and operating system, and what follows from them.
void QorStoreJvmTexts(JNIEnv *env, const QorStartArguments *arguments);

// Opens the log: "stdout", "stderr" or a path that is appended to; null means stdout.
void QorOpenLog(JNIEnv *env, jstring destination);

// The JVM's identifier and the application server's word.
void QorStoreServerTexts(JNIEnv *env, const QorStartArguments *arguments);

// Copies a Java string into `size` bytes, cut on a character boundary. A null string, or one whose characters
// can't be had, leaves the destination as it was: false.
bool QorCopyJavaString(JNIEnv *env, jstring source, char *dest, int32_t size);
