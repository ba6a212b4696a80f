// The Java caller's side of a request.
//
// One request runs at a time. The Java side sees to that; callers of a host that doesn't wait for their turn
// here, which counts into their time. SHUTDOWN waits for nobody, and ends the wait of those who wait.
#pragma once

#include <cstdint>
#include <jni.h>

extern int32_t thread_timed_out; // 1 when the last request ran out of time; informational

// Hands the request to the worker and waits up to `qor_max_timeout` seconds. The reply, which is this
// request's and no other's; the time-out text; or null: for SHUTDOWN, an unsupported JVM, when the worker
// can't be woken, and for any request while a start is under way. A SHUTDOWN ends a start's wait for the
// application server; other than that it isn't heard either.
jstring QorDataFromNative(JNIEnv *env, jstring request);

// Lets no caller in any more and waits up to `seconds` for those inside. They get their reply from the
// worker; where none lives, they leave with null. False, and open again, when one stays. Start-up, before it
// replaces what callers use.
bool QorCloseToCallers(int32_t seconds);
void QorOpenToCallers();
