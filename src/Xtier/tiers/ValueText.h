// Texts taken from the application, made fit for a record.
//
// A value may hold anything: line ends, the characters that the record format and the merge of the Java
// side's answer cut at (14, 15, 26 to 31), a text cut inside a character, bytes that are no modified UTF-8
// and would make NewStringUTF eat what follows. Any thread, but for the readers of Strings: worker.
#pragma once

#include "qorStrUtils.h"

#include <cstdint>
#include <jni.h>

// A String's text into `capacity` bytes (terminator included, at least 1), cut at a character; *cut tells
// whether it was. 0, or -1 for a dead reference; null or unread returns "". No more of a long string is
// copied than fits.
int32_t QorCopyStringText(jstring str, char *dest, int32_t capacity, bool *cut);

// The same, fit for a record.
int32_t QorReadValueText(jstring str, char *dest, int32_t capacity);

// The String in a field of an object, by the same rules. 0, or -1 with `dest` empty: no such field. A null
// string counts as found and returns "".
int32_t QorReadStringField(jobject object, const char *field, char *dest, int32_t capacity);

// The text in a range of a byte array, cut at a character and fit for a record: bytes of no known encoding.
// "" for a range that isn't one.
void QorReadByteText(jbyteArray bytes, int32_t offset, int32_t length, char *dest, int32_t capacity);

// Replaces what is secret in a URL by "***": the value of each property whose name ends in "password",
// "passwd", "pwd", "secret" or "token", and what follows the user before an "@". The text doesn't grow.
void QorHidePasswords(char *url);
