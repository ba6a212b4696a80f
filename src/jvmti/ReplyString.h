// A reply as a Java string. Any thread, with its own environment.
#pragma once

#include <jni.h>

// A Java string of a text in modified UTF-8, or UTF-8 without NUL: a local reference; null with no exception
// pending when the JVM has no memory for it. A long text of ASCII alone, as nearly every reply is, goes over
// as bytes, which the JVM takes by a block copy; NewStringUTF looks at each character twice, and that would
// be a third of a sample's time.
jstring QorNewReplyString(JNIEnv *env, const char *text);
