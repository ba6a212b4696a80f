// The agent's way out of a running JVM.
#pragma once

#include <jni.h>

// Frees what the worker and the session hold, detaches the worker and clears `agentstatus`, so that a later
// start finds a clean agent. `env` is the worker's on the JVMTI road, null on the direct road, where the
// class references stay. The worker's last act: it returns from its thread function right after.
void exitAgent(JNIEnv *env);

// Drops the class references, the end-to-end list and the JVMTI session with the calling thread's
// environment.
void QorDropSession(JNIEnv *env);

// Takes `pagebuf` away from later callers and frees it once those inside have left. One that stays inside
// keeps the memory allocated until the next call. The worker's lists must be free to be taken.
void QorFreeReply();
