// The Java caller's side of a request.
//
// One caller at a time is assumed: the Java side declares the native synchronized. More of them overwrite
// each other's request and take each other's reply but harm nothing else. So a SHUTDOWN from Java waits for
// the request before it, for the time-out at most; one that gets past that lock ends the other's wait.
#pragma once

#include <atomic>
#include <cstdint>
#include <jni.h>

// Callers between entry and return. `pagebuf` and the pipes outlive them.
extern std::atomic<int32_t> callersInside;
extern int32_t thread_timed_out; // 1 when the last request ran out of time; informational

// Hands the request to the worker and waits up to `qor_max_timeout` seconds. The reply, the time-out text, or
// null: for SHUTDOWN, an unsupported JVM, when the worker can't be woken, and for any request, SHUTDOWN
// included, while a start is under way.
jstring QorDataFromNative(JNIEnv *env, jstring request);

// Lets no caller in any more and waits a few seconds for those inside. They get their reply from the worker;
// where none lives, they leave with the reply as it stands. False, and open again, when one stays. Start-up,
// before it replaces what callers use.
bool QorCloseToCallers();
void QorOpenToCallers();
