// Texts taken from the application, made fit for a record.
//
// A value may hold anything: line ends, the characters that the record format and the merge of the Java
// side's answer cut at (14, 15, 26 to 31), a text cut inside a character, bytes that are no modified UTF-8
// and would make NewStringUTF eat what follows. Worker, but where said.
#pragma once

#include "qorStrUtils.h"

#include <cstdint>
#include <jni.h>

// The one reader of Java strings: a String's text in modified UTF-8 into `capacity` bytes (terminator
// included, at least 1), cut at a character, with the characters of a set (qorStrUtils.h) as blanks. Its
// length, or -1, with `dest` as it was, for a null or dead reference and where the text is unavailable. *cut,
// if given, says whether it was cut. No more of a long string is copied than fits. On the environment's
// thread.
int32_t QorReadString(JNIEnv *env, jstring str, char *dest, int32_t capacity, uint32_t blanked,
                      bool *cut = nullptr);

// The text in a range of a byte array, cut at a character and fit for a record: bytes of no known encoding.
// "" for a range that isn't one.
void QorReadByteText(jbyteArray bytes, int32_t offset, int32_t length, char *dest, int32_t capacity);
