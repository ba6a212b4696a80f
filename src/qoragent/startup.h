// Start-up: from the 22 arguments of `initvar` to a running worker.
//
// All of it runs on the Java thread that calls `initvar`, but for the road's choice, which has a thread of
// its own that is joined at once. A start while an earlier worker lives first makes that worker leave.
#pragma once

#include "settings_from_java.h"

#include <cstdint>
#include <jni.h>

// The whole start. A StartStatus for Java.
int32_t QorStart(JNIEnv *env, const QorStartArguments *arguments);
