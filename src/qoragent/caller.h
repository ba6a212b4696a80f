// The Java caller's side of a request.
//
// One caller at a time is assumed: the Java side declares the native synchronized. More of them overwrite
// each other's request but harm nothing else.
#pragma once

#include <atomic>
#include <cstdint>
#include <jni.h>

// Callers between entry and return. `pagebuf` and the pipes outlive them.
extern std::atomic<int32_t> callersInside;
extern int32_t thread_timed_out; // 1 when the last request ran out of time; informational

// Hands the request to the worker and waits up to `qor_max_timeout` seconds. The reply, the time-out text, or
// null: for SHUTDOWN, an unsupported JVM, or when the worker can't be woken.
jstring QorDataFromNative(JNIEnv *env, jstring request);

// Lets no caller in any more and waits a few seconds for those inside, who get their reply as it stands.
// False, and open again, when one stays. Start-up, before it replaces what callers use; only while no worker
// lives.
bool QorCloseToCallers();

// Lets callers in again; what the earlier channel still owed is forgotten.
void QorOpenToCallers();
