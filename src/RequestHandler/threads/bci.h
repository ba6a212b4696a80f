// What the Java side's instrumentation says of the threads. Worker only.
#pragma once

#include <jni.h>

// Asks cJavaCall.datafrombci for the ids of the threads that do work and keeps them for the states of the
// sample (at most MAX_BCI_THREADS). Without the class, the method or an answer there are none. No exception
// stays pending.
void dataFromBCI(JNIEnv *env, int unused);
