// Readers of one field of one Java object, by field name and signature.
//
// Each returns 0, or -1 with its output cleared. Object outputs are local references of the caller's frame.
// Names are single names: a chain is walked link by link by the caller. A missing field is an everyday answer
// and is not logged (but for the object readers, outside polls); any other failure is one log line.
//
// They are in the inner loop of a sample and cache nothing. Worker only, on the session's environment.
#pragma once

#include <cstdint>
#include <jni.h>

int32_t QorGetIntObjectField(jobject obj, const char *name, const char *signature, int32_t *out);
int32_t QorGetBooleanObjectField(jobject obj, const char *name, const char *signature, jboolean *out);
int32_t QorGetLongObjectField(jobject obj, const char *name, const char *signature, int64_t *out);
int32_t QorGetObjField(jobject obj, const char *name, const char *signature, jobject *out);

// A static field, of the class given or, when that is null, of the object's class. A null object returns -1.
int32_t QorGetObjectFromStaticField(jobject obj, jclass klass, const char *name, const char *signature,
                                    jobject *out); // nothing calls it

// An object field by pointers; *klassptr or the object's own class when klassptr is null. Always 0.
int32_t QorFindObjectField(jobject *objptr, jclass *klassptr, const char *name, const char *signature,
                           jobject *out); // nothing calls it

// A java.lang.String's text in modified UTF-8, cut at `capacity` bytes, terminator included. A null string
// returns 0 and leaves the buffer alone, so clear it first; -1 for a dead reference.
int32_t QorGetStringObjectValue(jstring str, char *dest, int32_t capacity); // nothing calls it

// The value of a text key in a java.util.Hashtable; null when it isn't there or while a thread holds the
// table's lock. Always 0.
int32_t QorGetHashValue(jobject *tableptr, const char *key, jobject *out);

// Walks a table of Strings, reading and releasing every key and value: a tool to try a table with, which
// yields nothing; the two further arguments are not read. 0, or -1 for a null pointer.
int32_t QorSearchHashTable(jobject *tableptr, const char *a, const char *b); // nothing calls it

// The signature of the object's class, such as "Ljava/lang/String;", into 1,024 bytes. A class that is not
// initialised leaves the buffer as it was and still returns 0.
int32_t QorGetObjectClassSignature(jobject obj, char *dest);
