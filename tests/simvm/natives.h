// The agent's natives, as the JVM would bind them.
#pragma once

#include <jni.h>

extern "C" {
jstring Java_qoragent_Agent_dataFromNative(JNIEnv *, jobject, jstring);
jint Java_qoragent_Agent_initvar(JNIEnv *, jobject, jint, jint, jint, jint, jint, jstring, jstring, jstring,
                                 jobject, jobject, jobject, jobject, jstring, jobject, jstring, jstring, jint,
                                 jint, jint, jint, jint, jint);
jobjectArray Java_qoragent_Agent_getThreadObjects(JNIEnv *, jobject);
}
